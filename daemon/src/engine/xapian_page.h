// The match of a search plan: the exact total and the page of hits in
// order, each with its record copy (xapian_record.h) when the match handed
// it over.  Over shards on other machines a sort on several keys, which
// the network protocol cannot carry, is finished here: the shards sort by
// the first key, and the hits tied on its last value are fetched in full.
#ifndef ZARND_XAPIAN_PAGE_H
#define ZARND_XAPIAN_PAGE_H

#include <memory>
#include <string>
#include <vector>

#include <xapian.h>

#include "engine.h"

namespace zarnd {
namespace xap {

// Hits that may tie on the first of several sort keys over remote shards.
constexpr Xapian::doccount kMaxTiedHits = 50000;

struct PageHit {
    Xapian::docid id;
    std::string record;  // "" when the match did not hand it over
};

// What searches read of an index once per opening, and again only when a
// commit may have changed it, rather than once per search: over the network
// each read is a round trip to every shard.
struct IndexFacts {
    std::string language;                   // LanguageOf
    std::vector<std::string> restrictions;  // every restriction term of the index
};
IndexFacts ReadIndexFacts(const Xapian::Database &db);

class Page {
public:
    // `db`: the whole index over `shards` databases; `remote`: one of them
    // is served over the network; `facts`: the index's, as they are now.
    // `records`: every hit needs its record.
    Page(const Xapian::Database &db, size_t shards, bool remote, const IndexFacts &facts, const SearchPlan &plan,
         bool records);

    uint64_t total = 0;
    std::vector<PageHit> hits;
    Xapian::Stem stemmer;  // of the index's language, for highlights too
    Xapian::Query query;
    Xapian::MSet mset;  // of the match that ran first, for highlights

private:
    void Merge(const Xapian::Database &db, size_t shards, const SearchPlan &plan);

    Xapian::Enquire enquire_;
    std::unique_ptr<Xapian::MultiValueKeyMaker> maker_;
};

// The records of documents `ids` of `db` over `shards` databases, by id,
// from one match: their documents would take a message each.  `slot`:
// kRecordSlot, or kHitSlot for their hit values.
std::map<Xapian::docid, std::string> RecordsOf(const Xapian::Database &db, size_t shards,
                                               const std::vector<Xapian::docid> &ids, Xapian::valueno slot);

}  // namespace xap
}  // namespace zarnd

#endif  // ZARND_XAPIAN_PAGE_H

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

class Page {
public:
    // `db`: the whole index over `shards` databases; `remote`: one of them
    // is served over the network; `language`: the index's (LanguageOf).
    // `records`: every hit needs its record.
    Page(const Xapian::Database &db, size_t shards, bool remote, const std::string &language, const SearchPlan &plan,
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
// from one match: their documents would take a message each.
std::map<Xapian::docid, std::string> RecordsOf(const Xapian::Database &db, size_t shards,
                                               const std::vector<Xapian::docid> &ids);

}  // namespace xap
}  // namespace zarnd

#endif  // ZARND_XAPIAN_PAGE_H

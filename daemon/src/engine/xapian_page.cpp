#include "xapian_page.h"

#include <algorithm>
#include <map>

#include "failure.h"
#include "schema.h"
#include "xapian_document.h"
#include "xapian_layout.h"
#include "xapian_query.h"
#include "xapian_record.h"
#include "xapian_shards.h"
#include "xapian_sort.h"
#include "xapian_terms.h"

namespace zarnd {
namespace xap {

namespace {

// The documents that `user` may not read: those holding a restriction term
// that the user does not pass.  Restrictions are few (owners, groups and
// modes in use), so the filter is a short list of terms whose posting lists
// do the work.  An empty query when nothing is hidden.
Xapian::Query HiddenFrom(const std::vector<std::string> &restrictions, const Credentials &user) {
    std::vector<std::string> hidden;
    Restriction restriction;
    for (const std::string &term : restrictions)
        if (!ParseRestrictionTerm(term, &restriction) || !Passes(user, restriction)) hidden.push_back(term);
    return Xapian::Query(Xapian::Query::OP_OR, hidden.begin(), hidden.end());
}

// A hit of a merge: the keys' sort key, then relevance, then id, as the
// engine orders a sort on several keys.
struct Candidate {
    Xapian::docid id;
    double weight;
    std::string record;
    std::string key;

    bool operator<(const Candidate &other) const {
        if (key != other.key) return key < other.key;
        if (weight != other.weight) return weight > other.weight;
        return id < other.id;
    }
};

// The documents of `query` whose value in `slot` is `value` (none, for "").
Xapian::Query WithValue(const Xapian::Query &query, Xapian::valueno slot, const std::string &value) {
    if (value.empty())
        return Xapian::Query(Xapian::Query::OP_AND_NOT, query,
                             Xapian::Query(Xapian::Query::OP_VALUE_GE, slot, std::string(1, '\0')));
    return Xapian::Query(Xapian::Query::OP_FILTER, query, Xapian::Query(Xapian::Query::OP_VALUE_RANGE, slot, value, value));
}

Xapian::valueno PathSlot() {
    static const Xapian::valueno slot = FindLayout(field::kPath)->slot;
    return slot;
}

// The records of documents `ids` of a local `db`, in one pass along the
// slot's values rather than a look-up each.
std::map<Xapian::docid, std::string> LocalRecords(const Xapian::Database &db, std::vector<Xapian::docid> ids) {
    std::sort(ids.begin(), ids.end());
    std::map<Xapian::docid, std::string> found;
    Xapian::ValueIterator value = db.valuestream_begin(kRecordSlot);
    for (Xapian::docid id : ids) {
        value.skip_to(id);
        if (value == db.valuestream_end(kRecordSlot)) break;
        if (value.get_docid() == id) found[id] = *value;
    }
    return found;
}

}  // namespace

IndexFacts ReadIndexFacts(const Xapian::Database &db) {
    IndexFacts facts;
    facts.language = LanguageOf(db);
    for (Xapian::TermIterator t = db.allterms_begin(kRestrictionPrefix); t != db.allterms_end(kRestrictionPrefix); ++t)
        facts.restrictions.push_back(*t);
    return facts;
}

Page::Page(const Xapian::Database &db, size_t shards, bool remote, const IndexFacts &facts, const SearchPlan &plan,
           bool records)
    : enquire_(db) {
    StemmerFor(facts.language, &stemmer);
    query = ParseQuery(plan.query, db, stemmer, plan.sort.empty());
    if (plan.reader != nullptr && plan.reader->uid != 0) {
        const Xapian::Query hidden = HiddenFrom(facts.restrictions, *plan.reader);
        if (!hidden.empty()) query = Xapian::Query(Xapian::Query::OP_AND_NOT, query, hidden);
    }
    enquire_.set_query(query);
    // The network protocol carries no sort function, only a slot.
    const bool merge = remote && plan.sort.size() > 1;
    SetSortOrder(merge ? std::vector<SortKey>(1, plan.sort[0]) : plan.sort, &enquire_, &maker_);
    // Ties in relevance go by path.  Over the network each hit's sort key
    // carries its hit value, or its record when a hit needs more, both of
    // which begin with the path; a local match reads the short path
    // instead, and then only the page's records.
    const bool whole_records = records && !HitCarriesAll(plan.fields);
    if (plan.sort.empty())
        enquire_.set_sort_by_relevance_then_value(!remote ? PathSlot() : whole_records ? kRecordSlot : kHitSlot, false);
    // Checking every document makes the count exact, not an estimate.  (No
    // match time limit: Xapian 1.4.22's timer may write into a match that
    // has returned.)
    mset = merge ? enquire_.get_mset(0, plan.from + plan.size, db.get_doccount())
                 : enquire_.get_mset(plan.from, plan.size, db.get_doccount());
    if (mset.get_matches_lower_bound() != mset.get_matches_upper_bound())
        throw Failure(kInternal, "the engine counted the matches inexactly");
    total = mset.get_matches_estimated();
    if (merge) {
        Merge(db, shards, plan);
        return;
    }
    for (Xapian::MSetIterator it = mset.begin(); it != mset.end(); ++it)
        hits.push_back({*it, plan.sort.empty() && remote ? it.get_sort_key() : std::string()});
    if (!records || (remote && plan.sort.empty())) return;
    std::vector<Xapian::docid> ids(mset.begin(), mset.end());
    std::map<Xapian::docid, std::string> found = remote ? RecordsOf(db, shards, ids, whole_records ? kRecordSlot : kHitSlot)
                                                        : LocalRecords(db, std::move(ids));
    for (PageHit &hit : hits) hit.record = std::move(found[hit.id]);
}

// The shards' match gave the first from+size hits by the first key.  Those
// before the last one's value of that key are all there; those at that
// value may go on beyond: they are fetched in full.  The candidates are
// then sorted by every key, as the engine would, from their records.
void Page::Merge(const Xapian::Database &db, size_t shards, const SearchPlan &plan) {
    const bool full = mset.size() == plan.from + plan.size && !mset.empty();
    const std::string last = full ? (--mset.end()).get_sort_key() : std::string();
    std::vector<Candidate> candidates;
    std::vector<Xapian::docid> ids;
    for (Xapian::MSetIterator it = mset.begin(); it != mset.end(); ++it)
        if (!full || it.get_sort_key() != last) {
            candidates.push_back({*it, it.get_weight(), std::string(), std::string()});
            ids.push_back(*it);
        }
    std::map<Xapian::docid, std::string> found = RecordsOf(db, shards, ids, kRecordSlot);
    for (Candidate &candidate : candidates) candidate.record = std::move(found[candidate.id]);
    if (full) {
        Xapian::Enquire tied(db);
        tied.set_query(WithValue(query, FirstSlot(plan.sort), last));
        tied.set_sort_by_value_then_relevance(kRecordSlot, false);  // records as sort keys; weights kept
        const Xapian::MSet group = tied.get_mset(0, kMaxTiedHits + 1, db.get_doccount());
        if (group.size() > kMaxTiedHits)
            throw Failure(kBadRequest, "more than " + std::to_string(kMaxTiedHits) +
                                           " hits tie on the first sort key: an index with shards on other machines "
                                           "cannot sort them by the next keys");
        for (Xapian::MSetIterator it = group.begin(); it != group.end(); ++it)
            candidates.push_back({*it, it.get_weight(), it.get_sort_key(), std::string()});
    }
    const std::unique_ptr<Xapian::MultiValueKeyMaker> maker = KeyMakerOf(plan.sort);
    for (Candidate &candidate : candidates) {
        Json::Value fields;
        if (!DecodeRecordValue(candidate.record, nullptr, nullptr, &fields))
            throw Failure(kInternal, "the index holds a document without its record: run zarnelasticd index");
        candidate.key = (*maker)(SortValues(fields));
    }
    const size_t end = std::min<size_t>(candidates.size(), plan.from + plan.size);
    if (plan.from >= end) return;
    std::partial_sort(candidates.begin(), candidates.begin() + end, candidates.end());
    for (size_t k = plan.from; k < end; ++k) hits.push_back({candidates[k].id, std::move(candidates[k].record)});
}

std::map<Xapian::docid, std::string> RecordsOf(const Xapian::Database &db, size_t shards,
                                               const std::vector<Xapian::docid> &ids, Xapian::valueno slot) {
    std::vector<std::string> terms;
    for (Xapian::docid id : ids) {
        size_t shard = 0;
        Xapian::docid local = 0;
        SplitId(id, shards, &shard, &local);
        terms.push_back(DocIdTerm(local));
    }
    std::map<Xapian::docid, std::string> records;
    if (terms.empty()) return records;
    std::sort(terms.begin(), terms.end());
    terms.erase(std::unique(terms.begin(), terms.end()), terms.end());
    Xapian::Enquire enquire(db);
    enquire.set_query(Xapian::Query(Xapian::Query::OP_OR, terms.begin(), terms.end()));
    enquire.set_weighting_scheme(Xapian::BoolWeight());
    enquire.set_sort_by_value(slot, false);
    // Each shard may hold every one of the ids.
    const Xapian::MSet found = enquire.get_mset(0, static_cast<Xapian::doccount>(terms.size() * shards));
    for (Xapian::MSetIterator it = found.begin(); it != found.end(); ++it) records[*it] = it.get_sort_key();
    return records;
}

}  // namespace xap
}  // namespace zarnd

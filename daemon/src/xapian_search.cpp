// SearchIndex on a Xapian database.
#include <algorithm>
#include <memory>

#include <xapian.h>

#include "engine.h"
#include "failure.h"
#include "fragment.h"
#include "schema.h"
#include "xapian_document.h"
#include "xapian_layout.h"
#include "xapian_query.h"
#include "xapian_sort.h"

namespace zarnd {

namespace {

// Keeps only documents the user may read, inside the match, so that the
// total counts permitted hits only.
class PermissionDecider : public Xapian::MatchDecider {
public:
    explicit PermissionDecider(const Credentials &user) : user_(user) {}
    bool operator()(const Xapian::Document &doc) const override {
        return MayRead(user_, doc.get_value(xap::kAccessSlot));
    }

private:
    const Credentials &user_;
};

// The match of a plan: the page of hits and the exact total.
struct Match {
    Match(Xapian::Database &db, const SearchPlan &plan) : enquire(db) {
        enquire.set_query(xap::ParseQuery(plan.query, db));
        if (!plan.sort.empty()) {
            sorter.reset(new xap::SortKeyMaker(plan.sort));
            enquire.set_sort_by_key_then_relevance(sorter.get(), false);
        }
        if (plan.reader != nullptr && plan.reader->uid != 0) decider.reset(new PermissionDecider(*plan.reader));
        if (plan.time_budget_s > 0) enquire.set_time_limit(plan.time_budget_s);
        // Checking every document makes the count exact, not an estimate.
        mset = enquire.get_mset(plan.from, plan.size, db.get_doccount(), nullptr, decider.get());
        if (mset.get_matches_lower_bound() != mset.get_matches_upper_bound())
            throw Failure(kBusy, "search took too long");
    }

    Xapian::Enquire enquire;
    std::unique_ptr<xap::SortKeyMaker> sorter;
    std::unique_ptr<PermissionDecider> decider;
    Xapian::MSet mset;
};

// A writer may commit while a search reads; the reader then reopens and runs
// the search again, as long as nothing has been handed out yet.  Hits are
// read one at a time as they go out, so memory stays at one document.
constexpr int kSearchAttempts = 3;

class XapianSearchIndex : public SearchIndex {
public:
    explicit XapianSearchIndex(const std::string &dir) : db_(dir) {}

    void Search(const SearchPlan &plan, const std::function<void(uint64_t)> &on_total,
                const std::function<bool(const Hit &)> &on_hit) override {
        bool started = false;
        for (int attempt = 1;; ++attempt) {
            try {
                Run(plan, on_total, on_hit, &started);
                return;
            } catch (const Xapian::DatabaseModifiedError &e) {
                if (started || attempt == kSearchAttempts)
                    throw Failure(kInternal, "index changed during the search: " + e.get_msg());
                db_.reopen();
            } catch (const Xapian::Error &e) {
                throw Failure(kInternal, e.get_description());
            }
        }
    }

    uint64_t PageIds(const SearchPlan &plan, std::vector<uint32_t> *ids) override {
        try {
            Match match(db_, plan);
            ids->clear();
            for (Xapian::MSetIterator it = match.mset.begin(); it != match.mset.end(); ++it) ids->push_back(*it);
            return match.mset.get_matches_estimated();
        } catch (const Xapian::Error &e) {
            throw Failure(kInternal, e.get_description());
        }
    }

    bool Fetch(uint32_t doc_id, Json::Value *fields, std::string *access) override {
        if (doc_id == 0) return false;
        for (int attempt = 1;; ++attempt) {
            try {
                const Xapian::Document doc = db_.get_document(doc_id);
                *access = doc.get_value(xap::kAccessSlot);
                return xap::DecodeData(doc.get_data(), true, fields);
            } catch (const Xapian::DocNotFoundError &) {
                return false;
            } catch (const Xapian::DatabaseModifiedError &e) {
                if (attempt == kSearchAttempts) throw Failure(kInternal, e.get_description());
                db_.reopen();
            } catch (const Xapian::Error &e) {
                throw Failure(kInternal, e.get_description());
            }
        }
    }

private:
    void Run(const SearchPlan &plan, const std::function<void(uint64_t)> &on_total,
             const std::function<bool(const Hit &)> &on_hit, bool *started) {
        Match match(db_, plan);
        *started = true;
        on_total(match.mset.get_matches_estimated());
        for (Xapian::MSetIterator it = match.mset.begin(); it != match.mset.end(); ++it)
            if (!on_hit(MakeHit(match.mset, it, plan))) return;
    }

    static Hit MakeHit(const Xapian::MSet &mset, const Xapian::MSetIterator &it,
                       const SearchPlan &plan) {
        Hit hit;
        hit.doc_id = *it;
        Json::Value stored;
        if (!xap::DecodeData(it.get_document().get_data(), NeedsText(plan), &stored))
            stored = Json::Value(Json::objectValue);
        hit.fields = Json::Value(Json::objectValue);
        for (const std::string &name : plan.fields)
            if (stored.isMember(name)) hit.fields[name] = stored[name];
        for (const HighlightRequest &request : plan.highlight) {
            const Json::Value &text = stored[request.field];
            if (!text.isString()) continue;
            const std::string fragment = CutFragment(
                mset.snippet(text.asString(), request.frag_length, Xapian::Stem(),
                             Xapian::MSet::SNIPPET_EMPTY_WITHOUT_MATCH | xap::kTermFlags,
                             kHighlightStart, kHighlightEnd, "\xE2\x80\xA6"),
                request.frag_length);
            if (!fragment.empty()) hit.highlight[request.field] = fragment;
        }
        return hit;
    }

    static bool NeedsText(const SearchPlan &plan) {
        return !plan.highlight.empty() ||
               std::find(plan.fields.begin(), plan.fields.end(), field::kTextContent) != plan.fields.end();
    }

    Xapian::Database db_;
};

}  // namespace

std::unique_ptr<SearchIndex> OpenSearchIndex(const std::string &dir) {
    try {
        return std::unique_ptr<SearchIndex>(new XapianSearchIndex(dir));
    } catch (const Xapian::DatabaseOpeningError &e) {
        throw Failure(kNotFound, "no index in " + dir);
    } catch (const Xapian::Error &e) {
        throw Failure(kInternal, e.get_description());
    }
}

}  // namespace zarnd

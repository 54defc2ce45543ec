// SearchIndex on a Xapian database.
#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <memory>

#include <xapian.h>

#include "engine.h"
#include "failure.h"
#include "fragment.h"
#include "schema.h"
#include "xapian_document.h"
#include "xapian_highlight.h"
#include "xapian_layout.h"
#include "xapian_open.h"
#include "xapian_query.h"
#include "xapian_shards.h"
#include "xapian_sort.h"

namespace zarnd {

namespace {

// A share's index as open for searching: the database that a match runs
// on, and each shard's own (the same one when the index has no shards),
// where the documents' text is read.
struct OpenIndex {
    Xapian::Database db;
    std::vector<Xapian::Database> shards;
    bool remote = false;  // a shard is served over the network
    ino_t stub = 0;       // the inode of the stub it was opened through; 0: none

    xap::TextSource TextOf(Xapian::docid doc_id) const {
        size_t shard = 0;
        Xapian::docid local = doc_id;
        xap::SplitId(doc_id, shards.size(), &shard, &local);
        return {&shards[shard], local};
    }
};

// A network failure of a shard, as the reply names it.
Failure Unavailable(const Xapian::Error &e) {
    const std::string shard = xap::ShardOfError(e);
    return Failure(kBusy, (shard.empty() ? std::string("a shard") : "shard " + shard) + " is unavailable: " + e.get_msg());
}

// The index is current when each shard is of this format and holds the
// shard of the layout that its place in the stub says; an empty one too.
void CheckShards(const OpenIndex &index, const std::vector<xap::Shard> &layout) {
    for (size_t k = 0; k < index.shards.size(); ++k) {
        const Xapian::Database &shard = index.shards[k];
        if (shard.get_doccount() == 0) continue;
        if (shard.get_metadata(xap::kFormatKey) != xap::kFormat)
            throw Failure(kBusy, "the index has an older format: run zarnelasticd index to rebuild it");
        if (!layout.empty() && shard.get_metadata(xap::kShardKey) != xap::ShardMark(k, layout.size()))
            throw Failure(kInternal, "shard " + layout[k].Name() + " holds another index than its place in the shard list says");
    }
}

// Opens the index of `dir`, as its stub says.
OpenIndex OpenIndexOf(const std::string &dir, ino_t stub, const EngineOptions &options) {
    OpenIndex index;
    index.stub = stub;
    std::vector<xap::Shard> layout;
    if (!xap::ReadShards(dir, &layout)) {
        index.db = Xapian::Database(dir);
        index.shards.push_back(index.db);
    }
    for (const xap::Shard &shard : layout) {
        try {
            index.shards.push_back(xap::OpenShard(shard, options.shard_timeout_ms));
        } catch (const Xapian::NetworkError &e) {
            throw Failure(kBusy, "shard " + shard.Name() + " is unavailable: " + e.get_msg());
        }
        index.db.add_database(index.shards.back());
        index.remote = index.remote || shard.remote();
    }
    CheckShards(index, layout);
    return index;
}

// Open indexes by directory, kept per thread: a Xapian::Database must not
// be shared between threads, and opening one costs more than a small
// search.  Each use reopens it at the latest commit.
class OpenDatabases {
public:
    static OpenIndex &Get(const std::string &dir, const EngineOptions &options) { return Mine().Find(dir, options); }

    // Forgets `dir` so that its next Get opens it anew.
    static void Drop(const std::string &dir) { Mine().open_.erase(dir); }

private:
    static OpenDatabases &Mine() {
        thread_local OpenDatabases cache;
        return cache;
    }

    static constexpr size_t kMaxOpen = 16;

    OpenIndex &Find(const std::string &dir, const EngineOptions &options) {
        // What the directory holds now, asked each time: an index removed
        // or rewritten since stays open through the files of its time.
        struct stat st;
        ino_t current = 0;
        if (stat((dir + "/" + xap::kStubFile).c_str(), &st) == 0)
            current = st.st_ino;
        else if (stat((dir + "/" + xap::kPlainDatabaseFile).c_str(), &st) != 0) {
            open_.erase(dir);
            throw Failure(kNotFound, "no index in " + dir);
        }
        auto it = open_.find(dir);
        if (it != open_.end() && it->second.stub == current) {
            try {
                it->second.db.reopen();
                return it->second;
            } catch (const Xapian::NetworkTimeoutError &e) {
                open_.erase(it);
                throw Unavailable(e);  // a shard that does not answer: no second wait
            } catch (const Xapian::Error &) {
                // A connection that a shard closed while idle: open it afresh below.
            }
        }
        if (it != open_.end()) open_.erase(it);
        if (open_.size() >= kMaxOpen) open_.erase(open_.begin());
        try {
            return open_.emplace(dir, OpenIndexOf(dir, current, options)).first->second;
        } catch (const Xapian::DatabaseOpeningError &) {
            throw Failure(kNotFound, "no index in " + dir);
        }
    }

    std::map<std::string, OpenIndex> open_;
};

// The documents that `user` may not read: those holding a restriction term
// that the user does not pass.  Restrictions are few (owners, groups and
// modes in use), so the filter is a short list of terms whose posting lists
// do the work.  An empty query when nothing is hidden.
Xapian::Query HiddenFrom(const Xapian::Database &db, const Credentials &user) {
    std::vector<std::string> hidden;
    Restriction restriction;
    for (Xapian::TermIterator t = db.allterms_begin(xap::kRestrictionPrefix);
         t != db.allterms_end(xap::kRestrictionPrefix); ++t)
        if (!xap::ParseRestrictionTerm(*t, &restriction) || !Passes(user, restriction)) hidden.push_back(*t);
    return Xapian::Query(Xapian::Query::OP_OR, hidden.begin(), hidden.end());
}

// The match of a plan: the page of hits and the exact total.
struct Match {
    Match(const OpenIndex &index, const SearchPlan &plan) : enquire(index.db) {
        const Xapian::Database &db = index.db;
        query = xap::ParseQuery(plan.query, db);
        if (plan.reader != nullptr && plan.reader->uid != 0) {
            const Xapian::Query hidden = HiddenFrom(db, *plan.reader);
            if (!hidden.empty()) query = Xapian::Query(Xapian::Query::OP_AND_NOT, query, hidden);
        }
        enquire.set_query(query);
        // The network protocol carries no sort function, only a slot.
        if (index.remote && plan.sort.size() > 1)
            throw Failure(kBadRequest, "an index with shards on other machines sorts by one key only");
        xap::SetSortOrder(plan.sort, &enquire, &maker);
        // Checking every document makes the count exact, not an estimate.
        // (No match time limit: Xapian 1.4.22's timer may write into a match
        // that has returned.)
        mset = enquire.get_mset(plan.from, plan.size, db.get_doccount());
        if (mset.get_matches_lower_bound() != mset.get_matches_upper_bound())
            throw Failure(kInternal, "the engine counted the matches inexactly");
    }

    Xapian::Enquire enquire;
    Xapian::Query query;
    std::unique_ptr<Xapian::MultiValueKeyMaker> maker;
    Xapian::MSet mset;
};

// A writer may commit while a search reads; the reader then reopens and runs
// the search again, as long as nothing has been handed out yet.  Hits are
// read one at a time as they go out, so memory stays at one document.
constexpr int kSearchAttempts = 3;

class XapianSearchIndex : public SearchIndex {
public:
    XapianSearchIndex(const std::string &dir, const EngineOptions &options) : dir_(dir), options_(options) {}

    void Search(const SearchPlan &plan, const std::function<void(uint64_t)> &on_total,
                const std::function<bool(const Hit &)> &on_hit) override {
        bool started = false;
        Retry([&](const OpenIndex &index) {
            if (started) throw Failure(kInternal, "index changed during the search");
            const Match match(index, plan);
            started = true;
            on_total(match.mset.get_matches_estimated());
            for (Xapian::MSetIterator it = match.mset.begin(); it != match.mset.end(); ++it)
                if (!on_hit(MakeHit(index, match, it, plan))) return;
        });
    }

    uint64_t PageIds(const SearchPlan &plan, std::vector<uint32_t> *ids) override {
        uint64_t total = 0;
        Retry([&](const OpenIndex &index) {
            const Match match(index, plan);
            ids->assign(match.mset.begin(), match.mset.end());
            total = match.mset.get_matches_estimated();
        });
        return total;
    }

    bool Fetch(uint32_t doc_id, Json::Value *fields, std::string *access) override {
        if (doc_id == 0) return false;
        bool found = false;
        Retry([&](const OpenIndex &index) {
            try {
                const Xapian::Document doc = index.db.get_document(doc_id);
                *access = doc.get_value(xap::kAccessSlot);
                found = xap::DecodeData(doc.get_data(), fields);
                std::string text;
                if (found && xap::ReadTextStart(index.TextOf(doc_id), doc, &text)) (*fields)[field::kTextContent] = text;
            } catch (const Xapian::DocNotFoundError &) {
                found = false;
            }
        });
        return found;
    }

private:
    // Runs `action` on the open database, again on a fresh one when a commit
    // or a rebuild overtook it.
    template <class F>
    void Retry(F action) {
        for (int attempt = 1;; ++attempt) {
            try {
                action(OpenDatabases::Get(dir_, options_));
                return;
            } catch (const Xapian::DatabaseModifiedError &e) {
                if (attempt == kSearchAttempts) throw Failure(kInternal, "index changed during the search: " + e.get_msg());
                OpenDatabases::Drop(dir_);
            } catch (const Xapian::NetworkError &e) {
                OpenDatabases::Drop(dir_);
                throw Unavailable(e);
            } catch (const Xapian::Error &e) {
                OpenDatabases::Drop(dir_);
                throw Failure(kInternal, e.get_description());
            }
        }
    }

    static Hit MakeHit(const OpenIndex &index, const Match &match, const Xapian::MSetIterator &it,
                       const SearchPlan &plan) {
        Hit hit;
        hit.doc_id = *it;
        const Xapian::Document doc = it.get_document();
        Json::Value stored;
        if (!xap::DecodeData(doc.get_data(), &stored)) stored = Json::Value(Json::objectValue);
        hit.fields = Json::Value(Json::objectValue);
        for (const std::string &name : plan.fields) {
            std::string text;
            if (name == field::kTextContent) {
                if (xap::ReadTextStart(index.TextOf(hit.doc_id), doc, &text)) hit.fields[name] = text;
            } else if (stored.isMember(name)) {
                hit.fields[name] = stored[name];
            }
        }
        for (const HighlightRequest &request : plan.highlight) {
            std::string fragment;
            if (request.field == field::kTextContent)
                fragment = xap::HighlightText(match.mset, index.db, hit.doc_id, doc, index.TextOf(hit.doc_id), match.query,
                                             request.frag_length);
            else if (stored[request.field].isString())
                fragment = xap::HighlightField(match.mset, stored[request.field].asString(), request.frag_length);
            fragment = CutFragment(fragment, request.frag_length);
            if (!fragment.empty()) hit.highlight[request.field] = fragment;
        }
        return hit;
    }

    const std::string dir_;
    const EngineOptions options_;
};

}  // namespace

namespace xap {

std::unique_ptr<SearchIndex> NewSearchIndex(const std::string &dir, const EngineOptions &options) {
    return std::unique_ptr<SearchIndex>(new XapianSearchIndex(dir, options));
}

}  // namespace xap

}  // namespace zarnd

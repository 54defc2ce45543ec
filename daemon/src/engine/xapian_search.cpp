// SearchIndex on a Xapian database.
#include <sys/stat.h>

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <set>

#include <xapian.h>

#include "engine.h"
#include "failure.h"
#include "fragment.h"
#include "schema.h"
#include "xapian_document.h"
#include "xapian_highlight.h"
#include "xapian_index_lock.h"
#include "xapian_layout.h"
#include "xapian_open.h"
#include "xapian_page.h"
#include "xapian_record.h"
#include "xapian_shards.h"

namespace zarnd {

namespace {

// What identifies a stub file: a new stub is a new file.  The change time
// tells apart two stubs that had the same inode in turn.
struct StubId {
    dev_t dev = 0;
    ino_t ino = 0;
    struct timespec changed = {0, 0};

    bool operator==(const StubId &other) const {
        return dev == other.dev && ino == other.ino && changed.tv_sec == other.changed.tv_sec &&
               changed.tv_nsec == other.changed.tv_nsec;
    }
};

// The stub of `dir` as it is now; false when `dir` holds no stub.
bool ReadStubId(const std::string &dir, StubId *id) {
    struct stat st;
    if (stat((dir + "/" + xap::kStubFile).c_str(), &st) != 0) return false;
    *id = {st.st_dev, st.st_ino, st.st_ctim};
    return true;
}

// A share's index as open for searching: the database that a match runs
// on, and each shard's own (the same one when the index has no shards),
// where the documents' text is read.
struct OpenIndex {
    std::string dir;
    Xapian::Database db;
    std::vector<Xapian::Database> shards;
    bool remote = false;  // a shard is served over the network
    bool has_stub = false;
    StubId stub;  // of the stub it was opened through
    std::vector<std::string> copies;  // the copies of shards that serve it
    std::chrono::steady_clock::time_point opened = std::chrono::steady_clock::now();
    bool on_replica = false;  // a replica serves in place of its shard's first copy
    xap::IndexFacts facts;

    xap::TextSource TextOf(Xapian::docid doc_id) const {
        size_t shard = 0;
        Xapian::docid local = doc_id;
        xap::SplitId(doc_id, shards.size(), &shard, &local);
        return {&shards[shard], local};
    }

    // Whether the stub still names what this was opened from.
    bool Current() const {
        StubId now;
        const bool stub_now = ReadStubId(dir, &now);
        return stub_now == has_stub && (!stub_now || now == stub);
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

// Opens the index of `dir`, as its stub says, each shard through the first
// of its copies that answers, none of those in `failed`.
std::unique_ptr<OpenIndex> OpenIndexOf(const std::string &dir, const EngineOptions &options,
                                       std::set<std::string> *failed) {
    std::unique_ptr<OpenIndex> index(new OpenIndex);
    index->dir = dir;
    std::vector<xap::Shard> layout;
    {
        // From reading the stub until the files it names are open, no writer
        // removes them; the id read first may be older than the stub that
        // the engine reads, which costs one more opening later, never a
        // stale index.
        xap::OpeningLock opening(dir);
        index->has_stub = ReadStubId(dir, &index->stub);
        struct stat st;
        if (!index->has_stub && stat((dir + "/" + xap::kPlainDatabaseFile).c_str(), &st) != 0)
            throw Failure(kNotFound, "no index in " + dir);
        if (!xap::ReadShards(dir, &layout)) {
            try {
                index->db = Xapian::Database(dir);
            } catch (const Xapian::DatabaseOpeningError &) {
                throw Failure(kNotFound, "no index in " + dir);
            }
            index->shards.push_back(index->db);
        }
    }
    for (const xap::Shard &shard : layout) {
        std::string served;
        index->shards.push_back(xap::OpenShardCopy(shard, options.shard_timeout_ms, failed, &served));
        index->copies.push_back(served);
        index->on_replica = index->on_replica || served != shard.Name();
        index->db.add_database(index->shards.back());
        index->remote = index->remote || shard.remote();
    }
    CheckShards(*index, layout);
    index->facts = xap::ReadIndexFacts(index->db);
    return index;
}

// Open indexes, shared by the worker threads: a search takes one for its
// own use (a Xapian::Database must not be used by two threads at once) and
// gives it back, for opening one costs more than a small search.  One whose
// stub has changed is closed instead of used, and Release closes those that
// wait unused, so that no idle worker keeps a retired generation's files.
class OpenDatabases {
public:
    static OpenDatabases &Shared() {
        static OpenDatabases *const shared = new OpenDatabases;  // used until the very end
        return *shared;
    }

    // An index of `dir`, at its latest commit.  `failed`: the copies of
    // shards that failed during this search.
    std::unique_ptr<OpenIndex> Take(const std::string &dir, const EngineOptions &options, std::set<std::string> *failed) {
        std::unique_ptr<OpenIndex> index;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            auto it = idle_.find(dir);
            if (it != idle_.end()) {
                index = std::move(it->second);
                idle_.erase(it);
            }
        }
        if (index && index->Current() && !Stale(*index)) {
            try {
                if (index->db.reopen()) index->facts = xap::ReadIndexFacts(index->db);
                return index;
            } catch (const Xapian::NetworkTimeoutError &e) {
                // A copy that does not answer: no second wait for it in this
                // search; another copy of its shard may serve.
                const std::string copy = xap::ShardOfError(e);
                if (copy.empty()) throw Unavailable(e);
                failed->insert(copy);
                xap::NoteCopyFailed(copy, e.get_msg());
            } catch (const Xapian::Error &) {
                // A connection that a shard closed while idle, or a generation
                // retired meanwhile: open it afresh below.
            }
        }
        index.reset();
        return OpenIndexOf(dir, options, failed);
    }

    void Give(std::unique_ptr<OpenIndex> index) {
        std::unique_ptr<OpenIndex> dropped;  // closed outside the lock
        std::lock_guard<std::mutex> lock(mutex_);
        if (idle_.size() >= kMaxIdle) {
            dropped = std::move(idle_.begin()->second);
            idle_.erase(idle_.begin());
        }
        idle_.emplace(index->dir, std::move(index));
    }

    void Release() {
        std::vector<std::unique_ptr<OpenIndex>> dropped;
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto it = idle_.begin(); it != idle_.end();) {
            if (it->second->Current()) {
                ++it;
            } else {
                dropped.push_back(std::move(it->second));
                it = idle_.erase(it);
            }
        }
    }

private:
    // Enough for each worker to keep an index of each of a few shares.
    static constexpr size_t kMaxIdle = 64;

    // An index opened on a copy that failed since (found by another thread:
    // this one need not wait for it too), or on a replica for a while
    // (replicas lag: the first copy may be back).
    static bool Stale(const OpenIndex &index) {
        const auto now = std::chrono::steady_clock::now();
        return xap::FailedSince(index.copies, index.opened) ||
               (index.on_replica && now - index.opened > std::chrono::seconds(xap::kBackToFirstCopyS));
    }

    std::mutex mutex_;
    std::multimap<std::string, std::unique_ptr<OpenIndex>> idle_;
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
        // A search that meets a failed copy of a shard after hits went out
        // goes on with another copy, past the hits sent: the same match on
        // the same documents, as the total and the ids sent so far show.
        bool started = false;
        uint64_t total = 0;
        std::vector<Xapian::docid> sent;
        const bool carried = plan.highlight.empty() && xap::CarriesAll(plan.fields);
        Retry([&](const OpenIndex &index) {
            const xap::Page page(index.db, index.shards.size(), index.remote, index.facts, plan, carried);
            if (started && page.total != total) throw Failure(kInternal, "index changed during the search");
            if (!started) {
                started = true;
                total = page.total;
                on_total(total);
            }
            for (size_t at = 0; at < page.hits.size(); ++at) {
                const xap::PageHit &item = page.hits[at];
                if (at < sent.size()) {
                    if (sent[at] != item.id) throw Failure(kInternal, "index changed during the search");
                    continue;
                }
                Hit hit;
                if (!carried || !CarriedHit(index, plan, item, &hit)) hit = MakeHit(index, page, item.id, plan);
                sent.push_back(item.id);
                if (!on_hit(hit)) return;
            }
        });
    }

    uint64_t PageIds(const SearchPlan &plan, std::vector<uint32_t> *ids) override {
        uint64_t total = 0;
        Retry([&](const OpenIndex &index) {
            const xap::Page page(index.db, index.shards.size(), index.remote, index.facts, plan, false);
            ids->clear();
            for (const xap::PageHit &hit : page.hits) ids->push_back(hit.id);
            total = page.total;
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
                found = xap::DecodeRecordValue(doc.get_value(xap::kRecordSlot), nullptr, nullptr, fields);
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
    // or a rebuild overtook it, or when a copy of a shard failed: each copy
    // fails once at most, and another copy of its shard serves if one does.
    template <class F>
    void Retry(F action) {
        std::set<std::string> failed;
        int unnamed = 0;
        for (int attempt = 1;;) {
            // An index that failed is not given back: the next try opens anew.
            std::unique_ptr<OpenIndex> index;
            try {
                // Opening reads the index too: a commit may overtake it.
                index = OpenDatabases::Shared().Take(dir_, options_, &failed);
                action(*index);
                OpenDatabases::Shared().Give(std::move(index));
                return;
            } catch (const Xapian::DatabaseModifiedError &e) {
                if (attempt++ == kSearchAttempts) throw Failure(kInternal, "index changed during the search: " + e.get_msg());
            } catch (const Xapian::NetworkError &e) {
                // An error that names no copy (a connection closed while a
                // document was read) earns one more try: the copies that
                // refuse then show themselves as the index opens again.
                const std::string copy = xap::ShardOfError(e);
                if (copy.empty() ? unnamed++ > 0 : !failed.insert(copy).second) throw Unavailable(e);
                if (!copy.empty()) xap::NoteCopyFailed(copy, e.get_msg());
            } catch (const Xapian::Error &e) {
                throw Failure(kInternal, e.get_description());
            } catch (const Failure &) {
                // The search's own fault, not the index's.
                if (index) OpenDatabases::Shared().Give(std::move(index));
                throw;
            }
        }
    }

    // A hit of carried fields only, from its record; false when the record
    // is unreadable.
    static bool CarriedHit(const OpenIndex &index, const SearchPlan &plan, const xap::PageHit &item, Hit *hit) {
        const std::string value =
            item.record.empty() ? index.db.get_document(item.id).get_value(xap::kRecordSlot) : item.record;
        Json::Value carried;
        if (!xap::DecodeRecordValue(value, nullptr, nullptr, &carried)) return false;
        hit->doc_id = item.id;
        hit->fields = Json::Value(Json::objectValue);
        for (const std::string &name : plan.fields)
            if (carried.isMember(name)) hit->fields[name] = carried[name];
        return true;
    }

    static Hit MakeHit(const OpenIndex &index, const xap::Page &page, Xapian::docid id, const SearchPlan &plan) {
        Hit hit;
        hit.doc_id = id;
        const Xapian::Document doc = index.db.get_document(id);
        Json::Value stored;
        if (!xap::DecodeRecordValue(doc.get_value(xap::kRecordSlot), nullptr, nullptr, &stored))
            stored = Json::Value(Json::objectValue);
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
                fragment = xap::HighlightText(page.mset, index.db, hit.doc_id, doc, index.TextOf(hit.doc_id), page.query,
                                             page.stemmer, request.frag_length);
            else if (stored[request.field].isString())
                fragment = xap::HighlightField(page.mset, stored[request.field].asString(), page.stemmer, request.frag_length);
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

void ReleaseRetiredIndexes() { OpenDatabases::Shared().Release(); }

}  // namespace zarnd

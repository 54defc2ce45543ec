// SearchIndex on a Xapian database.
#include <sys/stat.h>

#include <chrono>
#include <map>
#include <memory>
#include <set>

#include <xapian.h>

#include "engine.h"
#include "failure.h"
#include "fragment.h"
#include "schema.h"
#include "xapian_document.h"
#include "xapian_highlight.h"
#include "xapian_layout.h"
#include "xapian_open.h"
#include "xapian_page.h"
#include "xapian_record.h"
#include "xapian_shards.h"

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
    std::vector<std::string> copies;  // the copies of shards that serve it
    std::chrono::steady_clock::time_point opened = std::chrono::steady_clock::now();
    bool on_replica = false;  // a replica serves in place of its shard's first copy

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

// Opens the index of `dir`, as its stub says, each shard through the first
// of its copies that answers, none of those in `failed`.
OpenIndex OpenIndexOf(const std::string &dir, ino_t stub, const EngineOptions &options, std::set<std::string> *failed) {
    OpenIndex index;
    index.stub = stub;
    std::vector<xap::Shard> layout;
    if (!xap::ReadShards(dir, &layout)) {
        index.db = Xapian::Database(dir);
        index.shards.push_back(index.db);
    }
    for (const xap::Shard &shard : layout) {
        std::string served;
        index.shards.push_back(xap::OpenShardCopy(shard, options.shard_timeout_ms, failed, &served));
        index.copies.push_back(served);
        index.on_replica = index.on_replica || served != shard.Name();
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
    // `failed`: the copies of shards that failed during this search.
    static OpenIndex &Get(const std::string &dir, const EngineOptions &options, std::set<std::string> *failed) {
        return Mine().Find(dir, options, failed);
    }

    // Forgets `dir` so that its next Get opens it anew.
    static void Drop(const std::string &dir) { Mine().open_.erase(dir); }

private:
    static OpenDatabases &Mine() {
        thread_local OpenDatabases cache;
        return cache;
    }

    static constexpr size_t kMaxOpen = 16;

    OpenIndex &Find(const std::string &dir, const EngineOptions &options, std::set<std::string> *failed) {
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
        if (it != open_.end() && it->second.stub == current && !Stale(it->second)) {
            try {
                it->second.db.reopen();
                return it->second;
            } catch (const Xapian::NetworkTimeoutError &e) {
                // A copy that does not answer: no second wait for it in this
                // search; another copy of its shard may serve.
                const std::string copy = xap::ShardOfError(e);
                if (copy.empty()) {
                    open_.erase(it);
                    throw Unavailable(e);
                }
                failed->insert(copy);
                xap::NoteCopyFailed(copy, e.get_msg());
            } catch (const Xapian::Error &) {
                // A connection that a shard closed while idle: open it afresh below.
            }
        }
        if (it != open_.end()) open_.erase(it);
        if (open_.size() >= kMaxOpen) open_.erase(open_.begin());
        try {
            return open_.emplace(dir, OpenIndexOf(dir, current, options, failed)).first->second;
        } catch (const Xapian::DatabaseOpeningError &) {
            throw Failure(kNotFound, "no index in " + dir);
        }
    }

    // An index opened on a copy that failed since (found by another thread:
    // this one need not wait for it too), or on a replica for a while
    // (replicas lag: the first copy may be back).
    static bool Stale(const OpenIndex &index) {
        const auto now = std::chrono::steady_clock::now();
        return xap::FailedSince(index.copies, index.opened) ||
               (index.on_replica && now - index.opened > std::chrono::seconds(xap::kBackToFirstCopyS));
    }

    std::map<std::string, OpenIndex> open_;
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
            const xap::Page page(index.db, index.shards.size(), index.remote, plan, carried);
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
            const xap::Page page(index.db, index.shards.size(), index.remote, plan, false);
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
            try {
                action(OpenDatabases::Get(dir_, options_, &failed));
                return;
            } catch (const Xapian::DatabaseModifiedError &e) {
                if (attempt++ == kSearchAttempts) throw Failure(kInternal, "index changed during the search: " + e.get_msg());
                OpenDatabases::Drop(dir_);
            } catch (const Xapian::NetworkError &e) {
                OpenDatabases::Drop(dir_);
                // An error that names no copy (a connection closed while a
                // document was read) earns one more try: the copies that
                // refuse then show themselves as the index opens again.
                const std::string copy = xap::ShardOfError(e);
                if (copy.empty() ? unnamed++ > 0 : !failed.insert(copy).second) throw Unavailable(e);
                if (!copy.empty()) xap::NoteCopyFailed(copy, e.get_msg());
            } catch (const Xapian::Error &e) {
                OpenDatabases::Drop(dir_);
                throw Failure(kInternal, e.get_description());
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
                                             request.frag_length);
            else if (stored[request.field].isString())
                fragment = xap::HighlightField(page.mset, stored[request.field].asString(), request.frag_length);
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

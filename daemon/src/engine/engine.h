// The search engine behind the daemon, seen through two small interfaces: one
// to search and read a share's index, one to change it.  This header is the
// engine's one door: protocol, indexer and live indexing use only what it
// declares.  The factories at its end are defined in xapian_open.cpp, and
// every other file of this folder stays behind them.
#ifndef ZARND_ENGINE_H
#define ZARND_ENGINE_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <json/value.h>

#include "path_within.h"
#include "perm.h"

namespace zarnd {

// Clients keep a document id in a signed 32-bit int.  Ids are never reused,
// so an index that has added this many documents over its life is full.
constexpr uint32_t kMaxDocId = 2147483647;

struct SortKey {
    std::string field;  // a sortable field of schema.h
    bool descending = false;
    bool natural = false;
};

struct HighlightRequest {
    std::string field;  // a string field
    size_t frag_length = 0;
};

struct SearchPlan {
    std::string query;  // query-string syntax; "" or "*" matches everything
    uint32_t from = 0;
    uint32_t size = 0;
    std::vector<SortKey> sort;  // empty: by relevance
    std::vector<std::string> fields;
    std::vector<HighlightRequest> highlight;
    const Credentials *reader = nullptr;  // only hits this user may read; null: all
};

struct Hit {
    uint32_t doc_id = 0;
    Json::Value fields;     // the requested fields that the document has
    Json::Value highlight;  // field name -> fragment; null when none matched
};

// One share's index, opened for reading.  Failures are thrown as Failure.
class SearchIndex {
public:
    virtual ~SearchIndex() = default;

    // The exact number of permitted matches, then the hits of the requested
    // page in order.  `on_hit` returns false to stop early.
    virtual void Search(const SearchPlan &plan, const std::function<void(uint64_t)> &on_total,
                        const std::function<bool(const Hit &)> &on_hit) = 0;

    // The same match as Search, reading nothing but the ids of the page: the
    // engine's own cost of a search, the floor that benchmarks compare the
    // daemon with.  Returns the exact total.
    virtual uint64_t PageIds(const SearchPlan &plan, std::vector<uint32_t> *ids) = 0;

    // Every stored field of document `doc_id` and its encoded access chain;
    // false when the index holds no such document.
    virtual bool Fetch(uint32_t doc_id, Json::Value *fields, std::string *access) = 0;
};

// One file or folder as the indexer hands it to the engine.
struct FileRecord {
    std::string path;       // share-relative; the record's identity
    Json::Value fields;     // every stored field (schema.h)
    std::string access;     // EncodeAccessChain of the file and its folders
    std::string signature;  // what the next run compares to spot changes
};

// One share's index, opened for writing by a single writer, which holds the
// index's lock from its opening to its end.
//
// Failures.  Every call throws Failure and nothing else; the process never
// ends over an index.  A failure of the writing itself (a full disk, an I/O
// error in a commit or a rewrite) ends this writer's work: the call that
// meets it, or the next one, throws it (kInternal, with the engine's own
// message), later calls throw it again, and searches keep the last commit
// made before it.  Changes given since that commit are not in the index: the
// caller keeps what it must redo and opens a new writer to retry later.
class IndexWriter {
public:
    virtual ~IndexWriter() = default;
    // Adds or replaces by path; Failure kInternal when a new record would
    // need an id above kMaxDocId.
    virtual void Put(const FileRecord &record) = 0;
    // Put for a record whose path the index does not hold, neither before
    // this writer opened it nor since: no lookup of an older record.
    virtual void Add(const FileRecord &record) = 0;
    virtual void Remove(const std::string &path) = 0;
    // path -> signature of every stored record.
    virtual std::map<std::string, std::string> Signatures() = 0;
    // The same for the records at `path` and below it only.  An engine that
    // can look them up by path overrides this walk over every record.
    virtual std::map<std::string, std::string> SignaturesUnder(const std::string &path) {
        std::map<std::string, std::string> all = Signatures(), under;
        for (auto &record : all)
            if (PathWithin(record.first, path)) under.insert(std::move(record));
        return under;
    }
    virtual void Commit() = 0;
    // Commits, and rewrites the index compactly when this writer changed a
    // large part of it (a first build above all): documents that arrive in
    // batches leave the engine's trees half full.  Searches move to the
    // rewritten index at their next start.  When the commit went through but
    // the rewrite failed, the commit stands and Finish still throws.  The
    // writer takes nothing more after Finish.
    virtual void Finish() = 0;
};

constexpr unsigned kDefaultShardTimeoutMs = 2000;

// How the engine reaches an index's shards.
struct EngineOptions {
    // Time a shard served over the network may take to answer, in ms: for
    // each answer to a search, and to connect for a search or a writer.
    unsigned shard_timeout_ms = kDefaultShardTimeoutMs;
};

// Opens the index kept in directory `dir`; Failure kNotFound when there is
// none.  Each search answers from one whole state of the index, whatever
// writers do meanwhile.
std::unique_ptr<SearchIndex> OpenSearchIndex(const std::string &dir, const EngineOptions &options = EngineOptions());

// Closes the indexes that searches keep open but no search is using, where
// a writer has put a rewritten one in place since: their files are removed,
// and their space comes back once nobody holds them.  The daemon calls it
// on a timer; an in-process writer, after each rewrite.
void ReleaseRetiredIndexes();

// Opens or creates the index in `dir`; Failure kLocked while another writer
// holds it.  With `shards` given, first makes it a sharded one over them
// (each "HOST:PORT" of a xapian-tcpsrv --writable, or an absolute path),
// unless it is one already, under the same lock.  Ids depend on the shards
// and their order: after a change of the list the index is written anew,
// into shards that must be empty.  Failure kBadRequest for a shard given
// wrongly.
std::unique_ptr<IndexWriter> OpenIndexWriter(const std::string &dir, const EngineOptions &options = EngineOptions(),
                                             const std::vector<std::string> &shards = {});

}  // namespace zarnd

#endif  // ZARND_ENGINE_H

// A share's index split over several Xapian databases, its shards, each a
// local database or one served by xapian-tcpsrv.  The index directory's stub
// then lists the shards, one line each, in the engine's own stub format; the
// engine searches them all in one match.  A document lives in the shard that
// a hash of its path picks, and clients see the combined database's ids,
// which interleave the shards' own: shard k's document i is (i-1)*n + k + 1.
// A shard may have copies, replicas that follow it through Xapian's
// replication: writers write to the shard's first copy, searches read from
// the first copy that answers.
#ifndef ZARND_XAPIAN_SHARDS_H
#define ZARND_XAPIAN_SHARDS_H

#include <chrono>
#include <set>
#include <string>
#include <vector>

#include <xapian.h>

namespace zarnd {
namespace xap {

struct Shard {
    std::string host;   // remote: served by xapian-tcpsrv at host:port
    unsigned port = 0;  // 0: a local database at `path`
    std::string path;
    std::vector<Shard> copies;  // its replicas, in the order searches try them

    bool remote() const { return port != 0; }
    // "HOST:PORT" or the path: how messages and the command line name it.
    std::string Name() const;
    // The shard with its copies, as the command line lists them: "A+B+C".
    std::string ListName() const;
    bool operator==(const Shard &other) const {
        return host == other.host && port == other.port && path == other.path && copies == other.copies;
    }
};

// The shards that the stub of `dir` lists; false when `dir` holds a single
// local index (or none), which the generations of xapian_generations.cpp keep.
bool ReadShards(const std::string &dir, std::vector<Shard> *shards);

// Parses "HOST:PORT" or an absolute path, then its copies, each after a
// '+'; false for anything else.
bool ParseShard(const std::string &text, Shard *shard);

// Replaces the stub of `dir` by one holding `content`, atomically: a reader
// sees the old stub or the new one, never a part of one.
void WriteStub(const std::string &dir, const std::string &content);

// Writes the stub of `dir` to list `shards`.
void WriteShards(const std::string &dir, const std::vector<Shard> &shards);

// A remote shard is opened with `timeout_ms` (EngineOptions, engine.h) for
// each answer and for the connection.
Xapian::Database OpenShard(const Shard &shard, unsigned timeout_ms);

// Opens the first copy of `shard` that answers, copies that failed lately
// tried last and those in `failed` (names of copies that failed during
// this search) not at all; the log names a copy that serves in place of
// the first.  *served names the copy that does.  Failure kBusy naming the
// shard when no copy answers.
Xapian::Database OpenShardCopy(const Shard &shard, unsigned timeout_ms, std::set<std::string> *failed,
                               std::string *served);

// Whether one of the copies named failed after `since`: a search thread
// then opens its index anew rather than wait for that copy in its turn.
bool FailedSince(const std::vector<std::string> &names, std::chrono::steady_clock::time_point since);

// How long a search thread keeps reading a replica in place of its shard's
// first copy before it tries the first again: replicas lag behind.
constexpr unsigned kBackToFirstCopyS = 30;

// Records that the copy named `name` failed: later opens try it last.
void NoteCopyFailed(const std::string &name, const std::string &why);

// Writers get a longer time-out for answers: a commit of a batch takes a
// while.  `timeout_ms` is the one to connect.
Xapian::WritableDatabase OpenShardForWriting(const Shard &shard, unsigned timeout_ms);

// The shard of the document of `path`: stable from run to run and machine
// to machine, so that a run finds a document again where it put it.
size_t ShardOfPath(const std::string &path, size_t count);

Xapian::docid CombinedId(Xapian::docid local, size_t shard, size_t count);
void SplitId(Xapian::docid combined, size_t count, size_t *shard, Xapian::docid *local);
// The largest id of shard `shard` whose combined id a client can hold.
Xapian::docid MaxLocalId(size_t shard, size_t count);

// The shard that a network error of the engine names, "" when none.
std::string ShardOfError(const Xapian::Error &error);

// The metadata that tells which shard of which layout a database is.
constexpr char kShardKey[] = "zarnelasticd.shard";
std::string ShardMark(size_t shard, size_t count);

}  // namespace xap
}  // namespace zarnd

#endif  // ZARND_XAPIAN_SHARDS_H

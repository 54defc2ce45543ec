// A share's index split over several Xapian databases, its shards, each a
// local database or one served by xapian-tcpsrv.  The index directory's stub
// then lists the shards, one line each, in the engine's own stub format; the
// engine searches them all in one match.  A document lives in the shard that
// a hash of its path picks, and clients see the combined database's ids,
// which interleave the shards' own: shard k's document i is (i-1)*n + k + 1.
#ifndef ZARND_XAPIAN_SHARDS_H
#define ZARND_XAPIAN_SHARDS_H

#include <string>
#include <vector>

#include <xapian.h>

namespace zarnd {
namespace xap {

struct Shard {
    std::string host;   // remote: served by xapian-tcpsrv at host:port
    unsigned port = 0;  // 0: a local database at `path`
    std::string path;

    bool remote() const { return port != 0; }
    // "HOST:PORT" or the path: how messages and the command line name it.
    std::string Name() const;
    bool operator==(const Shard &other) const {
        return host == other.host && port == other.port && path == other.path;
    }
};

// The shards that the stub of `dir` lists; false when `dir` holds a single
// local index (or none), which the generations of xapian_generations.cpp keep.
bool ReadShards(const std::string &dir, std::vector<Shard> *shards);

// Parses "HOST:PORT" or an absolute path; false for anything else.
bool ParseShard(const std::string &text, Shard *shard);

// Replaces the stub of `dir` by one holding `content`, atomically: a reader
// sees the old stub or the new one, never a part of one.
void WriteStub(const std::string &dir, const std::string &content);

// Writes the stub of `dir` to list `shards`.
void WriteShards(const std::string &dir, const std::vector<Shard> &shards);

// A remote shard is opened with `timeout_ms` (EngineOptions, engine.h) for
// each answer and for the connection.
Xapian::Database OpenShard(const Shard &shard, unsigned timeout_ms);
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

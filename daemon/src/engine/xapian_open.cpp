// The engine's factories (engine.h): which kind of index a directory holds,
// and the reader or writer for it.
#include <errno.h>
#include <sys/stat.h>

#include <cstring>

#include <xapian.h>

#include "engine.h"
#include "failure.h"
#include "xapian_open.h"
#include "xapian_shards.h"

namespace zarnd {

std::unique_ptr<SearchIndex> OpenSearchIndex(const std::string &dir, const EngineOptions &options) {
    return xap::NewSearchIndex(dir, options);
}

namespace {

// Makes the stub of `dir` list `names`, unless it does already.  False when
// the local index must stay for now: the new list may not survive a power cut.
bool ChangeShards(const std::string &dir, const std::vector<std::string> &names) {
    std::vector<xap::Shard> wanted(names.size()), current;
    for (size_t k = 0; k < names.size(); ++k)
        if (!xap::ParseShard(names[k], &wanted[k]))
            throw Failure(kBadRequest, "not a shard: \"" + names[k] + "\" (HOST:PORT or an absolute path)");
    if (xap::ReadShards(dir, &current) && current == wanted) return true;
    return xap::WriteShards(dir, wanted);
}

}  // namespace

std::unique_ptr<IndexWriter> OpenIndexWriter(const std::string &dir, const EngineOptions &options,
                                             const std::vector<std::string> &shards) {
    try {
        if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST)
            throw Failure(kInternal, "cannot make " + dir + ": " + std::strerror(errno));
        std::unique_ptr<xap::WriterLock> lock = xap::WriterLock::Take(dir);
        // Where the index stands is read only now, under the lock: a writer
        // that waited sees what the one before it left.
        const bool durable = shards.empty() || ChangeShards(dir, shards);
        std::vector<xap::Shard> layout;
        if (!xap::ReadShards(dir, &layout)) return xap::OpenLocalWriter(dir, std::move(lock));
        std::vector<std::string> local;
        for (const xap::Shard &shard : layout)
            if (!shard.remote()) local.push_back(shard.path);
        if (durable) xap::RemoveLocalIndex(dir, *lock, local);
        return xap::OpenShardedWriter(layout, options, std::move(lock));
    } catch (const Xapian::DatabaseLockError &e) {
        throw Failure(kLocked, "index " + dir + " is being written by another process");
    } catch (const Xapian::Error &e) {
        throw Failure(kInternal, e.get_description());
    }
}

}  // namespace zarnd

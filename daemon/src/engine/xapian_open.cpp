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

std::unique_ptr<IndexWriter> OpenIndexWriter(const std::string &dir, const EngineOptions &options) {
    try {
        if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST)
            throw Failure(kInternal, "cannot make " + dir + ": " + std::strerror(errno));
        std::vector<xap::Shard> shards;
        if (xap::ReadShards(dir, &shards)) return xap::OpenShardedWriter(dir, options);
        return xap::OpenLocalWriter(dir);
    } catch (const Xapian::DatabaseLockError &e) {
        throw Failure(kLocked, "index " + dir + " is being written by another process");
    } catch (const Xapian::Error &e) {
        throw Failure(kInternal, e.get_description());
    }
}

void SetIndexShards(const std::string &dir, const std::vector<std::string> &names) {
    std::vector<xap::Shard> wanted(names.size()), current;
    for (size_t k = 0; k < names.size(); ++k)
        if (!xap::ParseShard(names[k], &wanted[k]))
            throw Failure(kBadRequest, "not a shard: \"" + names[k] + "\" (HOST:PORT or an absolute path)");
    if (wanted.empty()) throw Failure(kBadRequest, "no shard given");
    if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST)
        throw Failure(kInternal, "cannot make " + dir + ": " + std::strerror(errno));
    const bool sharded = xap::ReadShards(dir, &current);
    if (sharded && current == wanted) return;
    xap::WriteShards(dir, wanted);
    if (!sharded) xap::RemoveLocalIndex(dir);
}

}  // namespace zarnd

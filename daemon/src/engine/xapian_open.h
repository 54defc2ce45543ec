// The parts that the factories of xapian_open.cpp put together, each defined
// in the file of its kind of index.  Inside the engine only.
#ifndef ZARND_XAPIAN_OPEN_H
#define ZARND_XAPIAN_OPEN_H

#include <memory>
#include <string>
#include <vector>

#include "engine.h"
#include "xapian_index_lock.h"
#include "xapian_shards.h"

namespace zarnd {
namespace xap {

// The reader of any index (xapian_search.cpp).
std::unique_ptr<SearchIndex> NewSearchIndex(const std::string &dir, const EngineOptions &options);

// The writer of the single local index in `dir`, which holds `lock`; it
// first removes what the stub does not name (xapian_generations.cpp).
std::unique_ptr<IndexWriter> OpenLocalWriter(const std::string &dir, std::unique_ptr<WriterLock> lock);

// Removes every generation of the single local index of `dir`, but any of
// `keep_paths`, its stub left alone: the index is sharded from now on
// (xapian_generations.cpp).
void RemoveLocalIndex(const std::string &dir, WriterLock &lock, const std::vector<std::string> &keep_paths);

// The writer of the sharded index whose stub lists `shards`, which holds
// `lock` (xapian_shard_writer.cpp).
std::unique_ptr<IndexWriter> OpenShardedWriter(const std::vector<Shard> &shards, const EngineOptions &options,
                                               std::unique_ptr<WriterLock> lock);

}  // namespace xap
}  // namespace zarnd

#endif  // ZARND_XAPIAN_OPEN_H

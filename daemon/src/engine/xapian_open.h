// The parts that the factories of xapian_open.cpp put together, each defined
// in the file of its kind of index.  Inside the engine only.
#ifndef ZARND_XAPIAN_OPEN_H
#define ZARND_XAPIAN_OPEN_H

#include <memory>
#include <string>

#include "engine.h"

namespace zarnd {
namespace xap {

// The reader of any index (xapian_search.cpp).
std::unique_ptr<SearchIndex> NewSearchIndex(const std::string &dir, const EngineOptions &options);

// The writer of the single local index in `dir` (xapian_generations.cpp).
std::unique_ptr<IndexWriter> OpenLocalWriter(const std::string &dir);

// Removes the single local index of `dir`, its stub left alone: the index
// is sharded from now on (xapian_generations.cpp).
void RemoveLocalIndex(const std::string &dir);

// The writer of a sharded index in `dir` (xapian_shard_writer.cpp).
std::unique_ptr<IndexWriter> OpenShardedWriter(const std::string &dir, const EngineOptions &options);

}  // namespace xap
}  // namespace zarnd

#endif  // ZARND_XAPIAN_OPEN_H

// The batch run, "zarnelasticd index": builds and refreshes the index of
// every share that holds an indexed folder, one walk (indexer.h) per share,
// with a progress line and one summary line per share.
#ifndef ZARND_INDEX_RUN_H
#define ZARND_INDEX_RUN_H

#include <string>
#include <vector>

#include "folders.h"
#include "indexer.h"

namespace zarnd {

struct IndexOptions {
    std::string config_path = kFolderConfigPath;
    bool progress = false;  // a progress line on standard error
    std::string share;      // only this share; "" for every share
    // The shards to spread the share's index over ("HOST:PORT" or a path
    // each, then "+COPY" for each replica), kept for later runs; empty: as
    // the index is now.
    std::vector<std::string> shards;
};

// Indexes every share; prints one summary line per share to standard
// output.  A share's index that the daemon is writing is waited for.
// Returns the process exit status: 0, or 1 when a share could not be
// indexed.  *total receives the sum over the shares when not null.
int RunIndexer(const IndexOptions &options, IndexCounts *total = nullptr);

}  // namespace zarnd

#endif  // ZARND_INDEX_RUN_H

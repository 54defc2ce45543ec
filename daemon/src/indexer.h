// Builds and refreshes the index of every share that holds an indexed
// folder.  A run walks the folders (no symbolic link followed, no other file
// system entered, "@eaDir" skipped), rewrites only the records whose file
// changed and removes the records of files that are gone.
#ifndef ZARND_INDEXER_H
#define ZARND_INDEXER_H

#include <cstdint>
#include <string>
#include <vector>

#include "folders.h"

namespace zarnd {

struct IndexOptions {
    std::string config_path = kFolderConfigPath;
    bool progress = false;  // a progress line on standard error
    std::string share;      // only this share; "" for every share
    // The shards to spread the share's index over ("HOST:PORT" or a path
    // each), kept for later runs; empty: as the index is now.
    std::vector<std::string> shards;
};

struct IndexCounts {
    uint64_t added = 0;
    uint64_t updated = 0;
    uint64_t removed = 0;
    uint64_t unchanged = 0;
    uint64_t bytes_read = 0;    // read from the files of added and updated records
    uint64_t bytes_walked = 0;  // the sizes of those files
    uint64_t skipped = 0;  // entries that could not be examined
};

// Indexes every share; prints one summary line per share to standard
// output.  Returns the process exit status: 0, or 1 when a share could not
// be indexed.  *total receives the sum over the shares when not null.
int RunIndexer(const IndexOptions &options, IndexCounts *total = nullptr);

}  // namespace zarnd

#endif  // ZARND_INDEXER_H

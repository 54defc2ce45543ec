// Builds and refreshes the index of every share that holds an indexed
// folder.  A run walks the folders (no symbolic link followed, no other file
// system entered, "@eaDir" skipped), rewrites only the records whose file
// changed and removes the records of files that are gone.
#ifndef ZARND_INDEXER_H
#define ZARND_INDEXER_H

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "engine.h"
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
    uint64_t not_read = 0;  // files whose content an extraction worker failed to read
};

// Called with every folder that a walk opens: its descriptor, and its
// share-relative path.
using FolderHook = std::function<void(int fd, const std::string &path)>;

// One share as a walk sees it: its name, its directory and its index.
struct ShareWalk {
    std::string share;
    std::string root;
    IndexWriter *writer;
    FolderHook on_folder;  // may be empty
};

// The share's directory from the share service; false for an unknown share.
bool ShareRoot(const std::string &share, std::string *root);

// Brings the share's records up to date with its listed folders: what
// changed is rewritten, what they no longer hold removed.  Commits in
// batches; the caller commits the rest.
IndexCounts RescanShare(const ShareWalk &walk, const std::set<std::string> &folders);

// The same for the share-relative `path` (inside a listed folder) and what
// lies below it: the records of a file, or of a whole subtree that was
// renamed, moved, removed or given other permissions.
IndexCounts RescanPath(const ShareWalk &walk, const std::string &path);

// Indexes every share; prints one summary line per share to standard
// output.  Returns the process exit status: 0, or 1 when a share could not
// be indexed.  *total receives the sum over the shares when not null.
int RunIndexer(const IndexOptions &options, IndexCounts *total = nullptr);

}  // namespace zarnd

#endif  // ZARND_INDEXER_H

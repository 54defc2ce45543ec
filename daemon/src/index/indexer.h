// The walk of a share's indexed folders, shared by the batch run
// (index_run.h) and live indexing: no symbolic link followed, no other file
// system entered, the metadata folder skipped; only the records whose file
// changed are rewritten, and the records of files that are gone removed.
#ifndef ZARND_INDEXER_H
#define ZARND_INDEXER_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "engine.h"

namespace zarnd {

struct IndexCounts {
    uint64_t added = 0;
    uint64_t updated = 0;
    uint64_t removed = 0;
    uint64_t unchanged = 0;
    uint64_t bytes_read = 0;    // read from the files of added and updated records
    uint64_t bytes_walked = 0;  // the sizes of those files
    uint64_t skipped = 0;  // entries that could not be examined
    uint64_t not_read = 0;  // files whose content an extraction worker failed to read
    bool stopped = false;  // the walk was cut short: nothing was removed
};

// Called with every folder that a walk opens: its descriptor, and its
// share-relative path.
using FolderHook = std::function<void(int fd, const std::string &path)>;

// Called with the counts so far after each entry that a walk examines.
using ProgressHook = std::function<void(const IndexCounts &counts)>;

// One share as a walk sees it: its name, its directory and its index.
struct ShareWalk {
    std::string share;
    std::string root;
    IndexWriter *writer;
    FolderHook on_folder;  // may be empty
    ProgressHook on_progress = nullptr;  // may be empty
    // Once set, a walk stops at its next entry, keeps what it wrote and
    // removes nothing; may be null.
    const std::atomic<bool> *stop = nullptr;
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

// The record of folder `path` alone, not what it holds: a name made or
// removed in it changed its times.
IndexCounts RescanFolderRecord(const ShareWalk &walk, const std::string &path);

}  // namespace zarnd

#endif  // ZARND_INDEXER_H

// Every on-disk and wire name that the library and the daemon agree on,
// each written here once: where the daemon listens, where the folder list
// lives, what a share's own data folder is called and how an index is named.
// Change one here and both sides follow.
#ifndef ZARN_NAMES_H
#define ZARN_NAMES_H

namespace zarn {

// The daemon's Unix stream socket.
constexpr char kDaemonSocketPath[] = "/var/run/zarnelasticd.sock";

// The list of indexed folders: a JSON array of {"path": "/share[/sub]"}.
constexpr char kFolderConfigPath[] = "/var/packages/Norvex/etc/fileindex.folders";

// The platform's own data inside each share, the index included: never indexed.
constexpr char kMetadataDirName[] = "@eaDir";

// Inside the share's metadata folder: the index database and the queue.
constexpr char kIndexDbLeafName[] = "ZARN@.fileindexdb";
constexpr char kIndexQueueLeafName[] = "ZARN@file_index_queue";

// An index identifier is this prefix and the share's name.
constexpr char kIndexIdPrefix[] = "fileindex_";

}  // namespace zarn

#endif  // ZARN_NAMES_H

// The indexed-folder list and the process-wide caches built from it, as the
// FILEIDX checks use them.  Internal to the library.
//
// bReload: exactly 1 re-reads the folder list and rebuilds the path sets,
// any other value uses them as they are once built.  The share-volume map is
// asked only when bReload is exactly 0.  The caches take no lock: one thread
// at a time.  May throw std::bad_alloc.
#ifndef ZARN_FILEINDEX_CONFIG_H
#define ZARN_FILEINDEX_CONFIG_H

#include <set>
#include <string>
#include <string_view>
#include <unordered_set>

#include <json/value.h>

#include "names.h"

namespace zarn {
namespace fileindex {

using zarn::kFolderConfigPath;

// The folder list as last read: an array of {"path": "/share[/sub]"} objects
// when the file is well formed.  A missing file keeps what was read before;
// an invalid one leaves an empty array.
const Json::Value &LoadFolderConfig(int bReload);

// Changes whenever LoadFolderConfig replaces the list, so that what is built
// from the list can tell that it is out of date.
unsigned long FolderConfigVersion();

// The "path" of every configured folder, unique, in byte order.  An element
// that is not an object, or whose "path" is not a string, counts as "".
const std::set<std::string> &GetIndexedPathSet(int bReload);

// "/share/sub" -> "share": the text after the first character up to the next
// "/".  Never fails.
std::string GetShareNameByPath(const std::string &path);

// "/share/sub" -> "<directory holding the share>/share/sub".  False, logged,
// for an empty path or a share the share service does not know.
bool GetFullPath(const std::string &path, int bReload, std::string *full);

// The absolute paths of the configured folders whose share is known, unique,
// in byte order.  A rebuild always re-reads the folder list.
const std::set<std::string> &GetFullPathSet(int bReload);

// GetFullPathSet(bReload) as a hash set of views into it.
const std::unordered_set<std::string_view> &GetFullPathLookup(int bReload);

}  // namespace fileindex
}  // namespace zarn

#endif  // ZARN_FILEINDEX_CONFIG_H

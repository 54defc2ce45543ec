// The list of indexed folders, kFolderConfigPath (common/names.h):
// a JSON array of objects whose "path" is share-relative, "/share[/sub]".
#ifndef ZARND_FOLDERS_H
#define ZARND_FOLDERS_H

#include <map>
#include <set>
#include <string>

#include "names.h"

namespace zarnd {

using zarn::kFolderConfigPath;

// Share name -> the share-relative folders to index in it, without folders
// that another listed folder already contains.  Entries that are not
// objects, or whose "path" is not "/" and a share name, are skipped and
// logged.  False when the file cannot be read or is not JSON.
bool ReadIndexedFolders(const char *config_path, std::map<std::string, std::set<std::string>> *shares);

}  // namespace zarnd

#endif  // ZARND_FOLDERS_H

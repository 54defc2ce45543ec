// The list of indexed folders, kFolderConfigPath (common/names.h):
// a JSON array of objects whose "path" is share-relative, "/share[/sub]",
// and whose optional "language" names the language in which the share's
// words are stemmed ("english" when none does).
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
// logged.  False when the file cannot be read or is not JSON.  `languages`,
// when not null, receives the language of each share that names one (the
// first entry's, when two of a share differ: logged).
bool ReadIndexedFolders(const char *config_path, std::map<std::string, std::set<std::string>> *shares,
                        std::map<std::string, std::string> *languages = nullptr);

}  // namespace zarnd

#endif  // ZARND_FOLDERS_H

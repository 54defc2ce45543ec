// Share-relative paths as folders: whether one lies inside another.
#ifndef ZARND_PATH_WITHIN_H
#define ZARND_PATH_WITHIN_H

#include <string>

namespace zarnd {

// Whether share-relative `path` is `folder` or lies below it.
inline bool PathWithin(const std::string &path, const std::string &folder) {
    return path.compare(0, folder.size(), folder) == 0 && (path.size() == folder.size() || path[folder.size()] == '/');
}

}  // namespace zarnd

#endif  // ZARND_PATH_WITHIN_H

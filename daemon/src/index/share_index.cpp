#include "share_index.h"

#include <cstring>

#include "failure.h"
#include "zarncontentsearchutils.h"

namespace zarnd {

std::string ShareOfIndexId(const std::string &index_id) {
    const size_t prefix = std::strlen(kIndexIdPrefix);
    if (index_id.size() <= prefix || index_id.compare(0, prefix, kIndexIdPrefix) != 0 ||
        index_id.find('/') != std::string::npos || index_id.find('\0') != std::string::npos)
        throw Failure(kNotFound, "no such index: " + index_id);
    return index_id.substr(prefix);
}

std::string IndexDirOfShare(const std::string &share) {
    char dir[4097];
    const int length = FILEIDXDBPathGet(share.c_str(), dir, sizeof dir);
    // A path that filled the buffer may have been cut: never use a cut path.
    if (length <= 0 || length >= static_cast<int>(sizeof dir) - 1)
        throw Failure(kNotFound, "no such share: " + share);
    return std::string(dir, static_cast<size_t>(length));
}

}  // namespace zarnd

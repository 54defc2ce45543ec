// Where a share's index lives.  An index identifier is kIndexIdPrefix and the
// share's name; its database directory is the one the library composes
// inside the share.
#ifndef ZARND_SHARE_INDEX_H
#define ZARND_SHARE_INDEX_H

#include <string>

#include "names.h"

namespace zarnd {

using zarn::kIndexIdPrefix;

// The share named by an index identifier; Failure kNotFound for an
// identifier of another form.
std::string ShareOfIndexId(const std::string &index_id);

// The index database directory of a share, created when missing; Failure
// kNotFound for a share that the share service does not know.
std::string IndexDirOfShare(const std::string &share);

}  // namespace zarnd

#endif  // ZARND_SHARE_INDEX_H

// A seam for the tests of crashes and full disks: ZARN_FAILPOINT=POINT:ACTION
// makes a writer that reaches POINT die at once (ACTION "kill", SIGKILL to
// itself) or fill the file system of its index (ACTION "fill"), so that the
// write goes on into a full disk.  Unset, a point costs a comparison.
#ifndef ZARND_FAILPOINT_H
#define ZARND_FAILPOINT_H

#include <string>

namespace zarnd {

// The points, in the order a run meets them.
namespace failpoint {
constexpr char kAdding[] = "adding";          // a document goes into the database
constexpr char kCommitting[] = "committing";  // a commit begins
constexpr char kInCommit[] = "in-commit";     // the engine writes it, space checked
constexpr char kCompacting[] = "compacting";  // the rewrite has written a part
constexpr char kCompacted[] = "compacted";    // rewritten, the stub not yet swapped
constexpr char kStub[] = "stub";              // a new stub is about to be written
constexpr char kSwapped[] = "swapped";        // the stub names the new generation
}  // namespace failpoint

// `dir` is the index directory; the filler is a file beside it.
void FailPoint(const char *point, const std::string &dir);

}  // namespace zarnd

#endif  // ZARND_FAILPOINT_H

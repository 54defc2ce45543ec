// One file through the extractor that reads its kind.
#ifndef ZARND_EXTRACT_RUN_H
#define ZARND_EXTRACT_RUN_H

#include "extract/extractor.h"

namespace zarnd {
namespace extract {

// kUnsupported when no extractor reads input.kind; kFailed, with the
// reason, when the file is damaged or hits a cap.  Never throws.
Reply RunExtractor(const Input &input);

}  // namespace extract
}  // namespace zarnd

#endif  // ZARND_EXTRACT_RUN_H

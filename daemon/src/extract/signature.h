// The kind of a file whose name and first bytes agree, without libmagic:
// for the common media and PDF files, a signature at a fixed place says as
// much as libmagic's whole database would, at a fraction of its cost.
#ifndef ZARND_EXTRACT_SIGNATURE_H
#define ZARND_EXTRACT_SIGNATURE_H

#include <cstddef>
#include <string>

namespace zarnd {
namespace extract {

// libmagic's name for the kind of a file with the lower-case `extension`
// and first `size` bytes `bytes`, when the extension's signature is there;
// "" otherwise, and libmagic decides.
std::string AgreedKind(const std::string &extension, const char *bytes, size_t size);

}  // namespace extract
}  // namespace zarnd

#endif  // ZARND_EXTRACT_SIGNATURE_H

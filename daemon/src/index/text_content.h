// The text content of a file, for full-text search: plain text and
// gzip-compressed text, capped, always valid UTF-8.
#ifndef ZARND_TEXT_CONTENT_H
#define ZARND_TEXT_CONTENT_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace zarnd {

// Bytes of text kept per file.  Beyond that a file is indexed by its
// beginning: enough to find it, and it bounds each stored document.
constexpr size_t kMaxTextBytes = 256 * 1024;

// Decides from a sample whether `data` is text: no NUL byte and hardly any
// control characters.  Invalid UTF-8 alone does not make a file binary (old
// Latin-1 documents are text too); those bytes get replaced.
bool LooksLikeText(const std::string &data);

// Reads the regular file open at `fd` from its start and stores its text in
// *text: gzip data is inflated first.  False for binary or unreadable content
// (then *text is empty).  At most `limit` bytes of text, cut between characters.
// *bytes_read, when not null, receives how many bytes were read from the
// file (compressed bytes for gzip), whatever the outcome.
bool ExtractText(int fd, std::string *text, size_t limit = kMaxTextBytes,
                 uint64_t *bytes_read = nullptr);

}  // namespace zarnd

#endif  // ZARND_TEXT_CONTENT_H

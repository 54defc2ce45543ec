// UTF-8 checks and repairs.  Everything the daemon sends is JSON, and JSON
// text must be valid UTF-8, while file names and file contents are any bytes.
#ifndef ZARND_UTF8_H
#define ZARND_UTF8_H

#include <cstddef>
#include <string>

namespace zarnd {

// Length of the valid UTF-8 sequence starting at text[0] (1 to 4), or 0 when
// the bytes there do not start one.  Overlong forms and surrogates are invalid.
size_t Utf8SequenceLength(const char *text, size_t available);

// `text` with every byte that is not part of a valid sequence replaced by
// U+FFFD.  Counts the replaced bytes in *invalid when it is not null.
std::string RepairUtf8(const char *text, size_t size, size_t *invalid = nullptr);

// A file name (any bytes) as valid UTF-8 text that turns back into the same
// bytes (common/name_text.h): invalid bytes as "\xHH", the backslash doubled.
std::string EscapeName(const std::string &name);

// The largest length <= limit at which `text` (valid UTF-8) can be cut
// without splitting a character.
size_t Utf8CutLength(const std::string &text, size_t limit);

}  // namespace zarnd

#endif  // ZARND_UTF8_H

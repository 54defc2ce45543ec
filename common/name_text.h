// How a file name that is not valid UTF-8 travels as JSON text.  Names are
// any bytes, JSON text is UTF-8: the daemon writes each byte that does not
// belong to a valid sequence as "\xHH" (two upper-case hex digits) and a
// backslash as "\\"; every other byte is itself.  A literal name never
// yields "\x" or "\\" that way, so the form is unambiguous and turns back
// into the very bytes of the name.
#ifndef ZARN_NAME_TEXT_H
#define ZARN_NAME_TEXT_H

#include <string>

namespace zarn {

constexpr char kNameEscape = '\\';
constexpr char kNameByteMark = 'x';

// The bytes of the name that `text` (the daemon's form) stands for.  Text
// that the daemon cannot have written is kept as it is.
inline std::string UnescapeName(const std::string &text) {
    auto hex = [](char c) { return c >= '0' && c <= '9' ? c - '0' : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1; };
    std::string name;
    name.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == kNameEscape && i + 1 < text.size() && text[i + 1] == kNameEscape) {
            name += kNameEscape;
            ++i;
        } else if (text[i] == kNameEscape && i + 3 < text.size() && text[i + 1] == kNameByteMark &&
                   hex(text[i + 2]) >= 0 && hex(text[i + 3]) >= 0) {
            name += static_cast<char>(hex(text[i + 2]) * 16 + hex(text[i + 3]));
            i += 3;
        } else {
            name += text[i];
        }
    }
    return name;
}

}  // namespace zarn

#endif  // ZARN_NAME_TEXT_H

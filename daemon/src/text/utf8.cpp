#include "utf8.h"

#include "name_text.h"

namespace zarnd {

namespace {

bool IsContinuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

}  // namespace

size_t Utf8SequenceLength(const char *text, size_t available) {
    if (available == 0) return 0;
    const auto *s = reinterpret_cast<const unsigned char *>(text);
    const unsigned char lead = s[0];
    if (lead < 0x80) return 1;
    size_t length;
    unsigned char low = 0x80, high = 0xBF;  // allowed range of the second byte
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) low = 0xA0;   // overlong
        if (lead == 0xED) high = 0x9F;  // surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) low = 0x90;   // overlong
        if (lead == 0xF4) high = 0x8F;  // beyond U+10FFFF
    } else {
        return 0;
    }
    if (available < length || s[1] < low || s[1] > high) return 0;
    for (size_t i = 2; i < length; ++i)
        if (!IsContinuation(s[i])) return 0;
    return length;
}

std::string RepairUtf8(const char *text, size_t size, size_t *invalid) {
    static const char kReplacement[] = "\xEF\xBF\xBD";
    std::string out;
    out.reserve(size);
    size_t bad = 0;
    for (size_t i = 0; i < size;) {
        const size_t length = Utf8SequenceLength(text + i, size - i);
        if (length == 0) {
            out.append(kReplacement, 3);
            ++bad;
            ++i;
        } else {
            out.append(text + i, length);
            i += length;
        }
    }
    if (invalid != nullptr) *invalid = bad;
    return out;
}

std::string EscapeName(const std::string &name) {
    static const char kHex[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(name.size());
    for (size_t i = 0; i < name.size();) {
        const size_t length = Utf8SequenceLength(name.data() + i, name.size() - i);
        const unsigned char byte = static_cast<unsigned char>(name[i]);
        if (length == 0) {
            out += {zarn::kNameEscape, zarn::kNameByteMark, kHex[byte >> 4], kHex[byte & 15]};
        } else if (name[i] == zarn::kNameEscape) {
            out += {zarn::kNameEscape, zarn::kNameEscape};
        } else {
            out.append(name, i, length);
            i += length;
            continue;
        }
        ++i;
    }
    return out;
}

size_t Utf8CutLength(const std::string &text, size_t limit) {
    if (limit >= text.size()) return text.size();
    size_t cut = limit;
    while (cut > 0 && IsContinuation(static_cast<unsigned char>(text[cut]))) --cut;
    return cut;
}

}  // namespace zarnd

#include "sort_key.h"

namespace zarnd {

namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// A run of digits becomes '0', the count of its significant digits, then the
// digits: a shorter number is a smaller one, and equal counts compare digit
// by digit.  The leading '0' keeps a number ordered against other bytes as a
// digit would be.  Runs of more than 254 significant digits are split.
void AppendNumber(std::string *key, const std::string &text, size_t *at) {
    size_t i = *at;
    while (i < text.size() && text[i] == '0') ++i;
    size_t end = i;
    while (end < text.size() && IsDigit(text[end]) && end - i < 254) ++end;
    if (end == i && i > *at) {
        // Only zeros: the number 0.
        key->push_back('0');
        key->push_back(static_cast<char>(1));
        key->push_back('0');
    } else {
        key->push_back('0');
        key->push_back(static_cast<char>(end - i));
        key->append(text, i, end - i);
    }
    *at = end;
}

}  // namespace

std::string NaturalKey(const std::string &text) {
    std::string key;
    key.reserve(text.size() + 8);
    for (size_t i = 0; i < text.size();) {
        const char c = text[i];
        if (IsDigit(c)) {
            AppendNumber(&key, text, &i);
        } else {
            key.push_back(c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c);
            ++i;
        }
    }
    return key;
}

void AppendKeyComponent(std::string *key, const std::string &component, bool descending) {
    // NUL is escaped as NUL 0xFF and the component ends with NUL NUL, so no
    // encoded component is a prefix of another: a shorter text sorts first,
    // and inverting every byte reverses the order exactly.
    const char flip = descending ? '\xff' : '\0';
    for (char c : component) {
        key->push_back(static_cast<char>(c ^ flip));
        if (c == '\0') key->push_back(static_cast<char>('\xff' ^ flip));
    }
    key->push_back(flip);
    key->push_back(flip);
}

}  // namespace zarnd

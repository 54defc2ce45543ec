#include "word_forms.h"

#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/uscript.h>
#include <unicode/unistr.h>
#include <unicode/utf8.h>

#include <vector>

namespace zarnd {

namespace {

bool IsAscii(const std::string &text) {
    for (unsigned char c : text)
        if (c >= 0x80) return false;
    return true;
}

bool AccentsFold(UScriptCode script) {
    return script == USCRIPT_LATIN || script == USCRIPT_GREEK || script == USCRIPT_CYRILLIC;
}

// The code point at text[at] (U+FFFD for bytes that start none) and the
// byte after it.
UChar32 NextCodePoint(const std::string &text, size_t *at) {
    int32_t i = static_cast<int32_t>(*at);
    UChar32 c;
    U8_NEXT(reinterpret_cast<const uint8_t *>(text.data()), i, static_cast<int32_t>(text.size()), c);
    *at = static_cast<size_t>(i);
    return c < 0 ? 0xFFFD : c;
}

enum class CharClass { kSeparator, kUpper, kLower, kDigit };

CharClass ClassOf(UChar32 c) {
    if (u_isdigit(c)) return CharClass::kDigit;
    if (u_isUUppercase(c) || u_istitle(c)) return CharClass::kUpper;
    if (u_isalpha(c) || u_getCombiningClass(c) != 0 || u_charType(c) == U_NON_SPACING_MARK) return CharClass::kLower;
    return CharClass::kSeparator;
}

bool IsLetter(CharClass k) { return k == CharClass::kUpper || k == CharClass::kLower; }

}  // namespace

std::string FoldAccents(const std::string &text) {
    if (IsAscii(text)) return text;
    UErrorCode status = U_ZERO_ERROR;
    const icu::Normalizer2 *nfkd = icu::Normalizer2::getNFKDInstance(status);
    const icu::Normalizer2 *nfc = icu::Normalizer2::getNFCInstance(status);
    if (U_FAILURE(status)) return text;
    const icu::UnicodeString decomposed =
        nfkd->normalize(icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size()))), status);
    if (U_FAILURE(status)) return text;
    icu::UnicodeString kept;
    UScriptCode base = USCRIPT_COMMON;
    for (int32_t i = 0; i < decomposed.length();) {
        const UChar32 c = decomposed.char32At(i);
        i += U16_LENGTH(c);
        if (u_charType(c) == U_NON_SPACING_MARK) {
            if (!AccentsFold(base)) kept.append(c);
            continue;
        }
        UErrorCode script_status = U_ZERO_ERROR;
        base = uscript_getScript(c, &script_status);
        kept.append(c);
    }
    std::string folded;
    nfc->normalize(kept, status).toUTF8String(folded);
    return U_FAILURE(status) ? text : folded;
}

bool IsCjkAt(const std::string &text, size_t at, size_t *length) {
    size_t next = at;
    const UChar32 c = NextCodePoint(text, &next);
    *length = next - at;
    UErrorCode status = U_ZERO_ERROR;
    switch (uscript_getScript(c, &status)) {
    case USCRIPT_HAN:
    case USCRIPT_HIRAGANA:
    case USCRIPT_KATAKANA:
    case USCRIPT_HANGUL:
    case USCRIPT_BOPOMOFO:
        return U_SUCCESS(status);
    default:
        return false;
    }
}

std::string NameParts(const std::string &name) {
    struct Char {
        size_t begin, end;
        CharClass kind;
    };
    std::vector<Char> chars;
    for (size_t at = 0; at < name.size();) {
        const size_t begin = at;
        const UChar32 c = NextCodePoint(name, &at);
        chars.push_back({begin, at, ClassOf(c)});
    }
    std::string parts;
    bool cut_inside = false;  // a cut the engine does not make itself
    for (size_t i = 0; i < chars.size(); ++i) {
        const CharClass kind = chars[i].kind;
        if (kind == CharClass::kSeparator) {
            // The engine keeps "a_b" as one word; other punctuation it cuts at.
            if (name[chars[i].begin] == '_') cut_inside = true;
            continue;
        }
        bool cut = i == 0 || chars[i - 1].kind == CharClass::kSeparator;
        if (!cut) {
            const CharClass before = chars[i - 1].kind;
            const bool next_lower = i + 1 < chars.size() && chars[i + 1].kind == CharClass::kLower;
            const bool inside = (IsLetter(before) != IsLetter(kind)) ||
                                (before == CharClass::kLower && kind == CharClass::kUpper) ||
                                (before == CharClass::kUpper && kind == CharClass::kUpper && next_lower);
            cut = inside;
            cut_inside = cut_inside || inside;
        }
        if (cut && !parts.empty()) parts += ' ';
        parts.append(name, chars[i].begin, chars[i].end - chars[i].begin);
    }
    return cut_inside ? parts : std::string();
}

}  // namespace zarnd

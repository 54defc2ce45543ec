#include "json_text.h"

#include <errno.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include <json/reader.h>
#include <json/writer.h>

namespace zarn {
namespace json {

namespace {

// Built once and never destroyed, so that a parse during process exit still
// finds them.  newCharReader and newStreamWriter are const: safe to share.
// Each is kept only once fully set: when memory runs out part way, nothing
// leaks and the next call builds it again.
const Json::CharReaderBuilder &Reader() {
    static const Json::CharReaderBuilder *builder = [] {
        auto b = std::make_unique<Json::CharReaderBuilder>();
        // Every leniency off: what is read must be a JSON text as RFC 8259
        // writes it.  A scalar is a JSON text too, so strictRoot stays off;
        // the readers themselves ask for objects.  A byte order mark is not
        // part of the text, and nothing we read is written with one.
        // Duplicate names are refused: two readers of the same text could
        // otherwise take different values for one member.
        (*b)["collectComments"] = false;
        (*b)["allowComments"] = false;
        (*b)["allowTrailingCommas"] = false;
        (*b)["allowDroppedNullPlaceholders"] = false;
        (*b)["allowNumericKeys"] = false;
        (*b)["allowSingleQuotes"] = false;
        (*b)["allowSpecialFloats"] = false;
        (*b)["strictRoot"] = false;
        (*b)["failIfExtra"] = true;
        (*b)["rejectDupKeys"] = true;
        (*b)["skipBom"] = false;
        return b.release();
    }();
    return *builder;
}

const Json::StreamWriterBuilder &Writer() {
    static const Json::StreamWriterBuilder *builder = [] {
        auto b = std::make_unique<Json::StreamWriterBuilder>();
        (*b)["indentation"] = "";
        (*b)["emitUTF8"] = true;
        return b.release();
    }();
    return *builder;
}

// One spare reader, kept between parses: building a reader costs about as
// much as parsing a search hit, and a search parses one packet per hit.  A
// parse takes the spare (or builds one when another thread holds it) and
// puts it back, even after a throw: a reader resets all its state at the
// start of every parse.
std::atomic<Json::CharReader *> spare_reader{nullptr};

// The spare goes when the library is unloaded; a parse after that builds
// another, as the first one did.
__attribute__((destructor)) void DropSpareReader() { delete spare_reader.exchange(nullptr); }

std::unique_ptr<Json::CharReader> TakeReader() {
    std::unique_ptr<Json::CharReader> reader(spare_reader.exchange(nullptr));
    if (!reader) reader.reset(Reader().newCharReader());
    return reader;
}

void PutBack(std::unique_ptr<Json::CharReader> reader) {
    delete spare_reader.exchange(reader.release());
}

// The escape sequence at p (\uXXXX), as a code unit; -1 when it is not one.
long UnicodeEscape(const char *p, const char *end) {
    if (end - p < 6 || p[0] != '\\' || p[1] != 'u') return -1;
    long unit = 0;
    for (int i = 2; i < 6; ++i) {
        const char c = p[i];
        const int digit = c >= '0' && c <= '9'   ? c - '0'
                          : c >= 'a' && c <= 'f' ? c - 'a' + 10
                          : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                                 : -1;
        if (digit < 0) return -1;
        unit = unit * 16 + digit;
    }
    return unit;
}

// p is just after the opening quote; returns just after the closing one, or
// null when the string breaks the grammar.
const char *SkipString(const char *p, const char *end) {
    while (p < end) {
#ifdef __SSE2__
        // Most of a hit is string bytes: sixteen at a time up to the next
        // quote, backslash or control character.
        if (end - p >= 16) {
            const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p));
            const __m128i stop = _mm_or_si128(
                _mm_or_si128(_mm_cmpeq_epi8(bytes, _mm_set1_epi8('"')),
                             _mm_cmpeq_epi8(bytes, _mm_set1_epi8('\\'))),
                _mm_cmpeq_epi8(_mm_min_epu8(bytes, _mm_set1_epi8(0x1F)), bytes));
            const int mask = _mm_movemask_epi8(stop);
            if (mask == 0) {
                p += 16;
                continue;
            }
            p += __builtin_ctz(static_cast<unsigned>(mask));
        }
#endif
        const unsigned char c = static_cast<unsigned char>(*p);
        if (c == '"') return p + 1;
        if (c < 0x20) return nullptr;
        if (c != '\\') {
            ++p;
            continue;
        }
        if (end - p < 2) return nullptr;
        switch (p[1]) {
            case '"': case '\\': case '/': case 'b': case 'f': case 'n': case 'r': case 't':
                p += 2;
                continue;
            case 'u': break;
            default: return nullptr;
        }
        // Half a surrogate pair names no character: a high half must be
        // followed by a low one, and a low half cannot stand alone.
        const long unit = UnicodeEscape(p, end);
        if (unit < 0 || (unit >= 0xDC00 && unit <= 0xDFFF)) return nullptr;
        p += 6;
        if (unit >= 0xD800 && unit <= 0xDBFF) {
            const long low = UnicodeEscape(p, end);
            if (low < 0xDC00 || low > 0xDFFF) return nullptr;
            p += 6;
        }
    }
    return nullptr;
}

// p is at the sign or first digit; returns just after the number, or null
// when it breaks the grammar: -?(0|[1-9][0-9]*)(.[0-9]+)?([eE][+-]?[0-9]+)?
const char *SkipNumber(const char *p, const char *end) {
    auto digits = [&] {
        const char *from = p;
        while (p < end && *p >= '0' && *p <= '9') ++p;
        return p != from;
    };
    if (*p == '-') ++p;
    if (p < end && *p == '0')
        ++p;
    else if (!digits())
        return nullptr;
    if (p < end && *p == '.') {
        ++p;
        if (!digits()) return nullptr;
    }
    if (p < end && (*p == 'e' || *p == 'E')) {
        ++p;
        if (p < end && (*p == '+' || *p == '-')) ++p;
        if (!digits()) return nullptr;
    }
    // JsonCpp would read on into "01" or "1.2.3": what follows must end the number.
    if (p < end && ((*p >= '0' && *p <= '9') || *p == '.' || *p == '+' || *p == '-')) return nullptr;
    return p;
}

// What a byte outside strings may be.
enum ByteClass : unsigned char { kRefused, kPlain, kQuote, kNumber };

constexpr std::array<unsigned char, 256> ClassTable() {
    std::array<unsigned char, 256> table{};
    // White space, punctuation, and the letters of true, false and null.
    for (const char c : std::string_view(" \t\n\r{}[]:,aeflnrstu")) table[static_cast<unsigned char>(c)] = kPlain;
    table['"'] = kQuote;
    for (const char c : std::string_view("-0123456789")) table[static_cast<unsigned char>(c)] = kNumber;
    return table;
}
constexpr std::array<unsigned char, 256> kByteClass = ClassTable();

// JsonCpp, even with every leniency off, takes numbers outside the grammar
// ("01", "1.", "-", "+1"), a comment after a member, raw control characters
// in strings and escapes of half a surrogate pair.  This pass refuses those
// and any byte outside strings that no JSON token holds, and leaves the
// structure (commas, nesting, whole literals) to the parser.  Bytes from
// 0x80 up pass as they are inside strings: names on a share are bytes, and
// a name that is not UTF-8 must not make a whole search fail.
bool LexicallyValid(const char *p, const char *end) {
    while (p < end) {
        switch (kByteClass[static_cast<unsigned char>(*p)]) {
            case kPlain: ++p; continue;
            case kQuote: p = SkipString(p + 1, end); break;
            case kNumber: p = SkipNumber(p, end); break;
            default: return false;
        }
        if (p == nullptr) return false;
    }
    return true;
}

}  // namespace

bool FromString(const std::string &text, Json::Value *value) {
    if (!LexicallyValid(text.data(), text.data() + text.size())) {
        *value = Json::Value();
        return false;
    }
    // Building a reader throws only when memory runs out.
    std::unique_ptr<Json::CharReader> reader = TakeReader();
    bool parsed = false;
    bool out_of_memory = false;
    // JsonCpp throws the same RuntimeError for nesting beyond its depth limit
    // (invalid text) and for a string whose malloc failed (no memory); only
    // the failed malloc leaves ENOMEM behind.
    errno = 0;
    try {
        parsed = reader->parse(text.data(), text.data() + text.size(), value, nullptr);
    } catch (const std::bad_alloc &) {
        out_of_memory = true;
    } catch (const Json::RuntimeError &) {
        out_of_memory = errno == ENOMEM;
    } catch (const std::exception &) {
        // Any other complaint of the parser is about the text.
    }
    PutBack(std::move(reader));
    if (parsed) return true;
    *value = Json::Value();
    if (out_of_memory) throw std::bad_alloc();
    return false;
}

std::string ToString(const Json::Value &value) {
    return Json::writeString(Writer(), value);
}

bool FromFile(const char *path, Json::Value *value) {
    *value = Json::Value();
    std::unique_ptr<FILE, int (*)(FILE *)> file(std::fopen(path, "rb"), std::fclose);
    if (!file) return false;
    std::string text;
    char chunk[65536];
    size_t got;
    while ((got = std::fread(chunk, 1, sizeof chunk, file.get())) > 0) {
        if (static_cast<long>(text.size() + got) > kMaxFileBytes) return false;
        text.append(chunk, got);
    }
    if (std::ferror(file.get())) return false;
    return FromString(text, value);
}

}  // namespace json
}  // namespace zarn

// Error reports on stderr, the meanings of the library's result codes, and
// safe text for the terminal.
#include <stdio.h>

#include <json/json.h>

#include "cli.h"
#include "name_text.h"
#include "zarncontentsearchutils.h"

namespace zarncli {

const char kExitCodeHelp[] =
    "Exit status:\n"
    "  0  success (for 'indexed': yes)\n"
    "  1  the check answered no\n"
    "  2  usage error\n"
    "  3  the search daemon or the library failed\n";

namespace {

struct ResultCode {
    int code;
    const char *name;
    const char *meaning;
};

// The one table of the library's result codes.
const ResultCode kResultCodes[] = {
    {ZARN_OK, "ZARN_OK", "success"},
    {ZARN_ERR_INVALID, "ZARN_ERR_INVALID", "an argument is missing or out of range"},
    {ZARN_ERR_CONNECT, "ZARN_ERR_CONNECT",
     "the search daemon's socket could not be created or connected"},
    {ZARN_ERR_FORMAT, "ZARN_ERR_FORMAT",
     "the daemon's reply is malformed or reports a failure"},
    {ZARN_ERR_INDEX_ID, "ZARN_ERR_INDEX_ID", "no index identifier could be formed for the share"},
    {ZARN_ERR_WRITE, "ZARN_ERR_WRITE", "the request could not be sent to the daemon"},
    {ZARN_ERR_READ, "ZARN_ERR_READ", "a reply could not be read from the daemon (or timed out)"},
    {ZARN_ERR_NO_MEMORY, "ZARN_ERR_NO_MEMORY", "out of memory"},
};

const ResultCode *FindCode(int code) {
    for (const ResultCode &entry : kResultCodes)
        if (entry.code == code) return &entry;
    return nullptr;
}

std::string Prefix(const Args &args) {
    return std::string("zarnsearch") + (args.command ? std::string(" ") + args.command->name : "");
}

}  // namespace

const char *ResultCodeName(int code) {
    const ResultCode *entry = FindCode(code);
    return entry ? entry->name : "unknown";
}

const char *ResultCodeMeaning(int code) {
    const ResultCode *entry = FindCode(code);
    return entry ? entry->meaning : "a result code this program does not know";
}

int UsageError(const Args &args, const std::string &message) {
    const std::string prefix = Prefix(args);
    fprintf(stderr, "%s: %s\nTry '%s --help'.\n", prefix.c_str(), message.c_str(),
            prefix.c_str());
    return kExitUsage;
}

int LibraryFailure(const Args &args, const std::string &what, int code) {
    fprintf(stderr, "%s: %s failed: %d %s (%s)\n", Prefix(args).c_str(), what.c_str(), code,
            ResultCodeName(code), ResultCodeMeaning(code));
    return kExitFailure;
}

int Failure(const Args &args, const std::string &message) {
    fprintf(stderr, "%s: %s\n", Prefix(args).c_str(), message.c_str());
    return kExitFailure;
}

namespace {

// Length of the well-formed UTF-8 sequence at text[i], or 0.
size_t SequenceLength(const std::string &text, size_t i) {
    const unsigned char lead = text[i];
    if (lead < 0x80) return 1;
    size_t length;
    unsigned point;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2, point = lead & 0x1F;
    } else if ((lead & 0xF0) == 0xE0) {
        length = 3, point = lead & 0x0F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4, point = lead & 0x07;
    } else {
        return 0;
    }
    if (i + length > text.size()) return 0;
    for (size_t k = 1; k < length; ++k) {
        const unsigned char next = text[i + k];
        if ((next & 0xC0) != 0x80) return 0;
        point = point << 6 | (next & 0x3F);
    }
    static const unsigned kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (point < kSmallest[length] || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF))
        return 0;
    return length;
}

}  // namespace

std::string ValidUtf8(const std::string &text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        const size_t length = SequenceLength(text, i);
        if (length == 0) {
            out += "\xEF\xBF\xBD";  // U+FFFD
            ++i;
        } else {
            out.append(text, i, length);
            i += length;
        }
    }
    return out;
}

std::string JsonText(const Json::Value &value) {
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    writer["emitUTF8"] = true;
    return Json::writeString(writer, value);
}

namespace {

std::string ControlsMarked(std::string text) {
    for (char &c : text)
        if ((unsigned char)c < 0x20 || c == 0x7f) c = '?';
    return text;
}

}  // namespace

std::string Printable(const std::string &text) { return ControlsMarked(ValidUtf8(text)); }

std::string RealName(const std::string &text) { return ControlsMarked(zarn::UnescapeName(text)); }

std::string Pad(const std::string &text, size_t width, bool right) {
    const size_t used = TextWidth(text);
    const std::string fill(used < width ? width - used : 0, ' ');
    return right ? fill + text : text + fill;
}

size_t TextWidth(const std::string &text) {
    size_t width = 0;
    for (char c : text)
        if (((unsigned char)c & 0xC0) != 0x80) ++width;
    return width;
}

}  // namespace zarncli

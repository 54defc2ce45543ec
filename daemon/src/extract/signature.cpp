#include "extract/signature.h"

#include <cstring>

namespace zarnd {
namespace extract {

namespace {

struct Mark {
    size_t offset;
    const char *bytes;  // nullptr: no second mark
    size_t length;
};

// Each row: the extension, what must stand where, and the kind libmagic
// names such a file.  Only signatures that fix the kind on their own: a
// Matroska file, for one, is told from WebM further in, so it is not here.
struct Signature {
    const char *extension;
    Mark first, second;
    const char *kind;
};

#define ZARND_MARK(offset, text) \
    { offset, text, sizeof text - 1 }
constexpr Mark kNone = {0, nullptr, 0};
const Signature kSignatures[] = {
    {"mp3", ZARND_MARK(0, "ID3"), kNone, "audio/mpeg"},
    {"flac", ZARND_MARK(0, "fLaC"), kNone, "audio/flac"},
    {"ogg", ZARND_MARK(0, "OggS"), ZARND_MARK(28, "\x01vorbis"), "audio/ogg"},
    {"oga", ZARND_MARK(0, "OggS"), ZARND_MARK(28, "\x01vorbis"), "audio/ogg"},
    {"opus", ZARND_MARK(0, "OggS"), ZARND_MARK(28, "OpusHead"), "audio/ogg"},
    {"m4a", ZARND_MARK(4, "ftypM4A "), kNone, "audio/x-m4a"},
    {"wav", ZARND_MARK(0, "RIFF"), ZARND_MARK(8, "WAVE"), "audio/x-wav"},
    {"jpg", ZARND_MARK(0, "\xFF\xD8\xFF"), kNone, "image/jpeg"},
    {"jpeg", ZARND_MARK(0, "\xFF\xD8\xFF"), kNone, "image/jpeg"},
    {"png", ZARND_MARK(0, "\x89PNG\r\n\x1A\n"), kNone, "image/png"},
    {"webp", ZARND_MARK(0, "RIFF"), ZARND_MARK(8, "WEBP"), "image/webp"},
    {"mp4", ZARND_MARK(4, "ftypisom"), kNone, "video/mp4"},
    {"mov", ZARND_MARK(4, "ftypqt  "), kNone, "video/quicktime"},
    {"avi", ZARND_MARK(0, "RIFF"), ZARND_MARK(8, "AVI "), "video/x-msvideo"},
    {"pdf", ZARND_MARK(0, "%PDF-"), kNone, "application/pdf"},
};
#undef ZARND_MARK

bool Holds(const Mark &mark, const char *bytes, size_t size) {
    return mark.bytes == nullptr ||
           (size >= mark.offset + mark.length && std::memcmp(bytes + mark.offset, mark.bytes, mark.length) == 0);
}

}  // namespace

std::string AgreedKind(const std::string &extension, const char *bytes, size_t size) {
    for (const Signature &signature : kSignatures)
        if (extension == signature.extension && Holds(signature.first, bytes, size) &&
            Holds(signature.second, bytes, size))
            return signature.kind;
    return std::string();
}

}  // namespace extract
}  // namespace zarnd

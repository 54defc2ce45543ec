// The photo, music and video extractors over exiv2, TagLib and libavformat:
// the first byte picks the kind the worker would have found, the rest is
// the file.  Every input must end as a reply within the caps, never a crash
// or a leak.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "extract/run.h"
#include "text_content.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using namespace zarnd::extract;
    static const char *const kKinds[][2] = {
        {"image/jpeg", "jpg"}, {"image/png", "png"},   {"image/tiff", "tif"},       {"image/webp", "webp"},
        {"audio/mpeg", "mp3"}, {"audio/flac", "flac"}, {"audio/ogg", "ogg"},        {"audio/x-m4a", "m4a"},
        {"audio/x-wav", "wav"}, {"video/mp4", "mp4"},  {"video/x-matroska", "mkv"}, {"video/x-msvideo", "avi"},
    };
    if (size == 0) return 0;
    const auto &kind = kKinds[data[0] % (sizeof kKinds / sizeof kKinds[0])];
    const Input input{reinterpret_cast<const char *>(data) + 1, size - 1, kind[0], kind[1]};
    const Reply reply = RunExtractor(input);
    if (reply.text.size() > zarnd::kMaxTextBytes || reply.fields.size() > kMaxFields) std::abort();
    return 0;
}

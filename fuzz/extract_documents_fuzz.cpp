// Our glue around the zip reader and the XML and HTML parsers: the first
// byte picks the kind the worker would have found, the rest is the file.
// Every input must end as a reply within the caps, never a crash or a leak.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "extract/markup.h"
#include "extract/run.h"
#include "text_content.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using namespace zarnd::extract;
    static const bool ready = (InitMarkup(), true);
    static const char *const kKinds[][2] = {
        {"application/vnd.openxmlformats-officedocument.wordprocessingml.document", "docx"},
        {"application/vnd.oasis.opendocument.text", "odt"},
        {"application/epub+zip", "epub"},
        {"application/zip", "xlsx"},
        {"text/html", "html"},
        {"text/xml", "xml"},
    };
    if (!ready || size == 0) return 0;
    const auto &kind = kKinds[data[0] % (sizeof kKinds / sizeof kKinds[0])];
    const Input input{reinterpret_cast<const char *>(data) + 1, size - 1, kind[0], kind[1]};
    const Reply reply = RunExtractor(input);
    if (reply.text.size() > zarnd::kMaxTextBytes || reply.fields.size() > kMaxFields) std::abort();
    return 0;
}

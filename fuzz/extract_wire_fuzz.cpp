// The worker protocol's decoders on any bytes: a request as the worker reads
// it, a reply as the daemon reads it.  What decodes must encode back to the
// same bytes, so that nothing is read that the encoder could not have made.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "extract/wire.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using namespace zarnd::extract;
    const std::string payload(reinterpret_cast<const char *>(data), size);
    if (size >= kFrameHeaderBytes) {
        size_t length = 0;
        if (FrameLength(data, &length) && length > kMaxFrameBytes) std::abort();
    }
    Request request;
    if (DecodeRequest(payload, &request) && EncodeRequest(request) != payload) std::abort();
    Reply reply;
    if (DecodeReply(payload, &reply) && EncodeReply(reply) != payload) std::abort();
    return 0;
}

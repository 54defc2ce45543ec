#include "extract/run.h"

#include <new>

#include "extract/media.h"
#include "extract/sandbox.h"

namespace zarnd {
namespace extract {

Reply RunExtractor(const Input &input) {
    Reply reply;
    const Extractor *extractor = FindExtractor(input);
    if (extractor == nullptr) {
        // A worker built without the video extractor passes videos on.
        if (IsVideoKind(input.kind)) reply.status = Status::kVideo;
        reply.kind = input.kind;
        return reply;
    }
    Sink sink;
    try {
        extractor->extract(input, &sink);
        reply = sink.Take();
        reply.status = Status::kDone;
    } catch (const ExtractError &error) {
        reply = Reply();
        reply.status = Status::kFailed;
        reply.reason = error.what();
    } catch (const std::bad_alloc &) {
        reply = Reply();
        reply.status = Status::kFailed;
        reply.reason = "out of memory (the limit is " + std::to_string(kWorkerMemoryBytes >> 20) + " MiB)";
    } catch (const std::exception &error) {
        reply = Reply();
        reply.status = Status::kFailed;
        reply.reason = error.what();
    }
    reply.kind = input.kind;
    if (reply.reason.size() > kMaxReasonBytes) reply.reason.resize(kMaxReasonBytes);
    return reply;
}

}  // namespace extract
}  // namespace zarnd

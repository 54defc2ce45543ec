// What the daemon and an extraction worker say to each other over their
// socket.  Each message is a frame: a 4-byte big-endian length, then that
// many bytes.  A request frame carries the file as a descriptor beside it
// (SCM_RIGHTS); the reply frame carries what the worker read.  Encoding and
// decoding do no I/O, so that a fuzzer can drive them alone.
#ifndef ZARND_EXTRACT_WIRE_H
#define ZARND_EXTRACT_WIRE_H

#include <cstdint>
#include <string>
#include <vector>

#include "extract/fields.h"

namespace zarnd {
namespace extract {

// A frame's payload at most: the text cap, the fields and some room.
constexpr size_t kMaxFrameBytes = 512 * 1024;
constexpr size_t kFrameHeaderBytes = 4;
constexpr size_t kMaxReasonBytes = 512;
constexpr size_t kMaxKindBytes = 128;
constexpr size_t kMaxExtensionBytes = 64;
constexpr size_t kMaxFields = 32;

struct Request {
    uint64_t size = 0;      // the file's size when the walk saw it
    std::string extension;  // its name's extension, a hint when the content is ambiguous
};

enum class Status : uint8_t {
    kDone = 0,         // text and fields read
    kUnsupported = 1,  // a kind that no extractor reads: nothing to report
    kFailed = 2,       // a damaged or hostile file; `reason` says why
    kVideo = 3,        // a video, which this worker leaves to the video worker
};

struct Field {
    std::string key;
    FieldType type = FieldType::kString;
    std::string text;    // kString
    int64_t number = 0;  // kInt, and kBool as 0 or 1
    double real = 0;     // kDouble
};

struct Reply {
    Status status = Status::kUnsupported;
    uint64_t cpu_ms = 0;  // the worker's CPU time over its life so far
    std::string reason;   // kFailed: why, for the log
    std::string kind;     // the content's media type, as the worker found it
    std::string text;     // valid UTF-8, at most kMaxTextBytes
    std::vector<Field> fields;
};

// The payload's length from a frame header; false when it is above
// kMaxFrameBytes.
bool FrameLength(const unsigned char header[kFrameHeaderBytes], size_t *length);
// `payload` with its header in front.
std::string Frame(const std::string &payload);

std::string EncodeRequest(const Request &request);
std::string EncodeReply(const Reply &reply);

// False for a payload that the encoder could not have made: wrong tags,
// lengths beyond the data or the caps, unknown fields or wrong types, text
// that is not valid UTF-8.  The output is then unspecified.
bool DecodeRequest(const std::string &payload, Request *request);
bool DecodeReply(const std::string &payload, Reply *reply);

}  // namespace extract
}  // namespace zarnd

#endif  // ZARND_EXTRACT_WIRE_H

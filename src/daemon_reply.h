// Telling the daemon's reply packets apart.
#ifndef ZARN_DAEMON_REPLY_H
#define ZARN_DAEMON_REPLY_H

#include <string>

#include <json/value.h>

namespace zarn {

enum class ReplyKind {
    kMalformed,  // not valid JSON, or valid JSON that is not an object
    kHeader,     // has "total" (even with "success" beside it)
    kEnd,        // has "success" and no "total"
    kHit,        // has neither
};

// Parses one packet text into *value and classifies it.  Throws only when
// memory runs out (see json_text.h).
ReplyKind ClassifyReply(const std::string &text, Json::Value *value);

// The header's "total" as a signed 32-bit integer: 0 when absent, and 0 when
// it is not a number that JsonCpp can convert to one.
int ReplyTotal(const Json::Value &header);

}  // namespace zarn

#endif  // ZARN_DAEMON_REPLY_H

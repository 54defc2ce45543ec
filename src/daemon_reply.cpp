#include "daemon_reply.h"

#include "json_text.h"

namespace zarn {

ReplyKind ClassifyReply(const std::string &text, Json::Value *value) {
    if (!json::FromString(text, value) || !value->isObject()) return ReplyKind::kMalformed;
    if (value->isMember("total")) return ReplyKind::kHeader;
    if (value->isMember("success")) return ReplyKind::kEnd;
    return ReplyKind::kHit;
}

int ReplyTotal(const Json::Value &header) {
    if (!header.isObject()) return 0;
    const Json::Value &total = header["total"];
    // asInt throws for strings, arrays, objects and numbers outside the int
    // range; such a total reads as 0 rather than ending the caller.
    if (total.isNull() || total.isBool() || total.isInt()) return total.asInt();
    if (total.isDouble() && total.asDouble() >= -2147483648.0 && total.asDouble() < 2147483648.0)
        return total.asInt();
    return 0;
}

}  // namespace zarn

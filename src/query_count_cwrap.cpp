// ZARNQueryCount: the total of the search, read from the header packet when
// no reader has met it yet.
#include <errno.h>

#include <algorithm>
#include <exception>
#include <string>

#include "daemon_reply.h"
#include "log.h"
#include "zarncontentsearchutils.h"
#include "zarnplatform.h"

namespace {

int ReadTotal(ZARNQueryHandle *handle) {
    std::string text;
    if (!zarndaemon::io::PacketRead(handle->fd, text)) {
        ZARN_LOG(LOG_DEBUG, "Failed to read socket, errno(%d): %m", errno);
        return handle->total;
    }
    Json::Value value;
    if (zarn::ClassifyReply(text, &value) != zarn::ReplyKind::kHeader) {
        // The packet is consumed all the same: the stream has moved on.
        ZARN_LOG(LOG_ERR, "response format is wrong: %s", text.c_str());
        return 0;
    }
    // -1 stays the mark of an unread header, whatever the daemon says.
    handle->total = std::max(0, zarn::ReplyTotal(value));
    return handle->total;
}

}  // namespace

extern "C" int ZARNQueryCount(ZARNQueryHandle *handle) {
    if (handle == nullptr) {
        ZARN_LOG(LOG_ERR, "connection is NULL. %m");
        return 0;
    }
    if (handle->total >= 0) return handle->total;
    // A failed read below leaves 0: Count never reads for the header twice.
    handle->total = 0;
    try {
        return ReadTotal(handle);
    } catch (const std::exception &) {
        return 0;
    }
}

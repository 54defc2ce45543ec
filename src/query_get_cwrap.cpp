// ZARNQueryGetNextRecord and ZARNQueryFreeRecord: the blocking reader of the
// streaming API and the release of the records it hands out.
#include <errno.h>

#include <algorithm>
#include <exception>
#include <string>

#include "daemon_reply.h"
#include "log.h"
#include "zarn_connection.h"
#include "zarncontentsearchutils.h"
#include "zarnplatform.h"

namespace {

// Reads packets until one that is not a header; a header only sets the
// total, so the caller never sees it.
int ReadNextRecord(ZARNQueryHandle *handle, _tag_search_record **record) {
    std::string text;
    Json::Value value;
    for (;;) {
        text.clear();
        if (!zarndaemon::io::PacketRead(handle->fd, text)) {
            ZARN_LOG(LOG_DEBUG, "Failed to read socket, errno(%d): %m", errno);
            return ZARN_ERR_READ;
        }
        switch (zarn::ClassifyReply(text, &value)) {
        case zarn::ReplyKind::kMalformed:
            ZARN_LOG(LOG_ERR, "response format is wrong: %s", text.c_str());
            return ZARN_ERR_FORMAT;
        case zarn::ReplyKind::kHeader:
            // -1 stays the mark of an unread header, whatever the daemon says.
            handle->total = std::max(0, zarn::ReplyTotal(value));
            continue;
        case zarn::ReplyKind::kEnd:
            return ZARN_OK;
        case zarn::ReplyKind::kHit:
            *record = ZARN::IR::DAEMON::Connection::BuildRecordFromJson(value);
            return ZARN_OK;
        }
    }
}

}  // namespace

extern "C" int ZARNQueryGetNextRecord(ZARNQueryHandle *handle, _tag_search_record **record) {
    if (handle == nullptr) {
        ZARN_LOG(LOG_ERR, "connection is NULL. %m");
        return ZARN_ERR_INVALID;
    }
    if (record == nullptr) return ZARN_ERR_INVALID;
    try {
        return ReadNextRecord(handle, record);
    } catch (const std::exception &) {
        // Only memory running out throws on the way: std::bad_alloc, or
        // JsonCpp's error when its malloc fails.
        return ZARN_ERR_NO_MEMORY;
    }
}

extern "C" void ZARNQueryFreeRecord(_tag_search_record *record) {
    ZARN::IR::DAEMON::Connection::FreeRecord(record);
}

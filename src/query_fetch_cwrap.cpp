// ZARNQueryFetchNext: waits, up to the caller's time-out, for the next reply
// packet, then reads it like ZARNQueryGetNextRecord.
#include <sys/select.h>

#include "log.h"
#include "zarncontentsearchutils.h"

extern "C" _tag_search_record *ZARNQueryFetchNext(ZARNQueryHandle *handle, struct timeval timeout) {
    _tag_search_record *record = nullptr;
    if (handle == nullptr) {
        ZARN_LOG(LOG_ERR, "connection is NULL. %m");
        return nullptr;
    }
    // read_fds holds descriptors below FD_SETSIZE only.
    if (handle->fd < 0 || handle->fd >= FD_SETSIZE) {
        ZARN_LOG(LOG_ERR, "socket descriptor %d cannot be waited on", handle->fd);
        return nullptr;
    }
    FD_ZERO(&handle->read_fds);
    FD_SET(handle->fd, &handle->read_fds);
    // select() may change the time-out it is given; the caller's stays as it was.
    timeval wait = timeout;
    if (select(FD_SETSIZE, &handle->read_fds, nullptr, nullptr, &wait) < 0) {
        ZARN_LOG(LOG_ERR, "select get error %m");
        return nullptr;
    }
    // The end packet, a failure and a hit all come back through `record`;
    // only a hit sets it.
    if (FD_ISSET(handle->fd, &handle->read_fds)) (void)ZARNQueryGetNextRecord(handle, &record);
    return record;
}

// ZARNQueryConnectionInit and ZARNQueryConnectionClose: the query handle and
// its link to the search daemon.
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstring>

#include "daemon_socket.h"
#include "log.h"
#include "zarncontentsearchutils.h"

extern "C" int ZARNQueryConnectionInit(ZARNQueryHandle **handle) {
    // A write to a daemon that has gone must fail with EPIPE, not kill the caller.
    signal(SIGPIPE, SIG_IGN);
    if (handle == nullptr) return ZARN_ERR_INVALID;

    ZARNQueryHandle *h = static_cast<ZARNQueryHandle *>(malloc(sizeof(ZARNQueryHandle)));
    *handle = h;
    if (h == nullptr) {
        ZARN_LOG(LOG_ERR, "malloc() failed");
        return ZARN_ERR_NO_MEMORY;
    }
    h->total = -1;
    h->fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (h->fd < 0) {
        ZARN_LOG(LOG_ERR, "socket() failed");
        return ZARN_ERR_CONNECT;
    }
    // read_fds has room for descriptors below FD_SETSIZE only.
    if (h->fd >= FD_SETSIZE) {
        ZARN_LOG(LOG_ERR, "socket descriptor %d is beyond the select() limit", h->fd);
        return ZARN_ERR_CONNECT;
    }
    const sockaddr_un address = zarn::DaemonAddress();
    if (connect(h->fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        ZARN_LOG(LOG_ERR, "Connect domain socket failed, %m");
        return ZARN_ERR_CONNECT;
    }
    const timeval timeout = {zarn::kDaemonTimeoutSeconds, 0};
    if (setsockopt(h->fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) < 0) {
        ZARN_LOG(LOG_ERR, "Failed to set socket recv timeout, %m");
        return ZARN_ERR_CONNECT;
    }
    if (setsockopt(h->fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout) < 0) {
        ZARN_LOG(LOG_ERR, "Failed to set socket send timeout, %m");
        return ZARN_ERR_CONNECT;
    }
    FD_ZERO(&h->read_fds);
    FD_SET(h->fd, &h->read_fds);
    return ZARN_OK;
}

extern "C" void ZARNQueryConnectionClose(ZARNQueryHandle *handle) {
    if (handle == nullptr) return;
    if (handle->fd >= 0) close(handle->fd);
    free(handle);
}

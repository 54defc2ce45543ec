// The daemon's listener: one Unix stream socket, a bounded pool of workers,
// and an event loop that hands a connection to a worker only once its whole
// request has arrived, so that slow or silent clients never hold a worker.
#ifndef ZARND_SERVER_H
#define ZARND_SERVER_H

#include <string>

#include "live_index.h"
#include "names.h"
#include "protocol.h"

namespace zarnd {

struct ServerOptions {
    std::string socket_path = zarn::kDaemonSocketPath;
    bool foreground = false;
    unsigned workers = 4;
    int request_timeout_ms = 10000;  // from accept until the request is complete
    int send_timeout_s = 10;         // per blocking send of a reply
    size_t max_waiting = 1024;       // connections still sending their request
    size_t max_queued = 256;         // complete requests waiting for a worker
    int max_queue_wait_ms = 10000;   // then they are answered 503
    size_t max_request_bytes = 64 * 1024;
    // One uid other than root: its connections in any state, and the part of
    // the workers its requests may occupy at once (at least one).
    size_t max_per_user = 64;
    unsigned UserShare() const { return workers / 2 > 0 ? workers / 2 : 1; }
    RequestLimits limits;  // search budget, shard time-out
    bool live = true;  // keep the indexes current as files change
    LiveOptions live_options;
};

// Serves until SIGTERM or SIGINT; returns the process exit status.  Refuses
// to start (status 1) while another daemon answers on the socket.
int RunServer(const ServerOptions &options);

}  // namespace zarnd

#endif  // ZARND_SERVER_H

// The daemon's listener: one Unix stream socket, a bounded pool of workers,
// and an event loop that hands a connection to a worker only once its whole
// request has arrived, so that slow or silent clients never hold a worker.
// Which request a free worker takes is the scheduler's rule (scheduler.h);
// what a request asks, the protocol's (protocol.h).  Setting the process up
// and live indexing are the caller's (process.h).
#ifndef ZARND_SERVER_H
#define ZARND_SERVER_H

#include <memory>
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

class Server;

class Listener {
public:
    explicit Listener(const ServerOptions &options);
    ~Listener();

    // Takes the socket; the reason not to start, errno set, when it cannot:
    // among others while another daemon answers there.  Null when listening.
    const char *Open();
    // Starts the workers.  `stop_fd` is a signalfd that becomes readable
    // when the process is to stop; the caller closes it after Shutdown.
    void Start(int stop_fd);
    // Serves until `stop_fd` is readable, or poll fails.
    void Loop();
    // Closes the socket and every connection, and joins the workers.
    void Shutdown();

private:
    std::unique_ptr<Server> server_;
};

}  // namespace zarnd

#endif  // ZARND_SERVER_H

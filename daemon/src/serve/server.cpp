#include "server.h"

#include <errno.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include "failure.h"
#include "log.h"
#include "protocol.h"
#include "scheduler.h"
#include "zarnplatform.h"

namespace zarnd {

namespace {

// How often a connection whose request arrives in pieces is looked at again.
constexpr int kPartialRecheckMs = 10;
// How long accepting rests when the process is out of descriptors.
constexpr int kAcceptRestMs = 100;

enum class RequestState { kIncomplete, kComplete, kTooLarge, kClosed };

// Looks at the request without taking it: complete once the packet's length
// header and that many bytes are waiting in the socket.
RequestState PeekRequest(int fd, size_t max_bytes) {
    unsigned char header[4];
    const ssize_t n = recv(fd, header, sizeof header, MSG_PEEK | MSG_DONTWAIT);
    if (n == 0) return RequestState::kClosed;
    if (n < 0) return errno == EAGAIN || errno == EINTR ? RequestState::kIncomplete : RequestState::kClosed;
    if (n < 4) return RequestState::kIncomplete;
    const size_t length = (size_t{header[0]} << 24) | (size_t{header[1]} << 16) |
                          (size_t{header[2]} << 8) | size_t{header[3]};
    if (length > max_bytes) return RequestState::kTooLarge;
    int waiting = 0;
    if (ioctl(fd, FIONREAD, &waiting) != 0) return RequestState::kClosed;
    return static_cast<size_t>(waiting) >= 4 + length ? RequestState::kComplete
                                                      : RequestState::kIncomplete;
}

void SetTimeout(int fd, int option, long millis) {
    const timeval timeout = {millis / 1000, static_cast<suseconds_t>(millis % 1000 * 1000)};
    setsockopt(fd, SOL_SOCKET, option, &timeout, sizeof timeout);
}

// Answers a connection that will not be served; the client gets a short
// while to take the reply.
void SendFailure(int fd, int code, const char *message) {
    SetTimeout(fd, SO_SNDTIMEO, 200);
    zarndaemon::io::PacketWrite(fd, FailureReply(code, message));
}

bool MakeAddress(const std::string &path, sockaddr_un *address) {
    std::memset(address, 0, sizeof *address);
    address->sun_family = AF_UNIX;
    if (path.size() >= sizeof address->sun_path) return false;
    std::memcpy(address->sun_path, path.c_str(), path.size() + 1);
    return true;
}

}  // namespace

// The listener's state and its loop, behind Listener (server.h).
class Server {
public:
    explicit Server(const ServerOptions &options)
        : options_(options), scheduler_(options.max_queued, options.max_per_user, options.UserShare()) {}

    const char *Open() {
        sockaddr_un address;
        if (!MakeAddress(options_.socket_path, &address)) {
            errno = ENAMETOOLONG;
            return "socket path too long:";
        }
        if (AnswersThere(address)) {
            errno = EADDRINUSE;
            return "another daemon answers on";
        }
        if (!Listen(address)) return "cannot listen on";
        return nullptr;
    }

    void Start(int stop_fd) {
        signal_fd_ = stop_fd;
        ZARN_LOG(LOG_INFO, "listening on %s with %u workers", options_.socket_path.c_str(),
                 options_.workers);
        for (unsigned i = 0; i < options_.workers; ++i) workers_.emplace_back([this] { Work(); });
    }

    static bool AnswersThere(const sockaddr_un &address) {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0) return false;
        const bool answers = connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
        close(fd);
        return answers;
    }

    bool Listen(const sockaddr_un &address) {
        struct stat old;
        if (lstat(address.sun_path, &old) == 0) {
            if (!S_ISSOCK(old.st_mode)) {
                errno = EEXIST;
                return false;  // never remove what is not a stale socket
            }
            unlink(address.sun_path);
        }
        listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (listen_fd_ < 0) return false;
        struct stat bound;
        if (bind(listen_fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
            chmod(address.sun_path, 0666) != 0 || listen(listen_fd_, SOMAXCONN) != 0 ||
            lstat(address.sun_path, &bound) != 0)
            return false;
        socket_inode_ = bound.st_ino;
        return true;
    }

public:

private:
    void Work() {
        Connection connection;
        while (scheduler_.Pop(&connection)) {
            // The request is already in the socket buffer; replies may wait
            // on a client that does not read, but never for long.
            SetTimeout(connection.fd, SO_RCVTIMEO, 1000);
            SetTimeout(connection.fd, SO_SNDTIMEO, options_.send_timeout_s * 1000L);
            ServeConnection(connection.fd, connection.peer, options_.limits);
            scheduler_.Finish(connection);
        }
    }

    void Accept() {
        for (;;) {
            const int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) {
                // Out of descriptors, the listening socket stays readable:
                // rest instead of spinning until a connection closes.
                if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                    ZARN_LOG(LOG_ERR, "cannot accept a connection: %m");
                    accept_resumes_ = Clock::now() + std::chrono::milliseconds(kAcceptRestMs);
                }
                return;
            }
            // Every connection not kept leaves by the one close below.
            ucred credentials;
            socklen_t size = sizeof credentials;
            const bool known = getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) == 0;
            const char *refusal = !known                                    ? nullptr
                                  : waiting_.size() >= options_.max_waiting ? "too many connections"
                                  : !scheduler_.Admit(credentials.uid)      ? "too many connections from this user"
                                                                            : nullptr;
            if (!known || refusal != nullptr) {
                if (refusal != nullptr) SendFailure(fd, kBusy, refusal);
                close(fd);
                continue;
            }
            const Clock::time_point deadline =
                Clock::now() + std::chrono::milliseconds(options_.request_timeout_ms);
            waiting_.push_back({fd, {credentials.uid, credentials.pid}, deadline, false});
        }
    }

    // Moves connections whose request is complete to the workers; drops the
    // ones that closed, sent too much or took too long, and the requests that
    // waited too long for a worker.
    void Sort(const std::vector<pollfd> &polled) {
        const Clock::time_point now = Clock::now();
        std::vector<Connection> kept;
        for (size_t i = 0; i < waiting_.size(); ++i) {
            Connection connection = waiting_[i];
            const short events = polled[i + 2].revents;
            const RequestState state = (events != 0 || connection.partial)
                                           ? PeekRequest(connection.fd, options_.max_request_bytes)
                                           : RequestState::kIncomplete;
            if (state == RequestState::kComplete) {
                connection.deadline = now + std::chrono::milliseconds(options_.max_queue_wait_ms);
                if (!scheduler_.Push(connection)) Drop(connection, kBusy, "server busy");
            } else if (state == RequestState::kTooLarge) {
                Drop(connection, kBadRequest, "request too large");
            } else if (state == RequestState::kClosed || (events & (POLLHUP | POLLRDHUP | POLLERR))) {
                Drop(connection);  // gone before its request was whole
            } else if (now >= connection.deadline) {
                ZARN_LOG(LOG_DEBUG, "no whole request from peer pid %d in time",
                         static_cast<int>(connection.peer.pid));
                Drop(connection);
            } else {
                connection.partial = events != 0 || connection.partial;
                kept.push_back(connection);
            }
        }
        waiting_.swap(kept);
        for (const Connection &connection : scheduler_.Expired(now)) Drop(connection, kBusy, "server busy");
    }

    // Closes a waiting connection, with a failure reply when `code` is set.
    void Drop(const Connection &connection, int code = 0, const char *message = nullptr) {
        if (code != 0) SendFailure(connection.fd, code, message);
        scheduler_.Close(connection);
    }

    bool Resting(Clock::time_point now) const { return now < accept_resumes_; }

    // Until the nearest deadline (of a request, of a wait for a worker, of a
    // rest) or recheck of a partial request; -1 when there is none.
    int PollTimeout() {
        const Clock::time_point now = Clock::now();
        Clock::time_point nearest = scheduler_.NextExpiry();
        bool partial = false;
        for (const Connection &connection : waiting_) {
            nearest = std::min(nearest, connection.deadline);
            partial = partial || connection.partial;
        }
        if (Resting(now)) nearest = std::min(nearest, accept_resumes_);
        if (nearest == Clock::time_point::max()) return -1;
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(nearest - now);
        const int millis = static_cast<int>(std::max<long long>(0, left.count()) + 1);
        return partial ? std::min(millis, kPartialRecheckMs) : millis;
    }

public:
    void Loop() {
        for (;;) {
            std::vector<pollfd> polled;
            polled.push_back({signal_fd_, POLLIN, 0});
            polled.push_back({Resting(Clock::now()) ? -1 : listen_fd_, POLLIN, 0});
            // A partial request keeps its socket readable: it is looked at
            // again on a timer, not on every turn of the loop.
            for (const Connection &connection : waiting_)
                polled.push_back({connection.fd,
                                  static_cast<short>(connection.partial ? POLLRDHUP : POLLIN | POLLRDHUP), 0});
            if (poll(polled.data(), polled.size(), PollTimeout()) < 0 && errno != EINTR) {
                ZARN_LOG(LOG_ERR, "poll failed: %m");
                return;
            }
            if (polled[0].revents != 0) {
                signalfd_siginfo info;
                if (read(signal_fd_, &info, sizeof info) == sizeof info) {
                    ZARN_LOG(LOG_INFO, "signal %u: stopping", info.ssi_signo);
                    return;
                }
            }
            Sort(polled);
            if (polled[1].revents != 0) Accept();
        }
    }

    void Shutdown() {
        close(listen_fd_);
        // Remove the socket only while it is still ours: a daemon started
        // after us may have taken the path over.
        struct stat now;
        if (lstat(options_.socket_path.c_str(), &now) == 0 && now.st_ino == socket_inode_)
            unlink(options_.socket_path.c_str());
        for (const Connection &connection : waiting_) scheduler_.Close(connection);
        waiting_.clear();
        scheduler_.Stop();
        for (std::thread &worker : workers_) worker.join();
    }

private:

    const ServerOptions options_;
    Scheduler scheduler_;
    std::vector<Connection> waiting_;
    std::vector<std::thread> workers_;
    int listen_fd_ = -1;
    int signal_fd_ = -1;  // readable once the process is to stop
    ino_t socket_inode_ = 0;
    Clock::time_point accept_resumes_;  // accepting rests until then
};

Listener::Listener(const ServerOptions &options) : server_(new Server(options)) {}
Listener::~Listener() = default;
const char *Listener::Open() { return server_->Open(); }
void Listener::Start(int stop_fd) { server_->Start(stop_fd); }
void Listener::Loop() { server_->Loop(); }
void Listener::Shutdown() { server_->Shutdown(); }

}  // namespace zarnd

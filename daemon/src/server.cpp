#include "server.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "failure.h"
#include "log.h"
#include "protocol.h"
#include "zarnplatform.h"

namespace zarnd {

namespace {

using Clock = std::chrono::steady_clock;

// How often a connection whose request arrives in pieces is looked at again.
constexpr int kPartialRecheckMs = 10;

struct Connection {
    int fd;
    Peer peer;
    Clock::time_point deadline;
    bool partial;  // some bytes of the request are there, not all
};

// Complete requests waiting for a worker.
class WorkQueue {
public:
    explicit WorkQueue(size_t capacity) : capacity_(capacity) {}

    bool Push(const Connection &connection) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopped_ || queue_.size() >= capacity_) return false;
        queue_.push_back(connection);
        ready_.notify_one();
        return true;
    }

    // False once stopped.
    bool Pop(Connection *connection) {
        std::unique_lock<std::mutex> lock(mutex_);
        ready_.wait(lock, [this] { return stopped_ || !queue_.empty(); });
        if (stopped_) return false;
        *connection = queue_.front();
        queue_.pop_front();
        return true;
    }

    // Wakes every worker; connections not yet served are closed unanswered.
    void Stop() {
        std::lock_guard<std::mutex> lock(mutex_);
        stopped_ = true;
        for (const Connection &connection : queue_) close(connection.fd);
        queue_.clear();
        ready_.notify_all();
    }

private:
    const size_t capacity_;
    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<Connection> queue_;
    bool stopped_ = false;
};

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

// Answers a connection that will not be served, then closes it.
void Turn(int fd, int code, const char *message) {
    SetTimeout(fd, SO_SNDTIMEO, 200);
    zarndaemon::io::PacketWrite(fd, FailureReply(code, message));
    close(fd);
}

bool MakeAddress(const std::string &path, sockaddr_un *address) {
    std::memset(address, 0, sizeof *address);
    address->sun_family = AF_UNIX;
    if (path.size() >= sizeof address->sun_path) return false;
    std::memcpy(address->sun_path, path.c_str(), path.size() + 1);
    return true;
}

// Logs and prints a reason not to start.
int CannotStart(const char *format, const std::string &path) {
    std::string message = std::string(format);
    ZARN_LOG(LOG_ERR, "%s %s: %m", message.c_str(), path.c_str());
    std::fprintf(stderr, "zarnelasticd: %s %s: %s\n", message.c_str(), path.c_str(), std::strerror(errno));
    return 1;
}

class Server {
public:
    explicit Server(const ServerOptions &options) : options_(options), queue_(options.max_queued) {}

    int Run() {
        sockaddr_un address;
        if (!MakeAddress(options_.socket_path, &address)) {
            errno = ENAMETOOLONG;
            return CannotStart("socket path too long:", options_.socket_path);
        }
        if (AnswersThere(address)) {
            errno = EADDRINUSE;
            return CannotStart("another daemon answers on", options_.socket_path);
        }
        if (!Listen(address)) return CannotStart("cannot listen on", options_.socket_path);
        if (!options_.foreground && !Daemonize()) return CannotStart("cannot detach from", "the terminal");
        if (!CatchSignals()) return CannotStart("cannot catch signals for", options_.socket_path);
        ZARN_LOG(LOG_INFO, "listening on %s with %u workers", options_.socket_path.c_str(),
                 options_.workers);
        for (unsigned i = 0; i < options_.workers; ++i) workers_.emplace_back([this] { Work(); });
        Loop();
        Shutdown();
        ZARN_LOG(LOG_INFO, "stopped");
        return 0;
    }

private:
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

    static bool Daemonize() {
        const pid_t child = fork();
        if (child < 0) return false;
        if (child > 0) _exit(0);  // the socket is already live for the caller
        setsid();
        if (chdir("/") != 0) return false;
        const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
        if (null < 0) return false;
        for (int fd = 0; fd <= 2; ++fd) dup2(null, fd);
        if (null > 2) close(null);
        return true;
    }

    // Before any worker starts, so that every thread inherits the mask and
    // only the loop sees the signals.
    bool CatchSignals() {
        signal(SIGPIPE, SIG_IGN);
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGTERM);
        sigaddset(&set, SIGINT);
        if (pthread_sigmask(SIG_BLOCK, &set, nullptr) != 0) return false;
        signal_fd_ = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
        return signal_fd_ >= 0;
    }

    void Work() {
        Connection connection;
        while (queue_.Pop(&connection)) {
            // The request is already in the socket buffer; replies may wait
            // on a client that does not read, but never for long.
            SetTimeout(connection.fd, SO_RCVTIMEO, 1000);
            SetTimeout(connection.fd, SO_SNDTIMEO, options_.send_timeout_s * 1000L);
            ServeConnection(connection.fd, connection.peer);
            close(connection.fd);
        }
    }

    void Accept() {
        for (;;) {
            const int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) {
                if (errno == EMFILE || errno == ENFILE)
                    ZARN_LOG(LOG_ERR, "cannot accept a connection: %m");
                return;
            }
            ucred credentials;
            socklen_t size = sizeof credentials;
            if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
                close(fd);
                continue;
            }
            if (waiting_.size() >= options_.max_waiting) {
                Turn(fd, kBusy, "too many connections");
                continue;
            }
            const Clock::time_point deadline =
                Clock::now() + std::chrono::milliseconds(options_.request_timeout_ms);
            waiting_.push_back({fd, {credentials.uid, credentials.pid}, deadline, false});
        }
    }

    // Moves connections whose request is complete to the workers; drops the
    // ones that closed, sent too much or took too long.
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
                if (!queue_.Push(connection)) Turn(connection.fd, kBusy, "server busy");
            } else if (state == RequestState::kTooLarge) {
                Turn(connection.fd, kBadRequest, "request too large");
            } else if (state == RequestState::kClosed || (events & (POLLHUP | POLLRDHUP | POLLERR))) {
                close(connection.fd);  // gone before its request was whole
            } else if (now >= connection.deadline) {
                ZARN_LOG(LOG_DEBUG, "no whole request from peer pid %d in time",
                         static_cast<int>(connection.peer.pid));
                close(connection.fd);
            } else {
                connection.partial = events != 0 || connection.partial;
                kept.push_back(connection);
            }
        }
        waiting_.swap(kept);
    }

    int PollTimeout() const {
        if (waiting_.empty()) return -1;
        Clock::time_point nearest = waiting_.front().deadline;
        bool partial = false;
        for (const Connection &connection : waiting_) {
            nearest = std::min(nearest, connection.deadline);
            partial = partial || connection.partial;
        }
        const auto until = std::chrono::duration_cast<std::chrono::milliseconds>(nearest - Clock::now());
        const int millis = static_cast<int>(std::max<long long>(0, until.count()) + 1);
        return partial ? std::min(millis, kPartialRecheckMs) : millis;
    }

    void Loop() {
        for (;;) {
            std::vector<pollfd> polled;
            polled.push_back({signal_fd_, POLLIN, 0});
            polled.push_back({listen_fd_, POLLIN, 0});
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
        for (const Connection &connection : waiting_) close(connection.fd);
        waiting_.clear();
        queue_.Stop();
        for (std::thread &worker : workers_) worker.join();
        close(signal_fd_);
    }

    const ServerOptions options_;
    WorkQueue queue_;
    std::vector<Connection> waiting_;
    std::vector<std::thread> workers_;
    int listen_fd_ = -1;
    int signal_fd_ = -1;
    ino_t socket_inode_ = 0;
};

}  // namespace

int RunServer(const ServerOptions &options) { return Server(options).Run(); }

}  // namespace zarnd

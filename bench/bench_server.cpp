#include "bench_server.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "daemon_socket.h"
#include "replies.h"
#include "zarnplatform.h"

namespace zarnbench {
namespace {

constexpr const char *kSocketPath = zarn::kDaemonSocketPath;
constexpr int kBlockHits = 1000;  // distinct hits, sent over and over

sockaddr_un SocketAddress() { return zarn::DaemonAddress(); }

int Listen() {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0) return -1;
    unlink(kSocketPath);
    const sockaddr_un address = SocketAddress();
    if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        listen(fd, 64) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

void SetTimeouts(int fd, int seconds) {
    const timeval timeout = {seconds, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
}

bool SendAll(int fd, const char *data, size_t size) {
    while (size > 0) {
        const ssize_t sent = send(fd, data, size, MSG_NOSIGNAL);
        if (sent < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data += sent;
        size -= static_cast<size_t>(sent);
    }
    return true;
}

bool SendAll(int fd, const std::string &bytes) { return SendAll(fd, bytes.data(), bytes.size()); }

// kBlockHits framed hit packets back to back, and where each one ends.
struct HitBlock {
    std::string bytes;
    std::vector<size_t> ends;
};

HitBlock BuildBlock(HitSet set) {
    HitBlock block;
    for (int i = 0; i < kBlockHits; ++i) {
        block.bytes += Framed(HitText(set, i));
        block.ends.push_back(block.bytes.size());
    }
    return block;
}

void SendSearch(int fd, long count, const HitBlock &block) {
    if (!SendAll(fd, Framed("{\"total\":" + std::to_string(count) + "}"))) return;
    long left = count;
    for (; left >= kBlockHits; left -= kBlockHits)
        if (!SendAll(fd, block.bytes.data(), block.bytes.size())) return;
    if (left > 0 && !SendAll(fd, block.bytes.data(), block.ends[static_cast<size_t>(left) - 1]))
        return;
    SendAll(fd, Framed("{\"success\":true}"));
}

// "zarnbench n=<count> set=<name>" anywhere in the request.
bool ParseTag(const std::string &request, long *count, HitSet *set) {
    const std::string key = "zarnbench n=";
    const size_t at = request.find(key);
    if (at == std::string::npos) return false;
    const char *digits = request.c_str() + at + key.size();
    char *end = nullptr;
    *count = std::strtol(digits, &end, 10);
    if (end == digits || *count < 0 || *count > INT_MAX || std::strncmp(end, " set=", 5) != 0)
        return false;
    const char *name = end + 5;
    size_t length = 0;
    while (name[length] >= 'a' && name[length] <= 'z') ++length;
    return HitSetFromName(std::string(name, length), set);
}

}  // namespace

std::string Framed(const std::string &text) {
    const uint32_t size = static_cast<uint32_t>(text.size());
    std::string packet = {static_cast<char>(size >> 24), static_cast<char>(size >> 16),
                          static_cast<char>(size >> 8), static_cast<char>(size)};
    return packet + text;
}

int ConnectToDaemon() {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0) return -1;
    const sockaddr_un address = SocketAddress();
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

int ServeMain() {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const HitBlock plain = BuildBlock(HitSet::kPlain);
    const HitBlock highlight = BuildBlock(HitSet::kHighlight);
    const std::string document = Framed(DocumentReplyText());
    const std::string failure = Framed("{\"success\":false}");
    const int listener = Listen();
    if (listener < 0) return 1;
    for (;;) {
        const int fd = accept(listener, nullptr, nullptr);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            return 1;
        }
        SetTimeouts(fd, 30);
        std::string request;
        long count = 0;
        HitSet set = HitSet::kPlain;
        if (zarndaemon::io::PacketRead(fd, request)) {
            if (ParseTag(request, &count, &set))
                SendSearch(fd, count, set == HitSet::kPlain ? plain : highlight);
            else if (request.find("\"document_get_by_internal_id\"") != std::string::npos)
                SendAll(fd, document);
            else
                SendAll(fd, failure);
        }
        close(fd);
    }
}

BenchServer::BenchServer() {
    char self[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    if (length <= 0) return;
    self[length] = '\0';
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        execl(self, self, kServeFlag, static_cast<char *>(nullptr));
        _exit(127);
    }
    if (pid_ < 0) return;
    // Ready when a connection goes through (the server drops it unanswered).
    for (int attempt = 0; attempt < 1000; ++attempt) {
        const int fd = ConnectToDaemon();
        if (fd >= 0) {
            close(fd);
            return;
        }
        if (waitpid(pid_, nullptr, WNOHANG) == pid_) break;
        usleep(10000);
    }
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

BenchServer::~BenchServer() {
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
    unlink(kSocketPath);
}

std::string CaptureRequest(const std::function<void()> &client) {
    const int listener = Listen();
    if (listener < 0) return std::string();
    std::string request;
    std::thread peer([&] {
        pollfd ready = {listener, POLLIN, 0};
        if (poll(&ready, 1, 10000) != 1) return;
        const int fd = accept(listener, nullptr, nullptr);
        if (fd < 0) return;
        SetTimeouts(fd, 10);
        if (zarndaemon::io::PacketRead(fd, request))
            zarndaemon::io::PacketWrite(fd, "{\"success\":false}");
        close(fd);
    });
    client();
    peer.join();
    close(listener);
    unlink(kSocketPath);
    return request;
}

long BareExchange(const std::string &framed) {
    const int fd = ConnectToDaemon();
    if (fd < 0) return -1;
    long got = -1;
    if (SendAll(fd, framed)) {
        char buffer[65536];
        got = 0;
        for (;;) {
            const ssize_t n = read(fd, buffer, sizeof buffer);
            if (n > 0) {
                got += n;
            } else if (n == 0) {
                break;
            } else if (errno != EINTR) {
                got = -1;
                break;
            }
        }
    }
    close(fd);
    return got;
}

}  // namespace zarnbench

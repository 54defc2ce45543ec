#include "extract/channel.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "extract/wire.h"

namespace zarnd {
namespace extract {

namespace {

using Clock = std::chrono::steady_clock;

// Waits for input until the deadline; false when it passed first.
bool Readable(int sock, Clock::time_point deadline) {
    for (;;) {
        int timeout = -1;
        if (deadline != Clock::time_point::max()) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
            if (left <= 0) return false;
            timeout = static_cast<int>(std::min<long long>(left, 60000));
        }
        pollfd p = {sock, POLLIN, 0};
        const int n = poll(&p, 1, timeout);
        if (n > 0) return true;
        if (n < 0 && errno != EINTR) return true;  // the read will tell
    }
}

// Reads exactly `size` bytes; the first read may carry a descriptor.
Received ReadAll(int sock, char *data, size_t size, int *fd, Clock::time_point deadline) {
    for (size_t got = 0; got < size;) {
        if (!Readable(sock, deadline)) return Received::kTimeout;
        iovec io = {data + got, size - got};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
        msghdr message = {};
        message.msg_iov = &io;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        const ssize_t n = recvmsg(sock, &message, MSG_CMSG_CLOEXEC);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return Received::kBroken;
        for (cmsghdr *c = CMSG_FIRSTHDR(&message); c != nullptr; c = CMSG_NXTHDR(&message, c)) {
            if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
            int passed = -1;
            std::memcpy(&passed, CMSG_DATA(c), sizeof passed);
            if (fd != nullptr && *fd < 0)
                *fd = passed;
            else
                close(passed);
        }
        if (n == 0) return got == 0 ? Received::kClosed : Received::kBroken;
        got += static_cast<size_t>(n);
    }
    return Received::kFrame;
}

}  // namespace

bool SendFrame(int sock, const std::string &payload, int fd) {
    const std::string frame = Frame(payload);
    for (size_t sent = 0; sent < frame.size();) {
        iovec io = {const_cast<char *>(frame.data()) + sent, frame.size() - sent};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        msghdr message = {};
        message.msg_iov = &io;
        message.msg_iovlen = 1;
        if (fd >= 0 && sent == 0) {
            message.msg_control = control;
            message.msg_controllen = sizeof control;
            cmsghdr *c = CMSG_FIRSTHDR(&message);
            c->cmsg_level = SOL_SOCKET;
            c->cmsg_type = SCM_RIGHTS;
            c->cmsg_len = CMSG_LEN(sizeof(int));
            std::memcpy(CMSG_DATA(c), &fd, sizeof fd);
        }
        const ssize_t n = sendmsg(sock, &message, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}

Received ReceiveFrame(int sock, std::string *payload, int *fd, Clock::time_point deadline) {
    if (fd != nullptr) *fd = -1;
    unsigned char header[kFrameHeaderBytes];
    Received got = ReadAll(sock, reinterpret_cast<char *>(header), sizeof header, fd, deadline);
    size_t length = 0;
    if (got == Received::kFrame && !FrameLength(header, &length)) got = Received::kBroken;
    if (got == Received::kFrame) {
        payload->assign(length, '\0');
        got = ReadAll(sock, &(*payload)[0], length, fd, deadline);
        if (got == Received::kClosed) got = Received::kBroken;
    }
    if (got != Received::kFrame && fd != nullptr && *fd >= 0) {
        close(*fd);
        *fd = -1;
    }
    return got;
}

}  // namespace extract
}  // namespace zarnd

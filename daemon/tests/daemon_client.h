// The daemon's socket seen from a test: one request, its reply packets.
#ifndef ZARND_TESTS_DAEMON_CLIENT_H
#define ZARND_TESTS_DAEMON_CLIENT_H

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "json_text.h"
#include "daemon_socket.h"
#include "zarnplatform.h"

namespace zarntest {

using Replies = std::vector<Json::Value>;

// A loopback port that nobody listens on now.
inline unsigned FreePort() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address);
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
    close(fd);
    return ntohs(address.sin_port);
}

// A connection to the daemon's socket; -1 when nobody answers there.
inline int ConnectToDaemon() {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = zarn::DaemonAddress();
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0) return fd;
    close(fd);
    return -1;
}

// Runs `command` (the daemon in the foreground) through the shell and
// waits until the daemon answers: its pid, or -1 (then stopped) when it does
// not within 5 s.
inline pid_t StartDaemon(const std::string &command) {
    const pid_t pid = fork();
    if (pid == 0) {
        execl("/bin/sh", "sh", "-c", ("exec " + command).c_str(), nullptr);
        _exit(127);
    }
    for (int i = 0; i < 500; ++i) {
        const int fd = ConnectToDaemon();
        if (fd >= 0) {
            close(fd);
            return pid;
        }
        usleep(10000);
    }
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
    return -1;
}

inline void StopDaemon(pid_t *pid) {
    if (*pid <= 0) return;
    kill(*pid, SIGTERM);
    waitpid(*pid, nullptr, 0);
    *pid = -1;
}

// Every reply packet of one request sent as the packet `text_sent`.
inline Replies Ask(const std::string &text_sent) {
    const int fd = ConnectToDaemon();
    zarndaemon::io::PacketWrite(fd, text_sent);  // a refused request may be cut off mid-write
    Replies replies(1);
    for (std::string text; zarndaemon::io::PacketRead(fd, text); replies.emplace_back())
        EXPECT_TRUE(zarn::json::FromString(text, &replies.back())) << text;
    close(fd);
    replies.pop_back();
    return replies;
}

// The hits of a search, checked for the stream's shape: header, hits, end.
inline Replies Hits(const Json::Value &request, int64_t *total = nullptr) {
    const Replies replies = Ask(zarn::json::ToString(request));
    if (replies.size() < 2 || !replies[0].isMember("total") || replies.back()["success"] != true) {
        ADD_FAILURE() << "not a search reply: " << (replies.empty() ? "" : zarn::json::ToString(replies[0]));
        return {};
    }
    if (total != nullptr) *total = replies[0]["total"].asInt64();
    return Replies(replies.begin() + 1, replies.end() - 1);
}

}  // namespace zarntest

#endif  // ZARND_TESTS_DAEMON_CLIENT_H

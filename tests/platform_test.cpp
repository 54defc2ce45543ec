// The platform stand-in's packet framing, which every exchange with a daemon
// goes through (the share service is pinned through the FILEIDX tests).
#include <errno.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include <gtest/gtest.h>

#include "zarnplatform.h"

using namespace zarndaemon::io;

struct Pair {  // connected sockets, closed with the scope
    int fd[2] = {-1, -1};
    Pair() { EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fd)); }
    ~Pair() { close(fd[0]), close(fd[1]); }
};

// The large packet outgrows the socket buffer, so both sides loop over
// partial transfers; a read replaces what the string held and leaves the
// next packet whole.  Ends and sizes above the cap fail with errno (the
// library's time-out tests show a silent peer's).
TEST(Packet, FramesOnePacketAtATime) {
    for (size_t size : {0, 3 * 1024 * 1024 + 7}) {
        Pair p;
        std::string sent(size, 'x'), got = "stale", next;
        for (size_t i = 0; i < size; ++i) sent[i] = char('a' + i % 26);
        std::thread writer([&] { EXPECT_TRUE(PacketWrite(p.fd[0], sent) && PacketWrite(p.fd[0], "{}")); });
        EXPECT_TRUE(PacketRead(p.fd[1], got) && PacketRead(p.fd[1], next));
        writer.join();
        EXPECT_TRUE(sent == got && next == "{}") << size;
    }
    const uint32_t above = kMaxPacketBytes + 1;
    const struct { std::string bytes; int expected; } ends[] = {
        {"", ENODATA}, {std::string("\0\0", 2), ECONNRESET}, {std::string("\0\0\0\12abc", 7), ECONNRESET},
        {{char(above >> 24), char(above >> 16), char(above >> 8), char(above)}, EMSGSIZE}};
    std::string text;
    for (const auto &end : ends) {
        Pair p;
        ASSERT_EQ(ssize_t(end.bytes.size()), write(p.fd[0], end.bytes.data(), end.bytes.size()));
        shutdown(p.fd[0], SHUT_WR);
        EXPECT_TRUE(!PacketRead(p.fd[1], text) && errno == end.expected) << end.bytes.size() << " " << errno;
    }
    Pair p;
    EXPECT_TRUE(!PacketWrite(p.fd[0], std::string(kMaxPacketBytes + 1, 'x')) && errno == EMSGSIZE);
    shutdown(p.fd[1], SHUT_RD);
    EXPECT_TRUE(!PacketWrite(p.fd[0], "{}") && errno == EPIPE);  // SIGPIPE would end the test here
}

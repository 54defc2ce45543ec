// The platform stand-in: packet framing, the share service, the error slot.
#include <errno.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "harness.h"
#include "zarnplatform.h"

namespace {

using namespace zarndaemon::io;

struct SocketPair {
    int fds[2] = {-1, -1};
    SocketPair() { EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds)); }
    ~SocketPair() { close(fds[0]), close(fds[1]); }
};

// The large packet outgrows the socket buffer, so both sides loop over
// partial transfers; a read replaces what the string held and leaves the
// next packet whole.  Ends, time-outs and sizes above the cap fail with errno.
TEST(Packet, FramesOnePacketAtATime) {
    for (size_t size : {0, 100, 3 * 1024 * 1024 + 7}) {
        SocketPair pair;
        std::string sent(size, 'x'), got = "stale", next;
        for (size_t i = 0; i < size; ++i) sent[i] = char('a' + i % 26);
        std::thread writer([&] { EXPECT_TRUE(PacketWrite(pair.fds[0], sent) && PacketWrite(pair.fds[0], "{}")); });
        EXPECT_TRUE(PacketRead(pair.fds[1], got) && PacketRead(pair.fds[1], next));
        writer.join();
        EXPECT_TRUE(sent == got && next == "{}") << size;
    }
    const uint32_t above = kMaxPacketBytes + 1;
    const struct { std::string bytes; int expected; } ends[] = {
        {"", ENODATA}, {std::string("\0\0", 2), ECONNRESET}, {std::string("\0\0\0\12abc", 7), ECONNRESET},
        {{char(above >> 24), char(above >> 16), char(above >> 8), char(above)}, EMSGSIZE},
    };
    std::string text;
    for (const auto &end : ends) {
        SocketPair pair;
        ASSERT_EQ(ssize_t(end.bytes.size()), write(pair.fds[0], end.bytes.data(), end.bytes.size()));
        shutdown(pair.fds[0], SHUT_WR);
        EXPECT_TRUE(!PacketRead(pair.fds[1], text) && errno == end.expected) << end.bytes.size() << " " << errno;
    }
    SocketPair pair;
    const timeval timeout = {0, 50 * 1000};
    ASSERT_EQ(0, setsockopt(pair.fds[1], SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout));
    EXPECT_TRUE(!PacketRead(pair.fds[1], text) && (errno == EAGAIN || errno == EWOULDBLOCK));
    EXPECT_TRUE(!PacketWrite(pair.fds[0], std::string(kMaxPacketBytes + 1, 'x')) && errno == EMSGSIZE);
    shutdown(pair.fds[1], SHUT_RD);
    EXPECT_TRUE(!PacketWrite(pair.fds[0], "{}") && errno == EPIPE);  // SIGPIPE would end the test here
}

// Shares resolve by exact name to absolute paths only; the error slot is
// per thread; "@eaDir" creation accepts an existing directory.
TEST(Platform, SharesErrorSlotAndEaDir) {
    zarntest::SetShareTable({{"docs", "/volume1/docs"}, {"Media", "/volume2/media"}, {"rel", "relative"}});
    PZARNSHARE share = nullptr;
    ASSERT_EQ(0, ZARNShareGet("Media", &share));
    EXPECT_EQ(std::string("Media:/volume2/media"), std::string(share->szName) + ":" + share->szPath);
    ZARNShareFree(share);
    for (const char *name : {"media", "doc", "docs/x", "", "rel"}) {
        KOREErrSetEx(0, "", 0);
        share = reinterpret_cast<PZARNSHARE>(1);
        EXPECT_TRUE(ZARNShareGet(name, &share) < 0 && share == nullptr && KOREErrGet() == ZARN_ERR_SHARE_NOT_FOUND) << name;
    }
    std::thread([] { EXPECT_EQ(0, KOREErrGet()); KOREErrSetEx(7, "there.cpp", 2); }).join();
    EXPECT_EQ(ZARN_ERR_SHARE_NOT_FOUND, KOREErrGet());
    ASSERT_EQ(0, mkdir("/var/run/share", 0755));
    EXPECT_EQ(0, ZARNEAMKDir(0, "/var/run/share/@eaDir") + ZARNEAMKDir(0, "/var/run/share/@eaDir"));
    EXPECT_EQ(-1, ZARNEAMKDir(0, "/var/run/missing/@eaDir"));
}

}  // namespace

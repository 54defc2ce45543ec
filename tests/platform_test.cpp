// The platform stand-in: packet framing, the share service, the error slot.
#include <errno.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "harness.h"
#include "zarnplatform.h"

namespace {

using zarndaemon::io::PacketRead;
using zarndaemon::io::PacketWrite;

struct SocketPair {
    int fds[2];
    SocketPair() { EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds)); }
    ~SocketPair() {
        Close(0);
        Close(1);
    }
    void Close(int i) {
        if (fds[i] >= 0) close(fds[i]);
        fds[i] = -1;
    }
    void Raw(const std::string &bytes) {
        ASSERT_EQ(static_cast<ssize_t>(bytes.size()), write(fds[0], bytes.data(), bytes.size()));
    }
};

std::string Header(uint32_t size) {
    return {static_cast<char>(size >> 24), static_cast<char>(size >> 16),
            static_cast<char>(size >> 8), static_cast<char>(size)};
}

class PacketRoundTrip : public testing::TestWithParam<size_t> {};

TEST_P(PacketRoundTrip, ReadsBackWhatWasWritten) {
    SocketPair pair;
    std::string sent(GetParam(), '\0');
    for (size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<char>('a' + i % 26);
    // A writer thread: large packets do not fit the socket buffer at once.
    std::thread writer([&] { EXPECT_TRUE(PacketWrite(pair.fds[0], sent)); });
    std::string got = "stale content is replaced";
    EXPECT_TRUE(PacketRead(pair.fds[1], got));
    writer.join();
    EXPECT_EQ(sent, got);
}

INSTANTIATE_TEST_SUITE_P(Sizes, PacketRoundTrip,
                         testing::Values(0, 1, 100, 65536, 3 * 1024 * 1024 + 7));

TEST(Packet, ReadsOnePacketAndNothingBeyond) {
    SocketPair pair;
    ASSERT_TRUE(PacketWrite(pair.fds[0], "{\"total\":1}"));
    ASSERT_TRUE(PacketWrite(pair.fds[0], "{}"));
    std::string text;
    ASSERT_TRUE(PacketRead(pair.fds[1], text));
    EXPECT_EQ("{\"total\":1}", text);
    int waiting = 0;
    ASSERT_EQ(0, ioctl(pair.fds[1], FIONREAD, &waiting));
    EXPECT_EQ(6, waiting);  // the second packet, header included, is untouched
}

TEST(Packet, AssemblesPacketsSentInPieces) {
    SocketPair pair;
    std::thread writer([&] {
        const std::string bytes = Header(5) + "hello";
        for (char c : bytes) {
            pair.Raw(std::string(1, c));
            usleep(1000);
        }
    });
    std::string text;
    EXPECT_TRUE(PacketRead(pair.fds[1], text));
    writer.join();
    EXPECT_EQ("hello", text);
}

struct EndCase {
    const char *name;
    std::string bytes;  // what the peer sends before closing
    int expected_errno;
};

class PacketEnd : public testing::TestWithParam<EndCase> {};

TEST_P(PacketEnd, FailsWithMeaningfulErrno) {
    SocketPair pair;
    pair.Raw(GetParam().bytes);
    pair.Close(0);
    std::string text;
    errno = 0;
    EXPECT_FALSE(PacketRead(pair.fds[1], text));
    EXPECT_EQ(GetParam().expected_errno, errno);
}

INSTANTIATE_TEST_SUITE_P(
    Positions, PacketEnd,
    testing::Values(EndCase{"BeforePacket", "", ENODATA},
                    EndCase{"InsideHeader", std::string("\0\0", 2), ECONNRESET},
                    EndCase{"InsidePayload", Header(10) + "abc", ECONNRESET},
                    EndCase{"AboveCap", Header(zarndaemon::io::kMaxPacketBytes + 1), EMSGSIZE},
                    EndCase{"HugeDeclaredLength", Header(0xFFFFFFFFu), EMSGSIZE}),
    [](const testing::TestParamInfo<EndCase> &info) { return info.param.name; });

TEST(Packet, ReceiveTimeOutFailsWithEagain) {
    SocketPair pair;
    const timeval timeout = {0, 50 * 1000};
    ASSERT_EQ(0, setsockopt(pair.fds[1], SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout));
    std::string text;
    EXPECT_FALSE(PacketRead(pair.fds[1], text));
    EXPECT_TRUE(errno == EAGAIN || errno == EWOULDBLOCK);
}

TEST(Packet, WriteToClosedPeerFailsWithoutSignal) {
    SocketPair pair;
    pair.Close(1);
    EXPECT_FALSE(PacketWrite(pair.fds[0], "{}"));  // SIGPIPE would end the test here
    EXPECT_EQ(EPIPE, errno);
}

TEST(Packet, WriteAboveCapIsRefused) {
    SocketPair pair;
    EXPECT_FALSE(PacketWrite(pair.fds[0], std::string(zarndaemon::io::kMaxPacketBytes + 1, 'x')));
    EXPECT_EQ(EMSGSIZE, errno);
}

TEST(ShareService, ResolvesNamesFromTheTable) {
    zarntest::SetShareTable({{"docs", "/volume1/docs"}, {"Media", "/volume2/media"}});
    PZARNSHARE share = nullptr;
    ASSERT_EQ(0, ZARNShareGet("Media", &share));
    EXPECT_STREQ("Media", share->szName);
    EXPECT_STREQ("/volume2/media", share->szPath);
    ZARNShareFree(share);
    ZARNShareFree(nullptr);
}

TEST(ShareService, UnknownNamesFailAndSetTheErrorSlot) {
    zarntest::SetShareTable({{"docs", "/volume1/docs"}, {"rel", "relative/path"}});
    for (const char *name : {"media", "Docs", "doc", "docs/x", "", "rel"}) {
        KOREErrSetEx(0, "", 0);
        PZARNSHARE share = reinterpret_cast<PZARNSHARE>(1);
        EXPECT_LT(ZARNShareGet(name, &share), 0) << name;
        EXPECT_EQ(nullptr, share) << name;
        EXPECT_EQ(ZARN_ERR_SHARE_NOT_FOUND, KOREErrGet()) << name;
    }
}

TEST(ErrorSlot, IsPerThread) {
    KOREErrSetEx(3328, "here.cpp", 1);
    std::thread other([] {
        EXPECT_EQ(0, KOREErrGet());
        KOREErrSetEx(7, "there.cpp", 2);
    });
    other.join();
    EXPECT_EQ(3328, KOREErrGet());
}

TEST(EaDir, CreatesOnceAndAcceptsExisting) {
    const std::string dir = "/var/run/share/@eaDir";
    ASSERT_EQ(0, mkdir("/var/run/share", 0755));
    EXPECT_EQ(0, ZARNEAMKDir(0, dir.c_str()));
    EXPECT_EQ(0, ZARNEAMKDir(0, dir.c_str()));
    EXPECT_EQ(-1, ZARNEAMKDir(0, "/var/run/missing/@eaDir"));
}

}  // namespace

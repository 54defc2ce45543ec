// The query handle and its link to the daemon.
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include <gtest/gtest.h>

#include "harness.h"
#include "zarncontentsearchutils.h"

namespace {

using zarntest::LogsMatching;

bool IsOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

void ExpectOneLog(int priority, const std::string &pattern) {
    const auto lines = LogsMatching(pattern);
    ASSERT_EQ(1u, lines.size()) << pattern;
    EXPECT_EQ(priority, lines[0].priority);
}

TEST(QueryInit, ConnectsWithTimeOutsAndAnUnknownTotal) {
    zarntest::FakeDaemon daemon(std::vector<zarntest::Step>{});  // accepts, stays silent
    signal(SIGPIPE, SIG_DFL);
    ZARNQueryHandle *handle = nullptr;
    ASSERT_EQ(ZARN_OK, ZARNQueryConnectionInit(&handle));
    ASSERT_NE(nullptr, handle);
    EXPECT_EQ(-1, handle->total);
    for (int fd = 0; fd < FD_SETSIZE; ++fd)
        EXPECT_EQ(fd == handle->fd, FD_ISSET(fd, &handle->read_fds) != 0) << fd;
    for (int option : {SO_RCVTIMEO, SO_SNDTIMEO}) {
        timeval timeout = {0, 0};
        socklen_t size = sizeof timeout;
        ASSERT_EQ(0, getsockopt(handle->fd, SOL_SOCKET, option, &timeout, &size));
        EXPECT_EQ(20, timeout.tv_sec);
        EXPECT_EQ(0, timeout.tv_usec);
    }
    struct sigaction pipe_action;
    ASSERT_EQ(0, sigaction(SIGPIPE, nullptr, &pipe_action));
    EXPECT_EQ(SIG_IGN, pipe_action.sa_handler);
    EXPECT_EQ(1u, daemon.WaitFinished(1).size());
    const int fd = handle->fd;
    ZARNQueryConnectionClose(handle);
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_TRUE(zarntest::Logs().empty());
}

TEST(QueryInit, WithoutDaemonKeepsTheHandleForClose) {
    ZARNQueryHandle *handle = nullptr;
    EXPECT_EQ(ZARN_ERR_CONNECT, ZARNQueryConnectionInit(&handle));
    ASSERT_NE(nullptr, handle);
    EXPECT_TRUE(IsOpen(handle->fd));
    ExpectOneLog(LOG_ERR,
                 "^query_init_cwrap\\.cpp:[0-9]+ Connect domain socket failed, "
                 "No such file or directory$");
    const int fd = handle->fd;
    ZARNQueryConnectionClose(handle);
    EXPECT_FALSE(IsOpen(fd));
}

TEST(QueryInit, RefusesANullHandleAddress) {
    EXPECT_EQ(ZARN_ERR_INVALID, ZARNQueryConnectionInit(nullptr));
}

// Descriptors beyond the select() set would make read_fds write out of bounds.
TEST(QueryInit, RefusesDescriptorsBeyondTheSelectLimit) {
    // Raise only the soft limit: valgrind refuses to move the hard one.
    rlimit limit{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    ASSERT_GT(limit.rlim_max, rlim_t{FD_SETSIZE + 8}) << "the hard limit leaves no descriptor beyond select()'s";
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 2048);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    std::vector<int> fillers;
    for (int fd = dup(0); fd >= 0 && fd < FD_SETSIZE; fd = dup(0)) fillers.push_back(fd);
    ZARNQueryHandle *handle = nullptr;
    EXPECT_EQ(ZARN_ERR_CONNECT, ZARNQueryConnectionInit(&handle));
    ASSERT_NE(nullptr, handle);
    EXPECT_GE(handle->fd, FD_SETSIZE);
    ExpectOneLog(LOG_ERR, "^query_init_cwrap\\.cpp:[0-9]+ socket descriptor [0-9]+ is beyond");
    ZARNQueryConnectionClose(handle);
    for (int fd : fillers) close(fd);
}

TEST(QueryInit, DescriptorExhaustionFailsCleanly) {
    std::vector<int> fillers;
    for (int fd = dup(0); fd >= 0; fd = dup(0)) fillers.push_back(fd);
    ZARNQueryHandle *handle = nullptr;
    EXPECT_EQ(ZARN_ERR_CONNECT, ZARNQueryConnectionInit(&handle));
    ASSERT_NE(nullptr, handle);
    EXPECT_LT(handle->fd, 0);
    ZARNQueryConnectionClose(handle);  // frees without closing a negative fd
    // Checked with descriptors to spare: the sanitizers need some to report.
    for (int fd : fillers) close(fd);
    ExpectOneLog(LOG_ERR, "^query_init_cwrap\\.cpp:[0-9]+ socket\\(\\) failed$");
}

TEST(QueryClose, AcceptsNullAndNegativeDescriptors) {
    ZARNQueryConnectionClose(nullptr);
    auto *handle = static_cast<ZARNQueryHandle *>(malloc(sizeof(ZARNQueryHandle)));
    handle->fd = -1;
    ZARNQueryConnectionClose(handle);  // valgrind and ASan see the free
}

}  // namespace

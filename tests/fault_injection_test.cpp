// Faults of the daemon and of the process around the library: a reply stream
// cut at every kind of place, an oversized packet, a signal during a wait, a
// daemon that has gone, descriptors running out or beyond select()'s reach.
// Valgrind and ASan, which run this suite too, check that nothing leaked.
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <regex>

#include <gtest/gtest.h>

#include "harness.h"
#include "zarn_connection.h"

using ZARN::IR::DAEMON::Connection;
using namespace zarntest;

namespace {

bool Count(const _tag_search_record *, void *hits) { return ++*static_cast<int *>(hits) > 0; }

enum Reader { kGetNextRecord, kFetchNext, kCount, kCallbackSearch };

// Runs one search with `reader` until it fails; counts the hits delivered
// first and returns the reader's failure result (FetchNext's null as 0).
int ReadUntilFailure(Reader reader, int *hits) {
    int code = 0;
    if (reader == kCallbackSearch) return ZARNSearchQuerySend("m", "q", 10, 0, Count, hits, "a", 1, &code) ? 1 : code;
    ZARNQueryHandle *h = nullptr;
    EXPECT_EQ(ZARNQueryConnectionInit(&h), ZARN_OK);
    EXPECT_EQ(ZARNQueryConnectionOpen(h, "m", "q", nullptr, 0, 0, 10, "a", 1, CONNECTION_FLAG_NONE), ZARN_OK);
    _tag_search_record *r = nullptr;
    if (reader == kCount) code = ZARNQueryCount(h);
    while (reader != kCount && (reader == kFetchNext ? (r = ZARNQueryFetchNext(h, timeval{5, 0})) != nullptr
                                                     : (code = ZARNQueryGetNextRecord(h, &r)) == 0 && r)) {
        ++*hits;
        ZARNQueryFreeRecord(r);
    }
    ZARNQueryConnectionClose(h);
    return code;
}

// The daemon reads the request, sends the header and a hit when `mid_stream`,
// then its last bytes, and closes: before a packet, inside the length, inside
// the payload, or a length of 16 MiB + 1, above the cap.
TEST(StreamCut, EveryReaderFailsWithTheReadErrorAndOneLogLine) {
    const struct {
        std::string bytes;
        int error;  // of the failed read
    } cuts[] = {{"", ENODATA}, {std::string("\0\0", 2), ECONNRESET},
                {std::string("\0\0\0\x20", 4) + "{\"tot", ECONNRESET}, {std::string("\x01\0\0\x01", 4), EMSGSIZE}};
    const struct {
        Reader reader;
        int failure;
        const char *unit;  // source file that logs the failed read, and how
        int priority;
    } readers[] = {{kGetNextRecord, ZARN_ERR_READ, "query_get_cwrap", LOG_DEBUG},
                   {kFetchNext, 0, "query_get_cwrap", LOG_DEBUG},
                   {kCount, 0, "query_count_cwrap", LOG_DEBUG},
                   {kCallbackSearch, ZARN_ERR_READ, "connection", LOG_ERR}};
    for (const auto &c : readers) {
        for (const auto &cut : cuts) {
            for (bool mid_stream : {false, c.reader != kCount}) {  // the total is the first packet's business
                SCOPED_TRACE(std::to_string(c.reader) + " " + std::to_string(cut.error) + (mid_stream ? " mid" : ""));
                std::vector<Step> script = {ReadRequest()};
                if (mid_stream) script.insert(script.end(), {Send(R"({"total":3})"), Send(Hit("/m/a", 1))});
                script.insert(script.end(), {SendRaw(cut.bytes), Close()});
                ClearLogs();
                FakeDaemon daemon(script);
                int hits = 0;
                EXPECT_EQ(ReadUntilFailure(c.reader, &hits), c.failure);
                EXPECT_EQ(hits, mid_stream ? 1 : 0);
                ExpectOneLog((std::string("^") + c.unit + "\\.cpp:[0-9]+ Failed to read socket, errno\\(" +
                              std::to_string(cut.error) + "\\): " + std::strerror(cut.error) + "$").c_str(),
                             c.priority);
            }
        }
    }
}

void IgnoreSignal(int) {}

TEST(SignalDuringWait, FetchNextReportsTheInterruptedSelect) {
    FakeDaemon daemon({ReadRequest()});  // never answers
    ZARNQueryHandle *h = nullptr;
    ASSERT_EQ(ZARNQueryConnectionInit(&h), ZARN_OK);
    // Without SA_RESTART; select() is never restarted anyway.  Signals keep
    // coming until the wait has ended, so that one surely lands inside it.
    struct sigaction action = {}, before = {};
    action.sa_handler = IgnoreSignal;
    ASSERT_EQ(sigaction(SIGUSR1, &action, &before), 0);
    std::atomic<bool> done{false};
    std::thread sender([&done, waiter = pthread_self()] {
        for (; !done; usleep(50000)) pthread_kill(waiter, SIGUSR1);
    });
    EXPECT_EQ(ZARNQueryFetchNext(h, timeval{30, 0}), nullptr);
    done = true;
    sender.join();
    sigaction(SIGUSR1, &before, nullptr);
    ZARNQueryConnectionClose(h);
    ExpectOneLog("^query_fetch_cwrap\\.cpp:[0-9]+ select get error Interrupted system call$");
}

// Both APIs ignore SIGPIPE when they connect: a write to a daemon that has
// closed fails with -6 and leaves the process alive.  Nothing is logged.
TEST(DaemonGone, BothApisFailToWrite) {
    FakeDaemon daemon({Close()});
    signal(SIGPIPE, SIG_DFL);
    ZARNQueryHandle *h = nullptr;
    ASSERT_EQ(ZARNQueryConnectionInit(&h), ZARN_OK);
    daemon.WaitFinished(1);
    EXPECT_EQ(ZARNQueryConnectionOpen(h, "m", "q", nullptr, 0, 0, 10, "a", 1, CONNECTION_FLAG_NONE), ZARN_ERR_WRITE);
    ZARNQueryConnectionClose(h);
    signal(SIGPIPE, SIG_DFL);
    Connection connection;
    ASSERT_TRUE(connection.Connect(20, CONNECTION_FLAG_NONE));
    daemon.WaitFinished(2);
    EXPECT_FALSE(connection.SendQuery(Json::Value(Json::objectValue), Count, nullptr, "a", 1));
    EXPECT_EQ(connection.GetError(), CONNECTION_ERROR_WRITE);
    ExpectOneLog(nullptr);
}

// The handle's read_fds has no room beyond FD_SETSIZE, so Init refuses such a
// socket, and the callback search, which never uses select(), works there.
// With no descriptor left, every API fails to connect, cleanly.
TEST(Descriptors, BeyondTheSelectLimitAndExhausted) {
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    ASSERT_GT(limit.rlim_max, rlim_t{FD_SETSIZE + 8}) << "the hard limit leaves no descriptor beyond select()'s";
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 2048);  // valgrind refuses to move the hard one
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    FakeDaemon daemon({ReadRequest(), Send(R"({"total":1})"), Send(Hit("/m/a", 1)), Send(R"({"success":true})")});
    // A first member call lets UBSan's type check of the class settle while
    // descriptors are free: checking a new type needs one of its own.
    Connection connection;
    connection.Close();
    std::vector<int> fillers;  // every free descriptor below FD_SETSIZE, then all
    for (int fd = dup(0); fd >= 0 && (fillers.push_back(fd), fd < FD_SETSIZE - 1);) fd = dup(0);
    ZARNQueryHandle *h = nullptr;
    const int beyond = ZARNQueryConnectionInit(&h), beyond_fd = h->fd;
    ZARNQueryConnectionClose(h);
    int hits = 0, code = 0;
    const int found = ZARNSearchQuerySend("m", "q", 10, 0, Count, &hits, "a", 1, &code);
    daemon.WaitClosed(1);  // the daemon's side of that search is free again
    for (int fd = dup(0); fd >= 0; fd = dup(0)) fillers.push_back(fd);
    const int exhausted = ZARNQueryConnectionInit(&h), exhausted_fd = h->fd;
    ZARNQueryConnectionClose(h);  // frees without closing a negative descriptor
    const bool connected = connection.Connect(20, CONNECTION_FLAG_NONE);
    const int result = ZARNSearchQuerySend("m", "q", 10, 0, Count, nullptr, "a", 1, &code);
    for (int fd : fillers) close(fd);  // checked with descriptors to spare: the sanitizers need some
    EXPECT_EQ(beyond, ZARN_ERR_CONNECT);
    EXPECT_GE(beyond_fd, FD_SETSIZE);
    EXPECT_EQ(found + hits, 2);
    EXPECT_EQ(exhausted, ZARN_ERR_CONNECT);
    EXPECT_LT(exhausted_fd, 0);
    EXPECT_FALSE(connected);
    EXPECT_EQ(connection.GetError(), CONNECTION_ERROR_CONNECT);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(code, ZARN_ERR_CONNECT);
    EXPECT_EQ(daemon.Accepted(), 1u);
    std::string logs;
    for (const LogLine &line : Logs()) logs += std::to_string(line.priority) + " " + line.text + "\n";
    EXPECT_TRUE(std::regex_match(logs, std::regex("3 query_init_cwrap\\.cpp:[0-9]+ socket descriptor [0-9]+ is beyond "
                                                  "the select\\(\\) limit\n3 query_init_cwrap\\.cpp:[0-9]+ socket\\(\\) "
                                                  "failed\n(3 connection\\.cpp:[0-9]+ socket\\(\\) failed\n){2}")))
        << logs;
}

}  // namespace

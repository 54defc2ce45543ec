// Faults of the daemon and of the process around the library: a reply stream
// cut at every kind of place, an oversized packet, descriptors running out or
// beyond select()'s reach, a signal during a wait, a daemon that has gone.
// Each case checks the result and the log line; valgrind and ASan, which run
// this suite too, check that nothing leaked.
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "harness.h"
#include "zarn_connection.h"

using ZARN::IR::DAEMON::Connection;
using namespace zarntest;

namespace {

// Where the daemon stops talking: the bytes it sends last, then it closes.
struct Cut {
    const char *what;
    std::string bytes;
    int error;  // errno of the failed read
};

const Cut kCuts[] = {
    {"before a packet", "", ENODATA},
    {"inside the length", std::string("\0\0", 2), ECONNRESET},
    {"inside the payload", std::string("\0\0\0\x20", 4) + "{\"tot", ECONNRESET},
    {"length above the cap", std::string("\x01\0\0\x01", 4), EMSGSIZE},  // 16 MiB + 1
};

// The daemon reads the request, sends the header and one hit when
// `mid_stream`, then the cut's bytes, and closes.
std::vector<Step> CutScript(const Cut &cut, bool mid_stream) {
    std::vector<Step> script = {ReadRequest()};
    if (mid_stream) {
        script.push_back(Send(R"({"total":3})"));
        script.push_back(Send(Hit("/m/a", 1)));
    }
    script.push_back(SendRaw(cut.bytes));
    script.push_back(Close());
    return script;
}

enum class Reader { kGetNextRecord, kFetchNext, kCount, kCallbackSearch };

// Runs one search with `reader` until it fails; counts the hits delivered
// first and returns the reader's own failure result.
int ReadUntilFailure(Reader reader, int *hits) {
    *hits = 0;
    if (reader == Reader::kCallbackSearch) {
        int code = 0;
        const int result = ZARNSearchQuerySend(
            "music", "q", 10, 0,
            [](const _tag_search_record *, void *count) { return ++*static_cast<int *>(count) > 0; },
            hits, "a", 1, &code);
        return result == 0 ? code : 1;
    }
    ZARNQueryHandle *handle = nullptr;
    EXPECT_EQ(ZARNQueryConnectionInit(&handle), ZARN_OK);
    EXPECT_EQ(ZARNQueryConnectionOpen(handle, "music", "q", nullptr, 0, 0, 10, "a", 1,
                                      CONNECTION_FLAG_NONE),
              ZARN_OK);
    int result = ZARN_OK;
    if (reader == Reader::kCount) {
        result = ZARNQueryCount(handle);
        EXPECT_EQ(handle->total, 0);
    } else if (reader == Reader::kFetchNext) {
        while (_tag_search_record *record = ZARNQueryFetchNext(handle, timeval{5, 0})) {
            ++*hits;
            ZARNQueryFreeRecord(record);
        }
    } else {
        for (;;) {
            _tag_search_record *record = nullptr;
            result = ZARNQueryGetNextRecord(handle, &record);
            if (result != ZARN_OK || record == nullptr) break;
            ++*hits;
            ZARNQueryFreeRecord(record);
        }
    }
    ZARNQueryConnectionClose(handle);
    return result;
}

struct ReaderCase {
    Reader reader;
    int failure;     // the reader's result on a failed read
    const char *unit;  // source file that logs the failed read
    int priority;
};

class StreamCut : public ::testing::TestWithParam<ReaderCase> {};

TEST_P(StreamCut, FailsWithTheReadErrorAndOneLogLine) {
    const ReaderCase &c = GetParam();
    for (const Cut &cut : kCuts) {
        for (bool mid_stream : {false, true}) {
            // The total is the first packet's business only.
            if (c.reader == Reader::kCount && mid_stream) continue;
            const std::string what = std::string(cut.what) + (mid_stream ? " after a hit" : "");
            ClearLogs();
            FakeDaemon daemon(CutScript(cut, mid_stream));
            int hits = 0;
            EXPECT_EQ(ReadUntilFailure(c.reader, &hits), c.failure) << what;
            EXPECT_EQ(hits, mid_stream ? 1 : 0) << what;
            const std::string pattern = std::string("^") + c.unit +
                                        "\\.cpp:[0-9]+ Failed to read socket, errno\\(" +
                                        std::to_string(cut.error) + "\\): " + std::strerror(cut.error) + "$";
            const auto lines = LogsMatching(pattern);
            ASSERT_EQ(lines.size(), 1u) << what << ": " << pattern;
            EXPECT_EQ(lines[0].priority, c.priority) << what;
            EXPECT_EQ(Logs().size(), 1u) << what;
        }
    }
}

const ReaderCase kReaders[] = {
    {Reader::kGetNextRecord, ZARN_ERR_READ, "query_get_cwrap", LOG_DEBUG},
    {Reader::kFetchNext, ZARN_OK, "query_get_cwrap", LOG_DEBUG},  // null, told as 0
    {Reader::kCount, 0, "query_count_cwrap", LOG_DEBUG},
    {Reader::kCallbackSearch, ZARN_ERR_READ, "connection", LOG_ERR},
};

std::string ReaderName(const ::testing::TestParamInfo<ReaderCase> &info) {
    const char *names[] = {"GetNextRecord", "FetchNext", "Count", "CallbackSearch"};
    return names[static_cast<int>(info.param.reader)];
}

INSTANTIATE_TEST_SUITE_P(Readers, StreamCut, ::testing::ValuesIn(kReaders), ReaderName);

// ---- a signal during FetchNext's wait ----------------------------------------

void IgnoreSignal(int) {}

TEST(SignalDuringWait, FetchNextReportsTheInterruptedSelect) {
    FakeDaemon daemon({ReadRequest()});  // never answers
    ZARNQueryHandle *handle = nullptr;
    ASSERT_EQ(ZARNQueryConnectionInit(&handle), ZARN_OK);
    ASSERT_EQ(ZARNQueryConnectionOpen(handle, "music", "q", nullptr, 0, 0, 10, "a", 1,
                                      CONNECTION_FLAG_NONE),
              ZARN_OK);

    // Without SA_RESTART; select() is never restarted anyway.
    struct sigaction action = {}, before = {};
    action.sa_handler = IgnoreSignal;
    sigemptyset(&action.sa_mask);
    ASSERT_EQ(sigaction(SIGUSR1, &action, &before), 0);
    // Signals keep coming until the wait has ended, so that one surely lands
    // inside select() rather than before it.
    std::atomic<bool> done{false};
    const pthread_t waiter = pthread_self();
    std::thread sender([&done, waiter] {
        while (!done) {
            pthread_kill(waiter, SIGUSR1);
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    });
    const auto start = std::chrono::steady_clock::now();
    _tag_search_record *record = ZARNQueryFetchNext(handle, timeval{10, 0});
    const auto waited = std::chrono::steady_clock::now() - start;
    done = true;
    sender.join();
    sigaction(SIGUSR1, &before, nullptr);

    EXPECT_EQ(record, nullptr);
    ZARNQueryFreeRecord(record);
    EXPECT_LT(waited, std::chrono::seconds(5));
    const auto lines = LogsMatching("^query_fetch_cwrap\\.cpp:[0-9]+ select get error Interrupted system call$");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].priority, LOG_ERR);
    EXPECT_EQ(Logs().size(), 1u);
    ZARNQueryConnectionClose(handle);
}

// ---- a daemon that has gone --------------------------------------------------

// Both APIs ignore SIGPIPE when they connect: a write to a daemon that has
// closed fails with -6 and leaves the process alive.  Nothing is logged.
TEST(DaemonGone, StreamingOpenFailsToWrite) {
    FakeDaemon daemon({Close()});
    signal(SIGPIPE, SIG_DFL);
    ZARNQueryHandle *handle = nullptr;
    ASSERT_EQ(ZARNQueryConnectionInit(&handle), ZARN_OK);
    daemon.WaitFinished(1);
    EXPECT_EQ(ZARNQueryConnectionOpen(handle, "music", "q", nullptr, 0, 0, 10, "a", 1,
                                      CONNECTION_FLAG_NONE),
              ZARN_ERR_WRITE);
    ZARNQueryConnectionClose(handle);
    EXPECT_TRUE(Logs().empty());
}

TEST(DaemonGone, ConnectionFailsToWrite) {
    FakeDaemon daemon({Close()});
    signal(SIGPIPE, SIG_DFL);
    Connection connection;
    ASSERT_TRUE(connection.Connect(20, CONNECTION_FLAG_NONE));
    daemon.WaitFinished(1);
    Json::Value request;
    request["command"] = "search";
    EXPECT_FALSE(connection.SendQuery(request, [](const _tag_search_record *, void *) { return true; },
                                      nullptr, "a", 1));
    EXPECT_EQ(connection.GetError(), CONNECTION_ERROR_WRITE);
    EXPECT_TRUE(Logs().empty());
}

// ---- descriptors -------------------------------------------------------------

// Takes every free descriptor below `below` (all of them by default) and
// gives them back on destruction.
class Fillers {
public:
    explicit Fillers(int below = -1) {
        for (int fd = dup(0); fd >= 0; fd = dup(0)) {
            fds_.push_back(fd);
            if (below >= 0 && fd >= below - 1) break;
        }
    }
    ~Fillers() { Release(); }
    void Release() {
        for (int fd : fds_) close(fd);
        fds_.clear();
    }

private:
    std::vector<int> fds_;
};

bool Accept(const _tag_search_record *, void *) { return true; }

TEST(Descriptors, ExhaustionFailsConnectCleanly) {
    FakeDaemon daemon;
    // A first member call lets UBSan's type check of the class settle while
    // descriptors are free: checking a new type needs one of its own.
    Connection connection;
    connection.Close();
    Fillers fillers;
    const bool connected = connection.Connect(20, CONNECTION_FLAG_NONE);
    const _tag_connection_error error = connection.GetError();
    int code = 0;
    const int result = ZARNSearchQuerySend("music", "q", 10, 0, Accept, nullptr, "a", 1, &code);
    // Checked with descriptors to spare: the sanitizers need some to report.
    fillers.Release();
    EXPECT_FALSE(connected);
    EXPECT_EQ(error, CONNECTION_ERROR_CONNECT);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(code, ZARN_ERR_CONNECT);
    const auto lines = LogsMatching("^connection\\.cpp:[0-9]+ socket\\(\\) failed$");
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].priority, LOG_ERR);
    EXPECT_EQ(Logs().size(), 2u);
    EXPECT_EQ(daemon.Accepted(), 0u);
}

// The callback search never waits with select(), so descriptors beyond its
// set are no reason to refuse.
TEST(Descriptors, CallbackSearchWorksBeyondTheSelectLimit) {
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    ASSERT_GT(limit.rlim_max, rlim_t{FD_SETSIZE + 8}) << "the hard limit leaves no descriptor beyond select()'s";
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 2048);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    FakeDaemon daemon({ReadRequest(), Send(R"({"total":1})"), Send(Hit("/m/a", 1)),
                       Send(R"({"success":true})")});
    Fillers fillers(FD_SETSIZE);
    const int probe = dup(0);
    EXPECT_GE(probe, FD_SETSIZE) << "the search's socket would land below the limit";
    close(probe);
    int hits = 0, code = 0;
    EXPECT_EQ(ZARNSearchQuerySend("music", "q", 10, 0,
                                  [](const _tag_search_record *, void *count) {
                                      return ++*static_cast<int *>(count) > 0;
                                  },
                                  &hits, "a", 1, &code),
              1);
    EXPECT_EQ(hits, 1);
    EXPECT_TRUE(Logs().empty());
}

}  // namespace

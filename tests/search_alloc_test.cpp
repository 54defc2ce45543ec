// The search functions with their 1st, 2nd, 3rd ... allocation failing: each
// run ends with a result that the interface allows, no exception escapes a C
// function, and (under valgrind) nothing leaks.  One process per test case.
#include <functional>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "alloc_fail.h"
#include "harness.h"
#include "zarn_connection.h"

namespace {

using zarntest::FakeDaemon;

// Runs prepare(), then call() with allocation n failing, then finish(), for
// n = 1, 2, ... until call() no longer reaches its n-th allocation.  Returns
// every result that call() gave.  A warm sweep first runs once with nothing
// failing, so that the library's spare JSON reader exists and every run
// allocates in the same order; a cold one starts without it.
std::set<int> Sweep(const std::function<void()> &prepare, const std::function<int()> &call,
                    const std::function<void()> &finish, bool warm = true) {
    std::set<int> results;
    if (warm) {
        prepare();
        call();
        finish();
    }
    for (size_t n = 1; n < 5000; ++n) {
        prepare();
        zarntest::ArmAllocationFailure(n);
        const int result = call();
        const bool reached = zarntest::DisarmAllocationFailure() >= n;
        finish();
        results.insert(result);
        if (!reached) {
            EXPECT_GT(n, 1u) << "no allocation was made: the seam is not in place";
            return results;
        }
    }
    ADD_FAILURE() << "the sweep did not end";
    return results;
}

std::vector<zarntest::Step> HeaderAndHit() {
    return {zarntest::Send(R"({"total":1})"), zarntest::Send(zarntest::Hit("/m/a", 1)),
            zarntest::Send(R"({"success":true})")};
}

TEST(SearchAllocation, BuildRecordThrowsAndFreesWhatItTook) {
    Json::Value hit = zarntest::Hit("/m/a", 1);
    hit["highlight"]["ZARNMDTextContent"] = "t";
    std::set<int> seen;
    zarntest::SweepAllocationFailures(
        [&hit] {
            try {
                ZARN::IR::DAEMON::Connection::FreeRecord(
                    ZARN::IR::DAEMON::Connection::BuildRecordFromJson(hit));
                return 0;
            } catch (const std::bad_alloc &) {
                return -8;
            }
        },
        &seen);
    EXPECT_EQ(seen, (std::set<int>{0, -8}));
}

class StreamAllocation : public ::testing::Test {
protected:
    // Every reply is waiting on the socket before the sweep's call runs.
    void Connect() {
        ASSERT_EQ(ZARNQueryConnectionInit(&handle_), 0);
        daemon_.WaitFinished(++connections_);
    }
    void Disconnect() {
        ZARNQueryConnectionClose(handle_);
        handle_ = nullptr;
    }
    FakeDaemon daemon_{std::vector<zarntest::Step>{}};
    ZARNQueryHandle *handle_ = nullptr;
    size_t connections_ = 0;
};

TEST_F(StreamAllocation, Open) {
    const auto results = Sweep([this] { Connect(); },
                               [this] {
                                   return ZARNQueryConnectionOpen(handle_, "music", "q", nullptr, 0, 0,
                                                                  20, "a", 1, CONNECTION_FLAG_HIGHLIGHT);
                               },
                               [this] { Disconnect(); });
    EXPECT_EQ(results, (std::set<int>{ZARN_OK, ZARN_ERR_NO_MEMORY}));
}

TEST_F(StreamAllocation, GetNextRecord) {
    // 1: a hit came back.
    const auto results = Sweep(
        [this] {
            daemon_.Queue(HeaderAndHit());
            Connect();
        },
        [this] {
            _tag_search_record *record = nullptr;
            const int code = ZARNQueryGetNextRecord(handle_, &record);
            ZARNQueryFreeRecord(record);
            return code == ZARN_OK && record != nullptr ? 1 : code;
        },
        [this] { Disconnect(); });
    EXPECT_EQ(results, (std::set<int>{1, ZARN_ERR_NO_MEMORY}));
    EXPECT_TRUE(zarntest::LogsMatching("response format is wrong").empty());
}

// The first parse of the process builds the spare reader; failing there is
// memory running out (Count answers 0), and a later run finds the reader built.
TEST_F(StreamAllocation, FirstReaderBuiltUnderFailure) {
    const auto results = Sweep(
        [this] {
            daemon_.Queue(HeaderAndHit());
            Connect();
        },
        [this] { return ZARNQueryCount(handle_); }, [this] { Disconnect(); }, false);
    EXPECT_EQ(results, (std::set<int>{0, 1}));
}

TEST_F(StreamAllocation, FetchNextAndCount) {
    const auto fetched = Sweep(
        [this] {
            daemon_.Queue(HeaderAndHit());
            Connect();
        },
        [this] {
            _tag_search_record *record = ZARNQueryFetchNext(handle_, timeval{5, 0});
            ZARNQueryFreeRecord(record);
            return record != nullptr ? 1 : 0;
        },
        [this] { Disconnect(); });
    EXPECT_EQ(fetched, (std::set<int>{0, 1}));
    const auto counted = Sweep(
        [this] {
            daemon_.Queue(HeaderAndHit());
            Connect();
        },
        [this] { return ZARNQueryCount(handle_); }, [this] { Disconnect(); });
    EXPECT_EQ(counted, (std::set<int>{0, 1}));
}

bool Accept(const _tag_search_record *, void *) { return true; }

TEST(SearchAllocation, SearchQuerySend) {
    FakeDaemon daemon;
    std::set<int> codes;
    const auto results = Sweep(
        [&daemon] {
            std::vector<zarntest::Step> script = HeaderAndHit();
            script.insert(script.begin(), zarntest::ReadRequest());
            daemon.Queue(script);
        },
        [&codes] {
            int code = 0;
            const int result = ZARNSearchQuerySend("music", "q", 10, 0, Accept, nullptr, "a", 1, &code);
            if (result == 0) codes.insert(code);
            return result;
        },
        [] {});
    EXPECT_EQ(results, (std::set<int>{0, 1}));
    EXPECT_EQ(codes, (std::set<int>{ZARN_ERR_NO_MEMORY}));
    EXPECT_TRUE(zarntest::LogsMatching("response format is wrong").empty());
}

}  // namespace

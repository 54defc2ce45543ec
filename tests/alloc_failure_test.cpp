// Every exported entry point, run with its 1st, 2nd, 3rd ... allocation
// failing until a run gets through: each failed run ends with the documented
// result, no exception escapes, the run after it works, and (under valgrind,
// which runs this suite too) nothing leaks.  One process per test case.
#include <cstring>
#include <functional>
#include <set>

#include <gtest/gtest.h>

#include "harness.h"
#include "zarncontentsearchutils.h"

using namespace zarntest;

namespace zarntest {  // support/alloc_fail.cpp: fail the Nth allocation of this thread; stop, count
void ArmAllocationFailure(size_t fail_at);
size_t DisarmAllocationFailure();
}  // namespace zarntest

namespace {

// Runs prepare(), call() with allocation n failing, finish() for n = 1, 2, ...
// until call() gets through, and expects results {failure, success}, the
// last run's being `success`.  A warm sweep first runs once with nothing
// failing, so that what the library keeps between calls exists and every
// run allocates in the same order; a cold one sweeps building it too.
void Sweep(const std::function<int()> &call, int failure, int success, bool warm = true,
           const std::function<void()> &prepare = [] {}, const std::function<void()> &finish = [] {}) {
    if (warm) prepare(), call(), finish();
    std::set<int> results;
    for (size_t n = 1; n < 5000; ++n) {
        prepare();
        ArmAllocationFailure(n);
        int result = -1000;  // an escaped exception
        try { result = call(); } catch (...) {}
        const bool reached = DisarmAllocationFailure() >= n;
        finish();
        results.insert(result);
        if (reached) continue;
        EXPECT_GT(n, 1u) << "the seam is not in place";
        EXPECT_EQ(result, success);
        EXPECT_EQ(results, (std::set<int>{failure, success}));
        return;
    }
    ADD_FAILURE() << "the sweep did not end";
}

// A hit with a highlight, so that every part of a record is allocated.
std::vector<Step> Reply(bool read_request) {
    std::vector<Step> script = {ReadRequest(), Send(R"({"total":1})"), Send(R"({"ZARNMDPath":"/m/a","additional":{"doc_id":1},)"
                                R"("highlight":{}})"), Send(R"({"success":true})")};
    return std::vector<Step>(script.begin() + !read_request, script.end());
}

FakeDaemon &Daemon() { static FakeDaemon daemon{std::vector<Step>{}}; return daemon; }

// Sweeps `call` on a fresh handle each run, its replies all on the socket.
void SweepHandle(const std::function<int(ZARNQueryHandle *)> &call, int failure, int success, bool warm = true) {
    static size_t connections = 0;
    static ZARNQueryHandle *h = nullptr;
    Sweep([&call] { return call(h); }, failure, success, warm, [] {
        Daemon().Queue(Reply(false));
        ASSERT_EQ(ZARNQueryConnectionInit(&h), 0);
        Daemon().WaitFinished(++connections);
    }, [] { ZARNQueryConnectionClose(h); });
}

bool AnyHit(const _tag_search_record *, void *) { return true; }

// Memory running out while a reply is parsed is never a malformed reply.
TEST(StreamingAllocation, InitOpenTheReadersAndTheCallbackSearch) {
    Daemon();
    Sweep([] {
        ZARNQueryHandle *handle = nullptr;
        const int code = ZARNQueryConnectionInit(&handle);
        ZARNQueryConnectionClose(handle);
        return code == ZARN_ERR_NO_MEMORY && handle != nullptr ? 99 : code;  // no handle when memory ran out
    }, ZARN_ERR_NO_MEMORY, ZARN_OK);
    // Only the run that failed the handle's own allocation logs.
    ASSERT_EQ(LogsMatching("^query_init_cwrap\\.cpp:[0-9]+ malloc\\(\\) failed$").size(), 1u);
    EXPECT_EQ(LogsMatching("malloc")[0].priority, LOG_ERR);
    ZARNQuerySorter sorter = {3, "ZARNMDPath"};
    SweepHandle([&sorter](ZARNQueryHandle *h) {
        return ZARNQueryConnectionOpen(h, "m", "q", &sorter, 1, 0, 20, "a", 1, CONNECTION_FLAG_HIGHLIGHT);
    }, ZARN_ERR_NO_MEMORY, ZARN_OK);
    SweepHandle([](ZARNQueryHandle *h) {
        _tag_search_record *record = nullptr;
        const int code = ZARNQueryGetNextRecord(h, &record);
        ZARNQueryFreeRecord(record);
        return code == ZARN_OK && record != nullptr ? 1 : code;
    }, ZARN_ERR_NO_MEMORY, 1);
    SweepHandle([](ZARNQueryHandle *h) {
        _tag_search_record *record = ZARNQueryFetchNext(h, timeval{5, 0});
        ZARNQueryFreeRecord(record);
        return record != nullptr ? 1 : 0;
    }, 0, 1);
    SweepHandle(ZARNQueryCount, 0, 1);
    Sweep([] {
        int code = 0;
        return ZARNSearchQuerySend("m", "q", 10, 0, AnyHit, nullptr, "a", 1, &code) == 1 ? 1 : code;
    }, ZARN_ERR_NO_MEMORY, 1, true, [] { Daemon().Queue(Reply(true)); });
    EXPECT_TRUE(LogsMatching("response format is wrong").empty());
}

// The first parse of the process builds the spare reader; failing there is
// memory running out too, and a later run finds the reader built.
TEST(StreamingAllocation, FirstReaderBuiltUnderFailure) { SweepHandle(ZARNQueryCount, 0, 1, false); }

// A failed lookup hands back all records zeroed, a good one all values.
TEST(DocumentLookupAllocation, FailsWholeOrSucceedsWhole) {
    FakeDaemon daemon({ReadRequest(), Send(R"({"success":true,"data":{"ZARNMDAcquisitionModel":"a long camera )"
                                           R"(model name","ZARNMDContentModificationDate":1700000000}})")});
    const char *keys[] = {"ZARNMDAcquisitionModel", "ZARNMDContentModificationDate", "ZARNMDUnknownButLongEnoughToAllocate"};
    Sweep([&keys] {
        ZARNQueryDocumentFieldValue got[3], zero[3] = {};
        std::memset(got, 0xAB, sizeof got);
        const int code = ZARNQueryDocumentFieldGet("music", 5, keys, 3, got);
        if (code == ZARN_ERR_NO_MEMORY) return std::memcmp(got, zero, sizeof got) == 0 ? code : 99;
        if (code == ZARN_OK && (std::strcmp(got[0].value.string_value, "a long camera model name") != 0 ||
                                got[1].value.int_value != 1700000000 || got[2].type != 0))
            return 98;
        return code;
    }, ZARN_ERR_NO_MEMORY, ZARN_OK);
    EXPECT_TRUE(LogsMatching("response format is wrong").empty());
}

void WriteShares() {
    SetShareTable({{"music", "/var/run"}}), WriteFile(kFolderConfig, R"([{"path": "/music/pop"}, {"path": "/music/a b"}])");
}

// The checks answer 0 and the paths -1 when memory runs out.
TEST(FileIndexAllocation, ChecksAnswerZeroAndPathsMinusOne) {
    WriteShares();
    Sweep([] { return FILEIDXIsShareIndexed("music"); }, 0, 1);
    Sweep([] { return FILEIDXIsPathContainIndexed("/music"); }, 0, 1);
    Sweep([] { return FILEIDXIsFullPathIndexed("/var/music/pop/x"); }, 0, 1);
    Sweep([] { return FILEIDXIsPathIndexed("/music/a b/y"); }, 0, 1);
    EXPECT_FALSE(LogsMatching("^fileindex_cwrap\\.cpp:[0-9]+ FILEIDXIs[A-Za-z]+Ex failed: ").empty());
    // The caches hold what the last, complete, run built.
    EXPECT_EQ(FILEIDXIsPathIndexedEx("/music/pop", 0) + FILEIDXIsPathContainIndexedEx("/music/a b", 0), 2);
    char out[64];
    Sweep([&out] { return FILEIDXQueuePathGet("music", out, sizeof out); }, -1, strlen("/var/run/@eaDir/ZARN@file_index_queue"));
    Sweep([&out] { return FILEIDXDBPathGet("music", out, sizeof out); }, -1, strlen("/var/run/@eaDir/ZARN@.fileindexdb"));
}

// With bReload 0 a failed first build must leave no half-built cache behind:
// the next run builds it again.  Each starts from empty caches, in a process
// of its own.
class CachedCheckAllocation : public testing::TestWithParam<int (*)()> {};

TEST_P(CachedCheckAllocation, RebuildsAfterAFailure) { WriteShares(), Sweep(GetParam(), 0, 1, false); }

INSTANTIATE_TEST_SUITE_P(FirstBuild, CachedCheckAllocation,
                         testing::Values([] { return FILEIDXIsShareIndexedEx("music", 0); },
                                         [] { return FILEIDXIsPathIndexedEx("/music/pop/x", 0); },
                                         [] { return FILEIDXIsFullPathIndexedEx("/var/music/a b", 0); },
                                         [] { return FILEIDXIsPathContainIndexedEx("/music", 0); }));

}  // namespace

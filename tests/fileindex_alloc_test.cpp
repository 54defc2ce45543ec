// The FILEIDX functions with their 1st, 2nd, 3rd ... allocation failing: each
// call answers as its interface allows (no exception escapes), and once
// memory is back the caches answer right again.  One process per test case.
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "alloc_fail.h"
#include "harness.h"
#include "zarncontentsearchutils.h"

namespace {

class FileIndexAllocation : public ::testing::Test {
protected:
    void SetUp() override {
        zarntest::SetShareTable({{"music", "/var/run"}});
        zarntest::WriteFile(zarntest::kFolderConfig, R"([{"path": "/music/pop"}, {"path": "/music/a b"}])");
    }
    // Every run answered `no` or `yes`, and the last one, with nothing
    // failing, `yes`.
    template <typename Call>
    static void Sweep(Call call, int no, int yes, bool warm_up = true) {
        std::set<int> seen;
        const size_t runs = zarntest::SweepAllocationFailures(call, &seen, 5000, warm_up);
        EXPECT_GT(runs, 1u) << "no allocation was made: the seam is not in place";
        EXPECT_LT(runs, 5000u);
        EXPECT_EQ(seen, (std::set<int>{no, yes}));
        EXPECT_EQ(call(), yes);
    }
};

TEST_F(FileIndexAllocation, ChecksAnswerZero) {
    Sweep([] { return FILEIDXIsShareIndexed("music"); }, 0, 1);
    Sweep([] { return FILEIDXIsPathContainIndexed("/music"); }, 0, 1);
    Sweep([] { return FILEIDXIsFullPathIndexed("/var/music/pop/x"); }, 0, 1);
    Sweep([] { return FILEIDXIsPathIndexed("/music/a b/y"); }, 0, 1);
    EXPECT_FALSE(zarntest::LogsMatching("^fileindex_cwrap\\.cpp:[0-9]+ FILEIDXIs[A-Za-z]+Ex failed: ").empty());
    // The caches hold what the last, complete, run built.
    EXPECT_EQ(FILEIDXIsPathIndexedEx("/music/pop", 0), 1);
    EXPECT_EQ(FILEIDXIsPathContainIndexedEx("/music/a b", 0), 1);
}

// With bReload 0 a failed run must not leave a half-built cache behind: the
// next run builds it again, and the last one answers from it.  Each check
// starts from empty caches, in a process of its own.
class CachedCheckAllocation : public FileIndexAllocation,
                              public ::testing::WithParamInterface<int (*)()> {};

TEST_P(CachedCheckAllocation, RebuildsAfterAFailure) { Sweep(GetParam(), 0, 1, false); }

INSTANTIATE_TEST_SUITE_P(
    Checks, CachedCheckAllocation,
    ::testing::Values([] { return FILEIDXIsShareIndexedEx("music", 0); },
                      [] { return FILEIDXIsPathIndexedEx("/music/pop/x", 0); },
                      [] { return FILEIDXIsFullPathIndexedEx("/var/music/a b", 0); },
                      [] { return FILEIDXIsPathContainIndexedEx("/music", 0); }));

TEST_F(FileIndexAllocation, PathGetAnswersMinusOne) {
    char out[64];
    const int queue = static_cast<int>(std::string("/var/run/@eaDir/ZARN@file_index_queue").size());
    Sweep([&out] { return FILEIDXQueuePathGet("music", out, sizeof out); }, -1, queue);
    const int db = static_cast<int>(std::string("/var/run/@eaDir/ZARN@.fileindexdb").size());
    Sweep([&out] { return FILEIDXDBPathGet("music", out, sizeof out); }, -1, db);
}

// The functions that only compose a text allocate nothing, so memory cannot
// make them fail.
TEST_F(FileIndexAllocation, ComposingAllocatesNothing) {
    char out[64];
    zarntest::ArmAllocationFailure(0);
    EXPECT_EQ(FILEIDXGetIndexID("music", out, sizeof out), 1);
    EXPECT_GT(FILEIDXDBPathCompose("/var/run", out, sizeof out), 0);
    EXPECT_GT(FILEIDXQueuePathCompose("/var/run", out, sizeof out), 0);
    EXPECT_EQ(zarntest::DisarmAllocationFailure(), 0u);
}

}  // namespace

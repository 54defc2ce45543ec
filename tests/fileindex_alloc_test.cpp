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
    static void Sweep(Call call, int no, int yes) {
        std::set<int> seen;
        const size_t runs = zarntest::SweepAllocationFailures(call, &seen);
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

TEST_F(FileIndexAllocation, PathGetAnswersMinusOne) {
    char out[64];
    const int length = static_cast<int>(std::string("/var/run/@eaDir/ZARN@file_index_queue").size());
    Sweep([&out] { return FILEIDXQueuePathGet("music", out, sizeof out); }, -1, length);
}

}  // namespace

// Every C entry point, run with its 1st, 2nd, 3rd ... allocation failing:
// each run must end with a defined result, no escaped exception and (under
// valgrind, which runs this suite too) no leak.
#include <set>

#include <gtest/gtest.h>

#include "alloc_fail.h"
#include "harness.h"
#include "zarncontentsearchutils.h"

namespace {

using zarntest::SweepAllocationFailures;

// Runs the sweep and checks that every result was one of `allowed`.
template <typename Scenario>
void Sweep(Scenario scenario, const std::set<int> &allowed) {
    std::set<int> seen;
    const size_t runs = SweepAllocationFailures(scenario, &seen);
    EXPECT_GT(runs, 1u) << "no allocation was made: the seam is not in place";
    EXPECT_LT(runs, 5000u);
    for (int result : seen) EXPECT_EQ(1u, allowed.count(result)) << "unexpected result " << result;
}

TEST(AllocationFailure, QueryInit) {
    zarntest::FakeDaemon daemon(std::vector<zarntest::Step>{});
    Sweep(
        [] {
            ZARNQueryHandle *handle = nullptr;
            const int code = ZARNQueryConnectionInit(&handle);
            if (code == ZARN_ERR_NO_MEMORY && handle != nullptr) return 99;
            ZARNQueryConnectionClose(handle);
            return code;
        },
        {ZARN_OK, ZARN_ERR_NO_MEMORY});
    // Only the run that failed the handle's own allocation logs.
    const auto lines = zarntest::LogsMatching("^query_init_cwrap\\.cpp:[0-9]+ malloc\\(\\) failed$");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].priority, LOG_ERR);
}

}  // namespace

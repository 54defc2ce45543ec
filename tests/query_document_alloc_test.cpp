// ZARNQueryDocumentFieldGet with its 1st, 2nd, 3rd ... allocation failing:
// every run fails with all records zeroed, or succeeds in full; no exception
// escapes and (under valgrind) nothing leaks.  Memory running out while the
// reply is parsed is -8, never a malformed reply.
#include <cstring>
#include <set>

#include <gtest/gtest.h>

#include "alloc_fail.h"
#include "harness.h"
#include "zarncontentsearchutils.h"

namespace {

TEST(DocumentFieldAllocation, FailsWholeOrSucceedsWhole) {
    zarntest::FakeDaemon daemon({zarntest::ReadRequest(),
                                 zarntest::Send(R"({"success":true,"data":{
                                     "ZARNMDAcquisitionModel":"a long camera model name",
                                     "ZARNMDContentModificationDate":1700000000}})")});
    const char *keys[] = {"ZARNMDAcquisitionModel", "ZARNMDContentModificationDate",
                          "ZARNMDUnknownButLongEnoughToAllocate"};
    auto call = [&keys] {
        ZARNQueryDocumentFieldValue got[3];
        std::memset(got, 0xAB, sizeof got);
        const int code = ZARNQueryDocumentFieldGet("music", 5, keys, 3, got);
        if (code == ZARN_ERR_NO_MEMORY) {
            for (const auto &record : got) {
                if (record.type != 0) return 99;  // a failed call handed back a value
            }
        } else if (code == ZARN_OK) {
            if (got[0].type != DOCUMENT_FIELD_TYPE_STRING || got[1].value.int_value != 1700000000 ||
                got[2].type != 0)
                return 98;
        }
        return code;
    };
    std::set<int> seen;
    const size_t runs = zarntest::SweepAllocationFailures(call, &seen);
    EXPECT_GT(runs, 5u) << "the lookup made almost no allocations: the seam is not in place";
    EXPECT_LT(runs, 5000u);
    EXPECT_EQ(seen, (std::set<int>{ZARN_OK, ZARN_ERR_NO_MEMORY}));
    EXPECT_TRUE(zarntest::LogsMatching("response format is wrong").empty());
}

}  // namespace

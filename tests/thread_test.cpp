// Eight threads at once run streaming searches, callback searches and
// document lookups, each on its own handle or connection; the field type
// table is shared.  Built with TSan, this proves the library shares nothing
// else between them.
#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "harness.h"
#include "zarncontentsearchutils.h"

namespace {

bool CountHit(const _tag_search_record *, void *count) { return ++*static_cast<int *>(count) > 0; }

// Each round answers 3 when it went right.
int StreamingSearch() {
    ZARNQueryHandle *handle = nullptr;
    int hits = -100;
    _tag_search_record *record = nullptr;
    if (ZARNQueryConnectionInit(&handle) == 0 &&
        ZARNQueryConnectionOpen(handle, "docs", "f*", nullptr, 0, 0, 20, "t", 1000, CONNECTION_FLAG_NONE) == 0 &&
        ZARNQueryCount(handle) == 3)
        for (hits = 0; ZARNQueryGetNextRecord(handle, &record) == 0 && record != nullptr; ++hits, record = nullptr)
            ZARNQueryFreeRecord(record);
    ZARNQueryConnectionClose(handle);
    return hits;
}

int CallbackSearch() {
    int hits = 0, error = 0;
    return ZARNSearchQuerySend("docs", "f*", 20, 0, CountHit, &hits, "t", 1000, &error) == 1 ? hits : -100;
}

int DocumentLookup() {
    const char *names[] = {"ZARNMDTitle", "ZARNMDFSSize", "ZARNMDNoSuchKey"};
    ZARNQueryDocumentFieldValue values[3];
    if (ZARNQueryDocumentFieldGet("docs", 2, names, 3, values) != 0) return -100;
    return (values[0].type == DOCUMENT_FIELD_TYPE_STRING) + (values[1].type == DOCUMENT_FIELD_TYPE_INT) +
           (values[2].type == 0);
}

TEST(Threads, SearchesAndLookupsRunSideBySide) {
    using namespace zarntest;
    // One reply serves both: a search takes it for the header, a lookup for
    // the document (and closes before the hits).
    FakeDaemon daemon({ReadRequest(), Send(R"({"total":3,"success":true,"data":{"ZARNMDTitle":"t","ZARNMDFSSize":5}})"),
                       Send(Hit("/d/1", 1)), Send(Hit("/d/2", 2)), Send(Hit("/d/3", 3)), Send(R"({"success":true})")});
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([t, &wrong] {
            int (*const rounds[])() = {StreamingSearch, CallbackSearch, DocumentLookup};
            for (int round = 0; round < 12; ++round) wrong += rounds[(t + round) % 3]() != 3;
        });
    }
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(daemon.Accepted(), 96u);
}

}  // namespace

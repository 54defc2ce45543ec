// Eight threads at once run streaming searches, callback searches and
// document lookups, each on its own handle or connection; the field type
// table is shared.  Built with TSan, this proves the library shares nothing
// else between them.
#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "harness.h"
#include "zarncontentsearchutils.h"

namespace {

constexpr int kThreads = 8;
constexpr int kRounds = 12;
constexpr int kHits = 3;

std::vector<std::string> Answer(const Json::Value &request) {
    if (request["command"].asString() == "search") {
        std::vector<std::string> packets = {"{\"total\":3}"};
        for (int i = 1; i <= kHits; ++i)
            packets.push_back("{\"ZARNMDPath\":\"/docs/f" + std::to_string(i) +
                              "\",\"additional\":{\"doc_id\":" + std::to_string(i) + "}}");
        packets.push_back("{\"success\":true}");
        return packets;
    }
    return {"{\"success\":true,\"data\":{\"ZARNMDTitle\":\"t\",\"ZARNMDFSSize\":5}}"};
}

bool CountHit(const _tag_search_record *, void *count) {
    ++*static_cast<int *>(count);
    return true;
}

// Returns the number of hits or values the round delivered.
int StreamingSearch() {
    ZARNQueryHandle *handle = nullptr;
    int hits = -100;
    if (ZARNQueryConnectionInit(&handle) == 0 &&
        ZARNQueryConnectionOpen(handle, "docs", "f*", nullptr, 0, 0, 20, "thread", 1000,
                                CONNECTION_FLAG_NONE) == 0 &&
        ZARNQueryCount(handle) == kHits) {
        hits = 0;
        _tag_search_record *record = nullptr;
        while (ZARNQueryGetNextRecord(handle, &record) == 0 && record != nullptr) {
            ++hits;
            ZARNQueryFreeRecord(record);
            record = nullptr;
        }
    }
    ZARNQueryConnectionClose(handle);
    return hits;
}

int CallbackSearch() {
    int hits = 0;
    int error = 0;
    if (ZARNSearchQuerySend("docs", "f*", 20, 0, CountHit, &hits, "thread", 1000, &error) != 1)
        return -100 + error;
    return hits;
}

int DocumentLookup() {
    const char *names[] = {"ZARNMDTitle", "ZARNMDFSSize", "ZARNMDNoSuchKey"};
    ZARNQueryDocumentFieldValue values[3];
    if (ZARNQueryDocumentFieldGet("docs", 2, names, 3, values) != 0) return -100;
    return (values[0].type == DOCUMENT_FIELD_TYPE_STRING) + (values[1].type == DOCUMENT_FIELD_TYPE_INT) +
           (values[2].type == 0);
}

TEST(Threads, SearchesAndLookupsRunSideBySide) {
    zarntest::FakeDaemon daemon({zarntest::Respond(Answer)});
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &wrong] {
            for (int round = 0; round < kRounds; ++round) {
                switch ((t + round) % 3) {
                    case 0: wrong += StreamingSearch() != kHits; break;
                    case 1: wrong += CallbackSearch() != kHits; break;
                    default: wrong += DocumentLookup() != 3; break;
                }
            }
        });
    }
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(0, wrong.load());
    EXPECT_EQ(static_cast<size_t>(kThreads * kRounds), daemon.Accepted());
}

}  // namespace

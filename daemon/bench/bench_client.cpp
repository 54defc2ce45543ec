// Search latency and rate against a running daemon, as callers of the
// library see it: each query of a fixed mix, many times, through the
// streaming search (connect, send, count, read every hit of the page, close).
// With CLIENTS > 1, that many threads search at once, each through its own
// handles and connections; every client starts on a different query of the
// mix, so the daemon serves different queries side by side.
//
//   zarnelasticd_bench SHARE ROUNDS [CLIENTS]
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "zarncontentsearchutils.h"

namespace {

struct Query {
    const char *name;
    const char *text;
    unsigned uid;
    const char *sort;  // natural sort on this field, or null
    ConnectionFlag flags;
};

const Query kQueries[] = {
    {"common word", "copyright", 0, nullptr, CONNECTION_FLAG_NONE},
    {"two words", "license software", 0, nullptr, CONNECTION_FLAG_NONE},
    {"phrase", "\"free software\"", 0, nullptr, CONNECTION_FLAG_NONE},
    {"wildcard", "lib*", 0, nullptr, CONNECTION_FLAG_NONE},
    {"field", "ZARNMDExtension:gz", 0, nullptr, CONNECTION_FLAG_NONE},
    {"natural sort", "copyright", 0, "ZARNMDFSName", CONNECTION_FLAG_NONE},
    {"as a user", "copyright", 1000, nullptr, CONNECTION_FLAG_NONE},
    {"highlight", "license software", 0, nullptr, CONNECTION_FLAG_HIGHLIGHT},
    {"everything", "*", 1000, "ZARNMDPath", CONNECTION_FLAG_NONE},
};

constexpr int kPageSize = 50;

// Runs one search; its total, or -1.
int Search(const char *share, const Query &q) {
    ZARNQuerySorter sorter = {SORTER_OPTION_NATURE_SORT, q.sort};
    ZARNQueryHandle *handle = nullptr;
    int total = -1;
    if (ZARNQueryConnectionInit(&handle) == ZARN_OK &&
        ZARNQueryConnectionOpen(handle, share, q.text, &sorter, q.sort != nullptr ? 1 : 0, 0, kPageSize,
                                "bench", q.uid, q.flags) == ZARN_OK) {
        total = ZARNQueryCount(handle);
        for (;;) {
            _tag_search_record *record = nullptr;
            if (ZARNQueryGetNextRecord(handle, &record) != ZARN_OK) total = -1;
            if (record == nullptr) break;
            ZARNQueryFreeRecord(record);
        }
    }
    ZARNQueryConnectionClose(handle);
    return total;
}

double Percentile(std::vector<double> sorted, double p) {
    std::sort(sorted.begin(), sorted.end());
    const size_t at = std::min(sorted.size() - 1, static_cast<size_t>(p * sorted.size()));
    return sorted[at];
}

constexpr size_t kQueryCount = sizeof(kQueries) / sizeof(kQueries[0]);
constexpr int kMaxClients = 64;

// What one client measured: milliseconds per search, by query.
struct ClientResult {
    std::vector<double> times[kQueryCount];
    int totals[kQueryCount] = {};
    const char *failed = nullptr;  // the query that failed, if one did
};

// One client: ROUNDS searches of every query, starting at query `first`.
void RunClient(const char *share, int rounds, size_t first, const std::atomic<bool> &go, ClientResult &result) {
    while (!go.load()) std::this_thread::yield();
    for (size_t n = 0; n < kQueryCount && result.failed == nullptr; ++n) {
        const size_t at = (first + n) % kQueryCount;
        result.times[at].reserve(rounds);
        for (int i = 0; i < rounds; ++i) {
            const auto start = std::chrono::steady_clock::now();
            const int total = Search(share, kQueries[at]);
            result.times[at].push_back(
                std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
            if (total < 0) {
                result.failed = kQueries[at].name;
                break;
            }
            result.totals[at] = total;
        }
    }
}

}  // namespace

int main(int argc, char **argv) {
    const int rounds = argc >= 3 && argc <= 4 ? std::atoi(argv[2]) : 0;
    const int clients = argc == 4 ? std::atoi(argv[3]) : 1;
    if (rounds <= 0 || clients <= 0 || clients > kMaxClients) {
        std::fprintf(stderr, "usage: %s SHARE ROUNDS [CLIENTS (1 to %d)]\n", argv[0], kMaxClients);
        return 2;
    }
    std::vector<ClientResult> results(clients);
    std::vector<std::thread> threads;
    std::atomic<bool> go(false);
    for (int c = 0; c < clients; ++c)
        threads.emplace_back(RunClient, argv[1], rounds, c % kQueryCount, std::cref(go), std::ref(results[c]));
    const auto start = std::chrono::steady_clock::now();
    go.store(true);
    for (std::thread &thread : threads) thread.join();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    for (const ClientResult &result : results) {
        if (result.failed != nullptr) {
            std::fprintf(stderr, "search failed: %s\n", result.failed);
            return 1;
        }
        // The index does not change during the run: every client must count the same hits.
        for (size_t q = 0; q < kQueryCount; ++q) {
            if (result.totals[q] != results[0].totals[q]) {
                std::fprintf(stderr, "clients disagree on the total of: %s\n", kQueries[q].name);
                return 1;
            }
        }
    }
    std::vector<double> all;
    std::printf("%-14s %8s %10s %10s\n", "query", "total", "median ms", "p99 ms");
    for (size_t q = 0; q < kQueryCount; ++q) {
        std::vector<double> times;
        for (const ClientResult &result : results)
            times.insert(times.end(), result.times[q].begin(), result.times[q].end());
        std::printf("%-14s %8d %10.2f %10.2f\n", kQueries[q].name, results[0].totals[q], Percentile(times, 0.5),
                    Percentile(times, 0.99));
        all.insert(all.end(), times.begin(), times.end());
    }
    std::printf("%-14s %8zu %10.2f %10.2f\n", "all searches", all.size(), Percentile(all, 0.5), Percentile(all, 0.99));
    std::printf("%d client%s: %.1f searches/s (%zu searches in %.1f s)\n", clients, clients == 1 ? "" : "s",
                all.size() / seconds, all.size(), seconds);
    return 0;
}

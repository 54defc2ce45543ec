// Search latency against a running daemon, as a caller of the library sees
// it: each query of a fixed mix, many times, through the streaming search
// (connect, send, count, read every hit of the page, close).
//
//   zarnelasticd_bench SHARE ROUNDS
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
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

}  // namespace

int main(int argc, char **argv) {
    const int rounds = argc == 3 ? std::atoi(argv[2]) : 0;
    if (rounds <= 0) {
        std::fprintf(stderr, "usage: %s SHARE ROUNDS\n", argv[0]);
        return 2;
    }
    std::vector<double> all;
    std::printf("%-14s %8s %10s %10s\n", "query", "total", "median ms", "p99 ms");
    for (const Query &q : kQueries) {
        std::vector<double> times;
        int total = 0;
        for (int i = 0; i < rounds; ++i) {
            const auto start = std::chrono::steady_clock::now();
            total = Search(argv[1], q);
            times.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
            if (total < 0) {
                std::fprintf(stderr, "search failed: %s\n", q.name);
                return 1;
            }
        }
        std::printf("%-14s %8d %10.2f %10.2f\n", q.name, total, Percentile(times, 0.5), Percentile(times, 0.99));
        all.insert(all.end(), times.begin(), times.end());
    }
    std::printf("%-14s %8zu %10.2f %10.2f\n", "all searches", all.size(), Percentile(all, 0.5), Percentile(all, 0.99));
    return 0;
}

// Search latency and rate against a running daemon, as callers of the
// library see it, beside the engine's own cost of the same searches.
//
// Each query of a fixed mix runs many times through the streaming search
// (connect, send, count, read every hit of the page, close).  With CLIENTS > 1,
// that many threads search at once, each through its own handles and
// connections; every client starts on a different query of the mix, so the
// daemon serves different queries side by side.
//
// The floor: the same searches in this process, straight on the share's
// index (opened once per client), reading only the page's document ids.
// Each query's plan comes from the request the library sends for it, read
// the way the daemon reads it, so the floor runs the daemon's match exactly;
// what the daemon adds is its protocol, opening the index per search,
// reading the hits' fields and highlighting.  Floor and daemon alternate in
// blocks of rounds, with the same number of clients, so both see the same
// load on a shared machine.  A search whose total differs between the daemon
// and the floor, or between clients, fails the run.
//
//   zarnelasticd_bench SHARE ROUNDS [CLIENTS] [--mix doc|corpus]
//   zarnelasticd_bench --measure FILE COMMAND [ARG...]
//
// The second form runs COMMAND and writes its wall-clock seconds and peak
// resident set size (KB) to FILE: the index build's cost for bench.sh.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "engine.h"
#include "perm.h"
#include "request.h"
#include "search_request.h"
#include "share_index.h"
#include "zarn_connection.h"
#include "zarncontentsearchutils.h"

namespace {

struct Query {
    const char *name;
    const char *text;
    unsigned uid;
    const char *sort;  // sort on this field, or null
    uint32_t sort_options;
    ConnectionFlag flags;
};

constexpr uint32_t kNatural = SORTER_OPTION_NATURE_SORT;

// For the copy of /usr/share/doc.
const std::vector<Query> kDocMix = {
    {"common word", "copyright", 0, nullptr, 0, CONNECTION_FLAG_NONE},
    {"two words", "license software", 0, nullptr, 0, CONNECTION_FLAG_NONE},
    {"phrase", "\"free software\"", 0, nullptr, 0, CONNECTION_FLAG_NONE},
    {"wildcard", "lib*", 0, nullptr, 0, CONNECTION_FLAG_NONE},
    {"field", "ZARNMDExtension:gz", 0, nullptr, 0, CONNECTION_FLAG_NONE},
    {"natural sort", "copyright", 0, "ZARNMDFSName", kNatural, CONNECTION_FLAG_NONE},
    {"as a user", "copyright", 1000, nullptr, 0, CONNECTION_FLAG_NONE},
    {"highlight", "license software", 0, nullptr, 0, CONNECTION_FLAG_HIGHLIGHT},
    {"everything", "*", 1000, "ZARNMDPath", kNatural, CONNECTION_FLAG_NONE},
};

// For a generated share: its text comes from /usr/share/doc, its names
// carry numbers and its owners and modes vary (make_corpus.cpp).
const std::vector<Query> kCorpusMix = {
    {"common word", "copyright", 0, nullptr, 0, CONNECTION_FLAG_NONE},
    {"two words", "license software", 0, nullptr, 0, CONNECTION_FLAG_NONE},
    {"phrase", "\"free software\"", 0, nullptr, 0, CONNECTION_FLAG_NONE},
    {"wildcard", "report*", 0, nullptr, 0, CONNECTION_FLAG_NONE},
    {"field", "ZARNMDExtension:pdf", 0, nullptr, 0, CONNECTION_FLAG_NONE},
    {"size range", "ZARNMDFSSize:100000..100000000", 0, "ZARNMDFSSize", SORTER_OPTION_DESC, CONNECTION_FLAG_NONE},
    {"natural sort", "ZARNMDExtension:jpg", 0, "ZARNMDFSName", kNatural, CONNECTION_FLAG_NONE},
    {"as a user", "copyright", 1000, nullptr, 0, CONNECTION_FLAG_NONE},
    {"highlight", "license software", 0, nullptr, 0, CONNECTION_FLAG_HIGHLIGHT},
    {"everything", "*", 1000, "ZARNMDPath", 0, CONNECTION_FLAG_NONE},
};

constexpr int kPageSize = 50;
constexpr int kMaxClients = 64;
constexpr int kMaxBlocks = 4;

ZARNQuerySorter SorterOf(const Query &q) { return {q.sort_options, q.sort}; }

// Runs one search through the library; its total, or -1.
int64_t Search(const char *share, const Query &q) {
    ZARNQuerySorter sorter = SorterOf(q);
    ZARNQueryHandle *handle = nullptr;
    int64_t total = -1;
    if (ZARNQueryConnectionInit(&handle) == ZARN_OK &&
        ZARNQueryConnectionOpen(handle, share, q.text, &sorter, q.sort != nullptr ? 1 : 0, 0, kPageSize, "bench",
                                q.uid, q.flags) == ZARN_OK) {
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

// The plan the daemon runs for the library's request of `q`, made by a root
// peer: the permission filter's user reads, none for uid 0.
struct Plan {
    zarnd::SearchPlan plan;
    std::unique_ptr<zarnd::Credentials> reader;
};

Plan PlanOf(const char *share, const Query &q) {
    Json::Value request;
    if (!zarn::BuildSearchRequest(share, q.text, 0, kPageSize, &request))
        throw std::runtime_error(std::string("no index identifier for share ") + share);
    ZARNQuerySorter sorter = SorterOf(q);
    const Json::Value sent = ZARN::IR::DAEMON::Connection::RewriteSearchQuery(
        request, q.uid, "bench", &sorter, q.sort != nullptr ? 1 : 0, q.flags);
    const zarnd::SearchRequest parsed = zarnd::ParseSearchRequest(sent["data"]);
    Plan out;
    out.plan = parsed.plan;
    const uint32_t uid = parsed.has_permission_uid ? parsed.permission_uid : 0;
    if (uid != 0) {
        out.reader.reset(new zarnd::Credentials(zarnd::LookupCredentials(uid)));
        out.plan.reader = out.reader.get();
    }
    return out;
}

double Percentile(std::vector<double> sorted, double p) {
    std::sort(sorted.begin(), sorted.end());
    const size_t at = std::min(sorted.size() - 1, static_cast<size_t>(p * sorted.size()));
    return sorted[at];
}

double Milliseconds(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - since).count();
}

// What one side (daemon or floor) measured for one query.
struct Side {
    std::vector<double> times;  // ms per search
    int64_t total = -1;         // -1 until the first search
    bool consistent = true;     // every search gave the same total
    void Add(double ms, int64_t got) {
        times.push_back(ms);
        if (total >= 0 && got != total) consistent = false;
        total = got;
    }
};

struct ClientResult {
    std::vector<Side> daemon, floor;
    std::unique_ptr<zarnd::SearchIndex> index;  // the floor's, one per client
};

class Bench {
public:
    Bench(const char *share, const std::vector<Query> &mix, int clients)
        : share_(share), mix_(mix), results_(clients) {
        const std::string dir = zarnd::IndexDirOfShare(share);
        for (const Query &q : mix) plans_.push_back(PlanOf(share, q));
        for (ClientResult &r : results_) {
            r.index = zarnd::OpenSearchIndex(dir);
            r.daemon.resize(mix.size());
            r.floor.resize(mix.size());
        }
    }

    // `rounds` of every query on both sides, floor and daemon in turns.
    void Run(int rounds) {
        const int blocks = std::min(rounds, kMaxBlocks);
        for (int b = 0; b < blocks; ++b) {
            const int n = rounds * (b + 1) / blocks - rounds * b / blocks;
            floor_seconds_ += Phase(n, [this](ClientResult &r, size_t q) {
                std::vector<uint32_t> ids;
                const auto start = std::chrono::steady_clock::now();
                const uint64_t total = r.index->PageIds(plans_[q].plan, &ids);
                r.floor[q].Add(Milliseconds(start), static_cast<int64_t>(total));
            });
            daemon_seconds_ += Phase(n, [this](ClientResult &r, size_t q) {
                const auto start = std::chrono::steady_clock::now();
                const int64_t total = Search(share_, mix_[q]);
                if (total < 0) throw std::runtime_error("search failed");
                r.daemon[q].Add(Milliseconds(start), total);
            });
        }
    }

    // Prints the table; false when a total disagrees.
    bool Report() const {
        bool agree = true;
        for (size_t q = 0; q < mix_.size(); ++q) {
            const int64_t total = results_[0].daemon[q].total;
            for (const ClientResult &r : results_) {
                for (const Side *side : {&r.daemon[q], &r.floor[q]}) {
                    if (side->consistent && side->total == total) continue;
                    std::fprintf(stderr, "totals disagree on \"%s\": daemon %lld (first client %lld), floor %lld%s\n",
                                 mix_[q].name, static_cast<long long>(r.daemon[q].total),
                                 static_cast<long long>(total), static_cast<long long>(r.floor[q].total),
                                 side->consistent ? "" : "; a total changed between searches");
                    agree = false;
                }
            }
        }
        std::printf("%-14s %8s %9s %9s %7s %9s %9s\n", "query", "total", "floor ms", "daemon ms", "ratio",
                    "floor p99", "daemon p99");
        std::vector<double> all_floor, all_daemon;
        for (size_t q = 0; q < mix_.size(); ++q) {
            std::vector<double> floor, daemon;
            for (const ClientResult &r : results_) {
                floor.insert(floor.end(), r.floor[q].times.begin(), r.floor[q].times.end());
                daemon.insert(daemon.end(), r.daemon[q].times.begin(), r.daemon[q].times.end());
            }
            Row(mix_[q].name, static_cast<long long>(results_[0].daemon[q].total), floor, daemon);
            all_floor.insert(all_floor.end(), floor.begin(), floor.end());
            all_daemon.insert(all_daemon.end(), daemon.begin(), daemon.end());
        }
        Row("all searches", static_cast<long long>(all_daemon.size()), all_floor, all_daemon);
        const int clients = static_cast<int>(results_.size());
        const double daemon_rate = all_daemon.size() / daemon_seconds_, floor_rate = all_floor.size() / floor_seconds_;
        std::printf("%d client%s: %.1f searches/s (%zu searches in %.1f s); floor %.1f searches/s; ratio %.2f\n",
                    clients, clients == 1 ? "" : "s", daemon_rate, all_daemon.size(), daemon_seconds_, floor_rate,
                    daemon_rate / floor_rate);
        return agree;
    }

private:
    static void Row(const char *name, long long total, const std::vector<double> &floor,
                    const std::vector<double> &daemon) {
        const double f = Percentile(floor, 0.5), d = Percentile(daemon, 0.5);
        std::printf("%-14s %8lld %9.2f %9.2f %7.2f %9.2f %9.2f\n", name, total, f, d, f / d,
                    Percentile(floor, 0.99), Percentile(daemon, 0.99));
    }

    // Every client does `rounds` searches of every query, starting at its
    // own query, all clients at once; the wall-clock seconds it took.
    double Phase(int rounds, const std::function<void(ClientResult &, size_t)> &search) {
        std::atomic<bool> go(false);
        std::mutex failed_lock;
        std::string failed;
        std::vector<std::thread> threads;
        for (size_t c = 0; c < results_.size(); ++c) {
            threads.emplace_back([&, c] {
                while (!go.load()) std::this_thread::yield();
                for (size_t n = 0; n < mix_.size(); ++n) {
                    const size_t q = (c + n) % mix_.size();
                    try {
                        for (int i = 0; i < rounds; ++i) search(results_[c], q);
                    } catch (const std::exception &e) {
                        std::lock_guard<std::mutex> hold(failed_lock);
                        failed = std::string(mix_[q].name) + ": " + e.what();
                        return;
                    }
                }
            });
        }
        const auto start = std::chrono::steady_clock::now();
        go.store(true);
        for (std::thread &thread : threads) thread.join();
        if (!failed.empty()) throw std::runtime_error(failed);
        return Milliseconds(start) / 1000;
    }

    const char *share_;
    const std::vector<Query> &mix_;
    std::vector<Plan> plans_;
    std::vector<ClientResult> results_;
    double floor_seconds_ = 0, daemon_seconds_ = 0;
};

int Measure(const char *file, char **command) {
    const auto start = std::chrono::steady_clock::now();
    const pid_t child = fork();
    if (child < 0) return 1;
    if (child == 0) {
        execvp(command[0], command);
        std::perror(command[0]);
        _exit(127);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
    }
    const double seconds = Milliseconds(start) / 1000;
    struct rusage usage;
    getrusage(RUSAGE_CHILDREN, &usage);  // ru_maxrss: KB, of the largest child
    FILE *out = std::fopen(file, "w");
    if (out == nullptr || std::fprintf(out, "%.3f %ld\n", seconds, usage.ru_maxrss) < 0 || std::fclose(out) != 0) {
        std::perror(file);
        return 1;
    }
    if (WIFSIGNALED(status)) {
        std::fprintf(stderr, "%s: killed by signal %d (%s)\n", command[0], WTERMSIG(status), strsignal(WTERMSIG(status)));
        return 1;
    }
    if (WEXITSTATUS(status) != 0) std::fprintf(stderr, "%s: exit status %d\n", command[0], WEXITSTATUS(status));
    return WEXITSTATUS(status);
}

}  // namespace

int main(int argc, char **argv) {
    if (argc >= 4 && std::strcmp(argv[1], "--measure") == 0) return Measure(argv[2], argv + 3);
    const std::vector<Query> *mix = &kDocMix;
    if (argc >= 5 && std::strcmp(argv[argc - 2], "--mix") == 0) {
        const std::string name = argv[argc - 1];
        mix = name == "doc" ? &kDocMix : name == "corpus" ? &kCorpusMix : nullptr;
        argc -= 2;
    }
    const int rounds = argc >= 3 && argc <= 4 ? std::atoi(argv[2]) : 0;
    const int clients = argc == 4 ? std::atoi(argv[3]) : 1;
    if (mix == nullptr || rounds <= 0 || clients <= 0 || clients > kMaxClients) {
        std::fprintf(stderr,
                     "usage: %s SHARE ROUNDS [CLIENTS (1 to %d)] [--mix doc|corpus]\n"
                     "       %s --measure FILE COMMAND [ARG...]\n",
                     argv[0], kMaxClients, argv[0]);
        return 2;
    }
    try {
        Bench bench(argv[1], *mix, clients);
        bench.Run(rounds);
        return bench.Report() ? 0 : 1;
    } catch (const std::exception &e) {
        std::fprintf(stderr, "bench failed: %s\n", e.what());
        return 1;
    }
}

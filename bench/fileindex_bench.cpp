// Measure 4: the indexed-folder checks on filled caches (bReload 0), and the
// cost of a reload (the wrappers), for growing folder lists.
#include <sys/stat.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "bench.h"
#include "timing.h"
#include "zarncontentsearchutils.h"

namespace zarnbench {
namespace {

constexpr char kFolderList[] = "/var/packages/Norvex/etc/fileindex.folders";
constexpr char kWorkDir[] = "/var/zarnbench";  // on the sandbox's tmpfs
constexpr int kShares = 16;
constexpr int kFolderCounts[] = {10, 1000, 10000};
constexpr int kCounts = sizeof kFolderCounts / sizeof kFolderCounts[0];
constexpr int kDepths[] = {2, 4, 6, 8, 10, 12};
constexpr int kDepthCount = sizeof kDepths / sizeof kDepths[0];
constexpr int kPoolHalf = 128;

std::string ShareName(int share) {
    char name[16];
    std::snprintf(name, sizeof name, "share%02d", share % kShares);
    return name;
}

// The directory that holds a share: the shares are spread over two volumes.
std::string VolumeOf(int share) { return "/volume" + std::to_string(1 + share % 2); }

// Folder i of a list: "/shareNN/f<i>/sub3/.../sub<depth>", of depth
// 2 + i % 11 (the share counts as the first component).
int FolderDepth(int i) { return 2 + i % 11; }

std::string Extend(std::string path, int from_depth, int to_depth, const char *stem) {
    for (int level = from_depth + 1; level <= to_depth; ++level)
        path += "/" + std::string(stem) + std::to_string(level);
    return path;
}

std::string Folder(int i) {
    return Extend("/" + ShareName(i) + "/f" + std::to_string(i), 2, FolderDepth(i), "sub");
}

void WriteFolderList(int count) {
    std::string text = "[\n";
    for (int i = 0; i < count; ++i)
        text += std::string(i == 0 ? "" : ",\n") + "  {\"path\": \"" + Folder(i) + "\"}";
    text += "\n]\n";
    const std::string temporary = std::string(kFolderList) + ".new";
    std::ofstream(temporary) << text;
    std::rename(temporary.c_str(), kFolderList);
}

void WriteShareTable() {
    mkdir(kWorkDir, 0755);
    const std::string table = std::string(kWorkDir) + "/shares";
    std::ofstream out(table);
    for (int s = 0; s < kShares; ++s) out << ShareName(s) << '\t' << VolumeOf(s) << '/' << ShareName(s) << '\n';
    setenv("ZARN_SHARE_TABLE", table.c_str(), 1);
}

// Share-relative query paths of one depth: first kPoolHalf inside configured
// folders (the deepest folders not deeper than the path, extended to it), then
// kPoolHalf in no configured folder.  Either way every prefix is tested.
std::vector<std::string> PathPool(int folders, int depth) {
    int deepest = 0;
    for (int i = 0; i < folders && i < 11; ++i)
        if (FolderDepth(i) <= depth && FolderDepth(i) > deepest) deepest = FolderDepth(i);
    std::vector<int> candidates;
    for (int i = 0; i < folders; ++i)
        if (FolderDepth(i) == deepest) candidates.push_back(i);
    std::vector<std::string> pool;
    for (int j = 0; j < kPoolHalf; ++j) {
        const int i = candidates[static_cast<size_t>(j) % candidates.size()];
        pool.push_back(Extend(Folder(i), deepest, depth, "x"));
    }
    for (int j = 0; j < kPoolHalf; ++j)
        pool.push_back(Extend("/" + ShareName(j) + "/q" + std::to_string(j), 2, depth, "sub"));
    return pool;
}

std::string FullPathOf(const std::string &relative) {
    const int share = std::atoi(relative.c_str() + 6);  // "/shareNN..."
    return VolumeOf(share) + relative;
}

// ns per call, running the pool over and over for at least `min_ns`.
double NsPerCall(int (*check)(const char *, int), const std::vector<std::string> &pool,
                 int64_t min_ns, int *answered_yes) {
    long calls = 0;
    int yes = 0;
    const int64_t start = ThreadCpuNs();
    int64_t elapsed = 0;
    do {
        yes = 0;
        for (const std::string &path : pool) yes += check(path.c_str(), 0);
        calls += static_cast<long>(pool.size());
        elapsed = ThreadCpuNs() - start;
    } while (elapsed < min_ns);
    *answered_yes = yes;
    return static_cast<double>(elapsed) / static_cast<double>(calls);
}

// us per wrapper call, for at least `min_ns` and at least one call.
template <typename Call>
double UsPerReload(Call call, int64_t min_ns) {
    long calls = 0;
    const int64_t start = ThreadCpuNs();
    int64_t elapsed = 0;
    do {
        call();
        ++calls;
        elapsed = ThreadCpuNs() - start;
    } while (elapsed < min_ns);
    return static_cast<double>(elapsed) / 1e3 / static_cast<double>(calls);
}

enum Check { kPathIndexed, kFullPathIndexed, kPathContain, kCheckCount };
const char *const kCheckNames[kCheckCount] = {"FILEIDXIsPathIndexedEx", "FILEIDXIsFullPathIndexedEx",
                                              "FILEIDXIsPathContainIndexedEx"};
int (*const kChecks[kCheckCount])(const char *, int) = {
    FILEIDXIsPathIndexedEx, FILEIDXIsFullPathIndexedEx, FILEIDXIsPathContainIndexedEx};

enum Wrapper { kShareW, kPathW, kFullPathW, kContainW, kWrapperCount };
const char *const kWrapperNames[kWrapperCount] = {"FILEIDXIsShareIndexed", "FILEIDXIsPathIndexed",
                                                  "FILEIDXIsFullPathIndexed",
                                                  "FILEIDXIsPathContainIndexed"};

struct Samples {
    // [check][depth][count] for the path checks; the share check has two
    // rows (configured share, unknown share) in place of depths.
    std::vector<double> path[kCheckCount][kDepthCount][kCounts];
    std::vector<double> share[2][kCounts];
    std::vector<double> reload[kWrapperCount][kCounts];
};

bool MeasureOneList(int count_index, int64_t min_ns, Samples *samples) {
    const int folders = kFolderCounts[count_index];
    WriteFolderList(folders);
    const std::string probe = PathPool(folders, 8)[0];
    const std::string probe_full = FullPathOf(probe);
    // The wrappers re-read the list and rebuild every cache: the reload cost.
    const int64_t reload_ns = min_ns * 2;
    samples->reload[kShareW][count_index].push_back(
        UsPerReload([] { FILEIDXIsShareIndexed("share07"); }, reload_ns));
    samples->reload[kPathW][count_index].push_back(
        UsPerReload([&] { FILEIDXIsPathIndexed(probe.c_str()); }, reload_ns));
    samples->reload[kFullPathW][count_index].push_back(
        UsPerReload([&] { FILEIDXIsFullPathIndexed(probe_full.c_str()); }, reload_ns));
    samples->reload[kContainW][count_index].push_back(
        UsPerReload([&] { FILEIDXIsPathContainIndexed(probe.c_str()); }, reload_ns));

    // Fill every cache the checks keep (the wrappers left them out of date)
    // before any of them is timed.
    FILEIDXIsShareIndexedEx("share07", 0);
    FILEIDXIsPathIndexedEx(probe.c_str(), 0);
    FILEIDXIsFullPathIndexedEx(probe_full.c_str(), 0);
    FILEIDXIsPathContainIndexedEx(probe.c_str(), 0);

    for (int d = 0; d < kDepthCount; ++d) {
        const std::vector<std::string> pool = PathPool(folders, kDepths[d]);
        std::vector<std::string> full_pool;
        for (const std::string &path : pool) full_pool.push_back(FullPathOf(path));
        for (int c = 0; c < kCheckCount; ++c) {
            int yes = 0;
            const double ns = NsPerCall(kChecks[c], c == kFullPathIndexed ? full_pool : pool,
                                        min_ns, &yes);
            if (c != kPathContain && yes != kPoolHalf) {
                std::fprintf(stderr, "%s at depth %d with %d folders answered yes %d times, not %d\n",
                             kCheckNames[c], kDepths[d], folders, yes, kPoolHalf);
                return false;
            }
            samples->path[c][d][count_index].push_back(ns);
        }
    }
    std::vector<std::string> known, unknown;
    for (int s = 0; s < kPoolHalf; ++s) {
        known.push_back(ShareName(s));
        unknown.push_back("noshare" + std::to_string(s));
    }
    int yes = 0;
    samples->share[0][count_index].push_back(NsPerCall(FILEIDXIsShareIndexedEx, known, min_ns, &yes));
    const bool known_ok = yes == (folders >= kShares ? kPoolHalf : kPoolHalf * folders / kShares);
    samples->share[1][count_index].push_back(NsPerCall(FILEIDXIsShareIndexedEx, unknown, min_ns, &yes));
    if (!known_ok || yes != 0) {
        std::fprintf(stderr, "FILEIDXIsShareIndexedEx gave wrong answers with %d folders\n", folders);
        return false;
    }
    return true;
}

}  // namespace

bool FileIndexChecks(Report &report, const Options &options) {
    WriteShareTable();
    const int rounds = options.quick ? 1 : 5;
    const int64_t min_ns = options.quick ? 500000 : 3000000;
    Samples samples;
    for (int round = 0; round < rounds; ++round)
        for (int n = 0; n < kCounts; ++n)
            if (!MeasureOneList(n, min_ns, &samples)) return false;

    const double log_bound = std::log2(10000.0) / std::log2(10.0);
    report.Section(
        "fileindex", "4. Indexed checks (bReload 0, filled caches)",
        "Folder lists of 10, 1,000 and 10,000 folders over 16 shares on 2 volumes, folder i\n"
        "of depth 2 + i % 11. For each depth, 256 query paths: 128 inside configured folders\n"
        "(the deepest not deeper than the path, extended to it) and 128 in no configured\n"
        "folder, so every prefix is tested; depth counts the components of the share-relative\n"
        "path (the absolute path given to the FullPath check has one more, the volume).\n"
        "Each cell: the pool run over and over for at least " + Fixed(min_ns / 1e6, "%.1f") +
            " ms of the thread's CPU time, ns per call;\nmedian of " + std::to_string(rounds) +
            " rounds, each round visiting the three lists in turn. growth = ns at 10,000\n"
            "folders / ns at 10 folders (log2(10000)/log2(10) = " + Fixed(log_bound, "%.1f") +
            " is the logarithmic bound).",
        {"check", "depth", "ns @10", "ns @1,000", "ns @10,000", "growth 10->10,000"});
    auto add_row = [&](const std::string &check, const std::string &depth,
                       const std::vector<double> (&cells)[kCounts]) {
        Json::Value row(Json::objectValue);
        row["check"] = check;
        row["depth"] = depth;
        const char *const keys[kCounts] = {"ns @10", "ns @1,000", "ns @10,000"};
        for (int n = 0; n < kCounts; ++n) row[keys[n]] = Median(cells[n]);
        const double growth = Median(cells[kCounts - 1]) / Median(cells[0]);
        row["growth 10->10,000"] = growth;
        report.Row(row);
        return growth;
    };
    for (int c = 0; c < kCheckCount; ++c) {
        for (int d = 0; d < kDepthCount; ++d) {
            const double growth = add_row(kCheckNames[c], std::to_string(kDepths[d]),
                                          samples.path[c][d]);
            report.Target(std::string(kCheckNames[c]) + " depth " + std::to_string(kDepths[d]) +
                              ": growth within logarithmic (<= " + Fixed(log_bound, "%.1f") + ")",
                          Fixed(growth, "%.2f"), growth <= log_bound);
            if (kDepths[d] == 8) {
                const double ns = Median(samples.path[c][d][kCounts - 1]);
                report.Target(std::string(kCheckNames[c]) + " depth 8, 10,000 folders: < 1 us",
                              Fixed(ns, "%.0f") + " ns", ns < 1000);
            }
        }
    }
    const char *const share_rows[2] = {"configured share", "unknown share"};
    for (int s = 0; s < 2; ++s) {
        const double growth = add_row("FILEIDXIsShareIndexedEx", share_rows[s], samples.share[s]);
        report.Target(std::string("FILEIDXIsShareIndexedEx, ") + share_rows[s] +
                          ": growth within logarithmic (<= " + Fixed(log_bound, "%.1f") + ")",
                      Fixed(growth, "%.2f"), growth <= log_bound);
    }
    report.EndSection();

    report.Section(
        "reload", "4b. Reload cost (wrappers, bReload 1)",
        "One wrapper call re-reads the folder list and rebuilds what its check needs (the\n"
        "FullPath and Path wrappers look up the share of every folder; the stand-in share\n"
        "service reads its 16-line table file on each lookup). CPU us per call, repeated for at\n"
        "least " + Fixed(2 * min_ns / 1e6, "%.1f") + " ms; median of rounds. linearity = (us per folder at 10,000) / (us per\n"
        "folder at 1,000): 1.0 is exactly linear.",
        {"wrapper", "us @10", "us @1,000", "us @10,000", "us/folder @10,000", "linearity"});
    for (int w = 0; w < kWrapperCount; ++w) {
        Json::Value row(Json::objectValue);
        row["wrapper"] = kWrapperNames[w];
        const char *const keys[kCounts] = {"us @10", "us @1,000", "us @10,000"};
        for (int n = 0; n < kCounts; ++n) row[keys[n]] = Median(samples.reload[w][n]);
        const double big = Median(samples.reload[w][2]), mid = Median(samples.reload[w][1]);
        row["us/folder @10,000"] = big / 10000;
        const double linearity = (big / 10000) / (mid / 1000);
        row["linearity"] = linearity;
        report.Row(row);
        report.Target(std::string(kWrapperNames[w]) + ": reload linear in folders (linearity <= 1.5)",
                      Fixed(linearity, "%.2f"), linearity <= 1.5);
    }
    report.EndSection();
    return true;
}

}  // namespace zarnbench

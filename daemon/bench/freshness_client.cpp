// How soon a running daemon finds what was just written, through the
// library's search, with no indexing run.
//
//   zarnelasticd_freshness SHARE DIR SINGLES BURST
//
// Singles: SINGLES files written one at a time into DIR/fresh (a folder of
// the share), each holding a word of its own; for each, the time from its
// close until a search finds it.  Burst: BURST files written at once into
// DIR/burst, all holding one word; the time from the last close until a
// search counts all of them.  Searches poll every 5 ms.  Prints one line per
// figure; exits 1 when a file is not found within 60 s.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "zarncontentsearchutils.h"

namespace {

using Clock = std::chrono::steady_clock;

double MsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

int Count(const std::string &share, const std::string &query) {
    ZARNQueryHandle *handle = nullptr;
    ZARNQuerySorter by_path = {0, "ZARNMDPath"};
    int total = -1;
    if (ZARNQueryConnectionInit(&handle) == ZARN_OK &&
        ZARNQueryConnectionOpen(handle, share.c_str(), query.c_str(), &by_path, 1, 0, 1, "freshness", 0,
                                CONNECTION_FLAG_NONE) == ZARN_OK)
        total = ZARNQueryCount(handle);
    if (handle != nullptr) ZARNQueryConnectionClose(handle);
    return total;
}

// Milliseconds until `query` counts `wanted`, from `since`; -1 after 60 s.
double FoundAfter(const std::string &share, const std::string &query, int wanted, Clock::time_point since) {
    while (Count(share, query) != wanted) {
        if (MsSince(since) > 60000) return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return MsSince(since);
}

bool WriteFile(const std::string &path, const std::string &text) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    return close(fd) == 0 && written;
}

double Percentile(std::vector<double> values, double share) {
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1, static_cast<size_t>(share * values.size()))];
}

int Singles(const std::string &share, const std::string &dir, int count) {
    mkdir((dir + "/fresh").c_str(), 0755);
    std::vector<double> times;
    for (int i = 0; i < count; ++i) {
        const std::string word = "freshword" + std::to_string(i) + "q";
        if (!WriteFile(dir + "/fresh/single-" + std::to_string(i) + ".txt", "a note with " + word + "\n")) return 1;
        const double ms = FoundAfter(share, word, 1, Clock::now());
        if (ms < 0) {
            std::fprintf(stderr, "%s not found within 60 s\n", word.c_str());
            return 1;
        }
        times.push_back(ms);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));  // each change on a quiet daemon
    }
    std::printf("single changes: %d files, close to found: median %.0f ms, p99 %.0f ms, max %.0f ms\n", count,
                Percentile(times, 0.5), Percentile(times, 0.99), Percentile(times, 1.0));
    return 0;
}

int Burst(const std::string &share, const std::string &dir, int count) {
    mkdir((dir + "/burst").c_str(), 0755);
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < count; ++i)
        if (!WriteFile(dir + "/burst/burst-" + std::to_string(i) + ".txt", "burstword number " + std::to_string(i) + "\n"))
            return 1;
    const double writing = MsSince(start);
    const double ms = FoundAfter(share, "burstword", count, Clock::now());
    if (ms < 0) {
        std::fprintf(stderr, "the burst was not all found within 60 s\n");
        return 1;
    }
    std::printf("burst: %d files written in %.2f s; all found %.2f s after the last close (%.0f files/s from the "
                "first write)\n",
                count, writing / 1000, ms / 1000, count / ((writing + ms) / 1000));
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 5) {
        std::fprintf(stderr, "usage: zarnelasticd_freshness SHARE DIR SINGLES BURST\n");
        return 2;
    }
    const int singles = std::atoi(argv[3]), burst = std::atoi(argv[4]);
    if (singles < 1 || burst < 1) return 2;
    if (Singles(argv[1], argv[2], singles) != 0) return 1;
    return Burst(argv[1], argv[2], burst);
}

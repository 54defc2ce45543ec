#include "index_run.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <thread>

#include "engine.h"
#include "failure.h"
#include "log.h"
#include "share_index.h"

namespace zarnd {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::minutes kLockWait{10};

double Seconds(Clock::time_point since) {
    return std::chrono::duration<double>(Clock::now() - since).count();
}

// "N files, M MB read, R files/s" on one line of a terminal, redrawn a few
// times a second.
class Progress {
public:
    explicit Progress(bool enabled) : enabled_(enabled) {}

    void Tick(const IndexCounts &counts) {
        if (!enabled_ || Clock::now() - last_ < std::chrono::milliseconds(250)) return;
        last_ = Clock::now();
        Print(counts);
    }

    void Done(const IndexCounts &counts) {
        if (!enabled_) return;
        Print(counts);
        std::fputc('\n', stderr);
    }

private:
    void Print(const IndexCounts &counts) const {
        const uint64_t files = counts.added + counts.updated + counts.unchanged;
        const double elapsed = std::max(Seconds(start_), 1e-3);
        std::fprintf(stderr, "\r%llu files, %.1f MB read, %.0f files/s   ",
                     static_cast<unsigned long long>(files), counts.bytes_read / 1e6, files / elapsed);
        std::fflush(stderr);
    }

    const bool enabled_;
    const Clock::time_point start_ = Clock::now();
    Clock::time_point last_ = start_;
};

// The daemon holds a share's index only while it applies a batch of live
// changes (or rescans the share after lost events): a run waits for it.
std::unique_ptr<IndexWriter> OpenWriterWhenFree(const std::string &dir) {
    const Clock::time_point deadline = Clock::now() + kLockWait;
    for (;;) {
        try {
            return OpenIndexWriter(dir);
        } catch (const Failure &failure) {
            if (failure.code() != kLocked || Clock::now() >= deadline) throw;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

void Add(IndexCounts *total, const IndexCounts &counts) {
    total->added += counts.added;
    total->updated += counts.updated;
    total->removed += counts.removed;
    total->unchanged += counts.unchanged;
    total->bytes_read += counts.bytes_read;
    total->bytes_walked += counts.bytes_walked;
    total->skipped += counts.skipped;
    total->not_read += counts.not_read;
}

bool IndexShare(const std::string &share, const std::set<std::string> &folders, const IndexOptions &options,
                IndexCounts *total) {
    const Clock::time_point start = Clock::now();
    std::string root;
    if (!ShareRoot(share, &root)) {
        ZARN_LOG(LOG_ERR, "ZARNShareGet failed, share=%s", share.c_str());
        std::fprintf(stderr, "zarnelasticd: unknown share %s\n", share.c_str());
        return false;
    }
    try {
        const std::string dir = IndexDirOfShare(share);
        if (!options.shards.empty()) SetIndexShards(dir, options.shards);
        std::unique_ptr<IndexWriter> writer = OpenWriterWhenFree(dir);
        Progress progress(options.progress);
        const ShareWalk walk{share, root, writer.get(), nullptr,
                             [&progress](const IndexCounts &counts) { progress.Tick(counts); }};
        const IndexCounts c = RescanShare(walk, folders);
        writer->Finish();
        progress.Done(c);
        const double seconds = std::max(Seconds(start), 1e-3);
        const uint64_t files = c.added + c.updated + c.unchanged;
        // The rate is of what was read: a file gives at most its text cap,
        // however large it is.
        std::printf("%s: %llu added, %llu updated, %llu removed, %llu unchanged, %llu skipped, %llu contents not read; "
                    "%.1f MB read (of %.1f MB walked) in %.2f s (%.0f files/s, %.1f MB/s read)\n",
                    share.c_str(), static_cast<unsigned long long>(c.added),
                    static_cast<unsigned long long>(c.updated), static_cast<unsigned long long>(c.removed),
                    static_cast<unsigned long long>(c.unchanged), static_cast<unsigned long long>(c.skipped),
                    static_cast<unsigned long long>(c.not_read), c.bytes_read / 1e6, c.bytes_walked / 1e6, seconds, files / seconds,
                    c.bytes_read / 1e6 / seconds);
        std::fflush(stdout);
        ZARN_LOG(LOG_INFO, "indexed share %s: %llu added, %llu updated, %llu removed, %llu unchanged",
                 share.c_str(), static_cast<unsigned long long>(c.added),
                 static_cast<unsigned long long>(c.updated), static_cast<unsigned long long>(c.removed),
                 static_cast<unsigned long long>(c.unchanged));
        Add(total, c);
        return true;
    } catch (const Failure &failure) {
        ZARN_LOG(LOG_ERR, "cannot index share %s: %s", share.c_str(), failure.what());
        std::fprintf(stderr, "zarnelasticd: cannot index share %s: %s\n", share.c_str(), failure.what());
        return false;
    }
}

}  // namespace

int RunIndexer(const IndexOptions &options, IndexCounts *total) {
    std::map<std::string, std::set<std::string>> shares;
    if (!ReadIndexedFolders(options.config_path.c_str(), &shares)) {
        std::fprintf(stderr, "zarnelasticd: cannot read the indexed folders from %s\n",
                     options.config_path.c_str());
        return 1;
    }
    if (!options.share.empty()) {
        if (shares.count(options.share) == 0) {
            std::fprintf(stderr, "zarnelasticd: share %s holds no indexed folder\n", options.share.c_str());
            return 1;
        }
        shares = {{options.share, shares[options.share]}};
    }
    IndexCounts sum;
    int status = 0;
    for (const auto &share : shares)
        if (!IndexShare(share.first, share.second, options, &sum)) status = 1;
    if (total != nullptr) *total = sum;
    return status;
}

}  // namespace zarnd

#include "live_index.h"

#include <errno.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <set>
#include <vector>

#include "engine.h"
#include "failure.h"
#include "indexer.h"
#include "log.h"
#include "share_index.h"
#include "watcher.h"

namespace zarnd {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Changes wait for a pause this long, so that a burst of them (a folder
// copied, a file saved in steps) becomes one batch...
constexpr milliseconds kQuiet{50};
// ...but never longer than this after the first of them.
constexpr milliseconds kMaxDelay{400};
// While another writer (a batch run) holds an index, changes wait.
constexpr milliseconds kLockedRetry{250};
// A share with unwatched folders is rescanned this often, which also tries
// their watches again.
constexpr std::chrono::seconds kRewatchPeriod{60};
// Above this many changed paths in one share, they give way to one rescan of
// the share, so that what waits stays bounded (at most some 80 MB of paths).
constexpr size_t kMaxPendingPaths = 20000;

// Whether a folder above `path` is in `paths` too: its rescan covers `path`.
bool Covered(const std::string &path, const std::set<std::string> &paths) {
    for (size_t slash = path.rfind('/'); slash != 0 && slash != std::string::npos; slash = path.rfind('/', slash - 1))
        if (paths.count(path.substr(0, slash)) > 0) return true;
    return false;
}

struct LiveShare {
    std::string root;
    std::set<std::string> folders;   // the listed ones
    std::set<std::string> changed;   // paths to rescan
    bool whole = false;              // rescan the whole share instead
    bool limited = false;            // some of its folders are not watched
    bool limit_hit = false;          // during the rescan under way
    Clock::time_point rewatch_at = Clock::time_point::max();
};

}  // namespace

class LiveIndex::Loop {
public:
    explicit Loop(const LiveOptions &options) : options_(options), watcher_(options.max_watches) {}

    bool Ready() const { return watcher_.fd() >= 0; }

    void Run(int stop_fd) {
        if (!watcher_.WatchConfig(options_.config_path))
            ZARN_LOG(LOG_WARNING, "cannot watch %s: changes to it need a restart", options_.config_path.c_str());
        Reload();
        for (;;) {
            pollfd polled[2] = {{stop_fd, POLLIN, 0}, {watcher_.fd(), POLLIN, 0}};
            if (poll(polled, 2, Timeout()) < 0 && errno != EINTR) {
                ZARN_LOG(LOG_ERR, "live indexing stops: poll failed: %m");
                return;
            }
            if (polled[0].revents != 0) return;
            if (polled[1].revents != 0) Take();
            if (Due(Clock::now())) Apply();
        }
    }

private:
    void Take() {
        std::vector<WatchEvent> events;
        watcher_.Read(&events);
        for (const WatchEvent &event : events) Note(event);
    }

    void Note(const WatchEvent &event) {
        if (event.kind == WatchEvent::kConfig) {
            Reload();
        } else if (event.kind == WatchEvent::kOverflow) {
            if (!overflow_logged_) ZARN_LOG(LOG_WARNING, "inotify dropped events: rescanning every share");
            overflow_logged_ = true;
            for (auto &share : shares_) share.second.whole = true;
            Touch();
        } else if (const auto it = shares_.find(event.share); it != shares_.end()) {
            LiveShare &share = it->second;
            // With folders unwatched, any change may hide others.
            if (share.limited || share.changed.size() >= kMaxPendingPaths) {
                share.whole = true;
                share.changed.clear();
            } else if (!share.whole) {
                share.changed.insert(event.path);
            }
            Touch();
        }
    }

    void Touch() {
        const Clock::time_point now = Clock::now();
        if (!pending_) first_ = now;
        last_ = now;
        pending_ = true;
    }

    // The list is read again from scratch: every share rescanned, every
    // folder watched anew.
    void Reload() {
        std::map<std::string, std::set<std::string>> listed;
        ReadIndexedFolders(options_.config_path.c_str(), &listed);  // logs why not; nothing then
        watcher_.Clear();
        shares_.clear();
        for (const auto &entry : listed) {
            std::string root;
            if (!ShareRoot(entry.first, &root)) {
                ZARN_LOG(LOG_ERR, "live indexing skips unknown share %s", entry.first.c_str());
                continue;
            }
            LiveShare &share = shares_[entry.first];
            share.root = root;
            share.folders = entry.second;
            share.whole = true;
        }
        Touch();
    }

    bool Due(Clock::time_point now) {
        for (auto &share : shares_)
            if (share.second.limited && now >= share.second.rewatch_at) {
                share.second.whole = true;
                share.second.rewatch_at = Clock::time_point::max();
                Touch();
            }
        return pending_ && now >= retry_at_ && (now - last_ >= kQuiet || now - first_ >= kMaxDelay);
    }

    // Until the pending changes are due or a share's rewatch; -1 (no
    // timeout at all) when neither is there.
    int Timeout() const {
        Clock::time_point next = Clock::time_point::max();
        if (pending_) next = std::max(retry_at_, std::min(last_ + kQuiet, first_ + kMaxDelay));
        for (const auto &share : shares_) next = std::min(next, share.second.rewatch_at);
        if (next == Clock::time_point::max()) return -1;
        const auto left = std::chrono::duration_cast<milliseconds>(next - Clock::now()).count();
        return static_cast<int>(std::clamp<long long>(left + 1, 0, 60 * 60 * 1000));
    }

    void Apply() {
        pending_ = false;
        bool all = true;
        for (auto &share : shares_)
            if ((share.second.whole || !share.second.changed.empty()) && !ApplyShare(share.first, &share.second))
                all = false;
        if (!all) {
            retry_at_ = Clock::now() + kLockedRetry;
            Touch();
        } else if (!pending_) {
            overflow_logged_ = false;
        }
    }

    // False when another writer holds the index: the changes stay pending.
    bool ApplyShare(const std::string &name, LiveShare *share) {
        std::unique_ptr<IndexWriter> writer;
        try {
            writer = OpenIndexWriter(IndexDirOfShare(name));
        } catch (const Failure &failure) {
            if (failure.code() == kLocked) {
                ZARN_LOG(LOG_DEBUG, "share %s: another writer holds the index, its changes wait", name.c_str());
                return false;
            }
            ZARN_LOG(LOG_ERR, "live indexing cannot open the index of share %s: %s", name.c_str(), failure.what());
            share->changed.clear();
            share->whole = false;
            return true;
        }
        const bool whole = share->whole;
        std::set<std::string> changed;
        changed.swap(share->changed);
        share->whole = false;
        share->limit_hit = false;
        const ShareWalk walk{name, share->root, writer.get(),
                             [&](int fd, const std::string &path) { WatchFolder(name, share, fd, path); }};
        try {
            const Clock::time_point start = Clock::now();
            const IndexCounts counts = whole ? RescanShare(walk, share->folders) : IndexCounts();
            for (const std::string &path : changed)
                if (!whole && !Covered(path, changed)) RescanPath(walk, path);
            writer->Finish();
            // A whole share's rescan may take a while (at start above all):
            // say when its index is current again.
            if (whole)
                ZARN_LOG(LOG_INFO, "share %s rescanned in %.2f s: %llu added, %llu updated, %llu removed",
                         name.c_str(), std::chrono::duration<double>(Clock::now() - start).count(),
                         static_cast<unsigned long long>(counts.added), static_cast<unsigned long long>(counts.updated),
                         static_cast<unsigned long long>(counts.removed));
        } catch (const std::exception &e) {
            ZARN_LOG(LOG_ERR, "live indexing of share %s failed: %s", name.c_str(), e.what());
        }
        AfterWatches(name, share, whole);
        return true;
    }

    void WatchFolder(const std::string &name, LiveShare *share, int fd, const std::string &path) {
        if (watcher_.Watch(fd, name, path, share->root + path.substr(name.size() + 1))) return;
        if (!share->limited && !share->limit_hit)
            ZARN_LOG(LOG_WARNING,
                     "watch limit reached at %zu watches (fs.inotify.max_user_watches): share %s is rescanned "
                     "on each change and every %lld s until all its folders are watched",
                     watcher_.size(), name.c_str(), static_cast<long long>(kRewatchPeriod.count()));
        share->limit_hit = true;
    }

    // A folder left unwatched falls back to rescans of the whole share (the
    // walk that met it has just indexed it); a share that rescanned with
    // every folder watched resumes plain watching.
    void AfterWatches(const std::string &name, LiveShare *share, bool whole) {
        if (share->limit_hit) {
            share->limited = true;
            share->rewatch_at = Clock::now() + kRewatchPeriod;
        } else if (whole && share->limited) {
            share->limited = false;
            share->rewatch_at = Clock::time_point::max();
            ZARN_LOG(LOG_INFO, "share %s: every folder watched again", name.c_str());
        }
    }

    const LiveOptions options_;
    Watcher watcher_;
    std::map<std::string, LiveShare> shares_;
    bool pending_ = false;
    Clock::time_point first_, last_;  // of the pending changes
    Clock::time_point retry_at_;
    bool overflow_logged_ = false;
};

LiveIndex::LiveIndex(const LiveOptions &options) : options_(options) {}

LiveIndex::~LiveIndex() { Stop(); }

bool LiveIndex::Start() {
    loop_.reset(new Loop(options_));
    if (!loop_->Ready()) return false;
    stop_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (stop_fd_ < 0) return false;
    thread_ = std::thread([this] { loop_->Run(stop_fd_); });
    return true;
}

void LiveIndex::Stop() {
    if (thread_.joinable()) {
        const uint64_t one = 1;
        if (write(stop_fd_, &one, sizeof one) != sizeof one) ZARN_LOG(LOG_ERR, "cannot stop live indexing: %m");
        thread_.join();
    }
    if (stop_fd_ >= 0) close(stop_fd_);
    stop_fd_ = -1;
}

}  // namespace zarnd

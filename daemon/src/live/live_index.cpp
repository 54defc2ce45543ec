#include "live_index.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
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
// A share whose changes could not be applied (another writer holds its
// index, a shard is down, the disk is full) tries again after this pause,
// doubled at each failure up to the longest.
constexpr milliseconds kFirstRetry{250};
constexpr milliseconds kLongestRetry{4000};
// Above this many changed paths in one share, they give way to one rescan of
// the share, so that what waits stays bounded (at most some 80 MB of paths).
constexpr size_t kMaxPendingPaths = 20000;

// Whether a folder above `path` is in `paths` too: its rescan covers `path`.
bool Covered(const std::string &path, const std::set<std::string> &paths) {
    for (size_t slash = path.rfind('/'); slash != 0 && slash != std::string::npos; slash = path.rfind('/', slash - 1))
        if (paths.count(path.substr(0, slash)) > 0) return true;
    return false;
}

// What a folder is on its file system: another one at the same path (a
// mount, a restore) differs.
struct Identity {
    dev_t dev = 0;
    ino_t ino = 0;
    bool operator!=(const Identity &other) const { return dev != other.dev || ino != other.ino; }
};

Identity IdentityOf(const struct stat &st) { return {st.st_dev, st.st_ino}; }

struct LiveShare {
    std::string root;
    std::set<std::string> folders;   // the listed ones
    std::set<std::string> changed;   // paths to rescan
    bool whole = false;              // rescan the whole share instead
    bool limited = false;            // some of its folders are not watched
    bool limit_hit = false;          // during the rescan under way
    Clock::time_point rewatch_at = Clock::time_point::max();
    Clock::time_point retry_at;      // its changes wait until then
    milliseconds backoff{0};         // the last pause before retry_at
    bool failing = false;            // its last attempt failed, and said so
    std::map<std::string, Identity> seen;  // listed folder -> what the last walk met

    bool Waiting() const { return whole || !changed.empty(); }
    std::string AbsPath(const std::string &name, const std::string &path) const {
        return root + path.substr(name.size() + 1);
    }
};

}  // namespace

class LiveIndex::Loop {
public:
    Loop(const LiveOptions &options, const std::atomic<bool> *stopping)
        : options_(options), stopping_(stopping), watcher_(options.max_watches),
          mounts_fd_(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC)) {}
    ~Loop() {
        if (mounts_fd_ >= 0) close(mounts_fd_);
    }

    bool Ready() const { return watcher_.fd() >= 0; }

    void Run(int stop_fd) {
        if (!watcher_.WatchConfig(options_.config_path))
            ZARN_LOG(LOG_WARNING, "cannot watch %s: changes to it need a restart", options_.config_path.c_str());
        Reload();
        for (;;) {
            // The mount table reads as changed when a file system comes or
            // goes: an indexed folder may be another one now.
            pollfd polled[3] = {{stop_fd, POLLIN, 0}, {watcher_.fd(), POLLIN, 0}, {mounts_fd_, POLLPRI, 0}};
            if (poll(polled, 3, Timeout()) < 0 && errno != EINTR) {
                ZARN_LOG(LOG_ERR, "live indexing stops: poll failed: %m");
                return;
            }
            if (polled[0].revents != 0) return;
            if (polled[1].revents != 0) Take();
            if (polled[2].revents != 0) CheckFolders();
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

    // The folders that hold a changed path and have a record of their own
    // (inside a listed folder, not the share's top), unless rescanned whole.
    static std::set<std::string> Parents(const std::string &name, const LiveShare &share) {
        std::set<std::string> parents;
        for (const std::string &path : share.changed) {
            const std::string parent = path.substr(0, path.rfind('/'));
            if (parent == "/" + name || share.changed.count(parent) > 0 || Covered(parent, share.changed)) continue;
            for (const std::string &folder : share.folders)
                if (PathWithin(parent, folder)) parents.insert(parent);
        }
        return parents;
    }

    // The listed folders that are not what the last walk met are rescanned.
    void CheckFolders() {
        for (auto &entry : shares_) {
            LiveShare &share = entry.second;
            for (const std::string &folder : share.folders) {
                struct stat st;
                const bool there = stat(share.AbsPath(entry.first, folder).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
                const auto seen = share.seen.find(folder);
                if (there != (seen != share.seen.end()) || (there && IdentityOf(st) != seen->second))
                    Note({WatchEvent::kChanged, entry.first, folder});
            }
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
        return pending_ && now >= NextRetry() && (now - last_ >= kQuiet || now - first_ >= kMaxDelay);
    }

    // The earliest time at which a share's waiting changes may be applied.
    Clock::time_point NextRetry() const {
        Clock::time_point next = Clock::time_point::max();
        for (const auto &share : shares_)
            if (share.second.Waiting()) next = std::min(next, share.second.retry_at);
        return next;
    }

    // Until the pending changes are due or a share's rewatch; -1 (no
    // timeout at all) when neither is there.
    int Timeout() const {
        Clock::time_point next = Clock::time_point::max();
        if (pending_) next = std::max(NextRetry(), std::min(last_ + kQuiet, first_ + kMaxDelay));
        for (const auto &share : shares_) next = std::min(next, share.second.rewatch_at);
        if (next == Clock::time_point::max()) return -1;
        const auto left = std::chrono::duration_cast<milliseconds>(next - Clock::now()).count();
        return static_cast<int>(std::clamp<long long>(left + 1, 0, 60 * 60 * 1000));
    }

    void Apply() {
        const Clock::time_point now = Clock::now();
        pending_ = false;
        for (auto &entry : shares_) {
            LiveShare &share = entry.second;
            if (stopping_->load()) return;
            if (!share.Waiting() || now < share.retry_at) continue;
            ApplyShare(entry.first, &share);  // one share's failure leaves the others to their batches
        }
        bool waiting = false;
        for (const auto &share : shares_) waiting = waiting || share.second.Waiting();
        if (waiting) {
            Touch();
        } else {
            overflow_logged_ = false;
        }
    }

    // Rescans what waits in the share and commits.  When it cannot (another
    // writer holds the index, it cannot be opened or written, the walk was
    // stopped), what waited stays, to be done again in full after a pause.
    void ApplyShare(const std::string &name, LiveShare *share) {
        if (!TryShare(name, share)) share->retry_at = Clock::now() + share->backoff;
    }

    bool TryShare(const std::string &name, LiveShare *share) {
        const bool whole = share->whole;
        share->limit_hit = false;
        try {
            std::unique_ptr<IndexWriter> writer = OpenIndexWriter(IndexDirOfShare(name));
            const ShareWalk walk{name, share->root, writer.get(),
                                 [&](int fd, const std::string &path) { WatchFolder(name, share, fd, path); },
                                 nullptr, stopping_};
            const Clock::time_point start = Clock::now();
            // A listed folder walked again: its name watched in its parent,
            // what it is now noted by the walk.
            for (const std::string &folder : share->folders)
                if (whole || share->changed.count(folder) > 0) {
                    share->seen.erase(folder);
                    WatchParent(name, share, folder);
                }
            IndexCounts counts;
            if (whole) counts = RescanShare(walk, share->folders);
            for (const std::string &path : share->changed)
                if (!whole && !counts.stopped && !Covered(path, share->changed)) counts.stopped = RescanPath(walk, path).stopped;
            if (!whole && !counts.stopped)
                for (const std::string &folder : Parents(name, *share))
                    RescanFolderRecord(walk, folder);
            if (counts.stopped) {
                writer->Commit();  // what was done so far; the rest at the next start
                return false;
            }
            writer->Finish();
            // A whole share's rescan may take a while (at start above all):
            // say when its index is current again.
            if (whole)
                ZARN_LOG(LOG_INFO, "share %s rescanned in %.2f s: %llu added, %llu updated, %llu removed",
                         name.c_str(), std::chrono::duration<double>(Clock::now() - start).count(),
                         static_cast<unsigned long long>(counts.added), static_cast<unsigned long long>(counts.updated),
                         static_cast<unsigned long long>(counts.removed));
        } catch (const Failure &failure) {
            if (failure.code() != kLocked) return Failed(name, share, failure.what());
            // A batch run: it ends by itself, so the share looks often.
            ZARN_LOG(LOG_DEBUG, "share %s: another writer holds the index, its changes wait", name.c_str());
            share->backoff = kFirstRetry;
            return false;
        } catch (const std::exception &e) {
            return Failed(name, share, e.what());
        }
        if (share->failing) ZARN_LOG(LOG_INFO, "live indexing of share %s: its waiting changes are applied", name.c_str());
        share->failing = false;
        share->whole = false;
        share->changed.clear();
        AfterWatches(name, share, whole);
        return true;
    }

    // Said once for a run of failures; each waits twice as long as the last.
    bool Failed(const std::string &name, LiveShare *share, const char *why) {
        if (!share->failing) ZARN_LOG(LOG_ERR, "live indexing of share %s failed, its changes wait: %s", name.c_str(), why);
        share->backoff = share->failing ? std::min(kLongestRetry, share->backoff * 2) : kFirstRetry;
        share->failing = true;
        return false;
    }

    void WatchParent(const std::string &name, LiveShare *share, const std::string &folder) {
        if (!watcher_.WatchParent(name, folder, share->AbsPath(name, folder)))
            Unwatched(name, share, share->AbsPath(name, folder) + "/..");
    }

    void WatchFolder(const std::string &name, LiveShare *share, int fd, const std::string &path) {
        struct stat st;
        if (share->folders.count(path) > 0 && fstat(fd, &st) == 0) share->seen[path] = IdentityOf(st);
        if (!watcher_.Watch(fd, name, path, share->AbsPath(name, path))) Unwatched(name, share, path);
    }

    // A folder left unwatched (errno says why): the share falls back to
    // whole rescans.
    void Unwatched(const std::string &name, LiveShare *share, const std::string &path) {
        if (!share->limited && !share->limit_hit) {
            char why[128];
            if (errno == ENOSPC)
                std::snprintf(why, sizeof why, "watch limit reached at %zu watches (fs.inotify.max_user_watches)",
                              watcher_.size());
            else
                std::snprintf(why, sizeof why, "%s", std::strerror(errno));
            ZARN_LOG(LOG_WARNING,
                     "cannot watch %s: %s: share %s is rescanned on each change and every %.1f s until all its "
                     "folders are watched",
                     path.c_str(), why, name.c_str(), options_.rewatch_period.count() / 1000.0);
        }
        share->limit_hit = true;
    }

    // A folder left unwatched falls back to rescans of the whole share (the
    // walk that met it has just indexed it); a share that rescanned with
    // every folder watched resumes plain watching.
    void AfterWatches(const std::string &name, LiveShare *share, bool whole) {
        if (share->limit_hit) {
            share->limited = true;
            share->rewatch_at = Clock::now() + options_.rewatch_period;
        } else if (whole && share->limited) {
            share->limited = false;
            share->rewatch_at = Clock::time_point::max();
            ZARN_LOG(LOG_INFO, "share %s: every folder watched again", name.c_str());
        }
    }

    const LiveOptions options_;
    const std::atomic<bool> *const stopping_;
    Watcher watcher_;
    const int mounts_fd_;
    std::map<std::string, LiveShare> shares_;
    bool pending_ = false;
    Clock::time_point first_, last_;  // of the pending changes
    bool overflow_logged_ = false;
};

LiveIndex::LiveIndex(const LiveOptions &options) : options_(options) {}

LiveIndex::~LiveIndex() { Stop(); }

bool LiveIndex::Start() {
    stopping_ = false;
    loop_.reset(new Loop(options_, &stopping_));
    if (!loop_->Ready()) return false;
    stop_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (stop_fd_ < 0) return false;
    thread_ = std::thread([this] { loop_->Run(stop_fd_); });
    return true;
}

void LiveIndex::Stop() {
    if (thread_.joinable()) {
        stopping_ = true;  // a walk under way ends at its next entry
        const uint64_t one = 1;
        if (write(stop_fd_, &one, sizeof one) != sizeof one) ZARN_LOG(LOG_ERR, "cannot stop live indexing: %m");
        thread_.join();
    }
    if (stop_fd_ >= 0) close(stop_fd_);
    stop_fd_ = -1;
}

}  // namespace zarnd

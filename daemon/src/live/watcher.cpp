#include "watcher.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "path_within.h"
#include "log.h"
#include "names.h"

namespace zarnd {

namespace {

// What can change a record: a file closed after writing, a change of owner,
// mode or times, a name made, removed or moved.  Plain writes are left out:
// the close that ends them says the file is whole.
constexpr uint32_t kFolderEvents = IN_CREATE | IN_CLOSE_WRITE | IN_ATTRIB | IN_DELETE | IN_MOVED_FROM |
                                   IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR |
                                   IN_DONT_FOLLOW | IN_EXCL_UNLINK;
// What replaces an indexed folder, seen from its parent.
constexpr uint32_t kParentEvents =
    IN_CREATE | IN_CLOSE_WRITE | IN_ATTRIB | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ONLYDIR | IN_MASK_ADD;
constexpr uint32_t kConfigEvents = IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_ONLYDIR;

}  // namespace

Watcher::Watcher(size_t max_watches)
    : max_watches_(max_watches), fd_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    if (fd_ < 0) ZARN_LOG(LOG_ERR, "inotify unavailable, no live indexing: %m");
}

Watcher::~Watcher() {
    if (fd_ >= 0) close(fd_);
}

bool Watcher::Full(const std::string &path) const {
    if (fd_ < 0 || (max_watches_ > 0 && by_wd_.size() >= max_watches_ && by_path_.count(path) == 0)) {
        errno = fd_ < 0 ? EBADF : ENOSPC;
        return true;
    }
    return false;
}

bool Watcher::Watch(int dirfd, const std::string &share, const std::string &path, const std::string &abs_path) {
    if (Full(path)) return false;
    // Through the open descriptor: the very folder that the walk holds,
    // whatever was renamed since.
    char fd_path[32];
    std::snprintf(fd_path, sizeof fd_path, "/proc/self/fd/%d", dirfd);
    int wd = inotify_add_watch(fd_, fd_path, kFolderEvents & ~IN_DONT_FOLLOW);
    if (wd < 0 && errno == ENOENT) wd = inotify_add_watch(fd_, abs_path.c_str(), kFolderEvents);
    // Gone (or no longer a folder) already: its parent's watch reports that.
    if (wd < 0) return errno == ENOENT || errno == ENOTDIR;
    const auto old = by_path_.find(path);
    if (old != by_path_.end() && old->second != wd) Drop(old->second);  // another folder held the name
    const auto known = by_wd_.find(wd);
    if (known != by_wd_.end() && known->second.path != path) by_path_.erase(known->second.path);  // moved
    by_wd_[wd] = {share, path, abs_path};
    by_path_[path] = wd;
    return true;
}

bool Watcher::WatchParent(const std::string &share, const std::string &path, const std::string &abs_path) {
    const size_t slash = abs_path.rfind('/');
    if (slash == std::string::npos || fd_ < 0) return false;
    const int wd = inotify_add_watch(fd_, slash == 0 ? "/" : abs_path.substr(0, slash).c_str(), kParentEvents);
    if (wd < 0) return false;
    std::vector<Child> &children = parents_[wd];
    const Child child{share, path, abs_path.substr(slash + 1)};
    for (const Child &known : children)
        if (known.share == share && known.path == path) return true;
    children.push_back(child);
    return true;
}

void Watcher::Drop(int wd) {
    inotify_rm_watch(fd_, wd);
    const auto it = by_wd_.find(wd);
    if (it == by_wd_.end()) return;
    by_path_.erase(it->second.path);
    by_wd_.erase(it);
}

void Watcher::Forget(const std::string &path) {
    std::vector<int> gone;
    for (auto it = by_path_.lower_bound(path); it != by_path_.end() && it->first.compare(0, path.size(), path) == 0;
         ++it)
        if (PathWithin(it->first, path)) gone.push_back(it->second);
    for (const int wd : gone) Drop(wd);
}

void Watcher::Clear() {
    while (!by_wd_.empty()) Drop(by_wd_.begin()->first);
    for (const auto &parent : parents_) inotify_rm_watch(fd_, parent.first);
    parents_.clear();
}

bool Watcher::WatchConfig(const std::string &config_path) {
    const size_t slash = config_path.rfind('/');
    if (fd_ < 0 || slash == std::string::npos) return false;
    config_name_ = config_path.substr(slash + 1);
    config_wd_ = inotify_add_watch(fd_, slash == 0 ? "/" : config_path.substr(0, slash).c_str(), kConfigEvents);
    return config_wd_ >= 0;
}

void Watcher::Read(std::vector<WatchEvent> *events) {
    // One buffer at a time: a flood of events is taken in turns with the
    // batches that apply it.
    alignas(inotify_event) char buffer[64 * 1024];
    const ssize_t n = fd_ < 0 ? -1 : read(fd_, buffer, sizeof buffer);
    for (ssize_t at = 0; at + static_cast<ssize_t>(sizeof(inotify_event)) <= n;) {
        const auto *event = reinterpret_cast<const inotify_event *>(buffer + at);
        Handle(*event, events);
        at += sizeof(inotify_event) + event->len;
    }
}

// A regular file just made with one name will be closed after its writes:
// that close says when to read it, so that it is read once.
bool Watcher::WaitsForClose(const Watched &folder, const std::string &name) const {
    struct stat st;
    return lstat((folder.abs_path + "/" + name).c_str(), &st) == 0 && S_ISREG(st.st_mode) && st.st_nlink == 1;
}

void Watcher::Handle(const inotify_event &event, std::vector<WatchEvent> *events) {
    if (event.mask & IN_Q_OVERFLOW) {
        events->push_back({WatchEvent::kOverflow, {}, {}});
        return;
    }
    const std::string name = event.len > 0 ? std::string(event.name) : std::string();
    if (event.wd == config_wd_ && config_wd_ >= 0) {
        if (name == config_name_) events->push_back({WatchEvent::kConfig, {}, {}});
        return;
    }
    if (HandleParent(event, name, events)) return;
    const auto it = by_wd_.find(event.wd);
    if (it == by_wd_.end()) return;  // dropped already
    if (event.mask & IN_IGNORED) {
        by_path_.erase(it->second.path);
        by_wd_.erase(it);
        return;
    }
    const Watched folder = it->second;
    if (name.empty()) {
        // The folder itself: what its parent's watch reports too, but an
        // indexed folder's parent is not watched.
        if (event.mask & IN_MOVE_SELF) Forget(folder.path);
        events->push_back({WatchEvent::kChanged, folder.share, folder.path});
        return;
    }
    if (name == zarn::kMetadataDirName) return;
    const std::string path = folder.path + "/" + name;
    if ((event.mask & IN_ISDIR) && (event.mask & (IN_MOVED_FROM | IN_DELETE))) Forget(path);
    if ((event.mask & IN_CREATE) && !(event.mask & IN_ISDIR) && WaitsForClose(folder, name)) return;
    events->push_back({WatchEvent::kChanged, folder.share, path});
}

// An indexed folder's name made, moved or removed in its parent: rescan the
// folder (its records go, or it is walked and watched anew).  True when the
// event was the parent's alone.
bool Watcher::HandleParent(const inotify_event &event, const std::string &name, std::vector<WatchEvent> *events) {
    const auto it = parents_.find(event.wd);
    if (it == parents_.end()) return false;
    const std::vector<Child> children = it->second;
    if (event.mask & IN_IGNORED) parents_.erase(it);
    for (const Child &child : children) {
        if (child.name != name || name.empty()) continue;
        if (event.mask & (IN_MOVED_FROM | IN_DELETE)) Forget(child.path);
        events->push_back({WatchEvent::kChanged, child.share, child.path});
    }
    return by_wd_.count(event.wd) == 0;
}

}  // namespace zarnd

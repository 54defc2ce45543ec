// Linux inotify over the indexed folders: one watch per folder, each known by
// its share-relative path, and a watch on the folder that holds the
// indexed-folder list.  The watcher turns the kernel's events into the paths
// whose records may have changed; it never touches the index itself.
#ifndef ZARND_WATCHER_H
#define ZARND_WATCHER_H

#include <sys/inotify.h>

#include <map>
#include <string>
#include <vector>

namespace zarnd {

struct WatchEvent {
    enum Kind {
        kChanged,   // the records at `path` and below may differ from the files
        kOverflow,  // the kernel dropped events: anything may have changed
        kConfig,    // the indexed-folder list was written, replaced or removed
    };
    Kind kind;
    std::string share;
    std::string path;  // share-relative, for kChanged
};

class Watcher {
public:
    // `max_watches` caps the folders' watches below what the kernel allows
    // (0: no cap of its own); the watches of indexed folders' parents are
    // not counted.
    explicit Watcher(size_t max_watches);
    ~Watcher();
    Watcher(const Watcher &) = delete;
    Watcher &operator=(const Watcher &) = delete;

    // The descriptor to poll for readability; -1 when inotify is unavailable.
    int fd() const { return fd_; }

    // Watches the open folder `dirfd`, share-relative `path` of `share` at
    // `abs_path`.  False when no watch could be added (the watch limit, or
    // any other error, in errno); a folder that is gone already counts as
    // watched.
    bool Watch(int dirfd, const std::string &share, const std::string &path, const std::string &abs_path);

    // Watches the folder that holds indexed folder `path` of `share` (at
    // `abs_path`) for that name made, moved or removed: the folder's own
    // watch cannot see it replaced.  False as for Watch.
    bool WatchParent(const std::string &share, const std::string &path, const std::string &abs_path);

    // Drops the watches at `path` and below it (a folder removed or moved).
    void Forget(const std::string &path);
    // Drops every folder's and parent's watch; the list's watch stays.
    void Clear();

    // Watches the folder of the indexed-folder list for changes to the file.
    bool WatchConfig(const std::string &config_path);

    // Appends what waiting events mean (as many as one read takes); returns
    // at once when none wait.
    void Read(std::vector<WatchEvent> *events);

    // Turns one kernel event into what it means for the index.  Public so
    // that events the kernel rarely sends can be fed by hand.
    void Handle(const inotify_event &event, std::vector<WatchEvent> *events);

    size_t size() const { return by_wd_.size() + parents_.size(); }

private:
    struct Watched {
        std::string share;
        std::string path;
        std::string abs_path;
    };

    // An indexed folder as its parent's watch knows it.
    struct Child {
        std::string share;
        std::string path;
        std::string name;
    };

    bool Full(const std::string &path) const;
    void Drop(int wd);
    bool HandleParent(const inotify_event &event, const std::string &name, std::vector<WatchEvent> *events);
    bool WaitsForClose(const Watched &folder, const std::string &name) const;

    const size_t max_watches_;
    int fd_ = -1;
    int config_wd_ = -1;
    std::string config_name_;
    std::map<int, Watched> by_wd_;
    std::map<std::string, int> by_path_;
    std::map<int, std::vector<Child>> parents_;
};

}  // namespace zarnd

#endif  // ZARND_WATCHER_H

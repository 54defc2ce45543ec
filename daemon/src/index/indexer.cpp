#include "indexer.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <unordered_set>
#include <memory>
#include <vector>

#include "engine.h"
#include "extract/content.h"
#include "extract/pool.h"
#include "failure.h"
#include "file_record.h"
#include "log.h"
#include "share_index.h"
#include "utf8.h"
#include "names.h"
#include "zarnplatform.h"

namespace zarnd {

namespace {

constexpr int kMaxDepth = 256;
// Changes are committed in batches: the engine holds a batch in memory, and
// searches see a long first run make progress.
constexpr uint64_t kBatchRecords = 1000;
constexpr uint64_t kBatchBytes = 32u << 20;

Access AccessOf(const struct statx &st) { return {st.stx_uid, st.stx_gid, st.stx_mode}; }

dev_t DeviceOf(const struct statx &st) { return makedev(st.stx_dev_major, st.stx_dev_minor); }

bool StatAt(int dirfd, const char *name, struct statx *st) {
    return statx(dirfd, name, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT | (*name ? 0 : AT_EMPTY_PATH),
                 STATX_BASIC_STATS | STATX_BTIME, st) == 0;
}

int OpenDirAt(int dirfd, const std::string &name) {
    return openat(dirfd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

// Opens a file to read its text without changing its access time where the
// process may ask for that.
int OpenFileAt(int dirfd, const std::string &name) {
    const int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    int fd = openat(dirfd, name.c_str(), flags | O_NOATIME);
    if (fd < 0 && errno == EPERM) fd = openat(dirfd, name.c_str(), flags);
    return fd;
}

// The names in a folder, "." and ".." and the metadata folder left out.
std::vector<std::string> ListFolder(int dirfd) {
    std::vector<std::string> names;
    const int own = dup(dirfd);
    if (own < 0) return names;
    DIR *dir = fdopendir(own);
    if (dir == nullptr) {
        close(own);
        return names;
    }
    while (const dirent *entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name != "." && name != ".." && name != zarn::kMetadataDirName) names.push_back(name);
    }
    closedir(dir);
    std::sort(names.begin(), names.end());
    return names;
}

class ShareIndexer {
public:
    // `stored` holds the signatures of every record that the walks to come
    // may meet; `complete`, that it holds every record of the index, so that
    // a path missing from it is surely new.
    ShareIndexer(const ShareWalk &walk, std::map<std::string, std::string> stored, bool complete)
        : share_(walk.share), root_(walk.root), writer_(walk.writer), on_progress_(walk.on_progress),
          on_folder_(walk.on_folder), stop_(walk.stop), stored_(std::move(stored)), complete_(complete) {
        if (extract::Pool *pool = extract::ExtractionPool()) batch_.reset(new extract::Batch(pool));
    }

    // Indexes the share-relative `path` and, for a folder, everything in it.
    // False when there is no such file or folder on the share's file system.
    bool IndexPath(const std::string &path) {
        const int root_fd = open(root_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        struct statx st;
        if (root_fd < 0 || !StatAt(root_fd, "", &st)) {
            ZARN_LOG(LOG_ERR, "cannot open share %s at %s: %m", share_.c_str(), root_.c_str());
            if (root_fd >= 0) close(root_fd);
            return false;
        }
        device_ = DeviceOf(st);
        AccessChain above = {AccessOf(st)};
        std::string at = "/" + share_;
        int fd = root_fd, depth = 0;
        // Down to the path, one component at a time, never through a link.
        for (size_t end = at.size(); fd >= 0 && end < path.size(); ++depth) {
            const size_t next_end = std::min(path.find('/', end + 1), path.size());
            const std::string name = path.substr(end + 1, next_end - end - 1);
            end = next_end;
            if (name.empty()) continue;  // "//"
            Entry entry{at + "/" + name, at, name, {}, {}};
            const bool last = end == path.size();
            const bool found = name != zarn::kMetadataDirName && StatAt(fd, name.c_str(), &entry.st) &&
                               DeviceOf(entry.st) == device_;
            entry.access = above;
            entry.access.insert(entry.access.begin(), AccessOf(entry.st));
            if (found && last && (S_ISREG(entry.st.stx_mode) || S_ISLNK(entry.st.stx_mode))) {
                Visit(entry, fd, name);
                close(fd);
                return true;
            }
            const int next = found && S_ISDIR(entry.st.stx_mode) ? OpenDirAt(fd, name) : -1;
            close(fd);
            fd = next;
            if (fd >= 0 && last) Visit(entry, -1, std::string());
            above = entry.access;
            at = entry.path;
        }
        if (fd < 0 || shallow_) {
            if (fd >= 0) close(fd);
            return fd >= 0;
        }
        if (on_folder_) on_folder_(fd, at);
        Walk(fd, at, above, depth);
        close(fd);
        return true;
    }

    // Writes the records still waiting for their content, then removes the
    // records of everything the walks did not meet, unless a walk was
    // stopped before it met everything.
    void RemoveUnseen() {
        while (batch_ && batch_->pending() > 0) Collect(true);
        if (Stopped()) return;
        for (const auto &gone : stored_) {
            writer_->Remove(gone.first);
            ++counts_.removed;
        }
        stored_.clear();
    }

    const IndexCounts &counts() const { return counts_; }

    // A folder's own record only, from now on.
    void Shallow() { shallow_ = true; }

private:
    bool Stopped() {
        if (stop_ != nullptr && stop_->load()) counts_.stopped = true;
        return counts_.stopped;
    }

    void Walk(int dirfd, const std::string &path, const AccessChain &above, int depth) {
        for (const std::string &name : ListFolder(dirfd)) {
            if (Stopped()) return;
            Entry entry{path + "/" + name, path, name, {}, {}};
            if (!StatAt(dirfd, name.c_str(), &entry.st)) {
                ++counts_.skipped;
                continue;
            }
            const mode_t type = entry.st.stx_mode & S_IFMT;
            // Other file systems are not entered; sockets, pipes and devices
            // hold nothing to search.
            if (DeviceOf(entry.st) != device_ || (type != S_IFDIR && type != S_IFREG && type != S_IFLNK))
                continue;
            entry.access = above;
            entry.access.insert(entry.access.begin(), AccessOf(entry.st));
            Visit(entry, dirfd, name);
            if (type != S_IFDIR) continue;
            if (depth + 1 >= kMaxDepth) {
                ZARN_LOG(LOG_WARNING, "not indexing below %s: folders nested too deep", entry.path.c_str());
                continue;
            }
            const int child = OpenDirAt(dirfd, name);
            if (child < 0) {
                ++counts_.skipped;
                ZARN_LOG(LOG_WARNING, "cannot open folder %s: %m", entry.path.c_str());
                continue;
            }
            if (on_folder_) on_folder_(child, entry.path);
            Walk(child, entry.path, entry.access, depth + 1);
            close(child);
        }
    }

    // Stores the entry's record unless the stored one is still current.
    // `name` names it in `dirfd` for reading its content (-1: no content).
    void Visit(const Entry &entry, int dirfd, const std::string &name) {
        const std::string signature = EntrySignature(entry);
        const auto stored = stored_.find(EscapeName(entry.path));
        const bool known = stored != stored_.end();
        const bool current = known && stored->second == signature;
        if (known) stored_.erase(stored);
        if (current) {
            ++counts_.unchanged;
        } else {
            const bool regular = S_ISREG(entry.st.stx_mode) && dirfd >= 0;
            const int fd = regular ? OpenFileAt(dirfd, name) : -1;
            uint64_t read = 0;
            FileRecord record = MakeRecord(entry, fd, &read);
            // Only a path met for the first time is surely new to the
            // index; one written already (or sharing its hash) is put.
            const bool first = written_.insert(std::hash<std::string>()(record.path)).second;
            const bool add = complete_ && !known && first;
            if (fd >= 0) {
                counts_.bytes_read += read;
                counts_.bytes_walked += entry.st.stx_size;
                batch_bytes_ += entry.st.stx_size;
            }
            if (fd >= 0 && batch_ && extract::WantsWorker(record, entry.st.stx_size)) {
                // The worker takes the descriptor; the record waits for it.
                batch_->Submit(next_tag_, fd, extract::RequestFor(record, entry.st.stx_size));
                waiting_.emplace(next_tag_++, Waiting{std::move(record), add});
            } else {
                Write(record, add);
                if (fd >= 0) close(fd);
            }
            if (batch_) Collect(false);
            ++(known ? counts_.updated : counts_.added);
            if (++batch_records_ >= kBatchRecords || batch_bytes_ >= kBatchBytes) {
                writer_->Commit();
                batch_records_ = batch_bytes_ = 0;
            }
        }
        if (on_progress_) on_progress_(counts_);
    }

    void Write(const FileRecord &record, bool add) {
        if (add)
            writer_->Add(record);
        else
            writer_->Put(record);
    }

    // Writes the records whose content came back; waits for one when `wait`.
    // A failure costs the file its content only: its record goes in with
    // name and metadata, and it is read again when it changes.
    void Collect(bool wait) {
        for (auto &done : batch_->Take(wait)) {
            const auto found = waiting_.find(done.first);
            if (found == waiting_.end()) continue;
            FileRecord &record = found->second.record;
            const extract::Outcome &outcome = done.second;
            if (outcome.failed) {
                ++counts_.not_read;
                extract::DropContent(&record);
                ZARN_LOG(LOG_WARNING, "content of %s not read: %s", record.path.c_str(), outcome.reason.c_str());
                // A batch run (the walk with a progress hook) says it on
                // standard error too.
                if (on_progress_)
                    std::fprintf(stderr, "zarnelasticd: content of %s not read: %s\n", record.path.c_str(),
                                 outcome.reason.c_str());
            } else {
                extract::MergeReply(outcome.reply, &record);
            }
            Write(record, found->second.add);
            waiting_.erase(found);
        }
    }

    struct Waiting {
        FileRecord record;
        bool add;
    };

    const std::string share_;
    const std::string root_;
    IndexWriter *const writer_;
    const ProgressHook on_progress_;  // may be empty
    const FolderHook on_folder_;
    const std::atomic<bool> *const stop_;  // may be null
    std::map<std::string, std::string> stored_;  // path -> signature, not yet met
    const bool complete_;
    std::unordered_set<size_t> written_;  // hashes of every path this run wrote
    IndexCounts counts_;
    uint64_t batch_records_ = 0;  // put since the last commit
    uint64_t batch_bytes_ = 0;
    dev_t device_ = 0;
    bool shallow_ = false;
    std::map<uint64_t, Waiting> waiting_;  // records whose content a worker reads
    uint64_t next_tag_ = 0;
    std::unique_ptr<extract::Batch> batch_;  // last: its end waits for the workers
};

}  // namespace

bool ShareRoot(const std::string &share, std::string *root) {
    PZARNSHARE record = nullptr;
    if (ZARNShareGet(share.c_str(), &record) < 0 || record == nullptr || record->szPath == nullptr) {
        ZARNShareFree(record);
        return false;
    }
    *root = record->szPath;
    ZARNShareFree(record);
    return true;
}

IndexCounts RescanShare(const ShareWalk &walk, const std::set<std::string> &folders) {
    ShareIndexer indexer(walk, walk.writer->Signatures(), true);
    for (const std::string &folder : folders)
        if (!indexer.IndexPath(folder))
            ZARN_LOG(LOG_WARNING, "indexed folder %s is not a folder of share %s", folder.c_str(),
                     walk.share.c_str());
    indexer.RemoveUnseen();
    return indexer.counts();
}

IndexCounts RescanPath(const ShareWalk &walk, const std::string &path) {
    ShareIndexer indexer(walk, walk.writer->SignaturesUnder(EscapeName(path)), false);
    indexer.IndexPath(path);
    indexer.RemoveUnseen();
    return indexer.counts();
}

IndexCounts RescanFolderRecord(const ShareWalk &walk, const std::string &path) {
    ShareIndexer indexer(walk, {}, false);
    indexer.Shallow();
    indexer.IndexPath(path);
    return indexer.counts();
}

}  // namespace zarnd

// The FILEIDX functions: where a share's file index lives (its identifier for
// the daemon, its database directory and its queue inside the share's
// metadata folder), and whether a share or a path is in the indexed-folder list.
#include <sys/stat.h>
#include <sys/types.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "fileindex_config.h"
#include "json_text.h"
#include "log.h"
#include "names.h"
#include "zarncontentsearchutils.h"
#include "zarnplatform.h"

// An argument error is logged with the text of the failed condition and
// recorded in the platform's error slot, both with this file and line.
#define FILEIDX_CHECK_ARG(condition, failure)                                      \
    do {                                                                           \
        if (!(condition)) {                                                        \
            ZARN_LOG(LOG_ERR, "Invaild Argument (%s)=[%d]\n", #condition, 0);      \
            KOREErrSetEx(ZARN_ERR_INVALID_ARGUMENT, __FILE_NAME__, __LINE__);      \
            return (failure);                                                      \
        }                                                                          \
    } while (0)

namespace {

constexpr size_t kEaDirPathBytes = 4096;

// Writes "<share path>/<metadata folder>/<leaf>" into the caller's buffer,
// cut to fit, after making sure the metadata folder exists; the database variant also creates the
// leaf directory.  Failures to create are not ours to report: the caller
// gets the path either way.  The arguments have been checked.
int ComposeEaDirPath(const char *share_path, const char *leaf, bool create_leaf, char *out,
                     int out_len) {
    char ea_dir[kEaDirPathBytes];
    std::memset(ea_dir, 0, sizeof ea_dir);
    std::snprintf(ea_dir, sizeof ea_dir, "%s/%s", share_path, zarn::kMetadataDirName);
    ZARNEAMKDir(0, ea_dir);

    std::snprintf(out, static_cast<size_t>(out_len), "%s/%s/%s", share_path, zarn::kMetadataDirName, leaf);
    if (create_leaf) mkdir(out, 0777);
    return static_cast<int>(std::strlen(out));
}

// Looks share `name` up and composes with its path.  -1 when the share
// service does not know it; the output buffer is then untouched.
int ComposeForShare(const char *name, int (*compose)(const char *, char *, int), char *out,
                    int out_len) {
    PZARNSHARE share = nullptr;
    int result;
    if (ZARNShareGet(name, &share) < 0) {
        ZARN_LOG(LOG_ERR, "ZARNShareGet failed, name=%s, code=%d", name, KOREErrGet());
        result = -1;
    } else {
        result = compose(share->szPath, out, out_len);
    }
    if (share != nullptr) ZARNShareFree(share);
    return result;
}

}  // namespace

extern "C" int FILEIDXGetIndexID(const char *szShareName, char *szIndexID, int cbOutLen) {
    FILEIDX_CHECK_ARG(__null != szShareName, 0);
    FILEIDX_CHECK_ARG(__null != szIndexID, 0);
    FILEIDX_CHECK_ARG(cbOutLen > 0, 0);
    std::snprintf(szIndexID, static_cast<size_t>(cbOutLen), "%s%s", zarn::kIndexIdPrefix, szShareName);
    return 1;
}

extern "C" int FILEIDXDBPathCompose(const char *szSharePath, char *szOutDBPath, int cbOutLen) {
    FILEIDX_CHECK_ARG(__null != szSharePath, -1);
    FILEIDX_CHECK_ARG(__null != szOutDBPath, -1);
    FILEIDX_CHECK_ARG(cbOutLen > 0, -1);
    return ComposeEaDirPath(szSharePath, zarn::kIndexDbLeafName, true, szOutDBPath, cbOutLen);
}

extern "C" int FILEIDXQueuePathCompose(const char *szSharePath, char *szOutQueuePath,
                                       int cbOutLen) {
    FILEIDX_CHECK_ARG(__null != szSharePath, -1);
    FILEIDX_CHECK_ARG(__null != szOutQueuePath, -1);
    FILEIDX_CHECK_ARG(cbOutLen > 0, -1);
    return ComposeEaDirPath(szSharePath, zarn::kIndexQueueLeafName, false, szOutQueuePath, cbOutLen);
}

extern "C" int FILEIDXDBPathGet(const char *szName, char *szOutDBPath, int cbOutLen) {
    FILEIDX_CHECK_ARG(__null != szName, -1);
    FILEIDX_CHECK_ARG(__null != szOutDBPath, -1);
    FILEIDX_CHECK_ARG(cbOutLen > 0, -1);
    return ComposeForShare(szName, FILEIDXDBPathCompose, szOutDBPath, cbOutLen);
}

extern "C" int FILEIDXQueuePathGet(const char *szName, char *szOutQueuePath, int cbOutLen) {
    FILEIDX_CHECK_ARG(__null != szName, -1);
    FILEIDX_CHECK_ARG(__null != szOutQueuePath, -1);
    FILEIDX_CHECK_ARG(cbOutLen > 0, -1);
    return ComposeForShare(szName, FILEIDXQueuePathCompose, szOutQueuePath, cbOutLen);
}

// ---- Indexed-folder list and its caches -----------------------------------

namespace zarn {
namespace fileindex {

namespace {

struct FolderConfigCache {
    Json::Value config{Json::arrayValue};
    bool loaded = false;       // once set, never cleared
    unsigned long version = 0; // counts every change of `config`
};

struct PathSetCache {
    std::set<std::string> paths;
    bool built = false;
    unsigned long version = 0;  // counts every rebuild of `paths`
};

// The full-path set hashed by view, for checks that test many prefixes.
struct PathLookup {
    std::unordered_set<std::string_view> views;  // into the set's own strings
    unsigned long version = 0;                   // of the set it was built from
    bool built = false;
};

// Process-wide, created on first use and never destroyed, so that a check
// made while the process exits still finds them.
FolderConfigCache &ConfigCache() {
    static FolderConfigCache *cache = new FolderConfigCache;
    return *cache;
}

PathSetCache &IndexedPaths() {
    static PathSetCache *cache = new PathSetCache;
    return *cache;
}

PathSetCache &FullPaths() {
    static PathSetCache *cache = new PathSetCache;
    return *cache;
}

// Share name -> directory that holds the share.  Entries are only replaced.
std::unordered_map<std::string, std::string> &ShareVolumes() {
    static auto *volumes = new std::unordered_map<std::string, std::string>;
    return *volumes;
}

using ShareRecord = std::unique_ptr<ZARNSHARE, void (*)(PZARNSHARE)>;

// An element's folder path.  Anything but an object with a string "path"
// lists the empty path, as a missing "path" does: the share check skips it
// and the full-path set leaves it out.
std::string FolderPath(const Json::Value &element) {
    if (!element.isObject()) return std::string();
    const Json::Value &path = element["path"];
    return path.isString() ? path.asString() : std::string();
}

}  // namespace

const Json::Value &LoadFolderConfig(int bReload) {
    FolderConfigCache &cache = ConfigCache();
    if (cache.loaded && bReload != 1) return cache.config;

    // The entry itself must be a regular file: a link is not followed.  When
    // it has gone, the list read before stays in force.
    struct stat st;
    if (lstat(kFolderConfigPath, &st) != 0 || !S_ISREG(st.st_mode)) return cache.config;

    Json::Value parsed;
    if (zarn::json::FromFile(kFolderConfigPath, &parsed)) {
        cache.config.swap(parsed);
        cache.loaded = true;
    } else {
        ZARN_LOG(LOG_ERR, "Failed to load json from %s", kFolderConfigPath);
        cache.config = Json::Value(Json::arrayValue);
    }
    ++cache.version;
    return cache.config;
}

unsigned long FolderConfigVersion() { return ConfigCache().version; }

const std::set<std::string> &GetIndexedPathSet(int bReload) {
    PathSetCache &cache = IndexedPaths();
    if (cache.built && bReload != 1) return cache.paths;

    const Json::Value &config = LoadFolderConfig(bReload);
    cache.paths.clear();
    // size() counts the elements of an array or object and is 0 for any
    // other value, which therefore lists no folder.
    if (config.size() == 0) return cache.paths;
    for (const Json::Value &element : config) cache.paths.insert(FolderPath(element));
    cache.built = true;
    return cache.paths;
}

std::string GetShareNameByPath(const std::string &path) {
    if (path.empty()) return std::string();
    const size_t end = path.find('/', 1);
    return path.substr(1, end == std::string::npos ? std::string::npos : end - 1);
}

bool GetFullPath(const std::string &path, int bReload, std::string *full) {
    if (path.empty()) {
        ZARN_LOG(LOG_ERR, "GetShareNameByPath failed, path=%s", path.c_str());
        return false;
    }
    const std::string name = GetShareNameByPath(path);
    auto &volumes = ShareVolumes();
    auto known = bReload == 0 ? volumes.find(name) : volumes.end();
    if (known == volumes.end()) {
        PZARNSHARE raw = nullptr;
        const int got = ZARNShareGet(name.c_str(), &raw);
        ShareRecord share(raw, ZARNShareFree);
        if (got < 0) {
            ZARN_LOG(LOG_ERR, "ZARNShareGet failed, share=%s", name.c_str());
            return false;
        }
        const std::string share_path = share->szPath != nullptr ? share->szPath : "";
        const size_t last_slash = share_path.rfind('/');
        known = volumes.insert_or_assign(name, share_path.substr(0, last_slash)).first;
    }
    // The share's own directory name gives way to the name in the path.
    *full = known->second + path;
    return true;
}

const std::set<std::string> &GetFullPathSet(int bReload) {
    PathSetCache &cache = FullPaths();
    if (cache.built && bReload != 1) return cache.paths;

    // A rebuild follows the current folder list and share locations.
    const std::set<std::string> &indexed = GetIndexedPathSet(1);
    ++cache.version;
    cache.paths.clear();
    std::string full;
    for (const std::string &path : indexed) {
        if (GetFullPath(path, 1, &full)) cache.paths.insert(full);
    }
    cache.built = !cache.paths.empty();
    return cache.paths;
}

const std::unordered_set<std::string_view> &GetFullPathLookup(int bReload) {
    static PathLookup *lookup = new PathLookup;
    const std::set<std::string> &paths = GetFullPathSet(bReload);
    const unsigned long version = FullPaths().version;
    if (lookup->built && lookup->version == version) return lookup->views;
    // Views of a set that changed must go before anything else can fail.
    lookup->built = false;
    lookup->views.clear();
    lookup->views.reserve(paths.size());
    for (const std::string &path : paths) lookup->views.insert(path);
    lookup->version = version;
    lookup->built = true;
    return lookup->views;
}

}  // namespace fileindex
}  // namespace zarn

// ---- Indexed checks ---------------------------------------------------------

namespace {

using namespace zarn::fileindex;

// The share check's view of the folder list, so that a check costs a lookup
// rather than a walk of every folder: where in the list each share is first
// named, and where the elements that name no folder stand.
struct ShareIndex {
    std::unordered_map<std::string, size_t> first;  // share name -> position
    std::vector<size_t> unnamed;                    // ascending positions
    unsigned long version = 0;                      // of the list it was built from
    bool built = false;
};

const ShareIndex &SharesOf(const Json::Value &config) {
    static ShareIndex *cache = new ShareIndex;
    if (cache->built && cache->version == FolderConfigVersion()) return *cache;
    // Built aside, so that running out of memory leaves the old one unused
    // and the next check tries again.
    ShareIndex index;
    size_t position = 0;
    for (const Json::Value &element : config) {
        const std::string path = FolderPath(element);
        if (path.empty()) {
            index.unnamed.push_back(position);
        } else {
            index.first.emplace(GetShareNameByPath(path), position);
        }
        ++position;
    }
    index.version = FolderConfigVersion();
    index.built = true;
    *cache = std::move(index);
    return *cache;
}

// Answers as a walk of the list in order would: each element without a
// path met before the share's first folder (all of them when there is none)
// is logged.
bool IsShareIndexed(const char *share_name, int bReload) {
    const ShareIndex &index = SharesOf(LoadFolderConfig(bReload));
    const auto found = index.first.find(share_name);
    const size_t stop = found != index.first.end() ? found->second : static_cast<size_t>(-1);
    for (const size_t position : index.unnamed) {
        if (position > stop) break;
        ZARN_LOG(LOG_ERR, "Failed to share name from path: %s", "");
    }
    return found != index.first.end();
}

// Only the set's lower bound for the path is examined, so a folder below the
// path can hide behind a sibling that sorts first ("/a/b-x" before "/a/b/c"
// when asked for "/a/b").  Callers rely on this answer as it stands.
bool IsPathContainIndexed(const char *path, int bReload) {
    const std::set<std::string> &indexed = GetIndexedPathSet(bReload);
    const auto candidate = indexed.lower_bound(path);
    if (candidate == indexed.end()) return false;
    const std::string folder = *candidate + "/";
    const std::string prefix = std::string(path) + "/";
    return folder.compare(0, prefix.size(), prefix) == 0;
}

// Tests every prefix of the path that ends before a "/", shortest first, with
// and without a trailing "/", against the folders' absolute paths.  The
// prefixes are views of the path and are looked up by hash: a check costs
// the same whatever the number of folders.
bool FullPathListed(std::string path, int bReload) {
    if (!path.empty() && path.back() != '/') path += '/';
    const std::unordered_set<std::string_view> &folders = GetFullPathLookup(bReload);
    if (folders.empty()) return false;
    const std::string_view whole(path);
    for (size_t slash = whole.find('/', 1); slash != std::string_view::npos;
         slash = whole.find('/', slash + 1)) {
        if (folders.count(whole.substr(0, slash)) != 0 || folders.count(whole.substr(0, slash + 1)) != 0)
            return true;
    }
    return false;
}

bool IsFullPathIndexed(const char *full_path, int bReload) {
    return FullPathListed(full_path, bReload);
}

bool IsPathIndexed(const char *path, int bReload) {
    std::string full;
    if (!GetFullPath(path, bReload, &full)) {
        ZARN_LOG(LOG_ERR, "Failed to get full path: %s", path);
        return false;
    }
    return FullPathListed(std::move(full), bReload);
}

// A check answers 1 or 0 and nothing else: a null argument, or memory
// running out while a cache is rebuilt, is logged and answers 0.
int Answer(const char *function, const char *argument, bool (*check)(const char *, int),
           int bReload) {
    if (argument == nullptr) {
        ZARN_LOG(LOG_ERR, "%s: null path or share name", function);
        return 0;
    }
    try {
        return check(argument, bReload) ? 1 : 0;
    } catch (const std::exception &e) {
        ZARN_LOG(LOG_ERR, "%s failed: %s", function, e.what());
        return 0;
    }
}

}  // namespace

extern "C" int FILEIDXIsShareIndexedEx(const char *szShareName, int bReload) {
    return Answer(__func__, szShareName, IsShareIndexed, bReload);
}

extern "C" int FILEIDXIsShareIndexed(const char *szShareName) {
    return FILEIDXIsShareIndexedEx(szShareName, 1);
}

extern "C" int FILEIDXIsPathContainIndexedEx(const char *szPath, int bReload) {
    return Answer(__func__, szPath, IsPathContainIndexed, bReload);
}

extern "C" int FILEIDXIsPathContainIndexed(const char *szPath) {
    return FILEIDXIsPathContainIndexedEx(szPath, 1);
}

extern "C" int FILEIDXIsFullPathIndexedEx(const char *szFullPath, int bReload) {
    return Answer(__func__, szFullPath, IsFullPathIndexed, bReload);
}

extern "C" int FILEIDXIsFullPathIndexed(const char *szFullPath) {
    return FILEIDXIsFullPathIndexedEx(szFullPath, 1);
}

extern "C" int FILEIDXIsPathIndexedEx(const char *szPath, int bReload) {
    return Answer(__func__, szPath, IsPathIndexed, bReload);
}

extern "C" int FILEIDXIsPathIndexed(const char *szPath) {
    return FILEIDXIsPathIndexedEx(szPath, 1);
}

// The FILEIDX functions: where a share's index lives, the indexed-folder list
// with its process-wide caches, and the indexed checks.  Every TEST runs in a
// process of its own with a private /var, so the caches start empty.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "fileindex_config.h"
#include "harness.h"
#include "zarncontentsearchutils.h"
#include "zarnplatform.h"

namespace {

namespace fs = std::filesystem;
using namespace zarn::fileindex;
using Paths = std::set<std::string>;

const std::vector<std::pair<std::string, std::string>> kShares = {{"music", "/volume1/music"}, {"photo", "/volume2/@photo_dir"}};
const char kPop[] = R"([{"path": "/music/pop"}, {"path": "/photo/2020"}])";
const std::string kShare = "/var/tmp/volume1/music", kDB = kShare + "/@eaDir/ZARN@.fileindexdb",
                  kQueue = kShare + "/@eaDir/ZARN@file_index_queue", kCut = kShare + "/@ea";

size_t Count(const std::string &tail) { return zarntest::LogsMatching("^fileindex_cwrap\\.cpp:[0-9]+ " + tail + "$").size(); }
void Write(const std::string &json) { zarntest::WriteFile(zarntest::kFolderConfig, json); }
std::string Full(const std::string &path, int reload) { std::string full; return GetFullPath(path, reload, &full) ? full : "<failed>"; }

// The result, what was written ("#": nothing) and the one line logged, with
// the error slot: 3328 after an argument error, the share service's 4352
// after an unknown share.  A cut path keeps what fits; only the database
// directory is created, even when cut, and never after an argument error; a
// share whose directory is missing still gets its path.
TEST(FileIndexPaths, ComposeGetAndArgumentErrors) {
    for (const std::string &dir : {kShare, std::string("/var/tmp/other")}) fs::create_directories(dir);
    zarntest::SetShareTable({{"music", kShare}, {"gone", "/var/tmp/gone"}, {"other", "/var/tmp/other"}});
    const char *share = kShare.c_str(), *other = "/var/tmp/other", *len = "cbOutLen > 0";
    const int cut = int(kCut.size()) + 1;
    const auto wrote = [](const std::string &path) { return std::make_pair(int(path.size()), path); };
    const auto bad = [](const std::string &condition) { return "Invaild Argument \\(" + condition + "\\)=\\[0\\]\n"; };
    const std::pair<int, std::string> zero = {0, "#"}, failed = {-1, "#"};
    const struct { int (*fn)(const char *, char *, int); const char *arg; int len; std::pair<int, std::string> want; std::string log = ""; bool no_out = false; } cases[] = {
        {FILEIDXGetIndexID, "music", 256, {1, "fileindex_music"}}, {FILEIDXGetIndexID, "", 256, {1, "fileindex_"}},
        {FILEIDXGetIndexID, "a%s", 256, {1, "fileindex_a%s"}}, {FILEIDXGetIndexID, "music", 8, {1, "fileind"}},
        {FILEIDXGetIndexID, "music", 1, {1, ""}}, {FILEIDXQueuePathCompose, share, 256, wrote(kQueue)},
        {FILEIDXQueuePathCompose, share, cut, wrote(kCut)}, {FILEIDXDBPathCompose, share, 256, wrote(kDB)},
        {FILEIDXDBPathCompose, share, 256, wrote(kDB)},  // existing directories are fine
        {FILEIDXDBPathCompose, share, cut, wrote(kCut)}, {FILEIDXDBPathCompose, share, 1, {0, ""}},
        {FILEIDXQueuePathGet, "music", 256, wrote(kQueue)}, {FILEIDXDBPathGet, "music", cut, wrote(kCut)},
        {FILEIDXQueuePathGet, "gone", 256, wrote("/var/tmp/gone/@eaDir/ZARN@file_index_queue")},
        {FILEIDXDBPathGet, "nosuch", 256, failed, "ZARNShareGet failed, name=nosuch, code=4352"},
        {FILEIDXQueuePathGet, "", 256, failed, "ZARNShareGet failed, name=, code=4352"},
        // A path getter's buffer and length errors read as its composer's: only its name is its own.
        {FILEIDXGetIndexID, nullptr, 9, zero, bad("__null != szShareName")}, {FILEIDXGetIndexID, "music", 0, zero, bad(len)},
        {FILEIDXGetIndexID, "music", 9, zero, bad("__null != szIndexID"), true}, {FILEIDXGetIndexID, "music", -1, zero, bad(len)},
        {FILEIDXDBPathCompose, nullptr, 9, failed, bad("__null != szSharePath")}, {FILEIDXDBPathCompose, other, 0, failed, bad(len)},
        {FILEIDXDBPathCompose, other, 9, failed, bad("__null != szOutDBPath"), true},
        {FILEIDXQueuePathCompose, nullptr, 9, failed, bad("__null != szSharePath")}, {FILEIDXQueuePathCompose, other, 0, failed, bad(len)},
        {FILEIDXQueuePathCompose, other, 9, failed, bad("__null != szOutQueuePath"), true},
        {FILEIDXDBPathGet, nullptr, 9, failed, bad("__null != szName")}, {FILEIDXQueuePathGet, nullptr, 9, failed, bad("__null != szName")},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.arg ? c.arg : "(null)") + " " + std::to_string(c.len) + " " + c.log);
        zarntest::ClearLogs();
        KOREErrSetEx(0, "test", 0);
        char out[256] = "#";
        const int result = c.fn(c.arg, c.no_out ? nullptr : out, c.len);
        EXPECT_EQ(std::make_pair(result, std::string(out)), c.want);
        const auto logs = zarntest::LogsMatching("^fileindex_cwrap\\.cpp:[0-9]+ " + c.log + "$");
        EXPECT_TRUE(logs.size() == zarntest::Logs().size() && logs.size() == !c.log.empty() &&
                    (logs.empty() || logs[0].priority == LOG_ERR));
        EXPECT_EQ(KOREErrGet(), c.log.empty() ? 0 : c.log[0] == 'I' ? ZARN_ERR_INVALID_ARGUMENT : ZARN_ERR_SHARE_NOT_FOUND);
    }
    EXPECT_TRUE(fs::is_directory(kDB) && fs::is_directory(kCut));
    EXPECT_FALSE(fs::exists(kQueue) || fs::exists("/var/tmp/gone") || fs::exists("/var/tmp/other/@eaDir"));
}

// Exactly 1 re-reads the list and rebuilds the sets.  A missing or linked
// file lists nothing and leaves the list unloaded, as an invalid one does: a
// plain call retries.  Once loaded, an invalid file empties the list and a
// deleted one keeps it.
TEST(FolderList, CachesReloadOnlyWithOne) {
    zarntest::SetShareTable(kShares);
    zarntest::WriteFile("/var/packages/Norvex/etc/real.folders", kPop);
    ASSERT_EQ(symlink("real.folders", zarntest::kFolderConfig), 0);
    EXPECT_EQ(LoadFolderConfig(1).size() + FILEIDXIsPathIndexed("/music/pop") + GetFullPathSet(1).size(), 0u);
    EXPECT_TRUE(zarntest::Logs().empty());
    ASSERT_EQ(unlink(zarntest::kFolderConfig), 0);
    Write("[{");
    EXPECT_EQ(LoadFolderConfig(0).size() + LoadFolderConfig(0).size(), 0u);
    Write(kPop);
    EXPECT_EQ(LoadFolderConfig(0).size(), 2u);
    Write("[{");
    EXPECT_EQ(LoadFolderConfig(0).size() + LoadFolderConfig(2).size(), 4u);
    EXPECT_EQ(LoadFolderConfig(1).size(), 0u);
    Write(kPop);
    EXPECT_EQ(Count("Failed to load json from /var/packages/Norvex/etc/fileindex\\.folders"), 3u);
    EXPECT_EQ(LoadFolderConfig(1).size(), 2u);
    ASSERT_EQ(unlink(zarntest::kFolderConfig), 0);
    EXPECT_EQ(GetIndexedPathSet(1), (Paths{"/music/pop", "/photo/2020"}));
    Write(R"([{"path": "/music"}])");
    EXPECT_EQ(GetIndexedPathSet(2), (Paths{"/music/pop", "/photo/2020"}));
    // The full-path set is built from a freshly read list, whatever it is asked.
    EXPECT_EQ(GetFullPathSet(0), Paths{"/volume1/music"});
    EXPECT_EQ(GetIndexedPathSet(0), Paths{"/music"});
    Write(R"([{"path": "/photo"}])");
    EXPECT_EQ(GetFullPathSet(2), Paths{"/volume1/music"});
    // A share's volume comes from the map only with 0, and a failed lookup
    // leaves the map as it was; the full-path set always asks the service and
    // leaves out what it cannot translate (nothing translated: unbuilt).
    // Checks with 0 then answer from the caches, whatever changed, and log
    // nothing, where the plain check re-reads; a null argument answers 0, logged.
    EXPECT_EQ(Full("/photo/a", 0), "/volume2/photo/a");
    zarntest::SetShareTable({{"photo", "/volume3/photo"}});
    EXPECT_EQ(Full("/photo/a", 0), "/volume2/photo/a");
    EXPECT_EQ(Full("/photo/a", 2), "/volume3/photo/a");
    zarntest::SetShareTable({{"music", "/volume1/music"}});
    EXPECT_EQ(Full("/photo/a", 1), "<failed>");
    EXPECT_EQ(Full("/photo/a", 0), "/volume3/photo/a");
    Write(R"([{"path": "/photo/a"}])");
    EXPECT_TRUE(GetFullPathSet(1).empty());
    zarntest::SetShareTable({{"music", "/volume1/music"}, {"photo", "/volume4/photo"}});
    Write(R"([{"path": "/music/pop"}, {"path": "/music/pop"}, {"path": "/photo/"}, {}, {"path": "/nosuch/x"}])");
    EXPECT_EQ(GetFullPathSet(0), (Paths{"/volume1/music/pop", "/volume4/photo/"}));
    EXPECT_EQ(Count("GetShareNameByPath failed, path=") + Count("ZARNShareGet failed, share=(nosuch|photo)"), 4u);
    zarntest::ClearLogs();
    zarntest::SetShareTable({});
    Write("[{");
    EXPECT_EQ(FILEIDXIsPathIndexedEx("/photo/x", 0) + FILEIDXIsFullPathIndexedEx("/volume4/photo/x", 0) +
                  FILEIDXIsShareIndexedEx("music", 0) + FILEIDXIsPathContainIndexedEx("/music", 2), 4);
    EXPECT_EQ(FILEIDXIsShareIndexed("music") + FILEIDXIsShareIndexedEx(nullptr, 0) + FILEIDXIsPathIndexed(nullptr), 0);
    EXPECT_EQ(zarntest::LogsMatching("null path or share name").size() + zarntest::Logs().size(), 5u);  // and a reload
}

// An element lists its "path" or, without a string one, the empty path.  A
// path's share name is the text after the first character up to the next "/";
// the share's directory, less its own name, goes in front of the path.  Then
// each check over one list.
TEST(FolderList, PathsAndChecks) {
    zarntest::SetShareTable(kShares);
    const struct { const char *json; Paths paths; } lists[] = {
        {R"([{"path": "/music"}, {"path": "/music"}, {"path": "/photo/2020/"}, {"name": "x"},
            {"path": null}, {"path": 5}, 7, "/x", {"path": "/Music"}])", {"", "/Music", "/music", "/photo/2020/"}},
        {R"({"one": {"path": "/music"}, "two": {"path": "/a/b"}})", {"/a/b", "/music"}}, {"[]", {}}, {R"("/music")", {}}};
    for (const auto &c : lists) {
        Write(c.json);
        EXPECT_EQ(GetIndexedPathSet(1), c.paths) << c.json;
    }
    const std::pair<const char *, const char *> full[] = {{"/music/pop", "/volume1/music/pop"}, {"/music", "/volume1/music"},
        {"/photo/2020/", "/volume2/photo/2020/"}, {"xmusic/a", "/volume1xmusic/a"}, {"", "<failed>"}, {"/nosuch/x", "<failed>"},
        {"/", "<failed>"}, {"//music", "<failed>"}};
    for (const auto &c : full) EXPECT_EQ(Full(c.first, 0), c.second) << c.first;
    EXPECT_EQ(Count("GetShareNameByPath failed, path=") + Count("ZARNShareGet failed, share=(nosuch|)"), 4u);
    zarntest::ClearLogs();
    Write(R"([{"path": "/a/b-x"}, {}, {"path": "/a/b/c"}, {"path": "/music/pop"}, {"path": ""}, [1],
              {"path": "/music/rock/"}, {"path": "/photo/2020/"}, {"path": "/nosuch/x"}])");
    GetIndexedPathSet(1);
    const struct { int (*check)(const char *, int); std::vector<const char *> yes, no; } cases[] = {
        {FILEIDXIsShareIndexedEx, {"music", "photo"}, {"Music", "mus", ""}},
        // Only the set's lower bound is looked at: "/a/b-x" hides "/a/b/c".
        {FILEIDXIsPathContainIndexedEx, {"/a/b/c", "/a", "/music", "/music/pop", "/music/rock", "/music/rock/", ""},
         {"/a/b", "/music/po", "/music/pop/x", "/music/pop/", "/Music", "/zzz"}},
        {FILEIDXIsFullPathIndexedEx, {"/volume1/music/pop", "/volume1/music/pop/", "/volume1/music/pop/a/b",
                                      "/volume2/photo/2020", "/volume2/photo/2020/x"},
         {"/volume1/music", "/volume1/music/popular", "/volume1/music/pop-x/y", "/volume2/photo/2020x",
          "//volume1/music/pop", "volume1/music/pop", "/", ""}},
        {FILEIDXIsPathIndexedEx, {"/music/pop", "/music/pop/x", "/photo/2020/y"}, {"/music", "/music/popular", "", "/nosuch/x"}},
    };
    for (const auto &c : cases)
        for (int answer : {0, 1}) for (const char *path : answer ? c.yes : c.no) EXPECT_EQ(c.check(path, 0), answer) << path;
    // The share check logs each element without a path that it walks past
    // before the share's first folder: "music" 1, "photo" 3, a miss all 3.
    EXPECT_EQ(Count("Failed to share name from path: "), 1u + 3 + 3 * 3);
    EXPECT_EQ(Count("Failed to get full path: (/nosuch/x|)"), 2u);
}

}  // namespace

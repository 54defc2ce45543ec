// The indexed-folder list, its process-wide caches and the indexed checks.
//
// Every TEST runs in its own sandboxed process (one process per test case,
// with a private /var), so the caches start empty in each of them and the
// folder list at its fixed path belongs to that test alone.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "fileindex_config.h"
#include "harness.h"
#include "zarncontentsearchutils.h"

namespace {

using namespace zarn::fileindex;
using Paths = std::set<std::string>;

class FolderList : public ::testing::Test {
protected:
    void SetUp() override { zarntest::SetShareTable({{"music", "/volume1/music"}, {"photo", "/volume2/@photo_dir"}}); }
    static void Write(const std::string &json) { zarntest::WriteFile(zarntest::kFolderConfig, json); }
    static size_t Count(const std::string &tail) { return zarntest::LogsMatching("^fileindex_cwrap\\.cpp:[0-9]+ " + tail + "$").size(); }
    static std::string Full(const std::string &path, int reload) {
        std::string full;
        return GetFullPath(path, reload, &full) ? full : "<failed>";
    }
};

const char kPop[] = R"([{"path": "/music/pop"}, {"path": "/photo/2020"}])";

TEST_F(FolderList, ElementsListTheirPathOrTheEmptyPath) {
    const struct { const char *json; Paths paths; } cases[] = {
        {R"([{"path": "/music"}, {"path": "/music"}, {"path": "/photo/2020/"}, {"name": "x"},
            {"path": null}, {"path": 5}, 7, "/x", {"path": "/Music"}])", {"", "/Music", "/music", "/photo/2020/"}},
        {R"({"one": {"path": "/music"}, "two": {"path": "/a/b"}})", {"/a/b", "/music"}},
        {"[]", {}}, {R"("/music")", {}}, {"null", {}},
    };
    for (const auto &c : cases) {
        Write(c.json);
        EXPECT_EQ(GetIndexedPathSet(1), c.paths) << c.json;
    }
}

// Exactly 1 re-reads the list.  A missing or linked file lists nothing and
// leaves the list unloaded, as an invalid one does: a plain call retries.
// Once loaded, an invalid file empties the list and a deleted one keeps it.
TEST_F(FolderList, ListReloadsOnlyWithOne) {
    zarntest::WriteFile("/var/packages/Norvex/etc/real.folders", kPop);
    EXPECT_EQ(LoadFolderConfig(1).size() + FILEIDXIsShareIndexed("music") + GetFullPathSet(1).size(), 0u);
    ASSERT_EQ(symlink("real.folders", zarntest::kFolderConfig), 0);
    EXPECT_EQ(LoadFolderConfig(1).size() + FILEIDXIsPathIndexed("/music/pop") + GetFullPathSet(1).size(), 0u);
    EXPECT_TRUE(zarntest::Logs().empty());
    ASSERT_EQ(unlink(zarntest::kFolderConfig), 0);
    Write("[{");
    EXPECT_EQ(LoadFolderConfig(0).size() + LoadFolderConfig(0).size(), 0u);
    EXPECT_EQ(Count("Failed to load json from /var/packages/Norvex/etc/fileindex\\.folders"), 2u);
    Write(kPop);
    EXPECT_EQ(LoadFolderConfig(0).size(), 2u);
    Write("[{");
    EXPECT_EQ(LoadFolderConfig(0).size(), 2u);
    EXPECT_EQ(LoadFolderConfig(1).size(), 0u);
    Write(kPop);
    EXPECT_EQ(LoadFolderConfig(0).size() + LoadFolderConfig(2).size(), 0u);
    EXPECT_EQ(Count("Failed to load json from .*"), 3u);
    EXPECT_EQ(LoadFolderConfig(1).size(), 2u);
    ASSERT_EQ(unlink(zarntest::kFolderConfig), 0);
    EXPECT_EQ(GetIndexedPathSet(1), (Paths{"/music/pop", "/photo/2020"}));
}

TEST_F(FolderList, PathSetsRebuildOnlyWithOne) {
    Write(R"([{"path": "/music"}])");
    EXPECT_EQ(GetIndexedPathSet(0), Paths{"/music"});
    Write(R"([{"path": "/photo"}])");
    EXPECT_EQ(GetIndexedPathSet(2), Paths{"/music"});
    // The full-path set is built from a freshly read list, whatever it is asked.
    EXPECT_EQ(GetFullPathSet(0), Paths{"/volume2/photo"});
    EXPECT_EQ(GetIndexedPathSet(0), Paths{"/photo"});
    Write(R"([{"path": "/music"}])");
    EXPECT_EQ(GetFullPathSet(2), Paths{"/volume2/photo"});
    // An empty list leaves the indexed set built (and empty).
    Write("[]");
    EXPECT_TRUE(GetIndexedPathSet(1).empty());
    Write(R"([{"path": "/music"}])");
    EXPECT_TRUE(GetIndexedPathSet(0).empty());
}

// The share name is the text after the first character up to the next "/";
// the share's directory, less its own name, goes in front of the path.
TEST_F(FolderList, FullPathReplacesTheShareDirectory) {
    const struct { const char *path, *name, *full; } cases[] = {
        {"/music/pop", "music", "/volume1/music/pop"}, {"/photo/2020/", "photo", "/volume2/photo/2020/"},
        {"xmusic/a", "music", "/volume1xmusic/a"}, {"/music", "music", "/volume1/music"},
        {"", "", "<failed>"}, {"/nosuch/x", "nosuch", "<failed>"}, {"/", "", "<failed>"}, {"//music", "", "<failed>"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(GetShareNameByPath(c.path), c.name) << c.path;
        EXPECT_EQ(Full(c.path, 0), c.full) << c.path;
    }
    EXPECT_EQ(Count("GetShareNameByPath failed, path="), 1u);
    EXPECT_EQ(Count("ZARNShareGet failed, share=(nosuch|)"), 3u);
}

// A share's volume comes from the map only with 0; a failed lookup leaves
// the map as it was; building the full-path set always asks the service and
// leaves out what it cannot translate (nothing translated: unbuilt).
TEST_F(FolderList, ShareVolumesAndTheFullPathSet) {
    EXPECT_EQ(Full("/photo/a", 0), "/volume2/photo/a");
    zarntest::SetShareTable({{"photo", "/volume3/photo"}});
    EXPECT_EQ(Full("/photo/a", 0), "/volume2/photo/a");
    EXPECT_EQ(Full("/photo/a", 2), "/volume3/photo/a");
    zarntest::SetShareTable({{"music", "/volume1/music"}});
    EXPECT_EQ(Full("/photo/a", 1), "<failed>");
    EXPECT_EQ(Full("/photo/a", 0), "/volume3/photo/a");
    Write(R"([{"path": "/photo/a"}])");
    EXPECT_TRUE(GetFullPathSet(0).empty());
    zarntest::SetShareTable({{"music", "/volume1/music"}, {"photo", "/volume4/photo"}});
    Write(R"([{"path": "/music/pop"}, {"path": "/music/pop"}, {"path": "/photo/"}, {}, {"path": "/nosuch/x"}])");
    EXPECT_EQ(GetFullPathSet(0), (Paths{"/volume1/music/pop", "/volume4/photo/"}));
    EXPECT_EQ(Count("GetShareNameByPath failed, path="), 1u);
    EXPECT_EQ(Count("ZARNShareGet failed, share=(nosuch|photo)"), 3u);
}

// Each check over one list.
TEST_F(FolderList, ChecksAnswerPerPath) {
    Write(R"([{"path": "/a/b-x"}, {}, {"path": "/a/b/c"}, {"path": "/music/pop"}, {"path": ""}, [1],
              {"path": "/music/rock/"}, {"path": "/photo/2020/"}, {"path": "/nosuch/x"}])");
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
    for (const auto &c : cases) {
        for (const char *path : c.yes) EXPECT_EQ(c.check(path, 0), 1) << path;
        for (const char *path : c.no) EXPECT_EQ(c.check(path, 0), 0) << path;
    }
    // The share check logs each element without a path that it walks past
    // before the share's first folder: "music" 1, "photo" 3, a miss all 3.
    EXPECT_EQ(Count("Failed to share name from path: "), 1u + 3 + 3 * 3);
    EXPECT_EQ(Count("Failed to get full path: (/nosuch/x|)"), 2u);
}

// 0 answers from the caches, whatever happened to the share or the file
// (and logs nothing); 2 asks the share service again but keeps the folder
// sets; 1 re-reads everything.  A null argument answers 0, logged.
TEST_F(FolderList, ReloadRules) {
    Write(kPop);
    EXPECT_EQ(FILEIDXIsPathIndexedEx("/photo/2020/a", 0) + FILEIDXIsShareIndexedEx("music", 0) +
                  FILEIDXIsPathContainIndexedEx("/music", 0), 3);
    zarntest::SetShareTable({{"music", "/volume1/music"}, {"photo", "/volume3/photo"}});
    Write("[{");
    zarntest::ClearLogs();
    EXPECT_EQ(FILEIDXIsPathIndexedEx("/photo/2020/a", 0) + FILEIDXIsFullPathIndexedEx("/volume2/photo/2020/a", 0) +
                  FILEIDXIsShareIndexedEx("music", 0) + FILEIDXIsPathContainIndexedEx("/music", 2), 4);
    EXPECT_TRUE(zarntest::Logs().empty());
    EXPECT_EQ(FILEIDXIsFullPathIndexedEx("/volume3/photo/2020/a", 0), 0);
    EXPECT_EQ(FILEIDXIsPathIndexedEx("/photo/2020/a", 2), 0);  // the new place, the old set
    Write(kPop);
    EXPECT_EQ(FILEIDXIsPathIndexed("/photo/2020/a") + FILEIDXIsFullPathIndexedEx("/volume3/photo/2020/a", 0), 2);
    EXPECT_EQ(FILEIDXIsFullPathIndexedEx("/volume2/photo/2020/a", 0), 0);
    ASSERT_EQ(unlink(std::getenv("ZARN_SHARE_TABLE")), 0);
    EXPECT_EQ(FILEIDXIsPathIndexedEx("/photo/2020/a", 2), 0);
    Write("[{");
    EXPECT_EQ(FILEIDXIsShareIndexed("music"), 0);
    EXPECT_EQ(FILEIDXIsShareIndexedEx(nullptr, 0) + FILEIDXIsPathContainIndexedEx(nullptr, 0) +
                  FILEIDXIsFullPathIndexedEx(nullptr, 0) + FILEIDXIsPathIndexedEx(nullptr, 0) +
                  FILEIDXIsShareIndexed(nullptr) + FILEIDXIsPathIndexed(nullptr), 0);
    EXPECT_EQ(zarntest::LogsMatching("null path or share name").size(), 6u);
}

}  // namespace

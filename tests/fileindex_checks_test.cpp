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

#include "fileindex_config.h"
#include "harness.h"
#include "zarncontentsearchutils.h"

namespace {

using namespace zarn::fileindex;
using Paths = std::set<std::string>;

class FolderList : public ::testing::Test {
protected:
    void SetUp() override {
        zarntest::SetShareTable({{"music", "/volume1/music"}, {"photo", "/volume2/@photo_dir"}});
        zarntest::ClearLogs();
    }
    static void Write(const std::string &json) { zarntest::WriteFile(zarntest::kFolderConfig, json); }
    static size_t Count(const std::string &pattern) {
        return zarntest::LogsMatching("^fileindex_cwrap\\.cpp:[0-9]+ " + pattern + "$").size();
    }
    static std::string Full(const std::string &path, int reload) {
        std::string full;
        return GetFullPath(path, reload, &full) ? full : "<failed>";
    }
};

const char kPop[] = R"([{"path": "/music/pop"}, {"path": "/photo/2020"}])";

TEST_F(FolderList, ElementsListTheirPathOrTheEmptyPath) {
    struct Case { const char *json; Paths paths; } cases[] = {
        {R"([{"path": "/music"}, {"path": "/music"}, {"path": "/photo/2020/"}, {"name": "x"},
            {"path": null}, {"path": 5}, 7, "/x", {"path": "/Music"}])",
         {"", "/Music", "/music", "/photo/2020/"}},
        {R"({"one": {"path": "/music"}, "two": {"path": "/a/b"}})", {"/a/b", "/music"}},
        {"[]", {}}, {R"("/music")", {}}, {"42", {}}, {"null", {}},
    };
    for (const Case &c : cases) {
        Write(c.json);
        EXPECT_EQ(GetIndexedPathSet(1), c.paths) << c.json;
    }
}

TEST_F(FolderList, MissingOrLinkedFileListsNothing) {
    zarntest::WriteFile("/var/packages/Norvex/etc/real.folders", kPop);
    for (bool linked : {false, true}) {
        if (linked) {
            ASSERT_EQ(symlink("real.folders", zarntest::kFolderConfig), 0);
        }
        EXPECT_EQ(LoadFolderConfig(1).size(), 0u);
        EXPECT_TRUE(GetFullPathSet(1).empty());
        EXPECT_EQ(FILEIDXIsShareIndexed("music") + FILEIDXIsPathContainIndexed("/music") +
                      FILEIDXIsFullPathIndexed("/volume1/music/pop") + FILEIDXIsPathIndexed("/music/pop"),
                  0);
    }
    EXPECT_TRUE(zarntest::Logs().empty());
    // Nothing was built, so a plain call reads the file once it is there.
    ASSERT_EQ(unlink(zarntest::kFolderConfig), 0);
    Write(kPop);
    EXPECT_EQ(GetIndexedPathSet(0).size(), 2u);
}

// An invalid file empties the list; only a file never loaded is retried
// without being asked to.
TEST_F(FolderList, InvalidFileEmptiesTheListButKeepsTheLoadedFlag) {
    Write("[{");
    EXPECT_EQ(LoadFolderConfig(0).size(), 0u);
    EXPECT_EQ(LoadFolderConfig(0).size(), 0u);
    EXPECT_EQ(Count("Failed to load json from /var/packages/Norvex/etc/fileindex\\.folders"), 2u);
    Write(kPop);
    EXPECT_EQ(LoadFolderConfig(0).size(), 2u);
    Write("[{");
    EXPECT_EQ(LoadFolderConfig(0).size(), 2u);
    EXPECT_EQ(LoadFolderConfig(1).size(), 0u);
    Write(kPop);
    EXPECT_EQ(LoadFolderConfig(0).size(), 0u);
    EXPECT_EQ(LoadFolderConfig(2).size(), 0u);
    EXPECT_EQ(Count("Failed to load json from .*"), 3u);
    EXPECT_EQ(LoadFolderConfig(1).size(), 2u);
}

TEST_F(FolderList, DeletedFileKeepsTheLastList) {
    Write(kPop);
    EXPECT_EQ(FILEIDXIsPathContainIndexed("/music"), 1);
    ASSERT_EQ(unlink(zarntest::kFolderConfig), 0);
    EXPECT_EQ(GetIndexedPathSet(1), (Paths{"/music/pop", "/photo/2020"}));
    EXPECT_EQ(FILEIDXIsPathContainIndexed("/music"), 1);
}

TEST_F(FolderList, PathSetsRebuildOnlyWithOne) {
    Write(R"([{"path": "/music"}])");
    EXPECT_EQ(GetIndexedPathSet(0), Paths{"/music"});
    Write(R"([{"path": "/photo"}])");
    EXPECT_EQ(GetIndexedPathSet(0), Paths{"/music"});
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

TEST(FolderPath, ShareNameIsTheTextUpToTheSecondSlash) {
    struct Case { const char *path, *name; } cases[] = {
        {"/music/pop/x", "music"}, {"/music", "music"}, {"/", ""}, {"//music", ""}, {"xmusic/a", "music"},
    };
    for (const Case &c : cases) EXPECT_EQ(GetShareNameByPath(c.path), c.name) << c.path;
}

TEST_F(FolderList, FullPathReplacesTheShareDirectory) {
    EXPECT_EQ(Full("/music/pop", 0), "/volume1/music/pop");
    EXPECT_EQ(Full("/photo/2020/", 0), "/volume2/photo/2020/");
    EXPECT_EQ(Full("", 0), "<failed>");
    EXPECT_EQ(Full("/nosuch/x", 0), "<failed>");
    EXPECT_EQ(Full("/", 0), "<failed>");
    EXPECT_EQ(Count("GetShareNameByPath failed, path="), 1u);
    EXPECT_EQ(Count("ZARNShareGet failed, share=(nosuch|)"), 2u);
}

// A share's volume comes from the map only with 0; a failed lookup leaves
// the map as it was.
TEST_F(FolderList, ShareVolumeMapAnswersOnlyWithZero) {
    EXPECT_EQ(Full("/photo/a", 0), "/volume2/photo/a");
    zarntest::SetShareTable({{"photo", "/volume3/photo"}});
    EXPECT_EQ(Full("/photo/a", 0), "/volume2/photo/a");
    EXPECT_EQ(Full("/photo/a", 2), "/volume3/photo/a");
    zarntest::SetShareTable({{"music", "/volume1/music"}});
    EXPECT_EQ(Full("/photo/a", 0), "/volume3/photo/a");
    EXPECT_EQ(Full("/photo/a", 1), "<failed>");
    EXPECT_EQ(Full("/photo/a", 0), "/volume3/photo/a");
    // Building the full-path set always asks the share service.
    Write(R"([{"path": "/photo/a"}])");
    zarntest::SetShareTable({{"photo", "/volume4/photo"}});
    EXPECT_EQ(GetFullPathSet(0), Paths{"/volume4/photo/a"});
}

TEST_F(FolderList, FullPathSetLeavesOutWhatCannotBeTranslated) {
    Write(R"([{"path": "/music/pop"}, {"path": "/music/pop"}, {"path": "/photo/"}, {}, {"path": "/nosuch/x"}])");
    EXPECT_EQ(GetFullPathSet(0), (Paths{"/volume1/music/pop", "/volume2/photo/"}));
    EXPECT_EQ(Count("GetShareNameByPath failed, path="), 1u);
    EXPECT_EQ(Count("ZARNShareGet failed, share=nosuch"), 1u);
    // Nothing translated: the set stays unbuilt and the next call tries again.
    Write(R"([{"path": "/nosuch/x"}])");
    EXPECT_TRUE(GetFullPathSet(1).empty());
    zarntest::SetShareTable({{"nosuch", "/volume7/nosuch"}});
    EXPECT_EQ(GetFullPathSet(0), Paths{"/volume7/nosuch/x"});
}

TEST_F(FolderList, ShareIndexedWhenAnyFolderLiesInIt) {
    Write(R"([{"path": "/music/pop"}, {"path": "/photo"}, {}, {"path": ""}, [1]])");
    struct Case { const char *share; int answer; } cases[] = {
        {"music", 1}, {"photo", 1}, {"Music", 0}, {"mus", 0}, {"pop", 0}, {"", 0},
    };
    for (const Case &c : cases) EXPECT_EQ(FILEIDXIsShareIndexedEx(c.share, 0), c.answer) << c.share;
    EXPECT_EQ(Count("Failed to share name from path: "), 3u * 4);  // the walk stops at a match
}

TEST_F(FolderList, PathContainIndexedLooksAtOneCandidate) {
    Write(R"([{"path": "/a/b-x"}, {"path": "/a/b/c"}, {"path": "/music/pop"}, {"path": "/music/rock/"}])");
    struct Case { const char *path; int answer; } cases[] = {
        {"/a/b/c", 1}, {"/a", 1}, {"/a/b", 0},  // "/a/b-x" hides "/a/b/c"
        {"/music", 1}, {"/music/pop", 1}, {"/music/po", 0}, {"/music/pop/x", 0}, {"/music/pop/", 0},
        {"/music/rock", 1}, {"/music/rock/", 1}, {"/Music", 0}, {"/", 0}, {"", 1}, {"/zzz", 0},
    };
    for (const Case &c : cases) EXPECT_EQ(FILEIDXIsPathContainIndexedEx(c.path, 0), c.answer) << c.path;
}

TEST_F(FolderList, FullPathIndexedAtOrInsideAFolder) {
    Write(R"([{"path": "/music/pop"}, {"path": "/photo/2020/"}, {"path": "/nosuch/x"}])");
    struct Case { const char *path; int answer; } cases[] = {
        {"/volume1/music/pop", 1}, {"/volume1/music/pop/", 1}, {"/volume1/music/pop/a/b.mp3", 1},
        {"/volume1/music", 0}, {"/volume1/music/popular", 0}, {"/volume1/music/pop-x/y", 0},
        {"/volume2/photo/2020", 1}, {"/volume2/photo/2020/x", 1}, {"/volume2/photo/2020x", 0},
        {"/Volume1/music/pop", 0}, {"//volume1/music/pop", 0}, {"volume1/music/pop", 0}, {"/", 0}, {"", 0},
    };
    for (const Case &c : cases) EXPECT_EQ(FILEIDXIsFullPathIndexedEx(c.path, 0), c.answer) << c.path;
}

TEST_F(FolderList, PathIndexedThroughItsFullPath) {
    Write(kPop);
    struct Case { const char *path; int answer; const char *failure; } cases[] = {
        {"/music/pop", 1, nullptr}, {"/music/pop/x", 1, nullptr}, {"/photo/2020/y", 1, nullptr},
        {"/music", 0, nullptr}, {"/music/popular", 0, nullptr},
        {"", 0, "GetShareNameByPath failed, path="}, {"/nosuch/x", 0, "ZARNShareGet failed, share=nosuch"},
    };
    for (const Case &c : cases) {
        zarntest::ClearLogs();
        EXPECT_EQ(FILEIDXIsPathIndexedEx(c.path, 0), c.answer) << c.path;
        if (c.failure == nullptr) continue;
        EXPECT_EQ(Count(c.failure), 1u) << c.path;
        EXPECT_EQ(Count(std::string("Failed to get full path: ") + c.path), 1u) << c.path;
    }
}

// Filled caches answer without the file or the share service: both are
// broken here, and the cached calls neither notice nor log.
TEST_F(FolderList, CachedChecksReadNothing) {
    Write(kPop);
    EXPECT_EQ(FILEIDXIsShareIndexedEx("music", 0) + FILEIDXIsPathContainIndexedEx("/music", 0) +
                  FILEIDXIsPathIndexedEx("/photo/2020", 0),
              3);
    Write("[{");
    ASSERT_EQ(unlink(std::getenv("ZARN_SHARE_TABLE")), 0);
    zarntest::ClearLogs();
    EXPECT_EQ(FILEIDXIsShareIndexedEx("music", 0), 1);
    EXPECT_EQ(FILEIDXIsPathContainIndexedEx("/music", 2), 1);
    EXPECT_EQ(FILEIDXIsPathIndexedEx("/photo/2020/a", 0), 1);
    EXPECT_EQ(FILEIDXIsFullPathIndexedEx("/volume1/music/pop", 0), 1);
    EXPECT_TRUE(zarntest::Logs().empty());
    EXPECT_EQ(FILEIDXIsPathIndexedEx("/photo/2020/a", 2), 0);  // 2 asks the share service
    EXPECT_EQ(FILEIDXIsShareIndexed("music"), 0);              // and 1 the file
}

// 0 keeps the old location, 2 refreshes the share's location but not the
// folder sets, 1 refreshes everything.
TEST_F(FolderList, MovedShareIsSeenByFreshCallsOnly) {
    Write(kPop);
    EXPECT_EQ(FILEIDXIsPathIndexedEx("/photo/2020/a", 0), 1);
    zarntest::SetShareTable({{"music", "/volume1/music"}, {"photo", "/volume3/photo"}});
    EXPECT_EQ(FILEIDXIsPathIndexedEx("/photo/2020/a", 0), 1);
    EXPECT_EQ(FILEIDXIsFullPathIndexedEx("/volume2/photo/2020/a", 0), 1);
    EXPECT_EQ(FILEIDXIsFullPathIndexedEx("/volume3/photo/2020/a", 0), 0);
    EXPECT_EQ(FILEIDXIsPathIndexedEx("/photo/2020/a", 2), 0);
    EXPECT_EQ(FILEIDXIsPathIndexed("/photo/2020/a"), 1);
    EXPECT_EQ(FILEIDXIsFullPathIndexedEx("/volume3/photo/2020/a", 0), 1);
    EXPECT_EQ(FILEIDXIsFullPathIndexedEx("/volume2/photo/2020/a", 0), 0);
}

TEST_F(FolderList, NullArgumentsAnswerZeroAndTouchNoCache) {
    Write(kPop);
    EXPECT_EQ(FILEIDXIsShareIndexedEx(nullptr, 0) + FILEIDXIsPathContainIndexedEx(nullptr, 0) +
                  FILEIDXIsFullPathIndexedEx(nullptr, 0) + FILEIDXIsPathIndexedEx(nullptr, 0) +
                  FILEIDXIsShareIndexed(nullptr) + FILEIDXIsPathIndexed(nullptr),
              0);
    EXPECT_EQ(zarntest::LogsMatching("null path or share name").size(), 6u);
    Write(R"([{"path": "/music"}])");
    EXPECT_EQ(GetIndexedPathSet(0), Paths{"/music"});
}

}  // namespace

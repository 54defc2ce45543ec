// Index identifier, index database path and index queue path of a share.
#include <gtest/gtest.h>
#include <syslog.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "harness.h"
#include "zarncontentsearchutils.h"
#include "zarnplatform.h"

namespace {

namespace fs = std::filesystem;
using Fn = int (*)(const char *, char *, int);
using Result = std::pair<int, std::string>;

const std::string kShare = "/var/tmp/volume1/music", kDB = kShare + "/@eaDir/ZARN@.fileindexdb",
                  kQueue = kShare + "/@eaDir/ZARN@file_index_queue", kCut = kShare + "/@ea";
const int kCutLen = int(kCut.size()) + 1;

// The call's result and what it wrote ("#" when nothing).
Result Call(Fn fn, const char *arg, int len) {
    char out[256] = "#";
    const int result = fn(arg, out, len);
    return {result, out};
}
Result Wrote(const std::string &path) { return {int(path.size()), path}; }

// A cut path keeps what fits; only the database directory is created, even
// when cut, and a share whose directory is missing still gets its path.
TEST(FileIndexPaths, ComposeAndGetWriteCutAndCreateOnlyTheDatabase) {
    fs::create_directories(kShare);
    zarntest::SetShareTable({{"music", kShare}, {"gone", "/var/tmp/gone"}});
    const struct { Fn fn; std::string arg; int len; Result want; } cases[] = {
        {FILEIDXGetIndexID, "music", 256, {1, "fileindex_music"}}, {FILEIDXGetIndexID, "", 256, {1, "fileindex_"}},
        {FILEIDXGetIndexID, "a%s", 256, {1, "fileindex_a%s"}}, {FILEIDXGetIndexID, "music", 8, {1, "fileind"}},
        {FILEIDXGetIndexID, "music", 1, {1, ""}}, {FILEIDXQueuePathCompose, kShare, 256, Wrote(kQueue)},
        {FILEIDXQueuePathCompose, kShare, kCutLen, Wrote(kCut)}, {FILEIDXDBPathCompose, kShare, 256, Wrote(kDB)},
        {FILEIDXDBPathCompose, kShare, 256, Wrote(kDB)},  // existing directories are fine
        {FILEIDXDBPathCompose, kShare + "/", 256, Wrote(kShare + "//@eaDir/ZARN@.fileindexdb")},
        {FILEIDXDBPathCompose, kShare, kCutLen, Wrote(kCut)}, {FILEIDXDBPathCompose, kShare, 1, {0, ""}},
        {FILEIDXQueuePathGet, "music", 256, Wrote(kQueue)}, {FILEIDXDBPathGet, "music", kCutLen, Wrote(kCut)},
        {FILEIDXQueuePathGet, "gone", 256, Wrote("/var/tmp/gone/@eaDir/ZARN@file_index_queue")},
    };
    for (const auto &c : cases) EXPECT_EQ(Call(c.fn, c.arg.c_str(), c.len), c.want) << c.arg << " " << c.len;
    EXPECT_TRUE(fs::is_directory(kDB) && fs::is_directory(kCut));
    EXPECT_FALSE(fs::exists(kQueue) || fs::exists("/var/tmp/gone"));
    EXPECT_TRUE(zarntest::Logs().empty());
}

// Every argument error: the condition logged, 3328 in the error slot, the
// buffer untouched and nothing created.  An unknown share: -1, one line with
// the share service's code, which stays in the error slot.
TEST(FileIndexPaths, ErrorsAreLoggedAndRecorded) {
    fs::create_directories(kShare);
    zarntest::SetShareTable({{"music", kShare}});
    const struct { Fn fn; const char *arg, *name, *out; int result; } calls[] = {
        {FILEIDXGetIndexID, "music", "szShareName", "szIndexID", 0},
        {FILEIDXDBPathCompose, kShare.c_str(), "szSharePath", "szOutDBPath", -1},
        {FILEIDXQueuePathCompose, kShare.c_str(), "szSharePath", "szOutQueuePath", -1},
        {FILEIDXDBPathGet, "music", "szName", "szOutDBPath", -1},
        {FILEIDXQueuePathGet, "music", "szName", "szOutQueuePath", -1},
    };
    for (const auto &c : calls) {
        const struct { bool null_arg, null_out; int len; std::string condition; } errors[] = {
            {true, false, 9, std::string("__null != ") + c.name}, {false, true, 9, std::string("__null != ") + c.out},
            {false, false, 0, "cbOutLen > 0"}, {false, false, -1, "cbOutLen > 0"}};
        for (const auto &e : errors) {
            SCOPED_TRACE(e.condition + " " + std::to_string(e.len));
            zarntest::ClearLogs();
            KOREErrSetEx(0, "test", 0);
            char out[16] = "#";
            EXPECT_EQ(c.fn(e.null_arg ? nullptr : c.arg, e.null_out ? nullptr : out, e.len), c.result);
            EXPECT_TRUE(KOREErrGet() == ZARN_ERR_INVALID_ARGUMENT && std::string(out) == "#");
            const auto logs = zarntest::LogsMatching("^fileindex_cwrap\\.cpp:[0-9]+ Invaild Argument \\(" +
                                                     e.condition + "\\)=\\[0\\]\n$");
            EXPECT_TRUE(logs.size() == 1 && logs[0].priority == LOG_ERR && zarntest::Logs().size() == 1);
        }
    }
    EXPECT_FALSE(fs::exists(kShare + "/@eaDir"));
    zarntest::ClearLogs();
    for (Fn get : {FILEIDXDBPathGet, FILEIDXQueuePathGet}) {
        EXPECT_EQ(Call(get, "nosuch", 256), Result(-1, "#"));
        EXPECT_EQ(Call(get, "", 256), Result(-1, "#"));
        EXPECT_EQ(KOREErrGet(), ZARN_ERR_SHARE_NOT_FOUND);
    }
    EXPECT_EQ(zarntest::LogsMatching("^fileindex_cwrap\\.cpp:[0-9]+ ZARNShareGet failed, name=(nosuch|), code=4352$").size(), 4u);
    EXPECT_EQ(zarntest::Logs().size(), 4u);
}

}  // namespace

// Index identifier, index database path and index queue path of a share.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <string>

#include "harness.h"
#include "zarncontentsearchutils.h"
#include "zarnplatform.h"

namespace {

namespace fs = std::filesystem;

const std::string kDB = "/@eaDir/ZARN@.fileindexdb";
const std::string kQueue = "/@eaDir/ZARN@file_index_queue";

class FileIndexPaths : public ::testing::Test {
protected:
    void SetUp() override {
        // Under the sandbox's private /var: a cut path is created too.
        fs::create_directories("/var/tmp");
        char dir[] = "/var/tmp/fileidx-paths-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        root_ = dir;
        share_ = root_ + "/volume1/music";
        fs::create_directories(share_);
        zarntest::SetShareTable({{"music", share_}, {"gone", root_ + "/volume9/gone"}});
        zarntest::ClearLogs();
        std::memset(out_, '#', sizeof out_);
    }
    void TearDown() override { fs::remove_all(root_); }

    bool Untouched() const { return out_[0] == '#' && out_[sizeof out_ - 1] == '#'; }

    std::string root_, share_;
    char out_[256];
};

TEST_F(FileIndexPaths, IndexIdCopiesTheNameAndCutsToTheBuffer) {
    struct Case { const char *name; int len; const char *id; } cases[] = {
        {"music", 256, "fileindex_music"},
        {"", 256, "fileindex_"},
        {"My Share/ä%s", 256, "fileindex_My Share/ä%s"},
        {"music", 8, "fileind"},
        {"music", 1, ""},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(FILEIDXGetIndexID(c.name, out_, c.len), 1) << c.name;
        EXPECT_STREQ(out_, c.id);
    }
}

// Every argument error: the condition logged, 3328 in the error slot, the
// buffer untouched and nothing created.
TEST_F(FileIndexPaths, ArgumentErrorsAreLoggedAndRecorded) {
    using Call = std::function<int(const char *, char *, int)>;
    const char *const share = share_.c_str();
    struct Case { Call call; const char *arg; bool null_out; int len; int result; const char *text; } cases[] = {
        {FILEIDXGetIndexID, nullptr, false, 9, 0, "__null != szShareName"},
        {FILEIDXGetIndexID, "music", true, 9, 0, "__null != szIndexID"},
        {FILEIDXGetIndexID, "music", false, 0, 0, "cbOutLen > 0"},
        {FILEIDXDBPathCompose, nullptr, false, 9, -1, "__null != szSharePath"},
        {FILEIDXDBPathCompose, share, true, 9, -1, "__null != szOutDBPath"},
        {FILEIDXDBPathCompose, share, false, -1, -1, "cbOutLen > 0"},
        {FILEIDXQueuePathCompose, nullptr, false, 9, -1, "__null != szSharePath"},
        {FILEIDXQueuePathCompose, share, true, 9, -1, "__null != szOutQueuePath"},
        {FILEIDXQueuePathCompose, share, false, 0, -1, "cbOutLen > 0"},
        {FILEIDXDBPathGet, nullptr, false, 9, -1, "__null != szName"},
        {FILEIDXDBPathGet, "music", true, 9, -1, "__null != szOutDBPath"},
        {FILEIDXDBPathGet, "music", false, -1, -1, "cbOutLen > 0"},
        {FILEIDXQueuePathGet, nullptr, false, 9, -1, "__null != szName"},
        {FILEIDXQueuePathGet, "music", true, 9, -1, "__null != szOutQueuePath"},
        {FILEIDXQueuePathGet, "music", false, 0, -1, "cbOutLen > 0"},
    };
    for (const Case &c : cases) {
        zarntest::ClearLogs();
        KOREErrSetEx(0, "test", 0);
        EXPECT_EQ(c.call(c.arg, c.null_out ? nullptr : out_, c.len), c.result) << c.text;
        EXPECT_EQ(KOREErrGet(), ZARN_ERR_INVALID_ARGUMENT) << c.text;
        EXPECT_TRUE(Untouched()) << c.text;
        const auto logs = zarntest::Logs();
        ASSERT_EQ(logs.size(), 1u) << c.text;
        EXPECT_EQ(logs[0].priority, LOG_ERR);
        EXPECT_EQ(logs[0].text.substr(logs[0].text.find(' ') + 1),
                  std::string("Invaild Argument (") + c.text + ")=[0]\n");
        EXPECT_EQ(logs[0].text.rfind("fileindex_cwrap.cpp:", 0), 0u) << logs[0].text;
    }
    EXPECT_FALSE(fs::exists(share_ + "/@eaDir"));
}

TEST_F(FileIndexPaths, ComposeWritesCutsAndCreatesOnlyTheDatabase) {
    const std::string db = share_ + kDB, queue = share_ + kQueue;
    const int cut = static_cast<int>(share_.size()) + 5;  // "<share>/@ea"
    struct Case { int (*compose)(const char *, char *, int); std::string path; int len; std::string out; } cases[] = {
        {FILEIDXDBPathCompose, share_, 256, db},
        {FILEIDXDBPathCompose, share_, 256, db},  // existing directories are fine
        {FILEIDXDBPathCompose, share_ + "/", 256, share_ + "/" + kDB},
        {FILEIDXDBPathCompose, share_, cut, share_ + "/@ea"},
        {FILEIDXDBPathCompose, share_, 1, ""},
        {FILEIDXQueuePathCompose, share_, 256, queue},
        {FILEIDXQueuePathCompose, share_, cut, share_ + "/@ea"},
        {FILEIDXDBPathCompose, root_ + "/missing", 256, root_ + "/missing" + kDB},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(c.compose(c.path.c_str(), out_, c.len), static_cast<int>(c.out.size())) << c.out;
        EXPECT_EQ(out_, c.out);
    }
    struct stat st;
    ASSERT_EQ(stat(db.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_TRUE(fs::is_directory(share_ + "/@ea"));  // the cut database path
    EXPECT_FALSE(fs::exists(queue));
    EXPECT_FALSE(fs::exists(root_ + "/missing"));
    EXPECT_TRUE(zarntest::Logs().empty());
}

TEST_F(FileIndexPaths, GetComposesWithTheSharePath) {
    EXPECT_EQ(FILEIDXDBPathGet("music", out_, 256), static_cast<int>((share_ + kDB).size()));
    EXPECT_EQ(out_, share_ + kDB);
    EXPECT_TRUE(fs::is_directory(share_ + kDB));
    const int cut = static_cast<int>(share_.size()) + 5;
    EXPECT_EQ(FILEIDXQueuePathGet("music", out_, cut), cut - 1);
    EXPECT_EQ(out_, share_ + "/@ea");
    EXPECT_FALSE(fs::exists(share_ + "/@ea"));
    // A share whose directory is missing still gets its path.
    EXPECT_EQ(FILEIDXQueuePathGet("gone", out_, 256), static_cast<int>((root_ + "/volume9/gone" + kQueue).size()));
}

// An unknown share: -1, one line with the share service's code, which stays
// in the error slot.
TEST_F(FileIndexPaths, UnknownShareIsLoggedWithTheServiceCode) {
    for (auto get : {FILEIDXDBPathGet, FILEIDXQueuePathGet}) {
        zarntest::ClearLogs();
        EXPECT_EQ(get("nosuch", out_, 256), -1);
        EXPECT_EQ(get("", out_, 256), -1);
        EXPECT_TRUE(Untouched());
        EXPECT_EQ(KOREErrGet(), ZARN_ERR_SHARE_NOT_FOUND);
        const auto lines = zarntest::LogsMatching(
            "^fileindex_cwrap\\.cpp:[0-9]+ ZARNShareGet failed, name=(nosuch|), code=4352$");
        EXPECT_EQ(lines.size(), 2u);
        EXPECT_EQ(zarntest::Logs().size(), 2u);
    }
}

}  // namespace

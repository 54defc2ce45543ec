// The streaming query API against the fake daemon: opening a search, and
// reading its total and hits with each reader and with mixes of them.
#include <errno.h>
#include <syslog.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/writer.h>

#include "harness.h"
#include "zarncontentsearchutils.h"

using namespace zarntest;

namespace {

const std::string kHeader2 = R"({"total":2})";
const std::string kEnd = R"({"success":true})";

// A connected handle on a fake daemon that plays `script`.
class Stream {
public:
    explicit Stream(std::vector<Step> script) : daemon_(std::move(script)) {
        EXPECT_EQ(ZARNQueryConnectionInit(&handle_), 0);
    }
    ~Stream() { Close(); }
    void Close() {
        ZARNQueryConnectionClose(handle_);
        handle_ = nullptr;
    }
    ZARNQueryHandle *handle() { return handle_; }
    FakeDaemon &daemon() { return daemon_; }

    // GetNextRecord into a fresh pointer; the path of the hit, "" at the end.
    int Next(std::string *path) {
        _tag_search_record *record = nullptr;
        const int code = ZARNQueryGetNextRecord(handle_, &record);
        *path = record != nullptr ? record->path : "";
        ZARNQueryFreeRecord(record);
        return code;
    }
    std::string Fetch(long seconds = 5) {
        _tag_search_record *record = ZARNQueryFetchNext(handle_, timeval{seconds, 0});
        const std::string path = record != nullptr ? record->path : "<null>";
        ZARNQueryFreeRecord(record);
        return path;
    }

private:
    FakeDaemon daemon_;
    ZARNQueryHandle *handle_ = nullptr;
};

std::vector<Step> Replies(std::vector<std::string> packets) {
    std::vector<Step> script;
    for (const std::string &p : packets) script.push_back(Send(p));
    return script;
}

// Compact text, members in key order: the daemon's copy of the request reads
// back signed where the library wrote unsigned integers.
std::string Text(const Json::Value &value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

std::string HitText(const std::string &path) { return Hit(path, 7).toStyledString(); }

int Open(ZARNQueryHandle *h, int page = 0, int page_size = 20, ZARNQuerySorter *sorters = nullptr,
         int sorter_count = 0, const char *agent = "finder", ConnectionFlag flags = CONNECTION_FLAG_NONE) {
    return ZARNQueryConnectionOpen(h, "music", "love", sorters, sorter_count, page, page_size, agent,
                                   1026, flags);
}

// ---- opening -----------------------------------------------------------------

TEST(Open, WritesTheCompletedRequest) {
    Stream s({ReadRequest()});
    ASSERT_EQ(Open(s.handle(), 3, 20), 0);
    s.daemon().WaitFinished(1);
    Json::Value expected;
    Json::Value &data = expected["data"];
    expected["command"] = "search";
    data["from"] = 60;
    data["size"] = 20;
    data["indice"].append("fileindex_music");
    data["query_string"]["query"] = "love";
    data["filters"][0]["name"] = "permission";
    data["filters"][0]["data"] = 1026u;
    data["collector"]["agent"] = "finder";
    data["collector"]["uid"] = 1026u;
    for (const char *f : {"ZARNMDPath", "ZARNMDFSName", "ZARNMDExtension", "ZARNMDIsDir"})
        data["fields"].append(f);
    EXPECT_EQ(Text(s.daemon().Request()), Text(expected));
    EXPECT_EQ(s.handle()->total, -1);
    EXPECT_TRUE(Logs().empty());
}

TEST(Open, HandsSortersFlagsAndPagesToTheRequest) {
    ZARNQuerySorter sorters[] = {{0, "a"}, {1, "b"}, {2, "c"}, {3, "d"}, {4, "e"}};
    const struct {
        int page, page_size, sorter_count;
        ConnectionFlag flags;
        int from;
    } cases[] = {{0, 20, 0, CONNECTION_FLAG_NONE, 0},
                 {3, 20, 5, CONNECTION_FLAG_HIGHLIGHT, 60},
                 {7, 1, 2, CONNECTION_FLAG_NONE, 7},
                 {1073741823, 2, 0, CONNECTION_FLAG_HIGHLIGHT, 2147483646}};
    for (const auto &c : cases) {
        Stream s({ReadRequest()});
        ASSERT_EQ(Open(s.handle(), c.page, c.page_size, sorters, c.sorter_count, "finder", c.flags), 0);
        s.daemon().WaitFinished(1);
        const Json::Value data = s.daemon().Request()["data"];
        EXPECT_EQ(data["from"].asInt(), c.from);
        EXPECT_EQ(data["size"].asInt(), c.page_size);
        EXPECT_EQ(data["sorter"].size(), static_cast<unsigned>(c.sorter_count));
        for (int i = 0; i < c.sorter_count; ++i) {
            EXPECT_EQ(data["sorter"][i]["field"].asString(), sorters[i].field);
            EXPECT_EQ(data["sorter"][i]["direction"].asString(), sorters[i].options & 1 ? "desc" : "asc");
            EXPECT_EQ(data["sorter"][i].isMember("nature_sort"), (sorters[i].options & 2) != 0);
        }
        EXPECT_EQ(data.isMember("highlight"), c.flags == CONNECTION_FLAG_HIGHLIGHT);
        EXPECT_EQ(data["fields"].size(), c.flags == CONNECTION_FLAG_HIGHLIGHT ? 5u : 4u);
    }
}

TEST(Open, AcceptsAnEmptyQuery) {
    Stream s({ReadRequest()});
    ASSERT_EQ(ZARNQueryConnectionOpen(s.handle(), "music", "", nullptr, 0, 0, 1, "", 0,
                                      CONNECTION_FLAG_NONE), 0);
    s.daemon().WaitFinished(1);
    EXPECT_EQ(s.daemon().Request()["data"]["query_string"]["query"].asString(), "");
}

TEST(Open, RefusesBadArgumentsBeforeWriting) {
    Stream s({ReadRequest()});
    ZARNQueryHandle *h = s.handle();
    ZARNQuerySorter null_field[] = {{0, "a"}, {1, nullptr}};
    const struct {
        const char *what;
        int code;
    } cases[] = {
        {"null handle", ZARNQueryConnectionOpen(nullptr, "music", "q", nullptr, 0, 0, 20, "a", 0, CONNECTION_FLAG_NONE)},
        {"null share", ZARNQueryConnectionOpen(h, nullptr, "q", nullptr, 0, 0, 20, "a", 0, CONNECTION_FLAG_NONE)},
        {"null query", ZARNQueryConnectionOpen(h, "music", nullptr, nullptr, 0, 0, 20, "a", 0, CONNECTION_FLAG_NONE)},
        {"page -1", Open(h, -1, 20)},
        {"page size 0", Open(h, 0, 0)},
        {"page size -5", Open(h, 0, -5)},
        {"from beyond int", Open(h, 1073741824, 2)},
        {"null agent", Open(h, 0, 20, nullptr, 0, nullptr)},
        {"null sorters", Open(h, 0, 20, nullptr, 1)},
        {"null sort field", Open(h, 0, 20, null_field, 2)},
    };
    for (const auto &c : cases) EXPECT_EQ(c.code, ZARN_ERR_INVALID) << c.what;
    s.Close();
    const std::vector<Seen> seen = s.daemon().WaitFinished(1);
    EXPECT_TRUE(seen.at(0).requests.empty());
    // Handed to the rewrite but never read: a null sort array with no keys.
    Stream t({ReadRequest()});
    EXPECT_EQ(Open(t.handle(), 0, 20, nullptr, -3), 0);
}

TEST(Open, FailedWriteOnAHandleWithoutSocket) {
    ZARNQueryHandle handle = {};
    handle.fd = -1;
    handle.total = -1;
    EXPECT_EQ(Open(&handle), ZARN_ERR_WRITE);
    EXPECT_EQ(handle.total, -1);
}

// ---- ZARNQueryGetNextRecord --------------------------------------------------

TEST(GetNextRecord, HeaderHitsEnd) {
    Stream s(Replies({kHeader2, HitText("/m/a"), HitText("/m/b"), kEnd}));
    std::string path;
    EXPECT_EQ(s.Next(&path), 0);
    EXPECT_EQ(path, "/m/a");
    EXPECT_EQ(s.handle()->total, 2);
    EXPECT_EQ(s.Next(&path), 0);
    EXPECT_EQ(path, "/m/b");
    EXPECT_EQ(s.Next(&path), 0);
    EXPECT_EQ(path, "");
    EXPECT_TRUE(Logs().empty());
}

TEST(GetNextRecord, EndsQuietlyWithoutHits) {
    const struct {
        std::vector<std::string> packets;
        int total;
    } cases[] = {
        {{R"({"total":0})", kEnd}, 0},
        {{R"({"success":false})"}, -1},          // an error reply in place of the header
        {{R"({"total":-5})", kEnd}, 0},          // never back to "unread"
        {{R"({"total":"many"})", kEnd}, 0},
    };
    for (const auto &c : cases) {
        Stream s(Replies(c.packets));
        _tag_search_record *record = nullptr;
        EXPECT_EQ(ZARNQueryGetNextRecord(s.handle(), &record), 0) << c.packets[0];
        EXPECT_EQ(record, nullptr);
        EXPECT_EQ(s.handle()->total, c.total) << c.packets[0];
    }
}

TEST(GetNextRecord, HeaderWithSuccessIsAHeader) {
    Stream s(Replies({R"({"total":1,"success":true})", HitText("/m/a"), kEnd}));
    std::string path;
    EXPECT_EQ(s.Next(&path), 0);
    EXPECT_EQ(path, "/m/a");
    EXPECT_EQ(s.handle()->total, 1);
}

TEST(GetNextRecord, MalformedPacket) {
    for (const std::string bad : {"{\"total\":", "[1,2]", "42", "\"text\""}) {
        ClearLogs();
        Stream s(Replies({kHeader2, bad}));
        std::string path;
        EXPECT_EQ(s.Next(&path), ZARN_ERR_FORMAT) << bad;
        const auto lines = Logs();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].priority, LOG_ERR);
        EXPECT_EQ(lines[0].text.substr(lines[0].text.find(' ')), " response format is wrong: " + bad);
        EXPECT_EQ(lines[0].text.rfind("query_get_cwrap.cpp:", 0), 0u);
    }
}

TEST(GetNextRecord, DaemonClosingMidStream) {
    Stream s({Send(kHeader2), Send(HitText("/m/a")), Close()});
    std::string path;
    EXPECT_EQ(s.Next(&path), 0);
    EXPECT_EQ(s.Next(&path), ZARN_ERR_READ);
    const auto lines = LogsMatching("^query_get_cwrap\\.cpp:[0-9]+ Failed to read socket, errno\\([0-9]+\\): ");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].priority, LOG_DEBUG);
}

TEST(GetNextRecord, NullArguments) {
    _tag_search_record *record = nullptr;
    EXPECT_EQ(ZARNQueryGetNextRecord(nullptr, &record), ZARN_ERR_INVALID);
    ASSERT_EQ(LogsMatching("^query_get_cwrap\\.cpp:[0-9]+ connection is NULL\\. ").size(), 1u);
    EXPECT_EQ(Logs()[0].priority, LOG_ERR);
    Stream s(Replies({kHeader2}));
    EXPECT_EQ(ZARNQueryGetNextRecord(s.handle(), nullptr), ZARN_ERR_INVALID);
    EXPECT_EQ(ZARNQueryCount(s.handle()), 2);  // nothing was read
}

TEST(GetNextRecord, SilentDaemonTimesOutAfterTwentySeconds) {
    Stream s({ReadRequest()});
    const auto start = std::chrono::steady_clock::now();
    std::string path;
    EXPECT_EQ(s.Next(&path), ZARN_ERR_READ);
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::seconds(19));
    EXPECT_LT(waited, std::chrono::seconds(25));
    EXPECT_EQ(LogsMatching("Failed to read socket, errno\\(" + std::to_string(EAGAIN) + "\\)").size(), 1u);
}

// ---- ZARNQueryFetchNext ------------------------------------------------------

TEST(FetchNext, HeaderHitsEnd) {
    Stream s(Replies({kHeader2, HitText("/m/a"), HitText("/m/b"), kEnd}));
    EXPECT_EQ(s.Fetch(), "/m/a");
    EXPECT_EQ(s.Fetch(), "/m/b");
    EXPECT_EQ(s.Fetch(), "<null>");
    EXPECT_EQ(s.handle()->total, 2);
    EXPECT_TRUE(Logs().empty());
}

TEST(FetchNext, ZeroTimeOutWithNothingWaiting) {
    Stream s({ReadRequest()});
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(s.Fetch(0), "<null>");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_TRUE(Logs().empty());
}

TEST(FetchNext, AfterTheDaemonClosed) {
    Stream s({Send(kHeader2), Close()});
    EXPECT_EQ(s.Fetch(), "<null>");
    EXPECT_EQ(LogsMatching("^query_get_cwrap\\.cpp:[0-9]+ Failed to read socket").size(), 1u);
}

TEST(FetchNext, RefusesWhatItCannotWaitOn) {
    EXPECT_EQ(ZARNQueryFetchNext(nullptr, timeval{0, 0}), nullptr);
    EXPECT_EQ(LogsMatching("^query_fetch_cwrap\\.cpp:[0-9]+ connection is NULL\\. ").size(), 1u);
    for (int fd : {-1, FD_SETSIZE, FD_SETSIZE + 100}) {
        ClearLogs();
        ZARNQueryHandle handle;
        std::memset(&handle, 0xA5, sizeof handle);  // read_fds must stay as it is
        handle.fd = fd;
        const ZARNQueryHandle before = handle;
        EXPECT_EQ(ZARNQueryFetchNext(&handle, timeval{0, 0}), nullptr);
        EXPECT_EQ(std::memcmp(&handle, &before, sizeof handle), 0) << fd;
        const auto lines = LogsMatching("^query_fetch_cwrap\\.cpp:[0-9]+ ");
        ASSERT_EQ(lines.size(), 1u) << fd;
        EXPECT_EQ(lines[0].priority, LOG_ERR);
    }
}

// ---- ZARNQueryCount and mixes ------------------------------------------------

TEST(Count, BeforeAndAfterTheReaders) {
    Stream s(Replies({kHeader2, HitText("/m/a"), HitText("/m/b"), kEnd}));
    EXPECT_EQ(ZARNQueryCount(s.handle()), 2);  // the header only
    std::string path;
    EXPECT_EQ(s.Next(&path), 0);
    EXPECT_EQ(path, "/m/a");
    EXPECT_EQ(ZARNQueryCount(s.handle()), 2);  // reads nothing
    EXPECT_EQ(s.Fetch(), "/m/b");
    EXPECT_EQ(s.Next(&path), 0);
    EXPECT_EQ(path, "");
}

TEST(Count, AfterAReaderMetTheHeader) {
    Stream s(Replies({R"({"total":120})", HitText("/m/a"), HitText("/m/b")}));
    EXPECT_EQ(s.Fetch(), "/m/a");
    EXPECT_EQ(ZARNQueryCount(s.handle()), 120);
    EXPECT_EQ(s.Fetch(), "/m/b");
}

TEST(Count, FailuresLeaveZeroForGood) {
    const struct {
        std::vector<Step> script;
        const char *log;
        int priority;
    } cases[] = {
        {Replies({R"({"success":false})", R"({"total":5})"}),
         R"(^query_count_cwrap\.cpp:[0-9]+ response format is wrong: \{"success":false\}$)", LOG_ERR},
        {Replies({"{oops", R"({"total":5})"}),
         R"(^query_count_cwrap\.cpp:[0-9]+ response format is wrong: \{oops$)", LOG_ERR},
        {Replies({"[5]", R"({"total":5})"}),
         R"(^query_count_cwrap\.cpp:[0-9]+ response format is wrong: \[5\]$)", LOG_ERR},
        {{Close()}, R"(^query_count_cwrap\.cpp:[0-9]+ Failed to read socket, errno\([0-9]+\): )", LOG_DEBUG},
    };
    for (const auto &c : cases) {
        ClearLogs();
        Stream s(c.script);
        EXPECT_EQ(ZARNQueryCount(s.handle()), 0) << c.log;
        EXPECT_EQ(s.handle()->total, 0);
        EXPECT_EQ(ZARNQueryCount(s.handle()), 0);  // no second read for the header
        const auto lines = LogsMatching(c.log);
        ASSERT_EQ(lines.size(), 1u) << c.log;
        EXPECT_EQ(lines[0].priority, c.priority);
        EXPECT_EQ(Logs().size(), 1u);
    }
}

TEST(Count, NullHandle) { EXPECT_EQ(ZARNQueryCount(nullptr), 0); }

}  // namespace

// The connection class and the callback search against the fake daemon.
#include <dirent.h>
#include <signal.h>
#include <syslog.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/writer.h>

#include "harness.h"
#include "zarn_connection.h"

using ZARN::IR::DAEMON::Connection;
using namespace zarntest;

namespace {

// What a search callback saw.
struct Delivered {
    std::vector<std::string> paths;
    std::vector<int> doc_ids;
    int stop_after = -1;  // return false on this hit (counted from 1)
};

bool Collect(const _tag_search_record *record, void *data) {
    Delivered *d = static_cast<Delivered *>(data);
    d->paths.push_back(record->path);
    d->doc_ids.push_back(record->doc_id);
    return static_cast<int>(d->paths.size()) != d->stop_after;
}

bool Throw(const _tag_search_record *, void *) { throw std::runtime_error("caller's own"); }

Step Packet(const std::string &text) { return Send(text); }

std::string HitText(int i) { return Hit("/m/" + std::to_string(i), i).toStyledString(); }

std::vector<Step> Stream(const std::string &header, int hits, bool end) {
    std::vector<Step> script = {ReadRequest(), Packet(header)};
    for (int i = 1; i <= hits; ++i) script.push_back(Packet(HitText(i)));
    if (end) script.push_back(Packet(R"({"success":true})"));
    return script;
}

Json::Value Envelope() {
    Json::Value request;
    request["command"] = "search";
    request["data"]["indice"].append("fileindex_music");
    return request;
}

int OpenDescriptors() {
    int count = 0;
    DIR *dir = opendir("/proc/self/fd");
    while (readdir(dir) != nullptr) ++count;
    closedir(dir);
    return count;
}

std::string Text(const Json::Value &value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

// ---- the object --------------------------------------------------------------

TEST(Connection, NewObjectsHoldNoSocketAndNoError) {
    Connection plain, with_int(12345);
    for (Connection *c : {&plain, &with_int}) {
        EXPECT_EQ(c->GetError(), CONNECTION_ERROR_NONE);
        Delivered d;
        EXPECT_FALSE(c->SendQuery(Envelope(), Collect, &d, "a", 1));
        EXPECT_EQ(c->GetError(), CONNECTION_ERROR_INVALID);
        c->Close();
        c->Close();
    }
    EXPECT_EQ(sizeof(Connection), sizeof(void *) + 4 * sizeof(int));
}

TEST(Connection, FailedConnectKeepsItsDescriptorUntilClose) {
    signal(SIGPIPE, SIG_DFL);
    const int before = OpenDescriptors();
    {
        Connection c;
        EXPECT_FALSE(c.Connect(20, CONNECTION_FLAG_NONE));
        EXPECT_EQ(c.GetError(), CONNECTION_ERROR_CONNECT);
        const auto lines = LogsMatching("^connection\\.cpp:[0-9]+ Connect domain socket failed, ");
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].priority, LOG_ERR);
        EXPECT_EQ(OpenDescriptors(), before + 1);
        // The held socket passes the first check; the write fails.
        Delivered d;
        EXPECT_FALSE(c.SendQuery(Envelope(), Collect, &d, "a", 1));
        EXPECT_EQ(c.GetError(), CONNECTION_ERROR_WRITE);
        c.Close();
        EXPECT_EQ(OpenDescriptors(), before);
    }
    EXPECT_EQ(OpenDescriptors(), before);
    struct sigaction action;
    sigaction(SIGPIPE, nullptr, &action);
    EXPECT_EQ(action.sa_handler, SIG_IGN);
}

TEST(Connection, ALaterSuccessKeepsTheEarlierError) {
    Connection c;
    ASSERT_FALSE(c.Connect(20, CONNECTION_FLAG_NONE));
    c.Close();
    FakeDaemon daemon(Stream(R"({"total":0})", 0, false));
    ASSERT_TRUE(c.Connect(20, CONNECTION_FLAG_NONE));
    Delivered d;
    EXPECT_TRUE(c.SendQuery(Envelope(), Collect, &d, "a", 1));
    EXPECT_EQ(c.GetError(), CONNECTION_ERROR_CONNECT);
    c.SetError(CONNECTION_ERROR_READ);
    EXPECT_EQ(c.GetError(), CONNECTION_ERROR_READ);
}

TEST(Connection, DestructorClosesTheSocket) {
    FakeDaemon daemon(std::vector<Step>{});
    {
        Connection c;
        ASSERT_TRUE(c.Connect(20, CONNECTION_FLAG_NONE));
    }
    EXPECT_TRUE(daemon.WaitClosed(1).at(0).peer_closed);
}

// ---- SendQuery and ProcessRepsonse -------------------------------------------

TEST(SendQuery, ReadsTheResponseStream) {
    const struct {
        const char *what;
        std::vector<Step> script;
        int stop_after;
        bool result;
        int error;
        size_t hits;
        const char *log;  // pattern of the one log line, or null for none
    } cases[] = {
        {"total 0", Stream(R"({"total":0})", 1, true), -1, true, 0, 0, nullptr},
        {"no total", Stream(R"({"success":false})", 1, true), -1, true, 0, 0, nullptr},
        {"negative total", Stream(R"({"total":-3})", 1, true), -1, true, 0, 0, nullptr},
        {"page of a larger total", Stream(R"({"total":120})", 50, true), -1, true, 0, 50, nullptr},
        {"all hits", Stream(R"({"total":2})", 2, true), -1, true, 0, 2, nullptr},
        {"callback stops", Stream(R"({"total":3})", 3, true), 1, true, 0, 1, nullptr},
        {"end with total and success", Stream(R"({"total":3})", 1, false), -1, true, 0, 1, nullptr},
        {"bad header", Stream("{\"total\":", 0, false), -1, false, -4, 0,
         R"(^connection\.cpp:[0-9]+ response format is wrong: \{"total":$)"},
        {"header not an object", Stream("[7]", 0, false), -1, false, -4, 0,
         R"(^connection\.cpp:[0-9]+ response format is wrong: \[7\]$)"},
        {"bad hit", Stream(R"({"total":3})", 1, false), -1, false, -4, 1,
         R"(^connection\.cpp:[0-9]+ response format is wrong: \{oops$)"},
        {"hit not an object", Stream(R"({"total":3})", 1, false), -1, false, -4, 1,
         R"(^connection\.cpp:[0-9]+ response format is wrong: "hit"$)"},
        {"daemon closes", Stream(R"({"total":3})", 1, false), -1, false, -7, 1,
         R"(^connection\.cpp:[0-9]+ Failed to read socket, errno\([0-9]+\): )"},
    };
    for (auto c : cases) {
        const std::string what = c.what;
        if (what == "end with total and success") c.script.push_back(Packet(R"({"total":9,"success":1})"));
        if (what == "bad hit") c.script.push_back(Packet("{oops"));
        if (what == "hit not an object") c.script.push_back(Packet("\"hit\""));
        if (what == "daemon closes") c.script.push_back(Close());
        ClearLogs();
        FakeDaemon daemon(c.script);
        Connection connection;
        ASSERT_TRUE(connection.Connect(20, CONNECTION_FLAG_NONE));
        Delivered d;
        d.stop_after = c.stop_after;
        EXPECT_EQ(connection.SendQuery(Envelope(), Collect, &d, "finder", 1026), c.result) << what;
        EXPECT_EQ(connection.GetError(), c.error) << what;
        EXPECT_EQ(d.paths.size(), c.hits) << what;
        for (size_t i = 0; i < d.paths.size(); ++i) {
            EXPECT_EQ(d.paths[i], "/m/" + std::to_string(i + 1));
            EXPECT_EQ(d.doc_ids[i], static_cast<int>(i + 1));
        }
        if (c.log == nullptr) {
            EXPECT_TRUE(Logs().empty()) << what;
        } else {
            EXPECT_EQ(Logs().size(), 1u) << what;
            const auto lines = LogsMatching(c.log);
            ASSERT_EQ(lines.size(), 1u) << what;
            EXPECT_EQ(lines[0].priority, LOG_ERR);
        }
    }
}

// The daemon has sent everything before the last hit is taken; whether the
// end packet was read shows when the client closes.
bool WaitForTheDaemon(const _tag_search_record *record, void *daemon) {
    if (std::string(record->path) == "/m/2") static_cast<FakeDaemon *>(daemon)->WaitFinished(1);
    return true;
}

TEST(SendQuery, ReadsNoFurtherThanTotal) {
    for (bool full_page : {true, false}) {
        FakeDaemon daemon(Stream(full_page ? R"({"total":2})" : R"({"total":9})", 2, true));
        Connection connection;
        ASSERT_TRUE(connection.Connect(20, CONNECTION_FLAG_NONE));
        EXPECT_TRUE(connection.SendQuery(Envelope(), WaitForTheDaemon, &daemon, "a", 1));
        connection.Close();
        const Seen seen = daemon.WaitClosed(1).at(0);
        EXPECT_TRUE(seen.peer_closed);
        EXPECT_EQ(seen.unread_at_close, full_page);
    }
}

TEST(SendQuery, WritesTheRequestCompletedWithTheConnectionsFlag) {
    for (ConnectionFlag flag : {CONNECTION_FLAG_NONE, CONNECTION_FLAG_HIGHLIGHT}) {
        FakeDaemon daemon(Stream(R"({"total":0})", 0, false));
        Connection connection;
        ASSERT_TRUE(connection.Connect(20, flag));
        const Json::Value request = Envelope();
        Delivered d;
        ASSERT_TRUE(connection.SendQuery(request, Collect, &d, "finder", 3000000000u));
        EXPECT_EQ(Text(request), Text(Envelope()));
        EXPECT_EQ(Text(daemon.Request()),
                  Text(Connection::RewriteSearchQuery(Envelope(), 3000000000u, "finder", nullptr, 0, flag)));
    }
}

TEST(SendQuery, RefusesWhatItCannotSend) {
    FakeDaemon daemon;
    Connection connection;
    ASSERT_TRUE(connection.Connect(20, CONNECTION_FLAG_NONE));
    Delivered d;
    for (const Json::Value &request : {Json::Value(Json::arrayValue), Json::Value("search"), Json::Value()}) {
        EXPECT_FALSE(connection.SendQuery(request, Collect, &d, "a", 1));
        EXPECT_EQ(connection.GetError(), CONNECTION_ERROR_INVALID);
    }
    EXPECT_FALSE(connection.SendQuery(Envelope(), nullptr, &d, "a", 1));
    EXPECT_EQ(connection.GetError(), CONNECTION_ERROR_INVALID);
    connection.Close();
    EXPECT_TRUE(daemon.WaitFinished(1).at(0).requests.empty());
    EXPECT_TRUE(Logs().empty());
}

TEST(SendQuery, CallbackExceptionPassesAndFreesTheRecord) {
    FakeDaemon daemon(Stream(R"({"total":2})", 2, true));
    Connection connection;
    ASSERT_TRUE(connection.Connect(20, CONNECTION_FLAG_NONE));
    // The record is freed on the way out: valgrind and ASan watch for it.
    EXPECT_THROW(connection.SendQuery(Envelope(), Throw, nullptr, "a", 1), std::runtime_error);
    EXPECT_EQ(connection.GetError(), CONNECTION_ERROR_NONE);
}

// ---- ZARNSearchQuerySend -----------------------------------------------------

int Search(const char *share, const char *query, int page_size, int page, ZARNSearchCallback cb,
           void *data, const char *agent, int *error_code) {
    return ZARNSearchQuerySend(share, query, page_size, page, cb, data, agent, 1026, error_code);
}

TEST(SearchQuerySend, SendsTheRequestAndDeliversTheHits) {
    FakeDaemon daemon(Stream(R"({"total":2})", 2, false));
    Delivered d;
    int code = 12345;
    EXPECT_EQ(Search("music", "love", 50, 3, Collect, &d, "finder", &code), 1);
    EXPECT_EQ(code, 12345);
    EXPECT_EQ(d.paths, (std::vector<std::string>{"/m/1", "/m/2"}));
    EXPECT_EQ(Text(daemon.Request()),
              R"({"command":"search","data":{"collector":{"agent":"finder","uid":1026},)"
              R"("fields":["ZARNMDPath","ZARNMDFSName","ZARNMDExtension","ZARNMDIsDir"],)"
              R"("filters":[{"data":1026,"name":"permission"}],"from":150,)"
              R"("indice":["fileindex_music"],"query_string":{"query":"love"},"size":50}})");
    EXPECT_TRUE(daemon.WaitClosed(1).at(0).peer_closed);
}

TEST(SearchQuerySend, PagesAndAgent) {
    const struct {
        int page_size, page;
        const char *agent;
        int from;
        const char *sent_agent;
    } cases[] = {{0, 0, nullptr, 0, ""}, {0, 9, "x", 0, "x"}, {20, 1, "", 20, ""},
                 {1, 2147483647, "y", 2147483647, "y"}};
    for (const auto &c : cases) {
        FakeDaemon daemon(Stream(R"({"total":0})", 0, false));
        Delivered d;
        int code = 0;
        EXPECT_EQ(Search("music", "q", c.page_size, c.page, Collect, &d, c.agent, &code), 1);
        const Json::Value data = daemon.Request()["data"];
        EXPECT_EQ(data["from"].asInt(), c.from);
        EXPECT_EQ(data["size"].asInt(), c.page_size);
        EXPECT_EQ(data["collector"]["agent"].asString(), c.sent_agent);
    }
}

TEST(SearchQuerySend, RefusesArgumentsWithoutConnecting) {
    FakeDaemon daemon;
    Delivered d;
    const struct {
        const char *what;
        const char *share, *query;
        int page_size, page;
        ZARNSearchCallback callback;
    } cases[] = {
        {"null share", nullptr, "q", 10, 0, Collect},  {"null query", "music", nullptr, 10, 0, Collect},
        {"null callback", "music", "q", 10, 0, nullptr}, {"negative page size", "music", "q", -1, 0, Collect},
        {"negative page", "music", "q", 10, -1, Collect}, {"from beyond int", "music", "q", 65536, 32768, Collect},
    };
    for (const auto &c : cases) {
        int code = 0;
        EXPECT_EQ(Search(c.share, c.query, c.page_size, c.page, c.callback, &d, "a", &code), 0) << c.what;
        EXPECT_EQ(code, ZARN_ERR_INVALID) << c.what;
    }
    EXPECT_EQ(Search("music", "q", 10, 0, Collect, &d, "a", nullptr), 0);
    EXPECT_EQ(daemon.Accepted(), 0u);
    EXPECT_TRUE(Logs().empty());
}

TEST(SearchQuerySend, NoDaemon) {
    Delivered d;
    int code = 0;
    const int before = OpenDescriptors();
    EXPECT_EQ(Search("music", "q", 10, 0, Collect, &d, "a", &code), 0);
    EXPECT_EQ(code, ZARN_ERR_CONNECT);
    EXPECT_EQ(OpenDescriptors(), before);
    const auto lines = LogsMatching("^connection\\.cpp:[0-9]+ Connect domain socket failed, ");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].priority, LOG_ERR);
}

TEST(SearchQuerySend, FailureAfterSomeHitsKeepsThemDelivered) {
    std::vector<Step> script = Stream(R"({"total":5})", 2, false);
    script.push_back(Packet("not json"));
    FakeDaemon daemon(script);
    Delivered d;
    int code = 0;
    EXPECT_EQ(Search("music", "q", 10, 0, Collect, &d, "a", &code), 0);
    EXPECT_EQ(code, ZARN_ERR_FORMAT);
    EXPECT_EQ(d.paths.size(), 2u);
    EXPECT_TRUE(daemon.WaitClosed(1).at(0).peer_closed);
}

TEST(SearchQuerySend, SilentDaemonTimesOutAfterTwentySeconds) {
    FakeDaemon daemon({ReadRequest()});
    Delivered d;
    int code = 0;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Search("music", "q", 10, 0, Collect, &d, "a", &code), 0);
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(code, ZARN_ERR_READ);
    EXPECT_GE(waited, std::chrono::seconds(19));
    EXPECT_LT(waited, std::chrono::seconds(25));
}

TEST(SearchQuerySend, CallbackExceptionPassesThroughAndClosesTheConnection) {
    // The script ends with the hit that the callback throws on, so that the
    // daemon is listening when the connection closes.
    FakeDaemon daemon(Stream(R"({"total":2})", 1, false));
    int code = 12345;
    EXPECT_THROW(Search("music", "q", 10, 0, Throw, nullptr, "a", &code), std::runtime_error);
    EXPECT_EQ(code, 12345);
    EXPECT_TRUE(daemon.WaitClosed(1).at(0).peer_closed);
}

}  // namespace

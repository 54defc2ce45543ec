// The connection class and the callback search against the fake daemon; the
// records built from hit packets and the rewrite that completes every search
// request, which the streaming API shares.
#include <dirent.h>
#include <signal.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/writer.h>

#include "harness.h"
#include "zarn_connection.h"

using ZARN::IR::DAEMON::Connection;
using namespace zarntest;

namespace {

std::vector<std::string> paths;  // what the last search delivered
int stop_after = -1;             // Collect returns false on this hit

bool Collect(const _tag_search_record *record, void *) {
    paths.push_back(std::string(record->path) + "#" + std::to_string(record->doc_id));
    return static_cast<int>(paths.size()) != stop_after;
}

bool Throw(const _tag_search_record *, void *) { throw std::runtime_error("caller's own"); }

// The daemon reads the request, sends `header`, hits /m/1#1 ... and `tail`.
std::vector<Step> Script(const std::string &header, int hits, std::vector<std::string> tail = {}) {
    std::vector<Step> script = {ReadRequest(), Send(header)};
    for (int i = 1; i <= hits; ++i) script.push_back(Send(Hit("/m/" + std::to_string(i), i)));
    for (const std::string &packet : tail) script.push_back(Send(packet));
    return script;
}

Json::Value Envelope() {
    Json::Value request;
    request["command"] = "search";
    request["data"]["indice"].append("fileindex_music");
    return request;
}

Json::Value Parse(const std::string &text) {
    Json::Value value;
    EXPECT_TRUE(Json::Reader().parse(text, value)) << text;
    return value;
}

// Compact text with members in key order: compares across JsonCpp's signed
// and unsigned integers, which operator== tells apart.
std::string Text(const Json::Value &value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

int OpenDescriptors() {
    int count = 0;
    DIR *dir = opendir("/proc/self/fd");
    while (readdir(dir) != nullptr) ++count;
    closedir(dir);
    return count;
}

TEST(Connection, HoldsItsSocketAndItsFirstError) {
    Connection plain, with_int(12345);
    for (Connection *c : {&plain, &with_int}) {
        EXPECT_EQ(c->GetError(), CONNECTION_ERROR_NONE);
        EXPECT_FALSE(c->SendQuery(Envelope(), Collect, nullptr, "a", 1));
        EXPECT_EQ(c->GetError(), CONNECTION_ERROR_INVALID);
        c->Close();
    }
    signal(SIGPIPE, SIG_DFL);
    const int before = OpenDescriptors();
    Connection c;
    EXPECT_FALSE(c.Connect(20, CONNECTION_FLAG_NONE));
    EXPECT_EQ(c.GetError(), CONNECTION_ERROR_CONNECT);
    ASSERT_EQ(Logs().size(), 1u);
    EXPECT_EQ(LogsMatching("^connection\\.cpp:[0-9]+ Connect domain socket failed, No such file").size(), 1u);
    EXPECT_EQ(Logs()[0].priority, LOG_ERR);
    struct sigaction action;
    sigaction(SIGPIPE, nullptr, &action);
    EXPECT_EQ(action.sa_handler, SIG_IGN);
    // The failed connection's socket is held: it passes the first check and
    // the write fails.
    EXPECT_EQ(OpenDescriptors(), before + 1);
    EXPECT_FALSE(c.SendQuery(Envelope(), Collect, nullptr, "a", 1));
    EXPECT_EQ(c.GetError(), CONNECTION_ERROR_WRITE);
    c.Close();
    c.Close();
    EXPECT_EQ(OpenDescriptors(), before);
    // A later success leaves the error as it was; the destructor closes.
    {
        FakeDaemon daemon(Script(R"({"total":0})", 0));
        c.SetError(CONNECTION_ERROR_CONNECT);
        Connection d;
        ASSERT_TRUE(c.Connect(20, CONNECTION_FLAG_NONE) && d.Connect(20, CONNECTION_FLAG_NONE));
        EXPECT_TRUE(c.SendQuery(Envelope(), Collect, nullptr, "a", 1));
        EXPECT_EQ(c.GetError(), CONNECTION_ERROR_CONNECT);
        EXPECT_FALSE(d.ProcessRepsonse(nullptr, nullptr));
        EXPECT_EQ(d.GetError(), CONNECTION_ERROR_INVALID);
        c.Close();
    }
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST(SendQuery, ReadsTheResponseStream) {
    const char *const oops = "{oops";
    const struct {
        std::vector<Step> script;
        int stop_after;
        bool result;
        int error;
        size_t hits;
        const char *log;  // the one log line, or null for none
    } cases[] = {
        {Script(R"({"total":0})", 1, {"{}"}), -1, true, 0, 0, nullptr},
        {Script(R"({"success":false})", 1, {"{}"}), -1, true, 0, 0, nullptr},
        {Script(R"({"total":-3})", 1, {"{}"}), -1, true, 0, 0, nullptr},
        {Script(R"({"total":9})", 2, {R"({"success":true})"}), -1, true, 0, 2, nullptr},
        {Script(R"({"total":2})", 2, {oops}), -1, true, 0, 2, nullptr},  // nothing read beyond "total"
        {Script(R"({"total":3})", 3, {"{}"}), 1, true, 0, 1, nullptr},
        {Script(R"({"total":3})", 1, {R"({"total":9,"success":1})"}), -1, true, 0, 1, nullptr},
        {Script("{\"total\":", 0), -1, false, -4, 0, R"(response format is wrong: \{"total":$)"},
        {Script("[7]", 0), -1, false, -4, 0, R"(response format is wrong: \[7\]$)"},
        {Script(R"({"total":3})", 1, {oops}), -1, false, -4, 1, R"(response format is wrong: \{oops$)"},
        {Script(R"({"total":3})", 1, {"\"hit\""}), -1, false, -4, 1, R"(response format is wrong: "hit"$)"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.script[1].data + " " + std::to_string(c.hits));
        ClearLogs();
        paths.clear();
        stop_after = c.stop_after;
        FakeDaemon daemon(c.script);
        Connection connection;
        ASSERT_TRUE(connection.Connect(20, CONNECTION_FLAG_NONE));
        EXPECT_EQ(connection.SendQuery(Envelope(), Collect, nullptr, "finder", 1026), c.result);
        EXPECT_EQ(connection.GetError(), c.error);
        ASSERT_EQ(paths.size(), c.hits);
        for (size_t i = 0; i < c.hits; ++i) EXPECT_EQ(paths[i], "/m/" + std::to_string(i + 1) + "#" + std::to_string(i + 1));
        ASSERT_EQ(Logs().size(), c.log == nullptr ? 0u : 1u);
        if (c.log == nullptr) continue;
        EXPECT_EQ(LogsMatching(std::string("^connection\\.cpp:[0-9]+ ") + c.log).size(), 1u);
        EXPECT_EQ(Logs()[0].priority, LOG_ERR);
    }
    stop_after = -1;
}

TEST(SendQuery, WritesTheRequestCompletedWithTheConnectionsFlag) {
    for (ConnectionFlag flag : {CONNECTION_FLAG_NONE, CONNECTION_FLAG_HIGHLIGHT}) {
        FakeDaemon daemon(Script(R"({"total":0})", 0));
        Connection connection;
        ASSERT_TRUE(connection.Connect(20, flag));
        const Json::Value request = Envelope();
        ASSERT_TRUE(connection.SendQuery(request, Collect, nullptr, "finder", 3000000000u));
        EXPECT_EQ(Text(request), Text(Envelope()));
        EXPECT_EQ(Text(daemon.Request()),
                  Text(Connection::RewriteSearchQuery(Envelope(), 3000000000u, "finder", nullptr, 0, flag)));
    }
}

TEST(SendQuery, RefusesWhatItCannotSendAndPassesCallbackExceptions) {
    FakeDaemon daemon;
    Connection connection;
    ASSERT_TRUE(connection.Connect(20, CONNECTION_FLAG_NONE));
    for (const Json::Value &request : {Json::Value(Json::arrayValue), Json::Value("search"), Json::Value()}) {
        EXPECT_FALSE(connection.SendQuery(request, Collect, nullptr, "a", 1));
        EXPECT_EQ(connection.GetError(), CONNECTION_ERROR_INVALID);
    }
    connection.SetError(CONNECTION_ERROR_NONE);
    EXPECT_FALSE(connection.SendQuery(Envelope(), nullptr, nullptr, "a", 1));
    EXPECT_EQ(connection.GetError(), CONNECTION_ERROR_INVALID);
    connection.Close();
    EXPECT_TRUE(daemon.WaitFinished(1).at(0).requests.empty());
    EXPECT_TRUE(Logs().empty());
    // The record is freed on the way out: valgrind and ASan watch for it.
    daemon.Queue(Script(R"({"total":2})", 2));
    Connection second;
    ASSERT_TRUE(second.Connect(20, CONNECTION_FLAG_NONE));
    EXPECT_THROW(second.SendQuery(Envelope(), Throw, nullptr, "a", 1), std::runtime_error);
    EXPECT_EQ(second.GetError(), CONNECTION_ERROR_NONE);
}

// ---- ZARNSearchQuerySend -----------------------------------------------------

// The daemon closes after its last packet, so that the descriptors counted
// after it has finished are the library's alone.
TEST(SearchQuerySend, SendsTheRequestAndDeliversTheHits) {
    std::vector<Step> script = Script(R"({"total":2})", 2);
    script.push_back(Close());
    FakeDaemon daemon(script);
    paths.clear();
    int code = 12345;
    const int before = OpenDescriptors();
    EXPECT_EQ(ZARNSearchQuerySend("music", "caf\xc3\xa9", 50, 3, Collect, nullptr, "finder", 1026, &code), 1);
    EXPECT_EQ(code, 12345);
    daemon.WaitFinished(1);
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_EQ(paths, (std::vector<std::string>{"/m/1#1", "/m/2#2"}));
    EXPECT_EQ(daemon.WaitFinished(1).at(0).requests.at(0),
              R"({"command":"search","data":{"collector":{"agent":"finder","uid":1026},)"
              R"("fields":["ZARNMDPath","ZARNMDFSName","ZARNMDExtension","ZARNMDIsDir"],)"
              R"("filters":[{"data":1026,"name":"permission"}],"from":150,)"
              R"("indice":["fileindex_music"],"query_string":{"query":"caf)" "\xc3\xa9" R"("},"size":50}})");
}

TEST(SearchQuerySend, PagesAgentsAndRefusedArguments) {
    const struct {
        const char *share, *query;
        int page_size, page;
        ZARNSearchCallback callback;
        const char *agent;
        int code, from;
    } cases[] = {
        {"m", "q", 0, 0, Collect, nullptr, 0, 0},  // a null agent is sent as ""
        {"m", "q", 1, 2147483647, Collect, "y", 0, 2147483647},
        {nullptr, "q", 10, 0, Collect, "a", -1, 0},
        {"m", nullptr, 10, 0, Collect, "a", -1, 0},
        {"m", "q", 10, 0, nullptr, "a", -1, 0},
        {"m", "q", -1, 0, Collect, "a", -1, 0},
        {"m", "q", 10, -1, Collect, "a", -1, 0},
        {"m", "q", 65536, 32768, Collect, "a", -1, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.page << "x" << c.page_size);
        FakeDaemon daemon(Script(R"({"total":0})", 0));
        int code = 0;
        EXPECT_EQ(ZARNSearchQuerySend(c.share, c.query, c.page_size, c.page, c.callback, nullptr, c.agent, 1,
                                      &code), c.code == 0 ? 1 : 0);
        EXPECT_EQ(code, c.code);
        EXPECT_EQ(daemon.Accepted(), c.code == 0 ? 1u : 0u);
        if (c.code == 0) {
            const Json::Value data = daemon.Request()["data"];
            EXPECT_EQ(data["from"].asInt(), c.from);
            EXPECT_EQ(data["size"].asInt(), c.page_size);
            EXPECT_EQ(data["collector"]["agent"].asString(), c.agent == nullptr ? "" : c.agent);
        }
    }
    EXPECT_EQ(ZARNSearchQuerySend("m", "q", 10, 0, Collect, nullptr, "a", 1, nullptr), 0);
    EXPECT_TRUE(Logs().empty());
}

TEST(SearchQuerySend, NoDaemonAndCallbackExceptions) {
    int code = 0;
    const int before = OpenDescriptors();
    EXPECT_EQ(ZARNSearchQuerySend("m", "q", 10, 0, Collect, nullptr, "a", 1, &code), 0);
    EXPECT_EQ(code, ZARN_ERR_CONNECT);
    ASSERT_EQ(LogsMatching("^connection\\.cpp:[0-9]+ Connect domain socket failed, ").size(), 1u);
    EXPECT_EQ(Logs().at(0).priority, LOG_ERR);
    EXPECT_EQ(OpenDescriptors(), before);
    std::vector<Step> script = Script(R"({"total":2})", 2);
    script.push_back(Close());
    FakeDaemon daemon(script);
    const int with_daemon = OpenDescriptors();
    code = 12345;
    EXPECT_THROW(ZARNSearchQuerySend("m", "q", 10, 0, Throw, nullptr, "a", 1, &code), std::runtime_error);
    EXPECT_EQ(code, 12345);
    daemon.WaitFinished(1);
    EXPECT_EQ(OpenDescriptors(), with_daemon);
}

TEST(SearchQuerySend, SilentDaemonTimesOutAfterTwentySeconds) {
    FakeDaemon daemon({ReadRequest()});
    int code = 0;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ZARNSearchQuerySend("m", "q", 10, 0, Collect, nullptr, "a", 1, &code), 0);
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(code, ZARN_ERR_READ);
    EXPECT_GE(waited, std::chrono::seconds(19));
    EXPECT_LT(waited, std::chrono::seconds(25));
}

// ---- records -----------------------------------------------------------------

// A record as text: path|fs_name|extension|is_dir|doc_id|highlight ("-" for none).
std::string Describe(const Json::Value &hit) {
    std::unique_ptr<_tag_search_record, void (*)(_tag_search_record *)> r(Connection::BuildRecordFromJson(hit),
                                                                       ZARNQueryFreeRecord);
    return std::string(r->path) + "|" + r->fs_name + "|" + r->extension + "|" + std::to_string(r->is_dir) +
           "|" + std::to_string(r->doc_id) + "|" + (r->highlight != nullptr ? r->highlight : "-");
}

TEST(BuildRecord, FieldsFromTheHit) {
    const struct {
        const char *hit, *want;
        bool warned;  // "doc_id is not attached"
    } cases[] = {
        {R"({"ZARNMDPath":"/m/a.mp3","ZARNMDFSName":"a.mp3","ZARNMDExtension":"mp3","ZARNMDIsDir":"n",)"
         R"("additional":{"doc_id":42}})", "/m/a.mp3|a.mp3|mp3|0|42|-", false},
        {R"({"ZARNMDIsDir":"y","additional":{"doc_id":-7}})", "|||1|-7|-", false},
        {R"({"ZARNMDIsDir":"Y","additional":{"doc_id":2147483647}})", "|||0|2147483647|-", false},
        {R"({"ZARNMDIsDir":"yes","additional":{"doc_id":-2147483648}})", "|||0|-2147483648|-", false},
        {R"({"ZARNMDIsDir":true,"additional":{"doc_id":2147483648}})", "|||0|0|-", true},
        {R"({"ZARNMDIsDir":["y"],"additional":{"doc_id":-2147483649}})", "|||0|0|-", true},
        {R"({"additional":{"doc_id":1.5}})", "|||0|0|-", true},
        {R"({"additional":{"doc_id":"42"}})", "|||0|0|-", true},
        {R"({"additional":{"doc_id":null}})", "|||0|0|-", true},
        {R"({"additional":[42]})", "|||0|0|-", true},
        {R"({"additional":{}})", "|||0|0|-", true},
        {R"({"ZARNMDPath":7,"ZARNMDFSName":null,"ZARNMDExtension":["a"],"highlight":{}})", "|||0|0|", true},
        {R"({"ZARNMDPath":{"a":"b"},"ZARNMDFSName":true,"highlight":{"ZARNMDTextContent":"a <b>hit</b>"}})",
         "|||0|0|a <b>hit</b>", true},
        {R"({"highlight":{"ZARNMDTextContent":7}})", "|||0|0|", true},
        {R"({"highlight":{"ZARNMDTextContent":["a"]}})", "|||0|0|", true},
        {R"({"highlight":"<b>x</b>"})", "|||0|0|-", true},
        {R"({"highlight":[{"ZARNMDTextContent":"x"}]})", "|||0|0|-", true},
        {R"(["/m/a"])", "|||0|0|-", true},
        {R"("text")", "|||0|0|-", true},
    };
    for (const auto &c : cases) {
        ClearLogs();
        EXPECT_EQ(Describe(Parse(c.hit)), c.want) << c.hit;
        EXPECT_EQ(Logs().size(), c.warned ? 1u : 0u) << c.hit;
        if (c.warned) {
            EXPECT_EQ(LogsMatching("^connection\\.cpp:[0-9]+ doc_id is not attached to search result$").size(), 1u);
            EXPECT_EQ(Logs()[0].priority, LOG_WARNING);
        }
    }
    Connection::FreeRecord(nullptr);
    ZARNQueryFreeRecord(nullptr);
}

// Texts are cut by bytes, even inside a character.
TEST(BuildRecord, TextsAreCutByBytes) {
    Json::Value hit;
    hit["ZARNMDPath"] = std::string(4999, 'p') + "\xC3";
    hit["ZARNMDFSName"] = std::string(4094, 'n') + "\xC3";  // kept whole
    hit["ZARNMDExtension"] = std::string(19, 'e') + "\xC3";
    hit["highlight"]["ZARNMDTextContent"] = std::string(400, 'h');
    EXPECT_EQ(Describe(hit), std::string(4095, 'p') + "|" + std::string(4094, 'n') + "\xC3|" +
                                 std::string(15, 'e') + "|0|0|" + std::string(349, 'h'));
}

// ---- the rewrite -------------------------------------------------------------

Json::Value Rewrite(const Json::Value &request, ZARNQuerySorter *sorters = nullptr, int count = 0,
                    ConnectionFlag flags = CONNECTION_FLAG_NONE, unsigned uid = 1026) {
    return Connection::RewriteSearchQuery(request, uid, "finder", sorters, count, flags);
}

TEST(Rewrite, OnlyBitZeroOfTheFlagsAsksForHighlight) {
    for (unsigned bits : {0u, 1u, 2u, 3u}) {
        const Json::Value data = Rewrite(Envelope(), nullptr, 0, static_cast<ConnectionFlag>(bits))["data"];
        EXPECT_EQ(data["fields"].size(), bits & 1u ? 5u : 4u) << bits;
        EXPECT_EQ(data.isMember("highlight"), (bits & 1u) != 0) << bits;
    }
    EXPECT_THROW(Connection::RewriteSearchQuery(Envelope(), 1, nullptr, nullptr, 0, CONNECTION_FLAG_NONE),
                 std::exception);
}

TEST(Rewrite, KeepsWhatItDoesNotName) {
    Json::Value request = Envelope();
    request["extra"] = "kept";
    request["data"]["filters"] = Parse(R"([{"name":"x","data":1,"keep":true},{"name":"y"}])");
    request["data"]["collector"]["note"] = 5;
    request["data"]["fields"] = Parse(R"(["ZARNMDPath","Other"])");
    request["data"]["sorter"] = Parse(R"([{"nature_sort":true,"field":"old"},{"field":"second"}])");
    const Json::Value before = request;
    ZARNQuerySorter sorter = {0, "new"};
    const Json::Value out = Rewrite(request, &sorter, 1, CONNECTION_FLAG_NONE, 4294967295u);
    EXPECT_EQ(request, before);
    EXPECT_EQ(Text(out), R"({"command":"search","data":{"collector":{"agent":"finder","note":5,"uid":4294967295},)"
                         R"("fields":["ZARNMDPath","ZARNMDFSName","ZARNMDExtension","ZARNMDIsDir"],)"
                         R"("filters":[{"data":4294967295,"keep":true,"name":"permission"},{"name":"y"}],)"
                         R"("indice":["fileindex_music"],"sorter":[{"direction":"asc","field":"new",)"
                         R"("nature_sort":true},{"field":"second"}]},"extra":"kept"})");
    EXPECT_TRUE(out["data"]["collector"]["uid"].isUInt());
}

}  // namespace

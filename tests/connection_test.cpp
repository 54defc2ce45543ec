// The connection class and the callback search against the fake daemon; the
// records built from hit packets and the rewrite that completes every search
// request, which the streaming API shares.
#include <dirent.h>
#include <signal.h>

#include <chrono>
#include <memory>
#include <stdexcept>

#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/writer.h>

#include "harness.h"
#include "zarn_connection.h"

using ZARN::IR::DAEMON::Connection;
using namespace zarntest;

namespace {

std::vector<std::string> paths;  // what the searches delivered, "path#doc_id"
size_t stop_after = 0;           // Collect returns false on this hit

bool Collect(const _tag_search_record *record, void *) {
    paths.push_back(std::string(record->path) + "#" + std::to_string(record->doc_id));
    return paths.size() != stop_after;
}

bool Throw(const _tag_search_record *, void *) { throw std::runtime_error("caller's own"); }

// The daemon reads the request, sends `header`, hits /m/1#1 ... and `tail`.
std::vector<Step> Script(const std::string &header, int hits, std::vector<std::string> tail = {}) {
    std::vector<Step> script = {ReadRequest(), Send(header)};
    for (int i = 1; i <= hits; ++i) script.push_back(Send(Hit("/m/" + std::to_string(i), i)));
    for (const std::string &packet : tail) script.push_back(packet == "close" ? Close() : Send(packet));
    return script;
}

Json::Value Parse(const std::string &text) {
    Json::Value value;
    EXPECT_TRUE(Json::Reader().parse(text, value)) << text;
    return value;
}

const Json::Value kEnvelope = Parse(R"({"command":"search","data":{"indice":["fileindex_music"]}})");

// Compact text with members in key order: compares across JsonCpp's signed
// and unsigned integers, which operator== tells apart.
std::string Text(const Json::Value &value) {
    Json::StreamWriterBuilder compact;
    compact["indentation"] = "";
    return Json::writeString(compact, value);
}

int OpenDescriptors() {
    int count = 0;
    DIR *dir = opendir("/proc/self/fd");
    while (readdir(dir) != nullptr) ++count;
    closedir(dir);
    return count;
}

TEST(Connection, HoldsItsSocketItsFlagAndItsFirstError) {
    Connection plain, with_int(12345);
    for (Connection *c : {&plain, &with_int}) {
        EXPECT_EQ(c->GetError(), CONNECTION_ERROR_NONE);
        EXPECT_FALSE(c->SendQuery(kEnvelope, Collect, nullptr, "a", 1));  // no socket
        EXPECT_EQ(c->GetError(), CONNECTION_ERROR_INVALID);
    }
    const int before = OpenDescriptors();
    signal(SIGPIPE, SIG_DFL);
    EXPECT_FALSE(plain.Connect(20, CONNECTION_FLAG_NONE));
    EXPECT_EQ(plain.GetError(), CONNECTION_ERROR_CONNECT);
    struct sigaction pipe_action;
    sigaction(SIGPIPE, nullptr, &pipe_action);
    EXPECT_EQ(pipe_action.sa_handler, SIG_IGN);
    ExpectOneLog("^connection\\.cpp:[0-9]+ Connect domain socket failed, No such file or directory$");
    // The failed connection's socket is held: it passes the first check and
    // the write fails.
    EXPECT_EQ(OpenDescriptors(), before + 1);
    EXPECT_FALSE(plain.SendQuery(kEnvelope, Collect, nullptr, "a", 1));
    EXPECT_EQ(plain.GetError(), CONNECTION_ERROR_WRITE);
    plain.Close();
    plain.Close();
    EXPECT_EQ(OpenDescriptors(), before);
    {
        // A later success leaves the error as it was; the destructor closes.
        FakeDaemon daemon(Script(R"({"total":0})", 0));
        Connection highlighted;
        ASSERT_TRUE(plain.Connect(20, CONNECTION_FLAG_NONE) && highlighted.Connect(20, CONNECTION_FLAG_HIGHLIGHT));
        EXPECT_TRUE(plain.SendQuery(kEnvelope, Collect, nullptr, "a", 1));
        EXPECT_EQ(plain.GetError(), CONNECTION_ERROR_WRITE);
        plain.SetError(CONNECTION_ERROR_READ);
        EXPECT_EQ(plain.GetError(), CONNECTION_ERROR_READ);
        EXPECT_FALSE(highlighted.ProcessRepsonse(nullptr, nullptr));
        EXPECT_EQ(highlighted.GetError(), CONNECTION_ERROR_INVALID);
        // The flag given to Connect completes the request.
        EXPECT_TRUE(highlighted.SendQuery(kEnvelope, Collect, nullptr, "finder", 3000000000u));
        plain.Close();
        daemon.WaitFinished(2);
        EXPECT_EQ(Text(daemon.Request(1)),
                  Text(Connection::RewriteSearchQuery(kEnvelope, 3000000000u, "finder", nullptr, 0,
                                                      CONNECTION_FLAG_HIGHLIGHT)));
    }
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST(SendQuery, ReadsTheResponseStream) {
    const struct {
        std::vector<Step> script;
        size_t stop_after;
        bool result;
        int error;
        size_t hits;
        const char *log;
    } cases[] = {
        {Script(R"({"total":0})", 1, {"{}"}), 0, true, 0, 0, nullptr},
        {Script(R"({"success":false})", 1, {"{}"}), 0, true, 0, 0, nullptr},
        {Script(R"({"total":-3})", 1, {"{}"}), 0, true, 0, 0, nullptr},
        {Script(R"({"total":9})", 2, {R"({"success":true})"}), 0, true, 0, 2, nullptr},
        {Script(R"({"total":2})", 2, {"{oops"}), 0, true, 0, 2, nullptr},  // nothing read beyond "total"
        {Script(R"({"total":3})", 3, {"{}"}), 1, true, 0, 1, nullptr},
        {Script(R"({"total":3})", 1, {R"({"total":9,"success":1})"}), 0, true, 0, 1, nullptr},
        {Script("{\"total\":", 0), 0, false, -4, 0, R"(response format is wrong: \{"total":$)"},
        {Script("[7]", 0), 0, false, -4, 0, R"(response format is wrong: \[7\]$)"},
        {Script(R"({"total":3})", 1, {"{oops"}), 0, false, -4, 1, R"(response format is wrong: \{oops$)"},
        {Script(R"({"total":3})", 1, {"\"hit\""}), 0, false, -4, 1, R"(response format is wrong: "hit"$)"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.script[1].data + " " + std::to_string(c.hits));
        ClearLogs();
        paths.clear();
        stop_after = c.stop_after;
        FakeDaemon daemon(c.script);
        Connection connection;
        ASSERT_TRUE(connection.Connect(20, CONNECTION_FLAG_NONE));
        EXPECT_EQ(connection.SendQuery(kEnvelope, Collect, nullptr, "finder", 1026), c.result);
        EXPECT_EQ(connection.GetError(), c.error);
        const std::vector<std::string> all = {"/m/1#1", "/m/2#2", "/m/3#3"};
        EXPECT_EQ(paths, std::vector<std::string>(all.begin(), all.begin() + c.hits));
        ExpectOneLog(c.log ? (std::string("^connection\\.cpp:[0-9]+ ") + c.log).c_str() : nullptr);
    }
    stop_after = 0;
}

TEST(SendQuery, RefusesWhatItCannotSend) {
    FakeDaemon daemon;
    Connection connection;
    ASSERT_TRUE(connection.Connect(20, CONNECTION_FLAG_NONE));
    for (const Json::Value &request : {Json::Value(Json::arrayValue), Json::Value("search"), kEnvelope}) {
        connection.SetError(CONNECTION_ERROR_NONE);
        EXPECT_FALSE(connection.SendQuery(request, request.isObject() ? nullptr : Collect, nullptr, "a", 1));
        EXPECT_EQ(connection.GetError(), CONNECTION_ERROR_INVALID);
    }
    connection.Close();
    EXPECT_TRUE(daemon.WaitFinished(1).at(0).requests.empty());
    ExpectOneLog(nullptr);
}

// ---- ZARNSearchQuerySend -----------------------------------------------------
// Daemons close after their last packet, so that the descriptors counted once
// they have finished are the library's alone.

TEST(SearchQuerySend, SendsTheRequestDeliversTheHitsAndCloses) {
    FakeDaemon daemon(Script(R"({"total":2})", 2, {"close"}));
    paths.clear();
    int code = 12345;
    const int before = OpenDescriptors();
    EXPECT_EQ(ZARNSearchQuerySend("music", "caf\xc3\xa9", 50, 3, Collect, nullptr, "finder", 1026, &code), 1);
    EXPECT_EQ(code, 12345);
    EXPECT_EQ(paths, (std::vector<std::string>{"/m/1#1", "/m/2#2"}));
    EXPECT_EQ(daemon.WaitFinished(1).at(0).requests.at(0),
              R"({"command":"search","data":{"collector":{"agent":"finder","uid":1026},)"
              R"("fields":["ZARNMDPath","ZARNMDFSName","ZARNMDExtension","ZARNMDIsDir"],)"
              R"("filters":[{"data":1026,"name":"permission"}],"from":150,)"
              R"("indice":["fileindex_music"],"query_string":{"query":"caf)" "\xc3\xa9" R"("},"size":50}})");
    EXPECT_EQ(OpenDescriptors(), before);
    // A callback's exception passes through, the connection closed all the same.
    daemon.Queue(Script(R"({"total":2})", 2, {"close"}));
    EXPECT_THROW(ZARNSearchQuerySend("m", "q", 10, 0, Throw, nullptr, "a", 1, &code), std::runtime_error);
    EXPECT_EQ(code, 12345);
    daemon.WaitFinished(2);
    EXPECT_EQ(OpenDescriptors(), before);
}

// A refused call connects to nobody; a null agent is sent as "".
TEST(SearchQuerySend, RefusesArgumentsAndSendsPagesAndAgents) {
    {
        FakeDaemon daemon(Script(R"({"total":0})", 0));
        int codes[7] = {};
        const int results[] = {
            ZARNSearchQuerySend(nullptr, "q", 10, 0, Collect, nullptr, "a", 1, &codes[0]),
            ZARNSearchQuerySend("m", nullptr, 10, 0, Collect, nullptr, "a", 1, &codes[1]),
            ZARNSearchQuerySend("m", "q", 10, 0, nullptr, nullptr, "a", 1, &codes[2]),
            ZARNSearchQuerySend("m", "q", -1, 0, Collect, nullptr, "a", 1, &codes[3]),
            ZARNSearchQuerySend("m", "q", 10, -1, Collect, nullptr, "a", 1, &codes[4]),
            ZARNSearchQuerySend("m", "q", 65536, 32768, Collect, nullptr, "a", 1, &codes[5]),
            ZARNSearchQuerySend("m", "q", 10, 0, Collect, nullptr, "a", 1, nullptr),
        };
        for (int i = 0; i < 7; ++i) EXPECT_EQ(std::to_string(results[i]) + " " + std::to_string(codes[i]), i < 6 ? "0 -1" : "0 0");
        EXPECT_EQ(daemon.Accepted(), 0u);
        EXPECT_EQ(ZARNSearchQuerySend("m", "q", 0, 0, Collect, nullptr, nullptr, 1, &codes[6]), 1);
        EXPECT_EQ(ZARNSearchQuerySend("m", "q", 1, 2147483647, Collect, nullptr, "y", 1, &codes[6]), 1);
        daemon.WaitFinished(2);
        EXPECT_EQ(Text(daemon.Request(0)["data"]["collector"]) + Text(daemon.Request(1)["data"]["from"]),
                  R"({"agent":"","uid":1})" "2147483647");
        ExpectOneLog(nullptr);
    }
    int code = 0;
    EXPECT_EQ(ZARNSearchQuerySend("m", "q", 10, 0, Collect, nullptr, "a", 1, &code), 0);  // no daemon
    EXPECT_EQ(code, ZARN_ERR_CONNECT);
    ExpectOneLog("^connection\\.cpp:[0-9]+ Connect domain socket failed, ");
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

// ---- records and the rewrite -------------------------------------------------

// A record as text: path|fs_name|extension|is_dir|doc_id|highlight ("-" for none).
std::string Describe(const Json::Value &hit) {
    std::unique_ptr<_tag_search_record, void (*)(_tag_search_record *)> r(Connection::BuildRecordFromJson(hit),
                                                                       ZARNQueryFreeRecord);
    return std::string(r->path) + "|" + r->fs_name + "|" + r->extension + "|" + std::to_string(r->is_dir) +
           "|" + std::to_string(r->doc_id) + "|" + (r->highlight != nullptr ? r->highlight : "-");
}

// Members of another type give empty texts; doc_id must be a 32-bit integer.
TEST(BuildRecord, FieldsFromTheHit) {
    const struct {
        const char *hit, *want;
        bool warned;  // that doc_id is missing
    } cases[] = {
        {R"({"ZARNMDPath":"/m/a.mp3","ZARNMDFSName":"a.mp3","ZARNMDExtension":"mp3","ZARNMDIsDir":"n",)"
         R"("additional":{"doc_id":42}})", "/m/a.mp3|a.mp3|mp3|0|42|-", false},
        {R"({"ZARNMDIsDir":"y","additional":{"doc_id":-2147483648}})", "|||1|-2147483648|-", false},
        {R"({"ZARNMDIsDir":"Y","additional":{"doc_id":2147483647}})", "|||0|2147483647|-", false},
        {R"({"ZARNMDIsDir":"yes","additional":{"doc_id":2147483648}})", "|||0|0|-", true},
        {R"({"ZARNMDIsDir":["y"],"additional":{"doc_id":-2147483649}})", "|||0|0|-", true},
        {R"({"ZARNMDPath":7,"ZARNMDFSName":null,"ZARNMDExtension":["a"],"additional":{"doc_id":1.5},)"
         R"("highlight":{}})", "|||0|0|", true},
        {R"({"ZARNMDPath":{"a":"b"},"ZARNMDFSName":true,"additional":{"doc_id":"42"},)"
         R"("highlight":{"ZARNMDTextContent":"a <b>hit</b>"}})", "|||0|0|a <b>hit</b>", true},
        {R"({"additional":[42],"highlight":{"ZARNMDTextContent":7}})", "|||0|0|", true},
        {R"({"additional":{},"highlight":"<b>x</b>"})", "|||0|0|-", true},
        {R"({"highlight":[{"ZARNMDTextContent":"x"}]})", "|||0|0|-", true},
        {R"(["/m/a"])", "|||0|0|-", true},
    };
    for (const auto &c : cases) {
        ClearLogs();
        EXPECT_EQ(Describe(Parse(c.hit)), c.want) << c.hit;
        ExpectOneLog(c.warned ? "^connection\\.cpp:[0-9]+ doc_id is not attached to search result$" : nullptr,
                     LOG_WARNING);
    }
    Json::Value hit;  // texts are cut by bytes, even inside a character
    hit["ZARNMDPath"] = std::string(4999, 'p') + "\xC3";
    hit["ZARNMDFSName"] = std::string(4094, 'n') + "\xC3";  // kept whole
    hit["ZARNMDExtension"] = std::string(19, 'e') + "\xC3";
    hit["highlight"]["ZARNMDTextContent"] = std::string(400, 'h');
    EXPECT_EQ(Describe(hit), std::string(4095, 'p') + "|" + std::string(4094, 'n') + "\xC3|" +
                                 std::string(15, 'e') + "|0|0|" + std::string(349, 'h'));
    ZARNQueryFreeRecord(nullptr);
}

// A copy of the request, completed around what it does not name; only bit 0
// of the flags asks for the highlight.
TEST(Rewrite, KeepsWhatItDoesNotName) {
    const Json::Value request = Parse(
        R"({"command":"search","extra":"kept","data":{"indice":["fileindex_music"],"collector":{"note":5},)"
        R"("filters":[{"name":"x","data":1,"keep":true},{"name":"y"}],"fields":["ZARNMDPath","Other"],)"
        R"("sorter":[{"nature_sort":true,"field":"old"},{"field":"second"}]}})");
    ZARNQuerySorter sorter = {0, "new"};
    const Json::Value out =
        Connection::RewriteSearchQuery(request, 4294967295u, "finder", &sorter, 1, static_cast<ConnectionFlag>(2));
    EXPECT_EQ(Text(out), R"({"command":"search","data":{"collector":{"agent":"finder","note":5,"uid":4294967295},)"
                         R"("fields":["ZARNMDPath","ZARNMDFSName","ZARNMDExtension","ZARNMDIsDir"],)"
                         R"("filters":[{"data":4294967295,"keep":true,"name":"permission"},{"name":"y"}],)"
                         R"("indice":["fileindex_music"],"sorter":[{"direction":"asc","field":"new",)"
                         R"("nature_sort":true},{"field":"second"}]},"extra":"kept"})");
    EXPECT_TRUE(out["data"]["collector"]["uid"].isUInt());
    EXPECT_THROW(Connection::RewriteSearchQuery(kEnvelope, 1, nullptr, nullptr, 0, CONNECTION_FLAG_NONE),
                 std::exception);
}

}  // namespace

// The two search APIs against the fake daemon: the streaming handle, opening
// a search and reading its total and hits with each reader and mixes of them;
// the connection class and the callback search; the records built from hit
// packets.
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <utility>

#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/writer.h>

#include "harness.h"
#include "zarn_connection.h"

using ZARN::IR::DAEMON::Connection;
using namespace zarntest;

namespace {

std::vector<Step> Sends(const std::vector<std::string> &packets) {
    std::vector<Step> script;
    for (const std::string &p : packets) script.push_back(Send(p));
    return script;
}

// A connected handle on a fake daemon that plays `script`.
struct Stream {
    FakeDaemon daemon;
    ZARNQueryHandle *h = nullptr;
    explicit Stream(std::vector<Step> script) : daemon(std::move(script)) { EXPECT_EQ(ZARNQueryConnectionInit(&h), 0); }
    ~Stream() { ZARNQueryConnectionClose(h); }
    // One read as text: N GetNextRecord (path, "end" or the code), F FetchNext
    // waiting 5 s and Z not waiting (path or "null"), C Count.
    std::string Read(char op) {
        if (op == 'C') return std::to_string(ZARNQueryCount(h));
        _tag_search_record *r = nullptr;
        const int code = op == 'N' ? ZARNQueryGetNextRecord(h, &r) : 0;
        if (op != 'N') r = ZARNQueryFetchNext(h, timeval{op == 'F' ? 5 : 0, 0});
        const std::string out = code != 0 ? std::to_string(code) : r ? r->path : op == 'N' ? "end" : "null";
        ZARNQueryFreeRecord(r);
        return out;
    }
};

// A failed connect keeps the handle (and its socket) for Close; a good one
// has both time-outs at 20 s, the socket alone in read_fds, no total yet.
TEST(QueryInit, ConnectsWithTimeOutsOrKeepsTheHandleForClose) {
    EXPECT_EQ(ZARNQueryConnectionInit(nullptr), ZARN_ERR_INVALID);
    ZARNQueryConnectionClose(nullptr);
    ZARNQueryHandle *handle = nullptr;
    EXPECT_EQ(ZARNQueryConnectionInit(&handle), ZARN_ERR_CONNECT);
    const int fd = handle->fd;
    EXPECT_NE(fcntl(fd, F_GETFD), -1);
    ZARNQueryConnectionClose(handle);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    ExpectOneLog("^query_init_cwrap\\.cpp:[0-9]+ Connect domain socket failed, No such file or directory$");
    ClearLogs();
    signal(SIGPIPE, SIG_DFL);  // ignored from here on: a write to a daemon gone fails instead
    Stream s(std::vector<Step>{});
    EXPECT_EQ(signal(SIGPIPE, SIG_DFL), SIG_IGN);
    EXPECT_EQ(s.h->total, -1);
    for (int i = 0; i < FD_SETSIZE; ++i) EXPECT_EQ(i == s.h->fd, FD_ISSET(i, &s.h->read_fds) != 0);
    for (int option : {SO_RCVTIMEO, SO_SNDTIMEO}) {
        timeval timeout = {0, 0};
        socklen_t size = sizeof timeout;
        EXPECT_EQ(getsockopt(s.h->fd, SOL_SOCKET, option, &timeout, &size) + timeout.tv_sec * 1000000 + timeout.tv_usec,
                  20000000);
    }
    EXPECT_EQ(s.daemon.WaitFinished(1).size(), 1u);
    ExpectOneLog(nullptr);
}

// The request, with the page, the sort keys and the highlight request; a
// refused call writes nothing; a null sort array is never read for a count of
// zero or less.
TEST(Open, WritesTheCompletedRequestOrNothing) {
    Stream s({ReadRequest(), ReadRequest(), ReadRequest()});
    ZARNQuerySorter sorters[] = {{3, "a"}, {0, "b"}}, null_field[] = {{0, "a"}, {1, nullptr}};
    const ConnectionFlag none = CONNECTION_FLAG_NONE;
    const int codes[] = {
        ZARNQueryConnectionOpen(nullptr, "m", "q", nullptr, 0, 0, 20, "a", 1, none),
        ZARNQueryConnectionOpen(s.h, nullptr, "q", nullptr, 0, 0, 20, "a", 1, none),
        ZARNQueryConnectionOpen(s.h, "m", nullptr, nullptr, 0, 0, 20, "a", 1, none),
        ZARNQueryConnectionOpen(s.h, "m", "q", nullptr, 0, -1, 20, "a", 1, none),
        ZARNQueryConnectionOpen(s.h, "m", "q", nullptr, 0, 0, 0, "a", 1, none),
        ZARNQueryConnectionOpen(s.h, "m", "q", nullptr, 0, 1073741824, 2, "a", 1, none),
        ZARNQueryConnectionOpen(s.h, "m", "q", nullptr, 0, 0, 20, nullptr, 1, none),
        ZARNQueryConnectionOpen(s.h, "m", "q", nullptr, 1, 0, 20, "a", 1, none),
        ZARNQueryConnectionOpen(s.h, "m", "q", null_field, 2, 0, 20, "a", 1, none),
    };
    for (int code : codes) EXPECT_EQ(code, ZARN_ERR_INVALID);
    EXPECT_EQ(ZARNQueryConnectionOpen(s.h, "music", "love", sorters, 2, 3, 20, "finder", 3000000000u,
                                      CONNECTION_FLAG_HIGHLIGHT), 0);
    EXPECT_EQ(ZARNQueryConnectionOpen(s.h, "m", "", nullptr, -3, 7, 1, "", 1, none), ZARN_OK);
    EXPECT_EQ(ZARNQueryConnectionOpen(s.h, "m", "q", nullptr, 0, 1073741823, 2, "a", 1, none), ZARN_OK);
    EXPECT_EQ(s.h->total, -1);
    const std::vector<std::string> sent = s.daemon.WaitFinished(1).at(0).requests;
    ASSERT_EQ(sent.size(), 3u);
    EXPECT_EQ(sent[0], R"({"command":"search","data":{"collector":{"agent":"finder","uid":3000000000},)"
                       R"("fields":["ZARNMDPath","ZARNMDFSName","ZARNMDExtension","ZARNMDIsDir","ZARNMDTextContent"],)"
                       R"("filters":[{"data":3000000000,"name":"permission"}],"from":60,)"
                       R"("highlight":[{"field":"ZARNMDTextContent","frag_length":350}],"indice":["fileindex_music"],)"
                       R"("query_string":{"query":"love"},"size":20,"sorter":[{"direction":"desc","field":"a",)"
                       R"("nature_sort":true},{"direction":"asc","field":"b"}]}})");
    EXPECT_NE(sent[1].find(R"("from":7,"indice":["fileindex_m"],"query_string":{"query":""},"size":1})"),
              std::string::npos);
    EXPECT_NE(sent[2].find(R"("from":2147483646,)"), std::string::npos);
    ZARNQueryHandle no_socket = {};
    no_socket.fd = -1;
    EXPECT_EQ(ZARNQueryConnectionOpen(&no_socket, "m", "q", nullptr, 0, 0, 20, "a", 0, none), ZARN_ERR_WRITE);
    ExpectOneLog(nullptr);
}

// Each reader, alone and mixed with the others, on one reply stream.
TEST(Readers, ReadTheReplyStream) {
    const std::string a = Hit("/m/a", 7).toStyledString(), b = Hit("/m/b", 7).toStyledString();
    const std::string header2 = R"({"total":2})", end = R"({"success":true})";
    const struct {
        std::vector<Step> script;
        const char *ops, *want;
        int total;
        const char *log;
    } cases[] = {
        {Sends({header2, a, b, end}), "NFN", "/m/a /m/b end", 2, nullptr},
        {Sends({header2, a, b, end}), "CNCFF", "2 /m/a 2 /m/b null", 2, nullptr},
        {Sends({R"({"total":120})", a, b, end}), "FCFN", "/m/a 120 /m/b end", 120, nullptr},
        {Sends({R"({"total":1,"success":true})", a, end}), "NN", "/m/a end", 1, nullptr},
        {Sends({R"({"total":0})", end}), "CN", "0 end", 0, nullptr},
        {Sends({R"({"success":false})"}), "N", "end", -1, nullptr},  // an error reply as the header
        {Sends({R"({"total":-5})", end}), "N", "end", 0, nullptr},    // never back to "unread"
        {Sends({R"({"total":-5})"}), "C", "0", 0, nullptr},
        {{ReadRequest()}, "Z", "null", -1, nullptr},
        {Sends({header2, "{\"total\":"}), "N", "-4", 2, R"(^query_get_cwrap\.cpp:[0-9]+ response format is wrong: \{"total":$)"},
        // Count reads for the header once; a packet that is not one is spent.
        {Sends({R"({"success":false})", R"({"total":5})"}), "CC", "0 0", 0,
         R"(^query_count_cwrap\.cpp:[0-9]+ response format is wrong: \{"success":false\}$)"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.want);
        ClearLogs();
        Stream s(c.script);
        std::string got;
        for (const char *op = c.ops; *op != '\0'; ++op) got += (got.empty() ? "" : " ") + s.Read(*op);
        EXPECT_EQ(got, c.want);
        EXPECT_EQ(s.h->total, c.total);
        ExpectOneLog(c.log);
    }
}

// Nothing is read through a null handle or into a null record; FetchNext
// cannot wait on a descriptor outside read_fds and leaves the handle as it is.
TEST(Readers, RefuseNullAndUnusableHandles) {
    _tag_search_record *record = nullptr;
    EXPECT_EQ(ZARNQueryGetNextRecord(nullptr, &record) + ZARNQueryCount(nullptr), ZARN_ERR_INVALID);
    EXPECT_EQ(ZARNQueryFetchNext(nullptr, timeval{0, 0}), nullptr);
    EXPECT_EQ(LogsMatching("^query_(get|fetch|count)_cwrap\\.cpp:[0-9]+ connection is NULL\\. ").size(), 3u);
    for (int fd : {-1, FD_SETSIZE}) {
        ZARNQueryHandle handle, before;
        std::memset(&handle, 0xA5, sizeof handle);
        handle.fd = fd;
        before = handle;
        EXPECT_EQ(ZARNQueryFetchNext(&handle, timeval{0, 0}), nullptr);
        EXPECT_EQ(std::memcmp(&handle, &before, sizeof handle), 0) << fd;
    }
    EXPECT_EQ(LogsMatching("^query_fetch_cwrap\\.cpp:[0-9]+ socket descriptor -?[0-9]+ cannot be waited on$").size(), 2u);
    Stream s(Sends({R"({"total":2})"}));
    EXPECT_EQ(ZARNQueryGetNextRecord(s.h, nullptr), ZARN_ERR_INVALID);
    EXPECT_EQ(ZARNQueryCount(s.h), 2);
}


std::vector<std::string> paths;  // what the searches delivered, "path#doc_id"
size_t stop_after = 0;           // Collect returns false on this hit

bool Collect(const _tag_search_record *record, void *) {
    paths.push_back(std::string(record->path) + "#" + std::to_string(record->doc_id));
    return paths.size() != stop_after;
}

// The daemon reads the request, sends `header`, hits /m/1#1 ... and `tail`.
std::vector<Step> Script(const std::string &header, int hits, const char *tail = nullptr) {
    std::vector<Step> script = {ReadRequest(), Send(header)};
    for (int i = 1; i <= hits; ++i) script.push_back(Send(Hit("/m/" + std::to_string(i), i)));
    if (tail != nullptr) script.push_back(Send(tail));
    return script;
}

Json::Value Parse(const std::string &text) {
    Json::Value value;
    Json::Reader().parse(text, value);
    return value;
}

// Compact, members in key order: compares across JsonCpp's signed and
// unsigned integers, which operator== tells apart.
std::string Text(const Json::Value &value) {
    Json::StreamWriterBuilder compact;
    compact["indentation"] = "";
    return Json::writeString(compact, value);
}

const Json::Value kEnvelope = Parse(R"({"command":"search","data":{"indice":["fileindex_music"]}})");

TEST(Connection, RefusesWhatItCannotSendAndSendsItsFlag) {
    Connection connection;
    EXPECT_FALSE(connection.SendQuery(kEnvelope, Collect, nullptr, "a", 1));  // no socket
    EXPECT_EQ(connection.GetError(), CONNECTION_ERROR_INVALID);
    signal(SIGPIPE, SIG_DFL);
    EXPECT_FALSE(connection.Connect(20, CONNECTION_FLAG_NONE));
    EXPECT_EQ(connection.GetError(), CONNECTION_ERROR_CONNECT);
    EXPECT_EQ(signal(SIGPIPE, SIG_DFL), SIG_IGN);
    ExpectOneLog("^connection\\.cpp:[0-9]+ Connect domain socket failed, No such file or directory$");
    FakeDaemon daemon(Script(R"({"total":0})", 0));
    Connection highlighted;
    ASSERT_TRUE(highlighted.Connect(20, CONNECTION_FLAG_HIGHLIGHT));
    for (const Json::Value &request : {Json::Value(Json::arrayValue), Json::Value("search"), kEnvelope}) {
        highlighted.SetError(CONNECTION_ERROR_NONE);
        EXPECT_FALSE(highlighted.SendQuery(request, request.isObject() ? nullptr : Collect, nullptr, "a", 1));
        EXPECT_EQ(highlighted.GetError(), CONNECTION_ERROR_INVALID);
    }
    EXPECT_FALSE(highlighted.ProcessRepsonse(nullptr, nullptr));
    EXPECT_TRUE(highlighted.SendQuery(kEnvelope, Collect, nullptr, "finder", 3000000000u));
    EXPECT_EQ(Text(daemon.Request(0)), Text(Connection::RewriteSearchQuery(kEnvelope, 3000000000u, "finder", nullptr,
                                                                           0, CONNECTION_FLAG_HIGHLIGHT)));
    highlighted.Close();
    highlighted.Close();
    EXPECT_TRUE(daemon.WaitClosed(1).at(0).peer_closed);
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
        {Script(R"({"total":0})", 1, "{}"), 0, true, 0, 0, nullptr},
        {Script(R"({"success":false})", 1, "{}"), 0, true, 0, 0, nullptr},
        {Script(R"({"total":-3})", 1, "{}"), 0, true, 0, 0, nullptr},
        {Script(R"({"total":9})", 2, R"({"success":true})"), 0, true, 0, 2, nullptr},
        {Script(R"({"total":2})", 2, "{oops"), 0, true, 0, 2, nullptr},  // nothing read beyond "total"
        {Script(R"({"total":3})", 3, "{}"), 1, true, 0, 1, nullptr},
        {Script(R"({"total":3})", 1, R"({"total":9,"success":1})"), 0, true, 0, 1, nullptr},
        {Script("{\"total\":", 0), 0, false, -4, 0, R"(\{"total":$)"},
        {Script("[7]", 0), 0, false, -4, 0, R"(\[7\]$)"},
        {Script(R"({"total":3})", 1, "{oops"), 0, false, -4, 1, R"(\{oops$)"},
        {Script(R"({"total":3})", 1, "\"hit\""), 0, false, -4, 1, R"("hit"$)"},
    };
    const std::vector<std::string> all = {"/m/1#1", "/m/2#2", "/m/3#3"};
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
        EXPECT_EQ(paths, std::vector<std::string>(all.begin(), all.begin() + c.hits));
        ExpectOneLog(c.log ? (std::string("^connection\\.cpp:[0-9]+ response format is wrong: ") + c.log).c_str()
                           : nullptr);
    }
    stop_after = 0;
}

// The request sent, the hits delivered, a callback's exception passed through
// and the connection closed either way.
TEST(SearchQuerySend, SendsTheRequestDeliversTheHitsAndCloses) {
    FakeDaemon daemon(Script(R"({"total":2})", 2));
    int code = 12345;
    EXPECT_EQ(ZARNSearchQuerySend("music", "caf\xc3\xa9", 50, 3, Collect, nullptr, "finder", 1026, &code), 1);
    EXPECT_EQ(code, 12345);
    EXPECT_EQ(paths, (std::vector<std::string>{"/m/1#1", "/m/2#2"}));
    EXPECT_EQ(daemon.WaitClosed(1).at(0).requests.at(0),
              R"({"command":"search","data":{"collector":{"agent":"finder","uid":1026},)"
              R"("fields":["ZARNMDPath","ZARNMDFSName","ZARNMDExtension","ZARNMDIsDir"],)"
              R"("filters":[{"data":1026,"name":"permission"}],"from":150,)"
              R"("indice":["fileindex_music"],"query_string":{"query":"caf)" "\xc3\xa9" R"("},"size":50}})");
    const auto thrower = [](const _tag_search_record *, void *) -> bool { throw std::runtime_error("caller's"); };
    EXPECT_THROW(ZARNSearchQuerySend("m", "q", 10, 0, thrower, nullptr, "a", 1, &code), std::runtime_error);
    EXPECT_TRUE(daemon.WaitClosed(2).at(1).peer_closed);
    // A refused call connects to nobody; a null agent is sent as "".
    const auto result = [&code](int r) { return std::to_string(r) + " " + std::to_string(std::exchange(code, 0)); };
    for (const std::string &refused : {result(ZARNSearchQuerySend(nullptr, "q", 10, 0, Collect, nullptr, "a", 1, &code)),
                                       result(ZARNSearchQuerySend("m", nullptr, 10, 0, Collect, nullptr, "a", 1, &code)),
                                       result(ZARNSearchQuerySend("m", "q", 10, 0, nullptr, nullptr, "a", 1, &code)),
                                       result(ZARNSearchQuerySend("m", "q", -1, 0, Collect, nullptr, "a", 1, &code)),
                                       result(ZARNSearchQuerySend("m", "q", 10, -1, Collect, nullptr, "a", 1, &code)),
                                       result(ZARNSearchQuerySend("m", "q", 65536, 32768, Collect, nullptr, "a", 1, &code))})
        EXPECT_EQ(refused, "0 -1");
    EXPECT_EQ(ZARNSearchQuerySend("m", "q", 10, 0, Collect, nullptr, "a", 1, nullptr), 0);
    EXPECT_EQ(daemon.Accepted(), 2u);
    EXPECT_EQ(ZARNSearchQuerySend("m", "q", 0, 0, Collect, nullptr, nullptr, 1, &code), 1);
    EXPECT_EQ(ZARNSearchQuerySend("m", "q", 1, 2147483647, Collect, nullptr, "y", 1, &code), 1);
    daemon.WaitFinished(4);
    EXPECT_EQ(Text(daemon.Request(2)["data"]["collector"]) + Text(daemon.Request(3)["data"]["from"]),
              R"({"agent":"","uid":1})" "2147483647");
    ExpectOneLog(nullptr);
}

TEST(SearchQuerySend, SilentDaemonTimesOutAfterTwentySeconds) {
    int code = 0;
    EXPECT_EQ(ZARNSearchQuerySend("m", "q", 10, 0, Collect, nullptr, "a", 1, &code), 0);  // no daemon
    EXPECT_EQ(code, ZARN_ERR_CONNECT);
    FakeDaemon daemon({ReadRequest()});
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ZARNSearchQuerySend("m", "q", 10, 0, Collect, nullptr, "a", 1, &code), 0);
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(code, ZARN_ERR_READ);
    EXPECT_GE(waited, std::chrono::seconds(19));
    EXPECT_LT(waited, std::chrono::seconds(25));
}

// A record as text: path|fs_name|extension|is_dir|doc_id|highlight ("-" for
// none).  Members of another type give empty texts; doc_id must be a 32-bit
// integer, else it is 0 with a warning.
TEST(BuildRecord, FieldsFromTheHit) {
    const auto describe = [](const Json::Value &hit) {
        std::unique_ptr<_tag_search_record, void (*)(_tag_search_record *)> r(Connection::BuildRecordFromJson(hit),
                                                                           ZARNQueryFreeRecord);
        return std::string(r->path) + "|" + r->fs_name + "|" + r->extension + "|" + std::to_string(r->is_dir) +
               "|" + std::to_string(r->doc_id) + "|" + (r->highlight != nullptr ? r->highlight : "-");
    };
    const struct {
        const char *hit, *want;
        bool warned;
    } cases[] = {
        {R"({"ZARNMDPath":"/m/a.mp3","ZARNMDFSName":"a.mp3","ZARNMDExtension":"mp3","ZARNMDIsDir":"n",)"
         R"("additional":{"doc_id":42}})", "/m/a.mp3|a.mp3|mp3|0|42|-", false},
        {R"({"ZARNMDIsDir":"y","additional":{"doc_id":-2147483648}})", "|||1|-2147483648|-", false},
        {R"({"ZARNMDIsDir":"yes","additional":{"doc_id":2147483648}})", "|||0|0|-", true},
        {R"({"ZARNMDPath":7,"ZARNMDFSName":null,"ZARNMDExtension":["a"],"additional":{"doc_id":1.5},)"
         R"("highlight":{}})", "|||0|0|", true},
        {R"({"ZARNMDPath":{"a":"b"},"ZARNMDFSName":true,"additional":{"doc_id":"42"},)"
         R"("highlight":{"ZARNMDTextContent":"a <b>hit</b>"}})", "|||0|0|a <b>hit</b>", true},
        {R"({"additional":{},"highlight":[{"ZARNMDTextContent":"x"}]})", "|||0|0|-", true},
        {R"(["/m/a"])", "|||0|0|-", true},
    };
    for (const auto &c : cases) {
        ClearLogs();
        EXPECT_EQ(describe(Parse(c.hit)), c.want) << c.hit;
        ExpectOneLog(c.warned ? "^connection\\.cpp:[0-9]+ doc_id is not attached to search result$" : nullptr,
                     LOG_WARNING);
    }
    Json::Value hit;  // texts are cut by bytes, even inside a character
    hit["ZARNMDPath"] = std::string(4999, 'p') + "\xC3";
    hit["ZARNMDFSName"] = std::string(4094, 'n') + "\xC3";  // kept whole
    hit["ZARNMDExtension"] = std::string(19, 'e') + "\xC3";
    hit["highlight"]["ZARNMDTextContent"] = std::string(400, 'h');
    EXPECT_EQ(describe(hit), std::string(4095, 'p') + "|" + std::string(4094, 'n') + "\xC3|" + std::string(15, 'e') +
                                 "|0|0|" + std::string(349, 'h'));
    ZARNQueryFreeRecord(nullptr);
}

}  // namespace

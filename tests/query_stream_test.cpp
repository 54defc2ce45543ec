// The two search APIs against the fake daemon: the streaming handle, opening
// a search and reading its total and hits with each reader and mixes of them;
// the connection class and the callback search; the records built from hits.
// Then faults of the daemon and of the process around the library: a reply
// stream cut at every kind of place, an oversized packet, descriptors running
// out or beyond select()'s reach.  Valgrind and
// ASan, which run this suite too, check that nothing leaked.
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <thread>
#include <utility>

#include <gtest/gtest.h>
#include <json/reader.h>

#include "harness.h"
#include "zarn_connection.h"

using ZARN::IR::DAEMON::Connection;
using namespace zarntest;

namespace {

// The daemon reads a request first when `read`, then sends `packets`; "hN"
// stands for a hit on /m/N with doc_id N.
std::vector<Step> Script(const std::vector<std::string> &packets, bool read = true) {
    std::vector<Step> script = {ReadRequest()};
    for (const std::string &p : packets) script.push_back(p[0] == 'h' ? Send(Hit("/m/" + p.substr(1), p[1] - '0')) : Send(p));
    return read ? script : std::vector<Step>(script.begin() + 1, script.end());
}

// A connected handle on a fake daemon that plays `packets`.
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
// ignores SIGPIPE from then on, has both time-outs at 20 s, no total yet.
// Nothing is read through a null handle or into a null record; FetchNext
// cannot wait on a descriptor outside read_fds.
TEST(QueryInit, ConnectsWithTimeOutsOrKeepsTheHandleForClose) {
    _tag_search_record *record = nullptr;
    EXPECT_EQ((std::vector<int>{ZARNQueryConnectionInit(nullptr), ZARNQueryGetNextRecord(nullptr, &record), ZARNQueryCount(nullptr)}),
              (std::vector<int>{ZARN_ERR_INVALID, ZARN_ERR_INVALID, 0}));
    EXPECT_EQ(ZARNQueryFetchNext(nullptr, timeval{0, 0}), nullptr);
    EXPECT_EQ(LogsMatching("^query_(get|fetch|count)_cwrap\\.cpp:[0-9]+ connection is NULL\\. ").size(), 3u);
    ZARNQueryHandle beyond = {};
    beyond.fd = FD_SETSIZE;
    EXPECT_EQ(ZARNQueryFetchNext(&beyond, timeval{0, 0}), nullptr);
    EXPECT_EQ(LogsMatching("^query_fetch_cwrap\\.cpp:[0-9]+ socket descriptor 1024 cannot be waited on$").size(), 1u);
    ClearLogs();
    ZARNQueryConnectionClose(nullptr);
    ZARNQueryHandle *handle = nullptr;
    EXPECT_EQ(ZARNQueryConnectionInit(&handle), ZARN_ERR_CONNECT);
    const int fd = handle->fd;
    EXPECT_NE(fcntl(fd, F_GETFD), -1);
    ZARNQueryConnectionClose(handle);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    ExpectOneLog("^query_init_cwrap\\.cpp:[0-9]+ Connect domain socket failed, No such file or directory$");
    signal(SIGPIPE, SIG_DFL);
    Stream s(Script({R"({"total":2})"}, false));
    EXPECT_EQ(signal(SIGPIPE, SIG_DFL), SIG_IGN);
    EXPECT_EQ(s.h->total, -1);
    EXPECT_EQ(ZARNQueryGetNextRecord(s.h, nullptr), ZARN_ERR_INVALID);
    EXPECT_EQ(ZARNQueryCount(s.h), 2);
    for (int option : {SO_RCVTIMEO, SO_SNDTIMEO}) {
        timeval t = {0, 0};
        socklen_t size = sizeof t;
        EXPECT_EQ(getsockopt(s.h->fd, SOL_SOCKET, option, &t, &size) + t.tv_sec * 1000000 + t.tv_usec, 20000000);
    }
}

// The request, with the page, the sort keys and the highlight request; a
// refused call writes nothing; a null sort array is never read for a count of
// zero or less.
TEST(Open, WritesTheCompletedRequestOrNothing) {
    Stream s({ReadRequest(), ReadRequest(), ReadRequest()});
    ZARNQuerySorter sorters[] = {{3, "a"}, {0, "b"}}, null_field[] = {{0, "a"}, {1, nullptr}};
    const auto open = [&s](ZARNQueryHandle *h, const char *share, const char *query, ZARNQuerySorter *sorters, int count,
                           int page, int size, const char *agent) {
        return ZARNQueryConnectionOpen(h, share, query, sorters, count, page, size, agent, 1, CONNECTION_FLAG_NONE);
    };
    for (int code : {open(nullptr, "m", "q", nullptr, 0, 0, 20, "a"), open(s.h, nullptr, "q", nullptr, 0, 0, 20, "a"),
                     open(s.h, "m", nullptr, nullptr, 0, 0, 20, "a"), open(s.h, "m", "q", nullptr, 0, -1, 20, "a"),
                     open(s.h, "m", "q", nullptr, 0, 0, 0, "a"), open(s.h, "m", "q", nullptr, 0, 1073741824, 2, "a"),
                     open(s.h, "m", "q", nullptr, 0, 0, 20, nullptr), open(s.h, "m", "q", nullptr, 1, 0, 20, "a"),
                     open(s.h, "m", "q", null_field, 2, 0, 20, "a")})
        EXPECT_EQ(code, ZARN_ERR_INVALID);
    EXPECT_EQ(ZARNQueryConnectionOpen(s.h, "music", "love", sorters, 2, 3, 20, "finder", 3000000000u,
                                      CONNECTION_FLAG_HIGHLIGHT), 0);
    EXPECT_EQ(open(s.h, "m", "", nullptr, -3, 7, 1, ""), ZARN_OK);
    EXPECT_EQ(open(s.h, "m", "q", nullptr, 0, 1073741823, 2, "a"), ZARN_OK);
    EXPECT_EQ(s.h->total, -1);
    const std::vector<std::string> sent = s.daemon.WaitFinished(1).at(0).requests;
    ASSERT_EQ(sent.size(), 3u);
    EXPECT_EQ(sent[0], R"({"command":"search","data":{"collector":{"agent":"finder","uid":3000000000},)"
                       R"("fields":["ZARNMDPath","ZARNMDFSName","ZARNMDExtension","ZARNMDIsDir","ZARNMDTextContent"],)"
                       R"("filters":[{"data":3000000000,"name":"permission"}],"from":60,)"
                       R"("highlight":[{"field":"ZARNMDTextContent","frag_length":350}],"indice":["fileindex_music"],)"
                       R"("query_string":{"query":"love"},"size":20,"sorter":[{"direction":"desc","field":"a",)"
                       R"("nature_sort":true},{"direction":"asc","field":"b"}]}})");
    EXPECT_NE(sent[1].find(R"("from":7,"indice":["fileindex_m"],"query_string":{"query":""},"size":1})"), std::string::npos);
    EXPECT_NE(sent[2].find(R"("from":2147483646,)"), std::string::npos);
    ZARNQueryHandle no_socket = {};
    no_socket.fd = -1;
    EXPECT_EQ(open(&no_socket, "m", "q", nullptr, 0, 0, 20, "a"), ZARN_ERR_WRITE);
    ExpectOneLog(nullptr);
}

// Each reader, alone and mixed with the others, on one reply stream; a total
// that is no int reads as 0, and a packet with more than one value is no
// packet.  Count reads for the header once; a packet that is not one is spent.
TEST(Readers, ReadTheReplyStream) {
    const std::string a = Hit("/m/a", 7).toStyledString(), b = Hit("/m/b", 7).toStyledString(), end = R"({"success":true})";
    const char *wrong = "^query_(get|count)_cwrap\\.cpp:[0-9]+ response format is wrong: ";
    const struct { std::vector<std::string> packets; const char *ops, *want; int total; const char *log; } cases[] = {
        {{R"({"total":2})", a, b, end}, "NFN", "/m/a /m/b end", 2, nullptr},
        {{R"({"total":2})", a, b, end}, "CNCFF", "2 /m/a 2 /m/b null", 2, nullptr},
        {{R"({"total":120})", a, b, end}, "FCFN", "/m/a 120 /m/b end", 120, nullptr},
        {{"  {\"total\":1,\"success\":true}\n", a, end}, "NN", "/m/a end", 1, nullptr},
        {{R"({"total":0})", end}, "CN", "0 end", 0, nullptr},
        {{R"({"success":false})"}, "N", "end", -1, nullptr},  // an error reply as the header
        {{R"({"total":-5})", end}, "N", "end", 0, nullptr},    // never back to "unread"
        {{R"({"total":-5})"}, "C", "0", 0, nullptr},
        {{R"({"total":7.9})"}, "C", "7", 7, nullptr},
        {{R"({"total":true})"}, "C", "1", 1, nullptr},
        {{R"({"total":"12"})"}, "C", "0", 0, nullptr},
        {{R"({"total":1e300})"}, "C", "0", 0, nullptr},
        {{}, "Z", "null", -1, nullptr},
        {{R"({"total":2})", "{\"total\":"}, "N", "-4", 2, "\\{\"total\":$"},
        {{R"({"total":2})", R"({"ZARNMDPath":"/a"} x)"}, "N", "-4", 2, "\\{\"ZARNMDPath\":\"/a\"\\} x$"},
        {{std::string(100000, '[') + std::string(100000, ']')}, "C", "0", 0, "\\[\\[\\["},  // no crash
        {{R"({"success":false})", R"({"total":5})"}, "CC", "0 0", 0, "\\{\"success\":false\\}$"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.want + std::string(" ") + (c.packets.empty() ? "" : c.packets[0].substr(0, 30)));
        ClearLogs();
        Stream s(c.packets.empty() ? Script({}) : Script(c.packets, false));
        std::string got;
        for (const char *op = c.ops; *op != '\0'; ++op) got += (got.empty() ? "" : " ") + s.Read(*op);
        EXPECT_EQ(got, c.want);
        EXPECT_EQ(s.h->total, c.total);
        ExpectOneLog(c.log ? (wrong + std::string(c.log)).c_str() : nullptr);
    }
}

std::vector<std::string> paths;  // what the callback searches delivered, "path#doc_id"
size_t stop_after = 0;           // Collect returns false on this hit

bool Collect(const _tag_search_record *record, void *) {
    paths.push_back(std::string(record->path) + "#" + std::to_string(record->doc_id));
    return paths.size() != stop_after;
}

Json::Value Parse(const std::string &text) { Json::Value value; return Json::Reader().parse(text, value), value; }

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
    FakeDaemon daemon(Script({R"({"total":0})"}));
    Connection highlighted;
    ASSERT_TRUE(highlighted.Connect(20, CONNECTION_FLAG_HIGHLIGHT));
    for (const Json::Value &request : {Json::Value(Json::arrayValue), Json::Value("search"), kEnvelope}) {
        highlighted.SetError(CONNECTION_ERROR_NONE);
        EXPECT_FALSE(highlighted.SendQuery(request, request.isObject() ? nullptr : Collect, nullptr, "a", 1));
        EXPECT_EQ(highlighted.GetError(), CONNECTION_ERROR_INVALID);
    }
    EXPECT_TRUE(highlighted.SendQuery(kEnvelope, Collect, nullptr, "finder", 3000000000u));
    EXPECT_EQ(daemon.Request(0).toStyledString(), Connection::RewriteSearchQuery(kEnvelope, 3000000000u, "finder", nullptr, 0,
                                                                                 CONNECTION_FLAG_HIGHLIGHT).toStyledString());
    highlighted.Close();
    highlighted.Close();
    EXPECT_TRUE(daemon.WaitClosed(1).at(0).peer_closed);
}

TEST(SendQuery, ReadsTheResponseStream) {
    // error: 0 when SendQuery answers true
    const struct { std::vector<std::string> packets; size_t stop_after, hits; int error; const char *log; } cases[] = {
        {{R"({"total":0})", "h1", "{}"}, 0, 0, 0, nullptr},
        {{R"({"success":false})", "h1", "{}"}, 0, 0, 0, nullptr},
        {{R"({"total":-3})", "h1", "{}"}, 0, 0, 0, nullptr},
        {{R"({"total":9})", "h1", "h2", R"({"success":true})"}, 0, 2, 0, nullptr},
        {{R"({"total":2})", "h1", "h2", "{oops"}, 0, 2, 0, nullptr},  // nothing read beyond "total"
        {{R"({"total":3})", "h1", "h2", "h3", "{}"}, 1, 1, 0, nullptr},
        {{R"({"total":3})", "h1", R"({"total":9,"success":1})"}, 0, 1, 0, nullptr},
        {{"{\"total\":"}, 0, 0, -4, R"(\{"total":$)"},
        {{"[7]"}, 0, 0, -4, R"(\[7\]$)"},
        {{R"({"total":3})", "h1", "{oops"}, 0, 1, -4, R"(\{oops$)"},
        {{R"({"total":3})", "h1", "\"hit\""}, 0, 1, -4, R"("hit"$)"},
    };
    const std::vector<std::string> all = {"/m/1#1", "/m/2#2", "/m/3#3"};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.packets[0] + " " + std::to_string(c.hits));
        ClearLogs();
        paths.clear();
        stop_after = c.stop_after;
        FakeDaemon daemon(Script(c.packets));
        Connection connection;
        ASSERT_TRUE(connection.Connect(20, CONNECTION_FLAG_NONE));
        EXPECT_EQ(connection.SendQuery(kEnvelope, Collect, nullptr, "finder", 1026), c.error == 0);
        EXPECT_EQ(connection.GetError(), c.error);
        EXPECT_EQ(paths, std::vector<std::string>(all.begin(), all.begin() + c.hits));
        ExpectOneLog(c.log ? (std::string("^connection\\.cpp:[0-9]+ response format is wrong: ") + c.log).c_str() : nullptr);
    }
    stop_after = 0;
}

// The request sent, the hits delivered, a callback's exception passed through
// and the connection closed either way.  A refused call connects to nobody; a
// null agent is sent as "".
TEST(SearchQuerySend, SendsTheRequestDeliversTheHitsAndCloses) {
    FakeDaemon daemon(Script({R"({"total":2})", "h1", "h2"}));
    int code = 12345;  // left alone by a search that succeeds
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
    const auto send = [&code](const char *share, const char *query, int size, int page, ZARNSearchCallback callback,
                              const char *agent) {
        const int result = ZARNSearchQuerySend(share, query, size, page, callback, nullptr, agent, 1, &code);
        return std::to_string(result) + " " + std::to_string(std::exchange(code, 0));
    };
    for (const std::string &refused : {send(nullptr, "q", 10, 0, Collect, "a"), send("m", nullptr, 10, 0, Collect, "a"),
                                       send("m", "q", 10, 0, nullptr, "a"), send("m", "q", -1, 0, Collect, "a"),
                                       send("m", "q", 10, -1, Collect, "a"), send("m", "q", 65536, 32768, Collect, "a")})
        EXPECT_EQ(refused, "0 -1");
    EXPECT_EQ(ZARNSearchQuerySend("m", "q", 10, 0, Collect, nullptr, "a", 1, nullptr), 0);
    EXPECT_EQ(daemon.Accepted(), 2u);
    EXPECT_EQ(send("m", "q", 0, 0, Collect, nullptr), "1 0");
    EXPECT_EQ(send("m", "q", 1, 2147483647, Collect, "y"), "1 0");
    daemon.WaitFinished(4);
    EXPECT_EQ(daemon.Request(2)["data"]["collector"], Parse(R"({"agent":"","uid":1})"));
    EXPECT_EQ(daemon.Request(3)["data"]["from"], 2147483647);
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
// integer, else it is 0 with a warning.  Texts are cut by bytes, even inside
// a character.
TEST(BuildRecord, FieldsFromTheHit) {
    const auto describe = [](const Json::Value &hit) {
        std::unique_ptr<_tag_search_record, void (*)(_tag_search_record *)> r(Connection::BuildRecordFromJson(hit),
                                                                           ZARNQueryFreeRecord);
        return std::string(r->path) + "|" + r->fs_name + "|" + r->extension + "|" + std::to_string(r->is_dir) + "|" +
               std::to_string(r->doc_id) + "|" + (r->highlight != nullptr ? r->highlight : "-");
    };
    const std::string long_texts = R"({"ZARNMDPath":")" + std::string(4999, 'p') + "\xC3\",\"ZARNMDFSName\":\"" +
                                   std::string(4094, 'n') + "\xC3\",\"ZARNMDExtension\":\"" + std::string(19, 'e') +
                                   "\xC3\",\"highlight\":{\"ZARNMDTextContent\":\"" + std::string(400, 'h') + "\"}}";
    const struct { std::string hit, want; } cases[] = {
        {R"({"ZARNMDPath":"/m/a.mp3","ZARNMDFSName":"a.mp3","ZARNMDExtension":"mp3","ZARNMDIsDir":"n",)"
         R"("additional":{"doc_id":42}})", "/m/a.mp3|a.mp3|mp3|0|42|-"},
        {R"({"ZARNMDIsDir":"y","additional":{"doc_id":-2147483648}})", "|||1|-2147483648|-"},
        {R"({"ZARNMDIsDir":"yes","additional":{"doc_id":2147483648}})", "|||0|0|-"},
        {R"({"ZARNMDPath":7,"ZARNMDFSName":null,"ZARNMDExtension":["a"],"additional":{"doc_id":1.5},)"
         R"("highlight":{}})", "|||0|0|"},
        {R"({"ZARNMDPath":{"a":"b"},"ZARNMDFSName":true,"additional":{"doc_id":"42"},)"
         R"("highlight":{"ZARNMDTextContent":"a <b>hit</b>"}})", "|||0|0|a <b>hit</b>"},
        {R"(["/m/a"])", "|||0|0|-"},
        {long_texts, std::string(4095, 'p') + "|" + std::string(4094, 'n') + "\xC3|" + std::string(15, 'e') + "|0|0|" +
                         std::string(349, 'h')},
    };
    for (const auto &c : cases) {
        ClearLogs();
        EXPECT_EQ(describe(Parse(c.hit)), c.want) << c.hit.substr(0, 80);
        ExpectOneLog(c.want.find("|0|0|") == std::string::npos
                         ? nullptr : "^connection\\.cpp:[0-9]+ doc_id is not attached to search result$", LOG_WARNING);
    }
    ZARNQueryFreeRecord(nullptr);
}

// The daemon sends the header and a hit when `mid_stream`, then its last
// bytes, and closes: before a packet, inside the length, inside the payload,
// or a length of 16 MiB + 1, above the cap.  Each reader (S the callback
// search) fails with the read error and one log line.
TEST(StreamCut, EveryReaderFailsWithTheReadErrorAndOneLogLine) {
    // error: that of the failed read
    const struct { std::string bytes; int error; } cuts[] = {{"", ENODATA}, {std::string("\0\0", 2), ECONNRESET},
                {std::string("\0\0\0\x20", 4) + "{\"tot", ECONNRESET}, {std::string("\x01\0\0\x01", 4), EMSGSIZE}};
    // unit: the source file that logs the failed read, with `priority`
    const struct { char op; const char *failure, *unit; int priority; } readers[] = {
                   {'N', "-7", "query_get_cwrap", LOG_DEBUG}, {'F', "null", "query_get_cwrap", LOG_DEBUG},
                   {'C', "0", "query_count_cwrap", LOG_DEBUG}, {'S', "-7", "connection", LOG_ERR}};
    for (const auto &r : readers)
        for (const auto &cut : cuts)
            for (bool mid_stream : {false, r.op != 'C'}) {  // the total is the first packet's business
                SCOPED_TRACE(r.op + std::to_string(cut.error) + (mid_stream ? " mid" : ""));
                std::vector<Step> script = Script(mid_stream ? std::vector<std::string>{R"({"total":3})", "h1"} : std::vector<std::string>{});
                script.insert(script.end(), {SendRaw(cut.bytes), Close()});
                ClearLogs();
                paths.clear();
                Stream s(script);
                std::string got;
                if (r.op == 'S') {
                    int code = 0;
                    got = ZARNSearchQuerySend("m", "q", 10, 0, Collect, nullptr, "a", 1, &code) ? "1" : std::to_string(code);
                    got = (paths.empty() ? "" : "/m/1 ") + got;
                } else {
                    EXPECT_EQ(ZARNQueryConnectionOpen(s.h, "m", "q", nullptr, 0, 0, 10, "a", 1, CONNECTION_FLAG_NONE), 0);
                    for (std::string read = s.Read(r.op);; read = s.Read(r.op)) {
                        got += read;
                        if (read[0] != '/') break;
                        got += " ";
                    }
                }
                EXPECT_EQ(got, (mid_stream ? "/m/1 " : "") + std::string(r.failure));
                ExpectOneLog((std::string("^") + r.unit + "\\.cpp:[0-9]+ Failed to read socket, errno\\(" +
                              std::to_string(cut.error) + "\\): " + std::strerror(cut.error) + "$").c_str(), r.priority);
            }
}

// A signal that lands inside FetchNext's select() ends the wait at once with
// the select error, logged once; the handler has no SA_RESTART, and signals
// keep coming until the wait ends so that one surely lands inside it.
TEST(SignalDuringWait, FetchNextReportsTheInterruptedSelect) {
    Stream s(Script({}));  // the daemon never answers
    ASSERT_EQ(ZARNQueryConnectionOpen(s.h, "m", "q", nullptr, 0, 0, 10, "a", 1, CONNECTION_FLAG_NONE), 0);
    struct sigaction action = {}, before = {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &before), 0);
    std::atomic<bool> done{false};
    std::thread sender([&done, waiter = pthread_self()] {
        for (; !done; std::this_thread::sleep_for(std::chrono::milliseconds(50))) pthread_kill(waiter, SIGUSR1);
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(s.Read('F'), "null");  // waits up to 5 s unless interrupted
    done = true;
    sender.join();
    sigaction(SIGUSR1, &before, nullptr);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
    ExpectOneLog("^query_fetch_cwrap\\.cpp:[0-9]+ select get error Interrupted system call$");
}

// The handle's read_fds has no room beyond FD_SETSIZE, so Init refuses such a
// socket, and the callback search, which never uses select(), works there.
// With no descriptor left, both APIs fail to connect, cleanly, each with one
// log line.
TEST(Descriptors, BeyondTheSelectLimitAndExhausted) {
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    ASSERT_GT(limit.rlim_max, rlim_t{FD_SETSIZE + 8}) << "the hard limit leaves no descriptor beyond select()'s";
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 2048);  // valgrind refuses to move the hard one
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    FakeDaemon daemon(Script({R"({"total":1})", "h1", R"({"success":true})"}));
    // A first member call lets UBSan's type check of the class settle while
    // descriptors are free: checking a new type needs one of its own.
    Connection connection;
    connection.Close();
    std::vector<int> fillers;  // every free descriptor below FD_SETSIZE, then all
    for (int fd = dup(0); fd >= 0 && (fillers.push_back(fd), fd < FD_SETSIZE - 1);) fd = dup(0);
    ZARNQueryHandle *h = nullptr;
    const int beyond = ZARNQueryConnectionInit(&h), beyond_fd = h->fd;
    ZARNQueryConnectionClose(h);
    int code = 0;
    const int found = ZARNSearchQuerySend("m", "q", 10, 0, Collect, nullptr, "a", 1, &code);
    daemon.WaitClosed(1);  // the daemon's side of that search is free again
    for (int fd = dup(0); fd >= 0; fd = dup(0)) fillers.push_back(fd);
    const int exhausted = ZARNQueryConnectionInit(&h), exhausted_fd = h->fd;
    ZARNQueryConnectionClose(h);  // frees without closing a negative descriptor
    const int result = ZARNSearchQuerySend("m", "q", 10, 0, Collect, nullptr, "a", 1, &code);
    for (int fd : fillers) close(fd);  // checked with descriptors to spare: the sanitizers need some
    EXPECT_EQ((std::vector<int>{beyond, found, exhausted, result, code, int(daemon.Accepted())}),
              (std::vector<int>{ZARN_ERR_CONNECT, 1, ZARN_ERR_CONNECT, 0, ZARN_ERR_CONNECT, 1}));
    EXPECT_GE(beyond_fd, FD_SETSIZE);
    EXPECT_LT(exhausted_fd, 0);
    EXPECT_EQ(paths, std::vector<std::string>{"/m/1#1"});
    for (const LogLine &line : Logs()) EXPECT_EQ(line.priority, LOG_ERR);
    // One line for the socket beyond the limit, one for each failed socket(); nothing else.
    EXPECT_EQ(LogsMatching("^((query_init_cwrap|connection)\\.cpp:[0-9]+ socket\\(\\) failed|query_init_cwrap\\.cpp:[0-9]+ "
                           "socket descriptor [0-9]+ is beyond the select\\(\\) limit)$").size(), 3u);
    EXPECT_EQ(Logs().size(), 3u);
}

// Eight threads at once run streaming searches, callback searches and
// document lookups, each on its own handle or connection; the field type
// table is shared.  Built with TSan, this proves the library shares nothing
// else between them.  Each round answers 3 when it went right.
int StreamingSearch() {
    ZARNQueryHandle *handle = nullptr;
    int hits = -100;
    _tag_search_record *record = nullptr;
    if (ZARNQueryConnectionInit(&handle) == 0 &&
        ZARNQueryConnectionOpen(handle, "docs", "f*", nullptr, 0, 0, 20, "t", 1000, CONNECTION_FLAG_NONE) == 0 &&
        ZARNQueryCount(handle) == 3)
        for (hits = 0; ZARNQueryGetNextRecord(handle, &record) == 0 && record != nullptr; ++hits, record = nullptr)
            ZARNQueryFreeRecord(record);
    ZARNQueryConnectionClose(handle);
    return hits;
}

int CallbackSearch() {
    int hits = 0, error = 0;
    const auto count = [](const _tag_search_record *, void *n) { return ++*static_cast<int *>(n) > 0; };
    return ZARNSearchQuerySend("docs", "f*", 20, 0, count, &hits, "t", 1000, &error) == 1 ? hits : -100;
}

int DocumentLookup() {
    const char *names[] = {"ZARNMDTitle", "ZARNMDFSSize", "ZARNMDNoSuchKey"};
    ZARNQueryDocumentFieldValue v[3];
    return ZARNQueryDocumentFieldGet("docs", 2, names, 3, v) != 0 ? -100 : (v[0].type == DOCUMENT_FIELD_TYPE_STRING) +
                                                                           (v[1].type == DOCUMENT_FIELD_TYPE_INT) + (v[2].type == 0);
}

// One reply serves both: a search takes it for the header, a lookup for the
// document (and closes before the hits).
TEST(Threads, SearchesAndLookupsRunSideBySide) {
    FakeDaemon daemon(Script({R"({"total":3,"success":true,"data":{"ZARNMDTitle":"t","ZARNMDFSSize":5}})", "h1", "h2", "h3",
                              R"({"success":true})"}));
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    int (*const rounds[])() = {StreamingSearch, CallbackSearch, DocumentLookup};
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([t, &wrong, &rounds] {
            for (int round = 0; round < 12; ++round) wrong += rounds[(t + round) % 3]() != 3;
        });
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(daemon.Accepted(), 96u);
}

}  // namespace

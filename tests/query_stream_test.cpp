// The streaming query API against the fake daemon: the handle, opening a
// search, and reading its total and hits with each reader and mixes of them.
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>

#include <cstring>

#include <gtest/gtest.h>
#include <json/writer.h>

#include "harness.h"
#include "zarncontentsearchutils.h"

using namespace zarntest;

namespace {

bool IsOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

std::vector<Step> Sends(const std::vector<std::string> &packets) {
    std::vector<Step> script;
    for (const std::string &p : packets) script.push_back(Send(p));
    return script;
}

// A connected handle on a fake daemon that plays `script`.
struct Stream {
    FakeDaemon daemon;
    ZARNQueryHandle *h = nullptr;
    explicit Stream(std::vector<Step> script) : daemon(std::move(script)) {
        EXPECT_EQ(ZARNQueryConnectionInit(&h), 0);
    }
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

TEST(QueryInit, ConnectsWithTimeOutsOrKeepsTheHandleForClose) {
    EXPECT_EQ(ZARNQueryConnectionInit(nullptr), ZARN_ERR_INVALID);
    ZARNQueryConnectionClose(nullptr);
    ZARNQueryHandle *handle = nullptr;
    EXPECT_EQ(ZARNQueryConnectionInit(&handle), ZARN_ERR_CONNECT);
    ASSERT_NE(handle, nullptr);
    int fd = handle->fd;
    EXPECT_TRUE(IsOpen(fd));
    ExpectOneLog("^query_init_cwrap\\.cpp:[0-9]+ Connect domain socket failed, No such file or directory$");
    ZARNQueryConnectionClose(handle);
    EXPECT_FALSE(IsOpen(fd));

    ClearLogs();
    FakeDaemon daemon(std::vector<Step>{});
    signal(SIGPIPE, SIG_DFL);
    ASSERT_EQ(ZARNQueryConnectionInit(&handle), ZARN_OK);
    EXPECT_EQ(handle->total, -1);
    for (fd = 0; fd < FD_SETSIZE; ++fd) EXPECT_EQ(fd == handle->fd, FD_ISSET(fd, &handle->read_fds) != 0);
    for (int option : {SO_RCVTIMEO, SO_SNDTIMEO}) {
        timeval timeout = {0, 0};
        socklen_t size = sizeof timeout;
        ASSERT_EQ(getsockopt(handle->fd, SOL_SOCKET, option, &timeout, &size), 0);
        EXPECT_EQ(timeout.tv_sec * 1000000 + timeout.tv_usec, 20000000);
    }
    struct sigaction pipe_action;
    sigaction(SIGPIPE, nullptr, &pipe_action);
    EXPECT_EQ(pipe_action.sa_handler, SIG_IGN);
    EXPECT_EQ(daemon.WaitFinished(1).size(), 1u);
    ZARNQueryConnectionClose(handle);
    ExpectOneLog(nullptr);
}

// The request, with the page, the sort keys and the highlight request.
TEST(Open, WritesTheCompletedRequest) {
    Stream s({ReadRequest()});
    ZARNQuerySorter sorters[] = {{3, "a"}, {0, "b"}};
    ASSERT_EQ(ZARNQueryConnectionOpen(s.h, "music", "love", sorters, 2, 3, 20, "finder", 3000000000u,
                                      CONNECTION_FLAG_HIGHLIGHT), 0);
    EXPECT_EQ(s.daemon.WaitFinished(1).at(0).requests.at(0),
              R"({"command":"search","data":{"collector":{"agent":"finder","uid":3000000000},)"
              R"("fields":["ZARNMDPath","ZARNMDFSName","ZARNMDExtension","ZARNMDIsDir","ZARNMDTextContent"],)"
              R"("filters":[{"data":3000000000,"name":"permission"}],"from":60,)"
              R"("highlight":[{"field":"ZARNMDTextContent","frag_length":350}],"indice":["fileindex_music"],)"
              R"("query_string":{"query":"love"},"size":20,"sorter":[{"direction":"desc","field":"a",)"
              R"("nature_sort":true},{"direction":"asc","field":"b"}]}})");
    EXPECT_EQ(s.h->total, -1);
    ExpectOneLog(nullptr);
}

// A refused call writes nothing; a null sort array is never read for a count
// of zero or less.
TEST(Open, RefusesBadArgumentsBeforeWriting) {
    Stream s({ReadRequest(), ReadRequest(), ReadRequest()});
    ZARNQuerySorter null_field[] = {{0, "a"}, {1, nullptr}};
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
    for (size_t i = 0; i < sizeof codes / sizeof codes[0]; ++i) EXPECT_EQ(codes[i], ZARN_ERR_INVALID) << i;
    EXPECT_EQ(ZARNQueryConnectionOpen(s.h, "m", "", nullptr, -3, 7, 1, "", 1, none), ZARN_OK);
    EXPECT_EQ(ZARNQueryConnectionOpen(s.h, "m", "q", nullptr, 0, 1073741823, 2, "a", 1, none), ZARN_OK);
    ZARNQueryConnectionClose(s.h);
    s.h = nullptr;
    const std::vector<std::string> sent = s.daemon.WaitFinished(1).at(0).requests;
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_NE(sent[0].find(R"("from":7,"indice":["fileindex_m"],"query_string":{"query":""},"size":1})"), std::string::npos);
    EXPECT_NE(sent[1].find(R"("from":2147483646,)"), std::string::npos);
    ZARNQueryHandle no_socket = {};
    no_socket.fd = -1;
    no_socket.total = -1;
    EXPECT_EQ(ZARNQueryConnectionOpen(&no_socket, "m", "q", nullptr, 0, 0, 20, "a", 0, none), ZARN_ERR_WRITE);
    EXPECT_EQ(no_socket.total, -1);
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
        {Sends({header2, "{\"total\":"}), "N", "-4", 2,
         R"(^query_get_cwrap\.cpp:[0-9]+ response format is wrong: \{"total":$)"},
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
    EXPECT_EQ(ZARNQueryGetNextRecord(nullptr, &record), ZARN_ERR_INVALID);
    EXPECT_EQ(ZARNQueryFetchNext(nullptr, timeval{0, 0}), nullptr);
    EXPECT_EQ(ZARNQueryCount(nullptr), 0);
    ASSERT_EQ(LogsMatching("^query_(get|fetch|count)_cwrap\\.cpp:[0-9]+ connection is NULL\\. ").size(), 3u);
    for (const LogLine &line : Logs()) EXPECT_EQ(line.priority, LOG_ERR);
    for (int fd : {-1, FD_SETSIZE, FD_SETSIZE + 100}) {
        ClearLogs();
        ZARNQueryHandle handle, before;
        std::memset(&handle, 0xA5, sizeof handle);
        handle.fd = fd;
        before = handle;
        EXPECT_EQ(ZARNQueryFetchNext(&handle, timeval{0, 0}), nullptr);
        EXPECT_EQ(std::memcmp(&handle, &before, sizeof handle), 0) << fd;
        ExpectOneLog("^query_fetch_cwrap\\.cpp:[0-9]+ socket descriptor -?[0-9]+ cannot be waited on$");
    }
    Stream s(Sends({R"({"total":2})"}));
    EXPECT_EQ(ZARNQueryGetNextRecord(s.h, nullptr), ZARN_ERR_INVALID);
    EXPECT_EQ(ZARNQueryCount(s.h), 2);
}

}  // namespace

// zarnsearch, run as a program against the scripted daemon: argument
// handling, the requests it sends, exit codes and the exact output formats.
#include <json/json.h>

#include "harness.h"
#include "zarnsearch_run.h"

namespace {

using namespace zarntest;
using Args = std::vector<std::string>;

// A search reply: header, the hits, end.
std::vector<Step> Reply(int total, const std::vector<Json::Value> &hits) {
    std::vector<Step> script = {ReadRequest(), Send("{\"total\":" + std::to_string(total) + "}")};
    for (const Json::Value &hit : hits) script.push_back(Send(hit));
    script.push_back(Send("{\"success\":true}"));
    return script;
}

// Three hits: UTF-8 in a name, a directory, and a name with an escape
// sequence whose highlight was cut inside a character and a mark.
std::vector<Step> ThreeHits() {
    std::vector<Json::Value> hits = {Hit("/music/rock/caf\xc3\xa9 one.mp3", 42), Hit("/music/rock", 7),
                                     Hit("/music/odd\x1b[31mname", 123456)};
    hits[0]["highlight"]["ZARNMDTextContent"] = "a <em>loud</em>\n\t song &lt;&amp;&gt; &quot;&#39; &nbsp;\x01";
    hits[1]["ZARNMDIsDir"] = "y";
    hits[2]["highlight"]["ZARNMDTextContent"] = "x <em>cut\xc3";
    return Reply(3, hits);
}

TEST(ZarnsearchTest, BadCommandLinesAreRefusedWithoutAskingTheDaemon) {
    const struct {
        Args args;
        const char *complaint;
    } cases[] = {
        {{}, "Usage: zarnsearch"},
        {{"frobnicate"}, "unknown command 'frobnicate'"},
        {{"search", "music", "q", "--bogus"}, "unknown option --bogus"},
        {{"search", "music", "q", "--size", "5", "--size=6"}, "--size given twice"},
        {{"search", "music", "q", "--page", "2", "--size", "1073741824"}, "--page times --size exceeds 2147483647"},
        {{"search", "music", "q", "--sort", "ZARNMDPath:up"}, "not 'ZARNMDPath:up'"},
        {{"search", "music", "q", "--callback", "--sort", "f"}, "--sort does not go with"},
        {{"doc", "music", "12a", "ZARNMDTitle"}, "DOC_ID must be a whole number"},
    };
    FakeDaemon daemon;
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.args));
        const Result result = Zarnsearch(c.args);
        EXPECT_EQ(2, result.status);
        EXPECT_EQ("", result.out);
        EXPECT_NE(std::string::npos, result.err.find(c.complaint)) << result.err;
    }
    EXPECT_EQ(0u, daemon.Accepted());
}

// Each run against a fresh scripted daemon: its exit status, its whole
// standard output, a part of its standard error and a part of the request.
TEST(ZarnsearchTest, RequestsOutputAndExitStatus) {
    const struct {
        std::vector<Step> script;
        Args args;
        int status;
        std::string out, err, sent;
    } cases[] = {
        {ThreeHits(), {"search", "music", "q", "--highlight"}, 0,
         "total: 3, shown: 3\n"
         "DOC ID  TYPE  NAME          PATH\n"
         "    42  mp3   caf\xc3\xa9 one.mp3  /music/rock/caf\xc3\xa9 one.mp3\n"
         "        a loud song <&> \"' &nbsp;?\n"
         "     7  dir   rock          /music/rock\n"
         "123456  file  odd?[31mname  /music/odd?[31mname\n"
         "        x cut\xef\xbf\xbd\n",
         "", R"("highlight":[{"field":"ZARNMDTextContent","frag_length":350}])"},
        {ThreeHits(), {"search", "music", "q", "--json"}, 0,
         "{\"total\":3}\n"
         "{\"doc_id\":42,\"extension\":\"mp3\",\"fs_name\":\"caf\xc3\xa9 one.mp3\","
         "\"highlight\":\"a <em>loud</em>\\n\\t song &lt;&amp;&gt; &quot;&#39; &nbsp;\\u0001\","
         "\"is_dir\":false,\"path\":\"/music/rock/caf\xc3\xa9 one.mp3\"}\n"
         "{\"doc_id\":7,\"extension\":\"\",\"fs_name\":\"rock\",\"highlight\":null,\"is_dir\":true,\"path\":\"/music/rock\"}\n"
         "{\"doc_id\":123456,\"extension\":\"\",\"fs_name\":\"odd\\u001b[31mname\","
         "\"highlight\":\"x <em>cut\xef\xbf\xbd\",\"is_dir\":false,\"path\":\"/music/odd\\u001b[31mname\"}\n",
         "", R"("from":0,"indice":["fileindex_music"],"query_string":{"query":"q"},"size":20})"},
        {Reply(0, {}),
         {"search", "music", "--page=2", "--size", "5", "--sort", "ZARNMDFSName:desc:natural", "--sort",
          "ZARNMDPath:asc", "--uid", "4294967295", "--agent", "cron", "--", "-live"},
         0, "total: 0, shown: 0\n", "",
         R"({"collector":{"agent":"cron","uid":4294967295},"fields":["ZARNMDPath","ZARNMDFSName","ZARNMDExtension",)"
         R"("ZARNMDIsDir"],"filters":[{"data":4294967295,"name":"permission"}],"from":10,"indice":["fileindex_music"],)"
         R"("query_string":{"query":"-live"},"size":5,"sorter":[{"direction":"desc","field":"ZARNMDFSName",)"
         R"("nature_sort":true},{"direction":"asc","field":"ZARNMDPath"}]})"},
        {{ReadRequest(), Send("{\"total\":2}"), Send(Hit("/music/a.mp3", 1)), Send("not json")},
         {"-v", "search", "music", "q"}, 3, "total: 2, shown: 1\nDOC ID  TYPE  NAME   PATH\n     1  mp3   a.mp3  /music/a.mp3\n",
         "response format is wrong: not json\nzarnsearch search: reading the hits failed: -4 ZARN_ERR_FORMAT", ""},
        // With --timeout the end, a time-out and a failure look alike: a
        // short list is told by comparing it with the total.
        {{ReadRequest(), Send("{\"total\":2}"), Send(Hit("/music/a.mp3", 1))},
         {"search", "music", "q", "--timeout", "1", "--json"}, 0,
         "{\"total\":2}\n{\"doc_id\":1,\"extension\":\"mp3\",\"fs_name\":\"a.mp3\",\"highlight\":null,"
         "\"is_dir\":false,\"path\":\"/music/a.mp3\"}\n", "warning: 1 of 2 hits arrived", ""},
        {Reply(5, {Hit("/music/b.mp3", 2)}), {"search", "music", "q", "--timeout=1", "--page=2", "--size=2"}, 0,
         "total: 5, shown: 1\nDOC ID  TYPE  NAME   PATH\n     2  mp3   b.mp3  /music/b.mp3\n", "", ""},
        {Reply(2, {Hit("/music/a.mp3", 1), Hit("/music/b.mp3", 2)}),
         {"search", "music", "q", "--callback", "--page", "1", "--size", "2", "--uid", "5"}, 0,
         "shown: 2\nDOC ID  TYPE  NAME   PATH\n     1  mp3   a.mp3  /music/a.mp3\n     2  mp3   b.mp3  /music/b.mp3\n",
         "", R"("collector":{"agent":"zarnsearch","uid":5})"},
        // A name that is not UTF-8 arrives escaped (common/name_text.h): the
        // table shows its real bytes, --json the form that came.
        {Reply(1, {Hit(R"(/music/caf\xE9 b\\xE9.mp3)", 3)}), {"search", "music", "q"}, 0,
         "total: 1, shown: 1\nDOC ID  TYPE  NAME            PATH\n     3  mp3   caf\xE9 b\\xE9.mp3  /music/caf\xE9 b\\xE9.mp3\n",
         "", ""},
        {Reply(7, {Hit("/music/a.mp3", 1)}), {"count", "music", "q"}, 0, "7\n", "", R"("size":1})"},
        {{ReadRequest(), Send(R"({"success":true,"data":{"ZARNMDTitle":"Live\tat home","ZARNMDFSSize":1234,)"
                              R"("ZARNMDIsDir":"y","ZARNMDDurationSecond":12.5,"ZARNMDAlbum":5}})")},
         {"doc", "music", "12", "ZARNMDTitle", "ZARNMDFSSize", "ZARNMDIsDir", "ZARNMDDurationSecond", "ZARNMDAlbum", "ZARNMDNope"}, 0,
         "FIELD                 TYPE    VALUE\n"
         "ZARNMDTitle           string  Live?at home\n"
         "ZARNMDFSSize          int     1234\n"
         "ZARNMDIsDir           bool    true\n"
         "ZARNMDDurationSecond  double  12.5\n"
         "ZARNMDAlbum           -       (no value)\n"
         "ZARNMDNope            -       (no value)\n",
         "", R"({"command":"document_get_by_internal_id","data":{"doc_id":12,"id":"fileindex_music"}})"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.args));
        FakeDaemon daemon(c.script);
        const Result result = Zarnsearch(c.args);
        EXPECT_EQ(c.status, result.status) << result.err;
        EXPECT_EQ(c.out, result.out);
        EXPECT_NE(std::string::npos, result.err.find(c.err)) << result.err;
        EXPECT_TRUE(!c.err.empty() || result.err.empty()) << result.err;
        Json::StreamWriterBuilder compact;
        compact["indentation"] = "";
        EXPECT_NE(std::string::npos, Json::writeString(compact, daemon.Request()).find(c.sent)) << daemon.Request();
    }
    EXPECT_EQ("zarnsearch search: connecting to the search daemon failed: -2 ZARN_ERR_CONNECT "
              "(the search daemon's socket could not be created or connected)\n",
              Zarnsearch({"search", "music", "q"}).err);
}

TEST(ZarnsearchTest, WhereTheIndexLivesAndWhatIsIndexed) {
    ASSERT_EQ(0, system("mkdir -p /var/vol1/music"));
    SetShareTable({{"music", "/var/vol1/music"}});
    WriteFile(kFolderConfig, "[{\"path\": \"/music/rock\"}]");
    const struct {
        Args args;
        int status;
        const char *out;
    } cases[] = {
        {{"where", "music"}, 0,
         "index id:  fileindex_music\ndatabase:  /var/vol1/music/@eaDir/ZARN@.fileindexdb\n"
         "queue:     /var/vol1/music/@eaDir/ZARN@file_index_queue\n"},
        {{"where", "video"}, 3, ""},
        {{"indexed", "share", "music"}, 0, "yes\n"},
        {{"indexed", "share", "Music"}, 1, "no\n"},
        {{"indexed", "path", "/music/rock/live"}, 0, "yes\n"},
        {{"indexed", "path", "/music"}, 1, "no\n"},
        {{"indexed", "full-path", "/var/vol1/music/rock/"}, 0, "yes\n"},
        {{"indexed", "full-path", "/var/vol1/music"}, 1, "no\n"},
        {{"indexed", "contains", "/music"}, 0, "yes\n"},
        {{"indexed", "contains", "/music/rock/live"}, 1, "no\n"},
    };
    for (const auto &c : cases) {
        const Result result = Zarnsearch(c.args);
        EXPECT_EQ(c.status, result.status) << testing::PrintToString(c.args) << result.err;
        EXPECT_EQ(c.out, result.out) << testing::PrintToString(c.args);
    }
    EXPECT_EQ(0, access("/var/vol1/music/@eaDir/ZARN@.fileindexdb", F_OK));
    EXPECT_NE(std::string::npos, Zarnsearch({"where", "video"}).err.find("share 'video': the share could not be looked up"));
}

}  // namespace

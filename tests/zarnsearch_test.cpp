// zarnsearch, run as a program against the scripted daemon: argument
// handling, exit codes and the exact output formats.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <json/json.h>

#include "harness.h"
#include "zarnsearch_run.h"

namespace {

using zarntest::FakeDaemon;
using zarntest::Hit;
using zarntest::ReadRequest;
using zarntest::Result;
using zarntest::Send;
using zarntest::Zarnsearch;

class ZarnsearchTest : public testing::Test {
protected:
    void SetUp() override { zarntest::QuietMachineLog(); }
};

std::string Compact(const Json::Value &value) {
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, value);
}

// A search reply: header, the hits, end.
std::vector<zarntest::Step> Reply(int total, const std::vector<Json::Value> &hits) {
    std::vector<zarntest::Step> script = {ReadRequest(),
                                          Send("{\"total\":" + std::to_string(total) + "}")};
    for (const Json::Value &hit : hits) script.push_back(Send(hit));
    script.push_back(Send("{\"success\":true}"));
    return script;
}

Json::Value Highlighted(Json::Value hit, const std::string &fragment) {
    hit["highlight"]["ZARNMDTextContent"] = fragment;
    return hit;
}

struct BadCommandLine {
    std::vector<std::string> args;
    const char *complaint;
};

const BadCommandLine kBadCommandLines[] = {
    {{}, "Usage: zarnsearch"},
    {{"frobnicate"}, "unknown command 'frobnicate'"},
    {{"search", "music"}, "missing arguments"},
    {{"search", "music", "q", "extra"}, "unexpected argument 'extra'"},
    {{"search", "music", "q", "--bogus"}, "unknown option --bogus"},
    {{"search", "music", "q", "-x"}, "unknown option -x"},
    {{"search", "music", "q", "--page"}, "--page needs a value"},
    {{"search", "music", "q", "--json=1"}, "--json takes no value"},
    {{"search", "music", "q", "--size", "5", "--size=6"}, "--size given twice"},
    {{"search", "music", "q", "--page", "-1"}, "--page needs a whole number"},
    {{"search", "music", "q", "--page", "1x"}, "not '1x'"},
    {{"search", "music", "q", "--page", " 1"}, "not ' 1'"},
    {{"search", "music", "q", "--page", "+1"}, "not '+1'"},
    {{"search", "music", "q", "--page="}, "not ''"},
    {{"search", "music", "q", "--size", "0"}, "--size needs a whole number from 1"},
    {{"search", "music", "q", "--size", "99999999999"}, "not '99999999999'"},
    {{"search", "music", "q", "--uid", "-1"}, "--uid needs"},
    {{"search", "music", "q", "--uid", "4294967296"}, "to 4294967295"},
    {{"search", "music", "q", "--timeout", "1.5"}, "--timeout needs"},
    {{"search", "music", "q", "--page", "2", "--size", "1073741824"},
     "--page times --size exceeds 2147483647"},
    {{"search", "music", "q", "--sort", ":desc"}, "--sort needs FIELD"},
    {{"search", "music", "q", "--sort", "ZARNMDPath:up"}, "not 'ZARNMDPath:up'"},
    {{"search", "music", "q", "--sort", ""}, "--sort needs FIELD"},
    {{"search", "music", "q", "--callback", "--sort", "f"}, "--sort does not go with"},
    {{"search", "music", "q", "--callback", "--highlight"}, "--highlight does not go"},
    {{"search", "music", "q", "--callback", "--timeout", "1"}, "--timeout does not go"},
    {{"count", "music", "q", "--page", "1"}, "unknown option --page"},
    {{"doc", "music", "12"}, "missing arguments"},
    {{"doc", "music", "12a", "ZARNMDTitle"}, "DOC_ID must be a whole number"},
    {{"doc", "music", "2147483648", "ZARNMDTitle"}, "not '2147483648'"},
    {{"indexed", "volume", "/music"}, "unknown kind 'volume'"},
    {{"where"}, "missing arguments"},
};

// One test process for the whole table: each case is one run of the program.
TEST_F(ZarnsearchTest, BadCommandLinesAreRefusedWithoutAskingTheDaemon) {
    FakeDaemon daemon;
    for (const BadCommandLine &bad : kBadCommandLines) {
        const Result result = Zarnsearch(bad.args);
        const std::string args = testing::PrintToString(bad.args);
        EXPECT_EQ(2, result.status) << args;
        EXPECT_EQ("", result.out) << args;
        EXPECT_NE(std::string::npos, result.err.find(bad.complaint)) << args << ": " << result.err;
    }
    EXPECT_EQ(0u, daemon.Accepted());
}

TEST_F(ZarnsearchTest, HelpForTheToolAndEachCommand) {
    Result overview = Zarnsearch({"--help"});
    EXPECT_EQ(0, overview.status);
    for (const char *command : {"search", "count", "doc", "where", "indexed"}) {
        EXPECT_NE(std::string::npos, overview.out.find(std::string("  ") + command + " "));
        const Result result = Zarnsearch({command, "--help"});
        EXPECT_EQ(0, result.status) << command;
        EXPECT_EQ(0u, result.out.find(std::string("Usage: zarnsearch ") + command));
        EXPECT_NE(std::string::npos, result.out.find("3  the search daemon or the library"));
    }
    EXPECT_EQ(Zarnsearch({"search", "--help"}).out, Zarnsearch({"search", "x", "-h"}).out);
}

TEST_F(ZarnsearchTest, SearchSendsTheCommandLine) {
    FakeDaemon daemon(Reply(0, {}));
    const Result search = Zarnsearch({"search", "music", "--page=2", "--size", "5", "--sort",
                                      "ZARNMDFSName:desc:natural", "--sort", "ZARNMDPath:asc",
                                      "--highlight", "--uid", "4294967295", "--agent", "cron",
                                      "--", "-live"});
    ASSERT_EQ(0, search.status) << search.err;
    const Json::Value data = daemon.Request()["data"];
    EXPECT_EQ(10, data["from"].asInt());
    EXPECT_EQ(5, data["size"].asInt());
    EXPECT_EQ("fileindex_music", data["indice"][0].asString());
    EXPECT_EQ("-live", data["query_string"]["query"].asString());
    EXPECT_EQ("[{\"direction\":\"desc\",\"field\":\"ZARNMDFSName\",\"nature_sort\":true},"
              "{\"direction\":\"asc\",\"field\":\"ZARNMDPath\"}]",
              Compact(data["sorter"]));
    EXPECT_EQ(350, data["highlight"][0]["frag_length"].asInt());
    EXPECT_EQ("{\"agent\":\"cron\",\"uid\":4294967295}", Compact(data["collector"]));

    daemon.Queue(Reply(0, {}));
    ASSERT_EQ(0, Zarnsearch({"search", "music", "q"}).status);
    const Json::Value defaults = daemon.Request(1)["data"];
    EXPECT_EQ(0, defaults["from"].asInt());
    EXPECT_EQ(20, defaults["size"].asInt());
    EXPECT_EQ(getuid(), defaults["collector"]["uid"].asUInt());
    EXPECT_EQ("zarnsearch", defaults["collector"]["agent"].asString());
    EXPECT_FALSE(defaults.isMember("sorter") || defaults.isMember("highlight"));
}

// Three hits: UTF-8 in a name, a directory, and a name with an escape
// sequence whose highlight was cut inside a character and a mark.
std::vector<zarntest::Step> ThreeHits() {
    Json::Value dir = Hit("/music/rock", 7);
    dir["ZARNMDIsDir"] = "y";
    return Reply(3, {Highlighted(Hit("/music/rock/caf\xc3\xa9 one.mp3", 42),
                                 "a <em>loud</em>\n\t song &lt;&amp;&gt; &quot;&#39; &nbsp;\x01"),
                     dir, Highlighted(Hit("/music/odd\x1b[31mname", 123456), "x <em>cut\xc3")});
}

TEST_F(ZarnsearchTest, PrintsHitsAsATable) {
    FakeDaemon daemon(ThreeHits());
    const Result result = Zarnsearch({"search", "music", "q", "--highlight"});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ("total: 3, shown: 3\n"
              "DOC ID  TYPE  NAME          PATH\n"
              "    42  mp3   caf\xc3\xa9 one.mp3  /music/rock/caf\xc3\xa9 one.mp3\n"
              "        a loud song <&> \"' &nbsp;?\n"
              "     7  dir   rock          /music/rock\n"
              "123456  file  odd?[31mname  /music/odd?[31mname\n"
              "        x cut\xef\xbf\xbd\n",
              result.out);
    EXPECT_EQ("", result.err);

    daemon.Queue(Reply(0, {}));
    EXPECT_EQ("total: 0, shown: 0\n", Zarnsearch({"search", "music", "q"}).out);
}

TEST_F(ZarnsearchTest, ShowsMarksInBoldOnATerminal) {
    FakeDaemon daemon(ThreeHits());
    const Result result = Zarnsearch({"search", "music", "q"}, true);
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_NE(std::string::npos, result.out.find("\n        a \033[1mloud\033[0m song <"));
    // A cut mark ends bold all the same; the name's own escape is defused.
    EXPECT_NE(std::string::npos, result.out.find("\n        x \033[1mcut\xef\xbf\xbd\033[0m\n"));
    EXPECT_EQ(std::string::npos, result.out.find("\033[31m"));
}

TEST_F(ZarnsearchTest, PrintsOneJsonObjectPerLine) {
    FakeDaemon daemon(ThreeHits());
    const Result result = Zarnsearch({"search", "music", "q", "--json"}, true);
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ("{\"total\":3}\n"
              "{\"doc_id\":42,\"extension\":\"mp3\",\"fs_name\":\"caf\xc3\xa9 one.mp3\","
              "\"highlight\":\"a <em>loud</em>\\n\\t song &lt;&amp;&gt; &quot;&#39; &nbsp;\\u0001\","
              "\"is_dir\":false,"
              "\"path\":\"/music/rock/caf\xc3\xa9 one.mp3\"}\n"
              "{\"doc_id\":7,\"extension\":\"\",\"fs_name\":\"rock\",\"highlight\":null,"
              "\"is_dir\":true,\"path\":\"/music/rock\"}\n"
              "{\"doc_id\":123456,\"extension\":\"\",\"fs_name\":\"odd\\u001b[31mname\","
              "\"highlight\":\"x <em>cut\xef\xbf\xbd\",\"is_dir\":false,"
              "\"path\":\"/music/odd\\u001b[31mname\"}\n",
              result.out);
}

TEST_F(ZarnsearchTest, ReportsFailuresWithTheLibrarysCode) {
    Result result = Zarnsearch({"search", "music", "q"});
    EXPECT_EQ(3, result.status);
    EXPECT_EQ("zarnsearch search: connecting to the search daemon failed: -2 ZARN_ERR_CONNECT "
              "(the search daemon's socket could not be created or connected)\n",
              result.err);

    FakeDaemon daemon({ReadRequest(), Send("{\"total\":2}"), Send(Hit("/music/a.mp3", 1)),
                       Send("not json")});
    result = Zarnsearch({"-v", "search", "music", "q"});
    EXPECT_EQ(3, result.status);
    EXPECT_NE(std::string::npos, result.out.find("     1  mp3   a.mp3  /music/a.mp3\n"));
    EXPECT_NE(std::string::npos, result.err.find("response format is wrong: not json\n"));
    EXPECT_NE(std::string::npos,
              result.err.find("zarnsearch search: reading the hits failed: -4 ZARN_ERR_FORMAT"));
}

// With --timeout the end, a time-out and a failure look alike: a short list
// is told by comparing it with the total.
TEST_F(ZarnsearchTest, TimeOutEndsTheListWithAWarning) {
    FakeDaemon daemon({ReadRequest(), Send("{\"total\":2}"), Send(Hit("/music/a.mp3", 1))});
    const Result result = Zarnsearch({"search", "music", "q", "--timeout", "1", "--json"});
    EXPECT_EQ(0, result.status);
    EXPECT_EQ(2, std::count(result.out.begin(), result.out.end(), '\n'));
    EXPECT_NE(std::string::npos, result.err.find("warning: 1 of 2 hits arrived"));

    daemon.Queue(Reply(5, {Hit("/music/b.mp3", 2)}));  // the last page holds one hit
    const Result last = Zarnsearch({"search", "music", "q", "--timeout=1", "--page=2", "--size=2"});
    EXPECT_EQ(0, last.status);
    EXPECT_EQ("", last.err);
}

TEST_F(ZarnsearchTest, CallbackSearch) {
    FakeDaemon daemon(Reply(2, {Hit("/music/a.mp3", 1), Hit("/music/b.mp3", 2)}));
    Result result = Zarnsearch({"search", "music", "q", "--callback", "--page", "1", "--size",
                                "2", "--uid", "5", "--json"});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ(0u, result.out.find("{\"doc_id\":1,"));  // no total line
    EXPECT_EQ(2, std::count(result.out.begin(), result.out.end(), '\n'));
    const Json::Value data = daemon.Request()["data"];
    EXPECT_EQ(2, data["from"].asInt());
    EXPECT_EQ(5u, data["collector"]["uid"].asUInt());

    daemon.Queue({ReadRequest(), Send("{\"total\":1}"), Send("[]")});
    result = Zarnsearch({"search", "music", "q", "--callback"});
    EXPECT_EQ(3, result.status);
    EXPECT_EQ("shown: 0\n", result.out);
    EXPECT_NE(std::string::npos, result.err.find("the search failed: -4 ZARN_ERR_FORMAT"));
}

TEST_F(ZarnsearchTest, Count) {
    const struct {
        std::vector<zarntest::Step> script;
        int status;
        const char *out, *err;
    } cases[] = {
        {Reply(7, {Hit("/music/a.mp3", 1)}), 0, "7\n", ""},
        {Reply(0, {}), 0, "0\n", ""},
        // An error reply reads as "no total"; the stream then ends.
        {{ReadRequest(), Send("{\"success\":false}"), zarntest::Close()}, 3, "",
         "reading the total failed: -7 ZARN_ERR_READ"},
    };
    for (const auto &c : cases) {
        FakeDaemon daemon(c.script);
        const Result result = Zarnsearch({"count", "music", "q"});
        EXPECT_EQ(c.status, result.status) << result.err;
        EXPECT_EQ(c.out, result.out);
        EXPECT_NE(std::string::npos, result.err.find(c.err)) << result.err;
        EXPECT_EQ(1, daemon.Request()["data"]["size"].asInt());
    }
}

TEST_F(ZarnsearchTest, DocShowsTypedValues) {
    const std::string reply =
        "{\"success\":true,\"data\":{\"ZARNMDTitle\":\"Live\\tat home\",\"ZARNMDFSSize\":1234,"
        "\"ZARNMDIsDir\":\"y\",\"ZARNMDDurationSecond\":12.5,\"ZARNMDAlbum\":5}}";
    FakeDaemon daemon({ReadRequest(), Send(reply)});
    const std::vector<std::string> args = {"doc",         "music",         "12",
                                           "ZARNMDTitle", "ZARNMDFSSize", "ZARNMDIsDir",
                                           "ZARNMDDurationSecond", "ZARNMDAlbum", "ZARNMDNope"};
    Result result = Zarnsearch(args);
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ("FIELD                 TYPE    VALUE\n"
              "ZARNMDTitle           string  Live?at home\n"
              "ZARNMDFSSize          int     1234\n"
              "ZARNMDIsDir           bool    true\n"
              "ZARNMDDurationSecond  double  12.5\n"
              "ZARNMDAlbum           -       (no value)\n"
              "ZARNMDNope            -       (no value)\n",
              result.out);
    EXPECT_EQ(12, daemon.Request()["data"]["doc_id"].asInt());
    EXPECT_EQ("fileindex_music", daemon.Request()["data"]["id"].asString());

    daemon.Queue({ReadRequest(), Send(reply)});
    std::vector<std::string> json_args = args;
    json_args.push_back("--json");
    EXPECT_EQ("{\"ZARNMDAlbum\":null,\"ZARNMDDurationSecond\":12.5,\"ZARNMDFSSize\":1234,"
              "\"ZARNMDIsDir\":true,\"ZARNMDNope\":null,\"ZARNMDTitle\":\"Live\\tat home\"}\n",
              Zarnsearch(json_args).out);

    daemon.Queue({ReadRequest(), Send("{\"success\":false}")});
    result = Zarnsearch({"doc", "music", "12", "ZARNMDTitle"});
    EXPECT_EQ(3, result.status);
    EXPECT_EQ("", result.out);
    EXPECT_NE(std::string::npos, result.err.find("-4 ZARN_ERR_FORMAT"));
}

TEST_F(ZarnsearchTest, WhereTheIndexLives) {
    ASSERT_EQ(0, system("mkdir -p /var/vol1/music"));
    zarntest::SetShareTable({{"music", "/var/vol1/music"}});
    Result result = Zarnsearch({"where", "music"});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ("index id:  fileindex_music\n"
              "database:  /var/vol1/music/@eaDir/ZARN@.fileindexdb\n"
              "queue:     /var/vol1/music/@eaDir/ZARN@file_index_queue\n",
              result.out);
    struct stat database;
    EXPECT_EQ(0, stat("/var/vol1/music/@eaDir/ZARN@.fileindexdb", &database));

    result = Zarnsearch({"where", "video"});
    EXPECT_EQ(3, result.status);
    EXPECT_EQ("", result.out);
    EXPECT_NE(std::string::npos, result.err.find("share 'video': the share could not be looked up"));
}

TEST_F(ZarnsearchTest, IndexedAnswersThroughTheExitStatus) {
    zarntest::SetShareTable({{"music", "/var/vol1/music"}});
    zarntest::WriteFile(zarntest::kFolderConfig, "[{\"path\": \"/music/rock\"}]");
    const struct {
        std::vector<std::string> args;
        bool yes;
    } cases[] = {
        {{"share", "music"}, true},
        {{"share", "Music"}, false},
        {{"share", "music", "--cached"}, true},
        {{"path", "/music/rock/live"}, true},
        {{"path", "/music"}, false},
        {{"path", "/video/rock", "--cached"}, false},
        {{"full-path", "/var/vol1/music/rock/"}, true},
        {{"full-path", "/var/vol1/music"}, false},
        {{"contains", "/music"}, true},
        {{"contains", "/music/rock/live"}, false},
    };
    for (const auto &c : cases) {
        std::vector<std::string> args = {"indexed"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        const Result result = Zarnsearch(args);
        EXPECT_EQ(c.yes ? 0 : 1, result.status) << testing::PrintToString(args);
        EXPECT_EQ(c.yes ? "yes\n" : "no\n", result.out);
    }
}

}  // namespace

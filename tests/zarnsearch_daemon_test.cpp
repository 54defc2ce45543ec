// zarnsearch against the reference daemon on a small indexed share: what it
// prints for real replies, in each output format.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <json/json.h>

#include "daemon_fixture.h"
#include "zarnsearch_run.h"

namespace {

using zarnd_test::Names;
using zarntest::Result;
using zarntest::Zarnsearch;

class ZarnsearchDaemonTest : public zarnd_test::DaemonFixture {
protected:
    void SetUp() override {
        zarntest::QuietMachineLog();
        DaemonFixture::SetUp();
        if (!HasFatalFailure()) Start();
    }

    // The JSON lines of a successful run: the total (-1 when none), the hits.
    std::vector<Json::Value> JsonLines(const std::vector<std::string> &args, int *total) {
        std::vector<std::string> with_json = args;
        with_json.push_back("--json");
        const Result result = Zarnsearch(with_json);
        EXPECT_EQ(0, result.status) << result.err;
        std::vector<Json::Value> hits;
        *total = -1;
        std::istringstream lines(result.out);
        for (std::string line; std::getline(lines, line);) {
            Json::Value value;
            EXPECT_TRUE(Json::Reader().parse(line, value)) << line;
            if (value.isMember("total"))
                *total = value["total"].asInt();
            else
                hits.push_back(value);
        }
        return hits;
    }

    Names Paths(const std::vector<std::string> &args, int *total = nullptr) {
        int ignored;
        Names paths;
        for (const Json::Value &hit : JsonLines(args, total ? total : &ignored))
            paths.push_back(hit["path"].asString());
        return paths;
    }
};

TEST_F(ZarnsearchDaemonTest, SearchesPagesAndSorts) {
    const Names fox = {"/docs/closed/inner.txt", "/docs/fox.txt", "/docs/private.txt",
                       "/docs/report/notes.txt.gz"};
    int total = 0;
    EXPECT_EQ(fox, Paths({"search", "docs", "fox", "--sort", "ZARNMDPath"}, &total));
    EXPECT_EQ(4, total);
    EXPECT_EQ(Names(fox.begin() + 2, fox.end()),
              Paths({"search", "docs", "fox", "--sort", "ZARNMDPath", "--page=1", "--size=2"}));
    EXPECT_EQ(Names({"/docs/fox.txt"}), Paths({"search", "docs", "\"lazy dog\""}));
    // Another user sees neither the private file nor the closed folder.
    EXPECT_EQ(Names({"/docs/fox.txt", "/docs/report/notes.txt.gz"}),
              Paths({"search", "docs", "fox", "--sort", "ZARNMDPath", "--uid",
                     std::to_string(zarnd_test::kStranger)}));

    const struct {
        const char *sort;
        Names names;
    } orders[] = {
        {"ZARNMDFSName", {"file1.log", "file10.log", "file100.log", "file2.log", "file20.log"}},
        {"ZARNMDFSName:natural", {"file1.log", "file2.log", "file10.log", "file20.log", "file100.log"}},
        {"ZARNMDFSName:desc:natural",
         {"file100.log", "file20.log", "file10.log", "file2.log", "file1.log"}},
    };
    for (const auto &order : orders) {
        Names names;
        for (const Json::Value &hit :
             JsonLines({"search", "docs", "ZARNMDExtension:log", "--sort", order.sort}, &total))
            names.push_back(hit["fs_name"].asString());
        EXPECT_EQ(order.names, names) << order.sort;
    }
}

TEST_F(ZarnsearchDaemonTest, TheCallbackSearchFindsTheSameHits) {
    const std::vector<std::string> search = {"search", "docs", "fox", "--size", "3"};
    std::vector<std::string> callback = search;
    callback.push_back("--callback");
    int total = 0;
    const Names streamed = Paths(search, &total);
    EXPECT_EQ(3u, streamed.size());
    EXPECT_EQ(zarnd_test::Sorted(streamed), zarnd_test::Sorted(Paths(callback, &total)));
    EXPECT_EQ(-1, total);  // the callback search has no total to tell
}

TEST_F(ZarnsearchDaemonTest, TableWithHighlightAndCount) {
    Result result = Zarnsearch({"search", "docs", "needle", "--highlight"});
    ASSERT_EQ(0, result.status) << result.err;
    std::istringstream lines(result.out);
    std::string line;
    std::getline(lines, line);
    EXPECT_EQ("total: 1, shown: 1", line);
    std::getline(lines, line);
    EXPECT_EQ("DOC ID  TYPE  NAME      PATH", line);
    std::getline(lines, line);
    EXPECT_NE(std::string::npos, line.find("  txt   long.txt  /docs/long.txt")) << line;
    std::getline(lines, line);  // the fragment, on one line, marks dropped off a terminal
    EXPECT_NE(std::string::npos, line.find("needle \xC3\xA9t\xC3\xA9 line 31 \xC3\xA9t\xC3\xA9 line 32")) << line;
    EXPECT_FALSE(std::getline(lines, line)) << line;

    int total = 0;
    const std::vector<Json::Value> hits = JsonLines({"search", "docs", "needle", "--highlight"}, &total);
    ASSERT_EQ(1u, hits.size());
    EXPECT_NE(std::string::npos, hits[0]["highlight"].asString().find("<em>needle</em>"));

    EXPECT_EQ("4\n", Zarnsearch({"count", "docs", "fox"}).out);
    EXPECT_EQ("0\n", Zarnsearch({"count", "docs", "nothing-has-this-word"}).out);
    EXPECT_EQ("2\n", Zarnsearch({"count", "docs", "fox", "--uid",
                                 std::to_string(zarnd_test::kStranger)}).out);
}

TEST_F(ZarnsearchDaemonTest, DocumentFieldsOfAHit) {
    int total = 0;
    const std::vector<Json::Value> hits = JsonLines({"search", "docs", "ZARNMDFSName:fox.txt"}, &total);
    ASSERT_EQ(1u, hits.size());
    const std::string doc_id = std::to_string(hits[0]["doc_id"].asInt());
    const Result result = Zarnsearch({"doc", "docs", doc_id, "ZARNMDPath", "ZARNMDFSSize",
                                      "ZARNMDIsDir", "ZARNMDTitle", "NoSuchField"});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ("FIELD         TYPE    VALUE\n"
              "ZARNMDPath    string  /docs/fox.txt\n"
              "ZARNMDFSSize  int     44\n"
              "ZARNMDIsDir   bool    false\n"
              "ZARNMDTitle   -       (no value)\n"
              "NoSuchField   -       (no value)\n",
              result.out);
}

TEST_F(ZarnsearchDaemonTest, FailuresNameTheResultCode) {
    // The daemon refuses to sort on the text, or to search a share it does
    // not know: an error reply where the total belongs, then the end.
    for (const std::vector<std::string> &args :
         {std::vector<std::string>{"search", "docs", "fox", "--sort", "ZARNMDTextContent"},
          std::vector<std::string>{"count", "nosuch", "fox"}}) {
        const Result result = Zarnsearch(args);
        EXPECT_EQ(3, result.status);
        EXPECT_NE(std::string::npos, result.err.find(" failed: -7 ZARN_ERR_READ")) << result.err;
        EXPECT_NE(std::string::npos, result.err.find("it refused the request")) << result.err;
    }

    Stop();
    const Result result = Zarnsearch({"count", "docs", "fox"});
    EXPECT_EQ(3, result.status);
    EXPECT_NE(std::string::npos, result.err.find("-2 ZARN_ERR_CONNECT")) << result.err;
}

}  // namespace

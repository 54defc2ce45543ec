// zarnsearch against the reference daemon on a small indexed share: the
// command line, the library and the daemon together.
#include <regex>

#include "daemon_fixture.h"
#include "zarnsearch_run.h"

namespace {

using zarntest::Result;
using zarntest::Zarnsearch;

class ZarnsearchDaemonTest : public zarnd_test::DaemonFixture {};

// Each run: its exit status and patterns for all of its standard output and
// for a part of its standard error.  What the library and the program do with
// every kind of reply is proved elsewhere; here they meet the real daemon.
TEST_F(ZarnsearchDaemonTest, SearchCountAndFailures) {
    Start();
    const std::string stranger = std::to_string(zarnd_test::kStranger);
    const struct {
        std::vector<std::string> args;
        int status;
        const char *out, *err;
    } cases[] = {
        {{"search", "docs", "fox", "--sort", "ZARNMDPath", "--page=1", "--size=2", "--json"}, 0,
         R"(\{"total":4\}\n.*"path":"/docs/private.txt"\}\n.*"path":"/docs/report/notes.txt.gz"\}\n)", ""},
        {{"search", "docs", "ZARNMDExtension:log", "--sort", "ZARNMDFSName:desc:natural"}, 0,
         "total: 5, shown: 5\nDOC ID  TYPE  NAME         PATH\n.*file100.log\n.*file20.log\n.*file10.log\n"
         ".*file2.log\n.*file1.log\n", ""},
        {{"search", "docs", "needle", "--highlight"}, 0,
         "total: 1, shown: 1\nDOC ID  TYPE  NAME      PATH\n +[0-9]+  txt   long.txt  /docs/long.txt\n"
         "        \xE2\x80\xA6needle \xC3\xA9t\xC3\xA9 line 31 \xC3\xA9t\xC3\xA9 line 32.*\n", ""},
        {{"search", "docs", "fox", "--size", "3", "--callback", "--json"}, 0, R"((\{"doc_id":[1-9].*\}\n){3})", ""},
        {{"count", "docs", "fox", "--uid", stranger}, 0, "2\n", ""},
        // The daemon refuses to sort on the text, or to search a share it
        // does not know: an error reply where the total belongs, then the end.
        {{"search", "docs", "fox", "--sort", "ZARNMDTextContent"}, 3, "total: 0, shown: 0\n",
         "search: reading the hits failed: -7 ZARN_ERR_READ .*\n.*: it refused the request"},
        {{"count", "nosuch", "fox"}, 3, "", "count: reading the total failed: -7 ZARN_ERR_READ .*\n.*: it refused the request"},
    };
    for (const auto &c : cases) {
        const Result result = Zarnsearch(c.args);
        EXPECT_EQ(c.status, result.status) << testing::PrintToString(c.args) << result.err;
        EXPECT_TRUE(std::regex_match(result.out, std::regex(c.out))) << testing::PrintToString(c.args) << result.out;
        EXPECT_TRUE(std::regex_search(result.err, std::regex(c.err))) << testing::PrintToString(c.args) << result.err;
    }
}

}  // namespace

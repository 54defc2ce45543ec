// The real daemon through the library's streaming search functions, its
// callback search and its connection class.
#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "daemon_fixture.h"
#include "zarn_connection.h"
#include "zarncontentsearchutils.h"

namespace {

using namespace zarnd_test;

class DaemonLibrary : public DaemonFixture {};

struct Page {
    int total = -1;
    std::vector<std::string> names;
    std::vector<std::string> highlights;  // "" for a hit without one
    std::vector<int> doc_ids;
};

Page Search(const char *query, std::vector<ZARNQuerySorter> sorters, int page, int page_size,
            unsigned uid, ConnectionFlag flags) {
    Page result;
    ZARNQueryHandle *handle = nullptr;
    EXPECT_EQ(ZARN_OK, ZARNQueryConnectionInit(&handle));
    EXPECT_EQ(ZARN_OK, ZARNQueryConnectionOpen(handle, "docs", query, sorters.data(),
                                               static_cast<int>(sorters.size()), page, page_size,
                                               "library test", uid, flags));
    result.total = ZARNQueryCount(handle);
    for (;;) {
        _tag_search_record *record = nullptr;
        EXPECT_EQ(ZARN_OK, ZARNQueryGetNextRecord(handle, &record));
        if (record == nullptr) break;
        result.names.push_back(record->fs_name);
        result.highlights.push_back(record->highlight != nullptr ? record->highlight : "");
        result.doc_ids.push_back(record->doc_id);
        ZARNQueryFreeRecord(record);
    }
    ZARNQueryConnectionClose(handle);
    return result;
}

TEST_F(DaemonLibrary, CountPagesAndNaturalSort) {
    Start();
    const std::vector<ZARNQuerySorter> natural = {{SORTER_OPTION_NATURE_SORT, "ZARNMDFSName"}};
    const Page second = Search("ZARNMDExtension:log", natural, 1, 2, 0, CONNECTION_FLAG_NONE);
    EXPECT_EQ(5, second.total);
    EXPECT_EQ(Names({"file10.log", "file20.log"}), second.names);
    const std::vector<ZARNQuerySorter> descending = {{SORTER_OPTION_DESC | SORTER_OPTION_NATURE_SORT, "ZARNMDFSName"}};
    EXPECT_EQ(Names({"file100.log", "file20.log", "file10.log", "file2.log", "file1.log"}),
              Search("ZARNMDExtension:log", descending, 0, 10, 0, CONNECTION_FLAG_NONE).names);
    for (int doc_id : second.doc_ids) EXPECT_GT(doc_id, 0);
}

TEST_F(DaemonLibrary, HighlightFitsTheRecord) {
    Start();
    const Page page = Search("needle OR lazy", {}, 0, 10, 0, CONNECTION_FLAG_HIGHLIGHT);
    ASSERT_EQ(2, page.total);
    for (const std::string &highlight : page.highlights) {
        EXPECT_NE(std::string::npos, highlight.find("</em>")) << highlight;
        EXPECT_LT(highlight.size(), static_cast<size_t>(ZARN_RECORD_HIGHLIGHT_MAX));
    }
    EXPECT_EQ(std::vector<std::string>(2, ""), Search("needle OR lazy", {}, 0, 10, 0, CONNECTION_FLAG_NONE).highlights);
}

TEST_F(DaemonLibrary, UidFiltersTheCount) {
    Start();
    EXPECT_EQ(4, Search("fox", {}, 0, 10, 0, CONNECTION_FLAG_NONE).total);
    const Page stranger = Search("fox", {}, 0, 10, kStranger, CONNECTION_FLAG_NONE);
    EXPECT_EQ(2, stranger.total);
    EXPECT_EQ(Names({"fox.txt", "notes.txt.gz"}), Sorted(stranger.names));
}

bool CollectPath(const _tag_search_record *record, void *paths) {
    static_cast<Names *>(paths)->push_back(record->path);
    return true;
}

bool CollectHighlight(const _tag_search_record *record, void *highlights) {
    static_cast<Names *>(highlights)->push_back(record->highlight != nullptr ? record->highlight : "");
    return true;
}

TEST_F(DaemonLibrary, CallbackSearchAndTheConnectionClass) {
    Start();
    Names paths;
    int code = 0;
    ASSERT_EQ(1, ZARNSearchQuerySend("docs", "fox", 10, 0, CollectPath, &paths, "callback test", kStranger, &code));
    EXPECT_EQ(Names({"/docs/fox.txt", "/docs/report/notes.txt.gz"}), Sorted(paths));
    // Page 2 of size 2 holds the fifth of five hits.
    paths.clear();
    ASSERT_EQ(1, ZARNSearchQuerySend("docs", "ZARNMDExtension:log", 2, 2, CollectPath, &paths, nullptr, 0, &code));
    EXPECT_EQ(1u, paths.size());

    // The connection keeps the highlight flag for the searches it sends.
    ZARN::IR::DAEMON::Connection connection;
    ASSERT_TRUE(connection.Connect(20, CONNECTION_FLAG_HIGHLIGHT));
    Json::Value request;
    request["command"] = "search";
    request["data"]["indice"].append("fileindex_docs");
    request["data"]["query_string"]["query"] = "needle";
    request["data"]["from"] = 0;
    request["data"]["size"] = 10;
    Names highlights;
    ASSERT_TRUE(connection.SendQuery(request, CollectHighlight, &highlights, "callback test", 0));
    ASSERT_EQ(1u, highlights.size());
    EXPECT_NE(std::string::npos, highlights[0].find("<em>needle</em>")) << highlights[0];
    connection.Close();
}

}  // namespace

// The real daemon through the library's streaming search functions.
#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "daemon_fixture.h"
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

}  // namespace

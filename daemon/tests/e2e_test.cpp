// The real daemon and indexer driven through raw protocol packets and through
// the library's public functions.
#include <sys/stat.h>

#include <atomic>
#include <thread>

#include "daemon_fixture.h"

namespace {

using namespace zarnd_test;

class DaemonE2e : public DaemonFixture {};

const Names kFox = {"/docs/closed/inner.txt", "/docs/fox.txt", "/docs/private.txt", "/docs/report/notes.txt.gz"};
const Names kStrangersFox = {"/docs/fox.txt", "/docs/report/notes.txt.gz"};

TEST_F(DaemonE2e, QuerySyntax) {
    Start();
    const struct {
        const char *query;
        Names paths;
    } cases[] = {
        {"fox", kFox},
        {"FOX AND closed", {"/docs/closed/inner.txt"}},
        {"fox NOT secrets NOT closed", kStrangersFox},
        {"fox -secrets -closed", kStrangersFox},
        {"+annual revenue", {"/docs/report/annual_report-2020.txt"}},
        {"\"lazy dog\"", {"/docs/fox.txt"}},
        {"\"dog lazy\"", {}},
        {"annual OR needle", {"/docs/long.txt", "/docs/report/annual_report-2020.txt"}},
        {"repo*", {"/docs/report", "/docs/report/annual_report-2020.txt"}},
        {"ZARNMDExtension:gz", {"/docs/report/notes.txt.gz"}},
        {"ZARNMDTextContent:report", {"/docs/report/annual_report-2020.txt"}},
        {"ZARNMDFSName:closed", {"/docs/closed"}},
        {"ZARNMDIsDir:y", {"/docs/closed", "/docs/logs", "/docs/report"}},
        {"ZARNMDParent:/docs/report", {"/docs/report/annual_report-2020.txt", "/docs/report/notes.txt.gz"}},
        {"ZARNMDFSSize:8..9 ZARNMDExtension:log",
         {"/docs/logs/file1.log", "/docs/logs/file10.log", "/docs/logs/file2.log", "/docs/logs/file20.log"}},
        {"hidden", {}},  // nothing under "@eaDir" is indexed
    };
    for (const auto &c : cases) {
        int64_t total = -1;
        EXPECT_EQ(c.paths, Sorted(Field(Hits(Ask(SearchRequest(c.query)), &total)))) << c.query;
        EXPECT_EQ(static_cast<int64_t>(c.paths.size()), total) << c.query;
    }
}

// Whatever fails, the reply is one packet with the code.
TEST_F(DaemonE2e, FailuresAreOneErrorPacket) {
    zarntest::SetShareTable({{"docs", root_}, {"bare", root_ + "/report"}});  // "bare" was never indexed
    Start();
    const auto search = [](const char *index, const char *query, const char *extra = "") {
        return std::string(R"({"command": "search", "data": {"indice": [")") + index +
               R"("], "query_string": {"query": ")" + query + "\"}" + extra + "}}";
    };
    const auto document = [](const char *data) {
        return std::string(R"({"command": "document_get_by_internal_id", "data": )") + data + "}";
    };
    const struct {
        std::string request;
        int code;
    } cases[] = {
        {search("fileindex_nosuch", "fox"), 404},
        {search("nosuch", "fox"), 404},
        {search("fileindex_bare", "fox"), 404},
        {search("fileindex_docs", "fox AND"), 400},
        {search("fileindex_docs", "ZARNMDFSSize:big..huge"), 400},
        {search("fileindex_docs", "fox", R"(, "sorter": [{"field": "ZARNMDTextContent"}])"), 400},
        {search("fileindex_docs", "fox", R"(, "size": 10001)"), 400},
        {search("fileindex_docs", "fox", R"(, "filters": [{"name": "owner", "data": 1}])"), 400},
        {search("fileindex_docs", "fox", R"(, "sorter": [{"field": "ZARNMDPath", "direction": "up"}])"), 400},
        {search("fileindex_docs", "fox", R"(, "highlight": [{"field": "ZARNMDTextContent", "frag_length": 0}])"), 400},
        {R"({"command": "search", "data": []})", 400},
        {document(R"({"id": "fileindex_docs", "doc_id": 0})"), 400},
        {document(R"({"id": "fileindex_docs", "doc_id": 9999})"), 404},
        {"not json", 400},
        {R"({"command": "erase", "data": {}})", 400},
        {std::string(70000, ' '), 400},  // above the daemon's request size cap
    };
    for (const auto &c : cases) {
        const std::vector<Json::Value> replies = AskText(c.request);
        ASSERT_EQ(1u, replies.size()) << c.request.substr(0, 200);
        EXPECT_EQ(c.code, replies[0]["error"]["code"].asInt()) << c.request.substr(0, 200);
        EXPECT_TRUE(replies[0]["success"] == false && replies[0]["error"]["message"].isString());
    }
    EXPECT_EQ(kFox, Sorted(Field(Hits(Ask(SearchRequest("fox"))))));
}

TEST_F(DaemonE2e, PagesKeepTheTotalAndCoverEveryHit) {
    Start();
    const std::vector<ZARNQuerySorter> by_path = {{0, "ZARNMDPath"}};
    const Page all = LibrarySearch("*", by_path);
    ASSERT_EQ(15, all.total);
    ASSERT_EQ(Sorted(all.paths), all.paths);
    Names paged;
    for (int page = 0; page < 6; ++page) {
        const Page one = LibrarySearch("*", by_path, page, 3);
        EXPECT_EQ(15, one.total);
        EXPECT_EQ(page < 5 ? 3u : 0u, one.paths.size());
        paged.insert(paged.end(), one.paths.begin(), one.paths.end());
    }
    EXPECT_EQ(all.paths, paged);
    // The daemon's own default size, and an empty page that still counts.
    Json::Value request = SearchRequest("*");
    request["data"].removeMember("size");
    EXPECT_EQ(10u, Hits(Ask(request)).size());
    request["data"]["size"] = 0;
    int64_t counted = -1;
    EXPECT_TRUE(Hits(Ask(request), &counted).empty());
    EXPECT_EQ(15, counted);
}

TEST_F(DaemonE2e, SortKeysInTheirDirections) {
    Start();
    const unsigned desc = SORTER_OPTION_DESC, natural = SORTER_OPTION_NATURE_SORT;
    const struct {
        std::vector<ZARNQuerySorter> keys;
        std::vector<int> order;  // of the files logs/fileN.log
    } cases[] = {
        {{{0, "ZARNMDFSName"}}, {1, 10, 100, 2, 20}},
        {{{natural, "ZARNMDFSName"}}, {1, 2, 10, 20, 100}},
        {{{desc | natural, "ZARNMDFSName"}}, {100, 20, 10, 2, 1}},
        {{{desc, "ZARNMDFSSize"}, {natural, "ZARNMDFSName"}}, {100, 10, 20, 1, 2}},
        {{{0, "ZARNMDFSSize"}, {desc, "ZARNMDPath"}}, {2, 1, 20, 10, 100}},
    };
    for (const auto &c : cases) {
        Names paths;
        for (int n : c.order) paths.push_back("/docs/logs/file" + std::to_string(n) + ".log");
        EXPECT_EQ(paths, LibrarySearch("ZARNMDExtension:log", c.keys).paths) << c.keys[0].options << c.keys.size();
    }
}

TEST_F(DaemonE2e, HighlightIsCutToTheFragmentLength) {
    Start();
    for (int frag_length : {40, 21}) {
        Json::Value request = SearchRequest("needle");
        request["data"]["highlight"][0]["field"] = "ZARNMDTextContent";
        request["data"]["highlight"][0]["frag_length"] = frag_length;
        const std::vector<Json::Value> hits = Hits(Ask(request));
        ASSERT_EQ(1u, hits.size());
        const std::string fragment = hits[0]["highlight"]["ZARNMDTextContent"].asString();
        EXPECT_LT(fragment.size(), static_cast<size_t>(frag_length)) << fragment;
        EXPECT_EQ(0u, fragment.find(frag_length > 21 ? "\xE2\x80\xA6<em>needle</em>\n\xC3\xA9t\xC3\xA9 line 31" : "\xE2\x80\xA6<em>needle</em>"))
            << fragment;
    }
    // No match in the text: no highlight.
    Json::Value by_name = SearchRequest("ZARNMDFSName:long");
    by_name["data"]["highlight"][0]["field"] = "ZARNMDTextContent";
    EXPECT_FALSE(Hits(Ask(by_name))[0].isMember("highlight"));
    // Through the library: only when asked for, and within the record.
    const Page page = LibrarySearch("needle", {}, 0, 10, 0, CONNECTION_FLAG_HIGHLIGHT);
    ASSERT_EQ(Names({"/docs/long.txt"}), page.paths);
    EXPECT_EQ(0u, page.highlights[0].find("\xE2\x80\xA6<em>needle</em>\n\xC3\xA9t\xC3\xA9 line 31")) << page.highlights[0];
    EXPECT_LT(page.highlights[0].size(), static_cast<size_t>(ZARN_RECORD_HIGHLIGHT_MAX));
    EXPECT_EQ(Names({""}), LibrarySearch("needle").highlights);
}

TEST_F(DaemonE2e, HitsCarryExactlyTheRequestedFieldsTheyHave) {
    Start();
    Json::Value request = SearchRequest("ZARNMDPath:report");
    for (const char *field : {"ZARNMDFSSize", "ZARNMDTextContent", "ZARNMDIsDir", "NoSuchField"})
        request["data"]["fields"].append(field);
    request["data"]["sorter"][0]["field"] = "ZARNMDPath";
    const std::vector<Json::Value> hits = Hits(Ask(request));
    ASSERT_EQ(3u, hits.size());
    EXPECT_EQ(Names({"ZARNMDFSSize", "ZARNMDIsDir", "additional"}), Sorted(hits[0].getMemberNames()));  // a folder
    EXPECT_EQ(Names({"ZARNMDFSSize", "ZARNMDIsDir", "ZARNMDTextContent", "additional"}),
              Sorted(hits[1].getMemberNames()));
    EXPECT_EQ("annual report: revenue grew\n", hits[1]["ZARNMDTextContent"].asString());
    EXPECT_EQ("gzipped fox notes\n", hits[2]["ZARNMDTextContent"].asString());
    EXPECT_EQ(28, hits[1]["ZARNMDFSSize"].asInt());
    EXPECT_EQ("y", hits[0]["ZARNMDIsDir"].asString());
}

TEST_F(DaemonE2e, PermissionFilterHidesWhatTheUserCannotRead) {
    Start();
    // private.txt (0600), the closed folder (0750) and what it holds are
    // gone, from the count too.
    const Page fox = LibrarySearch("fox", {}, 0, 100, kStranger);
    EXPECT_EQ(kStrangersFox, Sorted(fox.paths));
    EXPECT_EQ(2, fox.total);
    EXPECT_EQ(12, LibrarySearch("*", {}, 0, 100, kStranger).total);
    Names paths;
    int code = 0;
    const auto collect = [](const _tag_search_record *record, void *paths) {
        static_cast<Names *>(paths)->push_back(record->path);
        return true;
    };
    ASSERT_EQ(1, ZARNSearchQuerySend("docs", "fox", 10, 0, collect, &paths, "callback", kStranger, &code));
    EXPECT_EQ(kStrangersFox, Sorted(paths));
    // Taking the search bit from a folder hides what lies below it.
    chmod((root_ + "/report").c_str(), 0754);
    ASSERT_EQ(0, Index());
    EXPECT_EQ(Names({"/docs/fox.txt"}), LibrarySearch("fox", {}, 0, 100, kStranger).paths);
}

TEST_F(DaemonE2e, DocumentFieldsThroughTheLibrary) {
    Start();
    const std::vector<Json::Value> hits = Hits(Ask(SearchRequest("lazy")));
    ASSERT_EQ(1u, hits.size());
    const int doc_id = hits[0]["additional"]["doc_id"].asInt();
    const char *names[] = {"ZARNMDPath", "ZARNMDFSSize", "ZARNMDIsDir", "ZARNMDFSContentChangeDate",
                           "ZARNMDOwnerUserID", "ZARNMDTextContent", "ZARNMDTitle"};
    ZARNQueryDocumentFieldValue values[7];
    ASSERT_EQ(0, ZARNQueryDocumentFieldGet("docs", doc_id, names, 7, values));
    struct stat st;
    ASSERT_EQ(0, stat((root_ + "/fox.txt").c_str(), &st));
    Names shown;  // type:value
    for (const auto &v : values)
        shown.push_back(std::to_string(v.type) + ":" +
                        (v.type == DOCUMENT_FIELD_TYPE_STRING ? v.value.string_value
                         : v.type == DOCUMENT_FIELD_TYPE_BOOL ? std::to_string(v.value.bool_value)
                                                              : std::to_string(v.value.int_value)));
    EXPECT_EQ(Names({"4:/docs/fox.txt", "1:44", "3:0", "1:" + std::to_string(st.st_mtime), "4:" + std::to_string(st.st_uid),
                     "4:The quick brown fox jumps over the lazy dog\n", "0:0"}),  // the title is not stored
              shown);
    EXPECT_EQ(ZARN_ERR_FORMAT, ZARNQueryDocumentFieldGet("docs", 9999, names, 7, values));
    EXPECT_EQ(ZARN_ERR_FORMAT, ZARNQueryDocumentFieldGet("nosuchshare", doc_id, names, 7, values));
}

TEST_F(DaemonE2e, IncrementalRunTouchesOnlyWhatChanged) {
    std::string summary;
    ASSERT_EQ(0, Index(&summary));
    EXPECT_EQ(0u, summary.find("docs: 0 added, 0 updated, 0 removed, 15 unchanged, 0 skipped")) << summary;
    Start();
    ASSERT_EQ(0, Shell("cd " + root_ + " && echo 'The quick brown fox met a quokka' > fox.txt && "
                       "rm logs/file1.log && echo 'a zebra' > new.txt"));
    ASSERT_EQ(0, Index(&summary));
    // fox.txt, and logs/ whose content changed.
    EXPECT_EQ(0u, summary.find("docs: 1 added, 2 updated, 1 removed, 12 unchanged")) << summary;
    EXPECT_EQ(Names({"/docs/fox.txt"}), Field(Hits(Ask(SearchRequest("quokka")))));
    EXPECT_EQ(Names({}), Field(Hits(Ask(SearchRequest("lazy")))));
    EXPECT_EQ(Names({"/docs/new.txt"}), Field(Hits(Ask(SearchRequest("zebra")))));
    EXPECT_EQ(4u, Hits(Ask(SearchRequest("ZARNMDParent:/docs/logs"))).size());
}

// Clients at once, while indexing runs add a batch of files and remove the
// previous one.
TEST_F(DaemonE2e, ManyClientsWhileTheIndexChanges) {
    Start();
    const std::vector<std::pair<std::string, size_t>> queries = {
        {"fox", 4}, {"ZARNMDExtension:log", 5}, {"needle", 1}, {"zzz", 0}};
    std::atomic<bool> done{false};
    std::atomic<int> wrong{0};
    std::vector<std::thread> clients;
    for (size_t t = 0; t < 6; ++t)
        clients.emplace_back([&, t] {
            for (size_t i = t; !done || i < t + 20; ++i)
                if (Hits(Ask(SearchRequest(queries[i % 4].first))).size() != queries[i % 4].second) ++wrong;
        });
    for (int round = 0; round < 4; ++round) {
        const std::string batch = "$(seq -f '" + std::to_string(round) + "-%g' 40)";
        ASSERT_EQ(0, Shell("mkdir -p " + root_ + "/churn && cd " + root_ + "/churn && rm -f * && for f in " + batch +
                           "; do echo quux > $f.txt; done"));
        EXPECT_EQ(0, Index());
    }
    done = true;
    for (std::thread &client : clients) client.join();
    EXPECT_EQ(0, wrong.load());
    int64_t total = -1;
    Hits(Ask(SearchRequest("quux")), &total);
    EXPECT_EQ(40, total);
}

TEST_F(DaemonE2e, SilentAndSlowClientsDoNotHoldTheOnlyWorker) {
    Start("--workers 1");
    const int silent = Connect();
    const int partial_header = Connect();
    ASSERT_EQ(2, write(partial_header, "\0\0", 2));
    const int partial_body = Connect();
    ASSERT_EQ(6, write(partial_body, "\0\0\0\x20{\"", 6));
    usleep(100000);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(4u, Hits(Ask(SearchRequest("fox"))).size());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    for (int fd : {silent, partial_header, partial_body}) close(fd);
}

TEST_F(DaemonE2e, OneDaemonPerSocketAndAStaleSocketIsReplaced) {
    Start();
    EXPECT_EQ(1, Shell(ZARNELASTICD " --foreground 2>/dev/null"));
    // A daemon that died without cleaning up leaves its socket behind.
    kill(daemon_, SIGKILL);
    waitpid(daemon_, nullptr, 0);
    daemon_ = -1;
    ASSERT_EQ(0, access(zarntest::kDaemonSocket, F_OK));
    ASSERT_EQ(-1, Connect());
    Start();
    struct stat st;
    ASSERT_EQ(0, stat(zarntest::kDaemonSocket, &st));
    EXPECT_EQ(0666u, st.st_mode & 0777);
    EXPECT_EQ(1u, Hits(Ask(SearchRequest("lazy"))).size());
    EXPECT_NE(std::string::npos, Log().find("collector: agent \"e2e\" uid 0 (peer uid 0) searches fileindex_docs"))
        << Log();
    Stop(SIGINT);
}

// The sandbox maps one uid only, so no client in it can switch to another
// (setuid fails there).  Instead the daemon runs in a nested user namespace
// as uid 1000, where this process, root outside it, shows as uid 1000 too:
// to the daemon, a peer that is not root.
TEST_F(DaemonE2e, PeerOtherThanRootActsOnlyAsItself) {
    Start();
    const int secret = Hits(Ask(SearchRequest("secrets")))[0]["additional"]["doc_id"].asInt();
    Stop();
    Start("", "unshare --user --map-user=1000 --map-group=1000");
    const std::vector<Json::Value> refused = Ask(SearchRequest("fox", 0));
    ASSERT_EQ(1u, refused.size());
    EXPECT_EQ(403, refused[0]["error"]["code"].asInt()) << zarn::json::ToString(refused[0]);
    // As itself the peer gets what uid 1000 may read; without a filter too.
    EXPECT_EQ(kStrangersFox, Sorted(LibrarySearch("fox", {}, 0, 100, 1000).paths));
    Json::Value unfiltered = SearchRequest("fox");
    unfiltered["data"].removeMember("filters");
    EXPECT_EQ(2u, Hits(Ask(unfiltered)).size());
    // Documents: only those that uid 1000 may read.
    ZARNQueryDocumentFieldValue value;
    const char *name = "ZARNMDPath";
    EXPECT_EQ(ZARN_ERR_FORMAT, ZARNQueryDocumentFieldGet("docs", secret, &name, 1, &value));
    const int open = Hits(Ask(SearchRequest("lazy", 1000)))[0]["additional"]["doc_id"].asInt();
    EXPECT_EQ(0, ZARNQueryDocumentFieldGet("docs", open, &name, 1, &value));
    EXPECT_STREQ("/docs/fox.txt", value.value.string_value);
    EXPECT_NE(std::string::npos, Log().find("refused peer uid 1000")) << Log();
}

}  // namespace

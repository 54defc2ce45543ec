// The real daemon and indexer driven through raw protocol packets, and the
// document lookup through the library.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "daemon_fixture.h"
#include "utf8.h"
#include "zarncontentsearchutils.h"

namespace {

using namespace zarnd_test;

class DaemonE2e : public DaemonFixture {};

// ---- the cases ------------------------------------------------------------

TEST_F(DaemonE2e, QuerySyntax) {
    Start();
    const struct {
        const char *query;
        Names paths;
    } cases[] = {
        {"fox", {"/docs/closed/inner.txt", "/docs/fox.txt", "/docs/private.txt", "/docs/report/notes.txt.gz"}},
        {"FOX AND closed", {"/docs/closed/inner.txt"}},
        {"fox NOT secrets NOT closed", {"/docs/fox.txt", "/docs/report/notes.txt.gz"}},
        {"fox -secrets -closed", {"/docs/fox.txt", "/docs/report/notes.txt.gz"}},
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
        const Names paths = Sorted(Field(Hits(Ask(SearchRequest(c.query)), &total)));
        EXPECT_EQ(c.paths, paths) << c.query;
        EXPECT_EQ(static_cast<int64_t>(c.paths.size()), total) << c.query;
    }
}

TEST_F(DaemonE2e, FailuresAreOneErrorPacket) {
    // "bare" is a share that was never indexed.
    zarntest::SetShareTable({{"docs", root_}, {"bare", root_ + "/report"}});
    Start();
    const auto search = [](const char *index, const char *query) {
        Json::Value request = SearchRequest(query);
        request["data"]["indice"][0] = index;
        return zarn::json::ToString(request);
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
        {"not json", 400},
        {"[1]", 400},
        {R"({"command": "erase", "data": {}})", 400},
        {R"({"command": "search", "data": []})", 400},
        {std::string(70000, ' '), 400},  // above the daemon's request size cap
    };
    for (const auto &c : cases) {
        const std::vector<Json::Value> replies = AskText(c.request);
        ASSERT_EQ(1u, replies.size()) << c.request.substr(0, 200);
        EXPECT_EQ(Json::Value(false), replies[0]["success"]) << c.request.substr(0, 200);
        EXPECT_EQ(c.code, replies[0]["error"]["code"].asInt()) << c.request.substr(0, 200);
        EXPECT_TRUE(replies[0]["error"]["message"].isString());
    }
    EXPECT_EQ(4u, Hits(Ask(SearchRequest("fox"))).size());
}

TEST_F(DaemonE2e, PagingKeepsTheTotalAndCoversEveryHit) {
    Start();
    Json::Value request = SearchRequest("*");
    request["data"]["sorter"][0]["field"] = "ZARNMDPath";
    int64_t total = 0;
    const Names all = Field(Hits(Ask(request), &total));
    ASSERT_EQ(15, total);  // 12 files and 3 folders below the share, "@eaDir" left out
    ASSERT_EQ(Sorted(all), all);
    Names paged;
    for (int from = 0; from < 20; from += 3) {
        request["data"]["from"] = from;
        request["data"]["size"] = 3;
        int64_t page_total = -1;
        const Names page = Field(Hits(Ask(request), &page_total));
        EXPECT_EQ(total, page_total);
        EXPECT_EQ(static_cast<size_t>(std::max<int64_t>(0, std::min<int64_t>(3, total - from))), page.size());
        paged.insert(paged.end(), page.begin(), page.end());
    }
    EXPECT_EQ(all, paged);
    // An empty page still counts every hit.
    request["data"]["size"] = 0;
    int64_t counted = -1;
    EXPECT_TRUE(Hits(Ask(request), &counted).empty());
    EXPECT_EQ(total, counted);
}

TEST_F(DaemonE2e, SortKeysInTheirDirections) {
    Start();
    const struct {
        std::vector<std::tuple<const char *, const char *, bool>> keys;
        Names names;
    } cases[] = {
        {{{"ZARNMDFSName", "asc", false}}, {"file1.log", "file10.log", "file100.log", "file2.log", "file20.log"}},
        {{{"ZARNMDFSName", "asc", true}}, {"file1.log", "file2.log", "file10.log", "file20.log", "file100.log"}},
        {{{"ZARNMDFSName", "desc", true}}, {"file100.log", "file20.log", "file10.log", "file2.log", "file1.log"}},
        {{{"ZARNMDFSSize", "desc", false}, {"ZARNMDFSName", "asc", true}},
         {"file100.log", "file10.log", "file20.log", "file1.log", "file2.log"}},
        {{{"ZARNMDFSSize", "asc", false}, {"ZARNMDPath", "desc", false}},
         {"file2.log", "file1.log", "file20.log", "file10.log", "file100.log"}},
    };
    for (const auto &c : cases) {
        Json::Value request = SearchRequest("ZARNMDExtension:log");
        for (const auto &key : c.keys) {
            Json::Value entry;
            entry["field"] = std::get<0>(key);
            entry["direction"] = std::get<1>(key);
            if (std::get<2>(key)) entry["nature_sort"] = true;
            request["data"]["sorter"].append(entry);
        }
        EXPECT_EQ(c.names, Field(Hits(Ask(request)), "ZARNMDFSName")) << zarn::json::ToString(request["data"]["sorter"]);
    }
    Json::Value bad = SearchRequest("*");
    bad["data"]["sorter"][0]["field"] = "ZARNMDTextContent";
    const std::vector<Json::Value> refused = Ask(bad);
    ASSERT_EQ(1u, refused.size());
    EXPECT_EQ(Json::Value(false), refused[0]["success"]);
    EXPECT_EQ(400, refused[0]["error"]["code"].asInt());
}

TEST_F(DaemonE2e, HighlightIsCutToTheFragmentLength) {
    Start();
    for (int frag_length : {350, 40, 21}) {
        Json::Value request = SearchRequest("needle");
        request["data"]["highlight"][0]["field"] = "ZARNMDTextContent";
        request["data"]["highlight"][0]["frag_length"] = frag_length;
        const std::vector<Json::Value> hits = Hits(Ask(request));
        ASSERT_EQ(1u, hits.size());
        const std::string fragment = hits[0]["highlight"]["ZARNMDTextContent"].asString();
        EXPECT_LT(fragment.size(), static_cast<size_t>(frag_length)) << fragment;
        EXPECT_NE(std::string::npos, fragment.find("<em>needle</em>")) << fragment;
        EXPECT_EQ(fragment, zarnd::RepairUtf8(fragment.data(), fragment.size())) << "not valid UTF-8: " << fragment;
    }
    // Without a highlight request, or without a match in the text: none.
    EXPECT_FALSE(Hits(Ask(SearchRequest("needle")))[0].isMember("highlight"));
    Json::Value by_name = SearchRequest("ZARNMDFSName:long");
    by_name["data"]["highlight"][0]["field"] = "ZARNMDTextContent";
    EXPECT_FALSE(Hits(Ask(by_name))[0].isMember("highlight"));
}

TEST_F(DaemonE2e, HitsCarryExactlyTheRequestedFieldsTheyHave) {
    Start();
    Json::Value request = SearchRequest("ZARNMDPath:report");
    request["data"]["fields"] = Json::Value(Json::arrayValue);
    for (const char *field : {"ZARNMDFSSize", "ZARNMDTextContent", "ZARNMDIsDir", "NoSuchField"})
        request["data"]["fields"].append(field);
    request["data"]["sorter"][0]["field"] = "ZARNMDPath";
    const std::vector<Json::Value> hits = Hits(Ask(request));
    ASSERT_EQ(3u, hits.size());
    const Names dir_members = {"ZARNMDFSSize", "ZARNMDIsDir", "additional"};
    const Names file_members = {"ZARNMDFSSize", "ZARNMDIsDir", "ZARNMDTextContent", "additional"};
    EXPECT_EQ(dir_members, Sorted(hits[0].getMemberNames()));  // the folder has no text
    EXPECT_EQ(file_members, Sorted(hits[1].getMemberNames()));
    EXPECT_EQ("annual report: revenue grew\n", hits[1]["ZARNMDTextContent"].asString());
    EXPECT_EQ("gzipped fox notes\n", hits[2]["ZARNMDTextContent"].asString());
    EXPECT_TRUE(hits[1]["ZARNMDFSSize"].isInt());
    EXPECT_TRUE(hits[1]["additional"]["doc_id"].isInt());
}

TEST_F(DaemonE2e, PermissionFilterHidesWhatTheUserCannotRead) {
    Start();
    int64_t total = -1;
    EXPECT_EQ(Names({"/docs/fox.txt", "/docs/report/notes.txt.gz"}),
              Sorted(Field(Hits(Ask(SearchRequest("fox", kStranger)), &total))));
    EXPECT_EQ(2, total);
    // private.txt (0600), the closed folder (0750) and what it holds are gone
    // from the count too.
    Hits(Ask(SearchRequest("*", kStranger)), &total);
    EXPECT_EQ(12, total);
    // Taking the search bit from a folder hides what lies below it.
    chmod((root_ + "/report").c_str(), 0754);
    ASSERT_EQ(0, Index());
    EXPECT_EQ(Names({"/docs/fox.txt"}), Field(Hits(Ask(SearchRequest("fox", kStranger)))));
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
    EXPECT_EQ(DOCUMENT_FIELD_TYPE_STRING, values[0].type);
    EXPECT_STREQ("/docs/fox.txt", values[0].value.string_value);
    EXPECT_EQ(DOCUMENT_FIELD_TYPE_INT, values[1].type);
    EXPECT_EQ(44, values[1].value.int_value);
    EXPECT_EQ(DOCUMENT_FIELD_TYPE_BOOL, values[2].type);
    EXPECT_FALSE(values[2].value.bool_value);
    EXPECT_EQ(DOCUMENT_FIELD_TYPE_INT, values[3].type);
    EXPECT_EQ(st.st_mtime, values[3].value.int_value);
    EXPECT_STREQ(std::to_string(st.st_uid).c_str(), values[4].value.string_value);
    EXPECT_STREQ("The quick brown fox jumps over the lazy dog\n", values[5].value.string_value);
    EXPECT_EQ(0, static_cast<int>(values[6].type));  // not stored
    // An id that names no document: the daemon's failure reply.
    EXPECT_EQ(ZARN_ERR_FORMAT, ZARNQueryDocumentFieldGet("docs", 9999, names, 7, values));
    EXPECT_EQ(ZARN_ERR_FORMAT, ZARNQueryDocumentFieldGet("nosuchshare", doc_id, names, 7, values));
}

TEST_F(DaemonE2e, IncrementalRunTouchesOnlyWhatChanged) {
    std::string summary;
    ASSERT_EQ(0, Index(&summary));
    EXPECT_EQ(0u, summary.find("docs: 0 added, 0 updated, 0 removed, 15 unchanged")) << summary;
    Start();
    Write(root_ + "/fox.txt", "The quick brown fox met a quokka\n");
    unlink((root_ + "/logs/file1.log").c_str());
    Write(root_ + "/new.txt", "a zebra\n");
    ASSERT_EQ(0, Index(&summary));
    // fox.txt, and logs/ whose content changed.
    EXPECT_EQ(0u, summary.find("docs: 1 added, 2 updated, 1 removed, 12 unchanged")) << summary;
    EXPECT_EQ(Names({"/docs/fox.txt"}), Field(Hits(Ask(SearchRequest("quokka")))));
    EXPECT_EQ(Names({}), Field(Hits(Ask(SearchRequest("lazy")))));
    EXPECT_EQ(Names({"/docs/new.txt"}), Field(Hits(Ask(SearchRequest("zebra")))));
    EXPECT_EQ(4u, Hits(Ask(SearchRequest("ZARNMDParent:/docs/logs"))).size());
}

TEST_F(DaemonE2e, ManyClientsAtOnce) {
    Start();
    const std::vector<std::pair<std::string, size_t>> queries = {
        {"fox", 4}, {"ZARNMDExtension:log", 5}, {"*", 15}, {"needle", 1}, {"zzz", 0}};
    std::atomic<int> wrong{0};
    std::vector<std::thread> clients;
    for (int t = 0; t < 8; ++t)
        clients.emplace_back([&, t] {
            for (int i = 0; i < 25; ++i) {
                const auto &q = queries[static_cast<size_t>(t + i) % queries.size()];
                if (Hits(Ask(SearchRequest(q.first))).size() != q.second) ++wrong;
            }
        });
    for (std::thread &client : clients) client.join();
    EXPECT_EQ(0, wrong.load());
}

TEST_F(DaemonE2e, SearchesRunWhileTheIndexChanges) {
    Start();
    const Names fox = {"/docs/closed/inner.txt", "/docs/fox.txt", "/docs/private.txt", "/docs/report/notes.txt.gz"};
    std::atomic<bool> done{false};
    std::atomic<int> searches{0}, wrong{0};
    std::vector<std::thread> clients;
    for (int t = 0; t < 3; ++t)
        clients.emplace_back([&] {
            while (!done) {
                if (Sorted(Field(Hits(Ask(SearchRequest("fox"))))) != fox) ++wrong;
                ++searches;
            }
        });
    // Each run adds a batch of files and removes the previous one.
    mkdir((root_ + "/churn").c_str(), 0755);
    for (int round = 0; round < 4; ++round) {
        for (int i = 0; i < 40; ++i) {
            Write(root_ + "/churn/r" + std::to_string(round) + "-" + std::to_string(i) + ".txt", "quux\n");
            if (round > 0) unlink((root_ + "/churn/r" + std::to_string(round - 1) + "-" + std::to_string(i) + ".txt").c_str());
        }
        EXPECT_EQ(0, Index());
    }
    done = true;
    for (std::thread &client : clients) client.join();
    EXPECT_EQ(0, wrong.load());
    EXPECT_GT(searches.load(), 0);
    int64_t total = -1;
    Hits(Ask(SearchRequest("quux")), &total);
    EXPECT_EQ(40, total);
}

TEST_F(DaemonE2e, SilentAndSlowClientsDoNotHoldTheOnlyWorker) {
    Start({"--workers", "1"});
    const int silent = Connect();
    const int partial_header = Connect();
    ASSERT_EQ(2, write(partial_header, "\0\0", 2));
    const int partial_body = Connect();
    ASSERT_EQ(6, write(partial_body, "\0\0\0\x20{\"", 6));
    usleep(100000);
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(4u, Hits(Ask(SearchRequest("fox"))).size());
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(2));
    for (int fd : {silent, partial_header, partial_body}) close(fd);
}

TEST_F(DaemonE2e, OneDaemonPerSocketAndAStaleSocketIsReplaced) {
    Start();
    std::string out;
    EXPECT_EQ(1, RunProgram({ZARNELASTICD, "--foreground"}, &out));
    EXPECT_TRUE(Answers());
    // A daemon that died without cleaning up leaves its socket behind.
    kill(daemon_, SIGKILL);
    waitpid(daemon_, nullptr, 0);
    daemon_ = -1;
    ASSERT_EQ(0, access(kSocket, F_OK));
    ASSERT_FALSE(Answers());
    Start();
    struct stat st;
    ASSERT_EQ(0, stat(kSocket, &st));
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
    Start({}, {"unshare", "--user", "--map-user=1000", "--map-group=1000"});
    const std::vector<Json::Value> refused = Ask(SearchRequest("fox", 0));
    ASSERT_EQ(1u, refused.size());
    EXPECT_EQ(403, refused[0]["error"]["code"].asInt()) << zarn::json::ToString(refused[0]);
    // As itself the peer gets what uid 1000 may read; without a filter too.
    EXPECT_EQ(Names({"/docs/fox.txt", "/docs/report/notes.txt.gz"}),
              Sorted(Field(Hits(Ask(SearchRequest("fox", 1000))))));
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

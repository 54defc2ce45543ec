// The real daemon and indexer on a small generated share inside the sandbox,
// driven through raw protocol packets and the library's public functions.
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <atomic>

#include "daemon_client.h"
#include "engine.h"
#include "failure.h"
#include "harness.h"
#include "json_text.h"
#include "share_index.h"
#include "zarncontentsearchutils.h"
#include "zarnplatform.h"
#include "zarnsearch_run.h"

namespace {

using namespace zarntest;
using Names = std::vector<std::string>;
constexpr unsigned kStranger = 54321;  // a uid that the user database does not know
const Names kFox = {"/docs/closed/inner.txt", "/docs/fox.txt", "/docs/private.txt", "/docs/report/notes.txt.gz"};
const Names kStrangersFox = {"/docs/fox.txt", "/docs/report/notes.txt.gz"};
const std::vector<ZARNQuerySorter> kByPath = {{0, "ZARNMDPath"}};

Json::Value Search(const std::string &query, unsigned uid = 0) {
    Json::Value request;
    zarn::json::FromString(R"({"command": "search", "data": {"indice": ["fileindex_docs"], "size": 100, "collector": {"agent": "e2e", "uid": )" +
                           std::to_string(uid) + R"(}, "filters": [{"name": "permission", "data": )" + std::to_string(uid) + "}]}}", &request);
    request["data"]["query_string"]["query"] = query;
    return request;
}

Names Paths(const Json::Value &request, int64_t *total = nullptr) {  // sorted
    Names names;
    for (const Json::Value &hit : Hits(request, total)) names.push_back(hit["ZARNMDPath"].asString());
    std::sort(names.begin(), names.end());
    return names;
}

// The paths that a search finds once they are `expected`; what it found
// last when the deadline passes first.
Names PathsInTime(const std::string &query, unsigned uid, const Names &expected) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    Names found;
    while ((found = Paths(Search(query, uid))) != expected && std::chrono::steady_clock::now() < deadline) usleep(20000);
    return found;
}

// A search through the library's streaming functions.
struct Page {
    int total;
    Names paths;
};
Page LibrarySearch(const char *query, unsigned uid = 0, std::vector<ZARNQuerySorter> sorters = kByPath, int page = 0,
                   int size = 100) {
    ZARNQueryHandle *handle = nullptr;
    EXPECT_EQ(ZARN_OK, ZARNQueryConnectionInit(&handle));
    EXPECT_EQ(ZARN_OK, ZARNQueryConnectionOpen(handle, "docs", query, sorters.data(), static_cast<int>(sorters.size()),
                                               page, size, "library test", uid, CONNECTION_FLAG_NONE));
    Page result{ZARNQueryCount(handle), {}};
    int code;  // the end leaves the record untouched
    for (_tag_search_record *record = nullptr; (code = ZARNQueryGetNextRecord(handle, &record)) == ZARN_OK && record;
         record = nullptr) {
        result.paths.push_back(record->path);
        EXPECT_GT(record->doc_id, 0);
        ZARNQueryFreeRecord(record);
    }
    EXPECT_EQ(ZARN_OK, code);
    ZARNQueryConnectionClose(handle);
    return result;
}

class DaemonE2e : public ::testing::Test {
protected:
    // 12 files and 3 folders to index; "@eaDir", the platform's own, is left out.
    void SetUp() override {
        ASSERT_EQ(0, Shell(R"sh(umask 022 && mkdir /var/docs && cd /var/docs && mkdir report logs closed @eaDir &&
            chmod 750 closed && echo 'The quick brown fox jumps over the lazy dog' > fox.txt && echo 'fox secrets' > private.txt &&
            chmod 600 private.txt && echo 'fox inside the closed folder' > closed/inner.txt && cd report &&
            echo 'annual report: revenue grew' > annual_report-2020.txt && echo 'gzipped fox notes' | gzip > notes.txt.gz && cd .. &&
            for n in 1 2 10 20 100; do echo "entry $n" > logs/file$n.log; done &&
            for i in $(seq 0 59); do printf '\303\251t\303\251 line %d%s\n' $i "$([ $i = 30 ] && echo ' needle')"; done > long.txt &&
            printf '\177ELF\0\0\1fox' > bin.dat && echo "fox in the platform's own folder" > @eaDir/hidden-fox.txt)sh").status);
        SetShareTable({{"docs", "/var/docs"}});
        WriteFile(kFolderConfig, R"([{"path": "/docs"}])");
        ASSERT_EQ(0, Index().status);
    }
    void TearDown() override { if (daemon_ > 0) Stop(); }
    static Result Index() { return Shell(ZARNELASTICD " index"); }
    static std::string Log() { return Shell("cat /var/daemon.log").out; }
    // Whether the daemon's log says `text` before a deadline.
    static bool LogSays(const std::string &text) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        for (; Log().find(text) == std::string::npos; usleep(20000))
            if (std::chrono::steady_clock::now() >= deadline) return false;
        return true;
    }

    // The daemon in the foreground; `wrapper` runs it through another program.
    void Start(const std::string &wrapper = "", const std::string &options = "") {
        daemon_ = fork();
        if (daemon_ == 0) {
            const std::string command = "exec " + wrapper + " " ZARNELASTICD " --foreground " + options + " 2>>/var/daemon.log";
            execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
            _exit(127);
        }
        int fd = -1;
        for (int i = 0; i < 500 && (fd = ConnectToDaemon()) < 0; ++i) usleep(10000);
        ASSERT_GE(fd, 0) << Log();
        close(fd);
    }

    // SIGTERM or SIGINT stops the daemon cleanly and takes its socket away.
    void Stop(int signal_number = SIGTERM) {
        kill(daemon_, signal_number);
        int status = 0;
        EXPECT_EQ(daemon_, waitpid(daemon_, &status, 0));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status << "\n" << Log();
        EXPECT_NE(0, access(kDaemonSocket, F_OK)) << "socket left behind";
        daemon_ = -1;
    }

    pid_t daemon_ = -1;
};

TEST_F(DaemonE2e, QuerySyntax) {
    Start();
    const std::pair<const char *, Names> cases[] = {
        {"fox", kFox},
        {"FOX AND closed", {"/docs/closed/inner.txt"}},
        {"fox NOT secrets NOT closed", kStrangersFox},
        {"+annual revenue", {"/docs/report/annual_report-2020.txt"}},
        {"\"lazy dog\"", {"/docs/fox.txt"}},
        {"annual OR needle", {"/docs/long.txt", "/docs/report/annual_report-2020.txt"}},
        {"repo*", {"/docs/report", "/docs/report/annual_report-2020.txt"}},
        {"ZARNMDExtension:gz", {"/docs/report/notes.txt.gz"}},
        {"ZARNMDParent:/docs/report", {"/docs/report/annual_report-2020.txt", "/docs/report/notes.txt.gz"}},
        {"ZARNMDFSSize:8..9 ZARNMDExtension:log", {"/docs/logs/file1.log", "/docs/logs/file10.log", "/docs/logs/file2.log", "/docs/logs/file20.log"}},
        {"hidden", {}},  // nothing under "@eaDir" is indexed
    };
    for (const auto &c : cases) {
        int64_t total = -1;
        EXPECT_EQ(c.second, Paths(Search(c.first), &total)) << c.first;
        EXPECT_EQ(static_cast<int64_t>(c.second.size()), total) << c.first;
    }
}

// Whatever fails, the reply is one packet with the code, and the daemon
// serves on.
TEST_F(DaemonE2e, FailuresAreOneErrorPacket) {
    SetShareTable({{"docs", "/var/docs"}, {"bare", "/var/docs/report"}});  // "bare" was never indexed
    Start();
    const std::string search = R"({"command": "search", "data": {"indice": ["fileindex_docs"], "query_string": {"query": "fox")";
    std::string nine_keys = R"({"field": "ZARNMDPath"})";
    for (int i = 0; i < 8; ++i) nine_keys += R"(, {"field": "ZARNMDFSName"})";
    const std::pair<std::string, int> cases[] = {
        {R"({"command": "search", "data": {"indice": ["fileindex_nosuch"], "query_string": {"query": "fox"}}})", 404},
        {R"({"command": "search", "data": {"indice": ["fileindex_bare"], "query_string": {"query": "fox"}}})", 404},
        {R"({"command": "search", "data": {"indice": ["fileindex_docs"], "query_string": {"query": "fox AND"}}})", 400},
        {R"({"command": "search", "data": {"indice": ["fileindex_docs"], "query_string": {"query": "ZARNMDFSSize:a..b"}}})", 400},
        {search + R"(}, "sorter": [{"field": "ZARNMDTextContent"}]}})", 400},
        {search + R"(}, "size": 10001}})", 400},
        {search + R"(}, "from": 99991}})", 400},  // from + size above 100000
        {search + R"(}, "sorter": [)" + nine_keys + "]}}", 400},
        {R"({"command": "search", "data": {"indice": "fileindex_docs", "query_string": {"query": ")" + std::string(4097, 'a') + "\"}}}", 400},
        {R"({"command": "search", "data": {"indice": "fileindex_docs", "query_string": {"query": ")" + std::string(33, '*') + "\"}}}", 400},
        {search + R"(}, "highlight": [{"field": "ZARNMDTextContent", "frag_length": 0}]}})", 400},
        {R"({"command": "document_get_by_internal_id", "data": {"id": "fileindex_docs", "doc_id": 9999}})", 404},
        {R"({"command": "document_get_by_internal_id", "data": {"id": "fileindex_do\ncs", "doc_id": 1}})", 400},
        {R"({"command": "search", "data": {"indice": ")" + std::string(266, 'x') + "\"}}", 400},
        {"not json", 400},
        {std::string(70000, ' '), 400},  // above the daemon's request size cap
    };
    for (const auto &c : cases) {
        const Replies replies = Ask(c.first);
        ASSERT_EQ(1u, replies.size()) << c.first.substr(0, 200);
        EXPECT_TRUE(replies[0]["success"] == false && replies[0]["error"]["message"].isString() &&
                    replies[0]["error"]["code"] == c.second) << c.first.substr(0, 200) << zarn::json::ToString(replies[0]);
    }
    EXPECT_EQ(kFox, Paths(Search("fox")));
    // Client text reaches the log escaped: no line of it is the client's.
    Json::Value forged = Search("fox");
    forged["data"]["collector"]["agent"] = "a\nzarnelasticd[1]: forged";
    forged["data"]["sorter"][0]["field"] = "\nzarnelasticd[1]: forged \xff";
    Ask(zarn::json::ToString(forged));
    EXPECT_EQ(std::string::npos, Log().find("\nzarnelasticd[1]: forged")) << Log();
    EXPECT_NE(std::string::npos, Log().find("agent \"a\\x0Azarnelasticd[1]: forged\"")) << Log();
}

// Past the search budget no hit is made: the total stays whole, a failure
// takes the end's place.
TEST_F(DaemonE2e, SearchBudgetCutsTheHitsShort) {
    Start("", "--search-budget 0.000000001");
    const Replies cut = Ask(zarn::json::ToString(Search("fox")));
    ASSERT_EQ(2u, cut.size());
    EXPECT_EQ(4, cut[0]["total"].asInt());
    EXPECT_EQ(R"({"error":{"code":503,"message":"search took too long"},"success":false})", zarn::json::ToString(cut[1]));
    EXPECT_TRUE(Hits(Search("nosuchword")).empty());  // nothing to cut
}

TEST_F(DaemonE2e, PagesAndSortKeys) {
    Start();
    const Page all = LibrarySearch("*");
    ASSERT_EQ(15, all.total);
    Names paged;
    for (int page = 0; page < 6; ++page) {
        const Page one = LibrarySearch("*", 0, kByPath, page, 3);
        EXPECT_EQ(15, one.total);
        paged.insert(paged.end(), one.paths.begin(), one.paths.end());
    }
    EXPECT_EQ(all.paths, paged);
    // An empty page still counts.
    Json::Value request = Search("*");
    request["data"]["size"] = 0;
    int64_t counted = -1;
    EXPECT_TRUE(Hits(request, &counted).empty());
    EXPECT_EQ(15, counted);
    const unsigned desc = SORTER_OPTION_DESC, natural = SORTER_OPTION_NATURE_SORT;
    const std::pair<std::vector<ZARNQuerySorter>, std::string> sorts[] = {  // the order of the files logs/fileN.log
        {{{0, "ZARNMDFSName"}}, "1 10 100 2 20 "},
        {{{natural, "ZARNMDFSName"}}, "1 2 10 20 100 "},
        {{{desc | natural, "ZARNMDFSName"}}, "100 20 10 2 1 "},
        {{{desc, "ZARNMDFSSize"}, {natural, "ZARNMDFSName"}}, "100 10 20 1 2 "},
        {{{0, "ZARNMDFSSize"}, {desc, "ZARNMDPath"}}, "2 1 20 10 100 "},
    };
    for (const auto &c : sorts) {
        std::string order;
        for (const std::string &path : LibrarySearch("ZARNMDExtension:log", 0, c.first).paths)
            order += path.substr(15, path.size() - 19) + " ";
        EXPECT_EQ(c.second, order) << c.first[0].options << c.first.size();
    }
}

TEST_F(DaemonE2e, HitsCarryTheRequestedFieldsAndHighlightsCut) {
    Start();
    Json::Value request = Search("ZARNMDPath:report");
    for (const char *field : {"ZARNMDTextContent", "ZARNMDIsDir", "NoSuchField"})
        request["data"]["fields"].append(field);
    request["data"]["sorter"][0]["field"] = "ZARNMDPath";
    std::string shown;
    for (Json::Value hit : Hits(request)) {
        hit.removeMember("additional");  // the doc_id
        shown += zarn::json::ToString(hit) + "\n";
    }
    EXPECT_EQ(R"({"ZARNMDIsDir":"y"})" "\n" R"({"ZARNMDIsDir":"n","ZARNMDTextContent":"annual report: revenue grew\n"})" "\n"
              R"({"ZARNMDIsDir":"n","ZARNMDTextContent":"gzipped fox notes\n"})" "\n", shown);
    // Highlights cut to the fragment length; none without a match in the text.
    // Context on both sides, whole words, "…" where cut.
    for (const auto &c : {std::make_pair(40, "\xE2\x80\xA6line 30 <em>needle</em>\n\xC3\xA9t\xC3\xA9\xE2\x80\xA6"),
                          std::make_pair(21, "\xE2\x80\xA6<em>needle</em>")}) {
        Json::Value cut = Search("needle");
        cut["data"]["highlight"][0]["field"] = "ZARNMDTextContent";
        cut["data"]["highlight"][0]["frag_length"] = c.first;
        EXPECT_EQ(c.second, Hits(cut).at(0)["highlight"]["ZARNMDTextContent"].asString());
    }
    Json::Value by_name = Search("ZARNMDFSName:long");
    by_name["data"]["highlight"][0]["field"] = "ZARNMDTextContent";
    EXPECT_FALSE(Hits(by_name).at(0).isMember("highlight"));
}

TEST_F(DaemonE2e, PermissionFilterHidesWhatTheUserCannotRead) {
    Start();
    // private.txt (0600), the closed folder (0750) and what it holds are
    // gone, from the count too.
    const Page fox = LibrarySearch("fox", kStranger);
    EXPECT_EQ(kStrangersFox, fox.paths);
    EXPECT_EQ(2, fox.total);
    EXPECT_EQ(12, LibrarySearch("*", kStranger).total);
    // Taking the search bit from a folder hides what lies below it.
    chmod("/var/docs/report", 0754);
    ASSERT_EQ(0, Index().status);
    EXPECT_EQ(Names({"/docs/fox.txt"}), LibrarySearch("fox", kStranger).paths);
}

TEST_F(DaemonE2e, IncrementalRunTouchesOnlyWhatChanged) {
    EXPECT_EQ(0u, Index().out.find("docs: 0 added, 0 updated, 0 removed, 15 unchanged, 0 skipped"));
    Start("", "--no-live");
    std::map<std::string, int> ids;  // what a client may hold on to
    for (const Json::Value &hit : Hits(Search("*"))) ids[hit["ZARNMDPath"].asString()] = hit["additional"]["doc_id"].asInt();
    ASSERT_EQ(0, Shell("cd /var/docs && echo 'The quick brown fox met a quokka' > fox.txt && rm logs/file1.log bin.dat && "
                     "echo 'a zebra' > new.txt").status);
    // fox.txt, and logs/ whose content changed; bin.dat held the first id.
    EXPECT_EQ(0u, Index().out.find("docs: 1 added, 2 updated, 2 removed, 11 unchanged"));
    for (const Json::Value &hit : Hits(Search("*"))) {
        const int id = hit["additional"]["doc_id"].asInt(), held = ids.emplace(hit["ZARNMDPath"].asString(), id).first->second;
        EXPECT_EQ(held, id) << hit["ZARNMDPath"].asString();
    }
    EXPECT_EQ(Names({"/docs/fox.txt"}), Paths(Search("quokka")));
    EXPECT_EQ(Names({}), Paths(Search("lazy")));
    EXPECT_EQ(Names({"/docs/new.txt"}), Paths(Search("zebra")));
    EXPECT_EQ(4u, Hits(Search("ZARNMDParent:/docs/logs")).size());
}

// Changes made while the daemon runs, in /var/docs, one after the other:
// each shows in searches without an indexing run.
TEST_F(DaemonE2e, LiveIndexFollowsEveryKindOfChange) {
    Start();
    const bool owners = Shell("chown 1000 /var/docs/bin.dat && chown 0 /var/docs/bin.dat").status == 0;
    struct Case {
        std::string change;  // a shell command; "" looks again after the row before
        const char *query;
        unsigned uid;
        Names expected;
    };
    const Names logs = {"/docs/logs/file10.log", "/docs/logs/file100.log", "/docs/logs/file2.log", "/docs/logs/file20.log"};
    const std::vector<Case> cases = {
        {"echo 'a zebra' > new.txt", "zebra", 0, {"/docs/new.txt"}},
        {"echo 'and a yak' >> new.txt", "yak", 0, {"/docs/new.txt"}},
        {": > new.txt", "zebra", 0, {}},
        {"mv fox.txt renamed.txt", "lazy", 0, {"/docs/renamed.txt"}},
        {"mv renamed.txt report/", "lazy", 0, {"/docs/report/renamed.txt"}},
        {"mv report /var/outside && echo 'a ghost' > /var/outside/ghost.txt", "revenue OR lazy", 0, {}},
        {"mv /var/outside moved_in", "revenue OR ghost", 0, {"/docs/moved_in/annual_report-2020.txt", "/docs/moved_in/ghost.txt"}},
        {"echo 'a tapir' > moved_in/tapir.txt", "tapir", 0, {"/docs/moved_in/tapir.txt"}},
        {"rm logs/file1.log", "ZARNMDExtension:log", kStranger, logs},
        {"chmod 700 logs", "ZARNMDExtension:log", kStranger, {}},
        {"", "ZARNMDExtension:log", 0, logs},
        {"mv closed room && echo 'a lynx' > room/lynx.txt", "inside OR lynx", 0, {"/docs/room/inner.txt", "/docs/room/lynx.txt"}},
        {"chmod 755 room", "inside", kStranger, {"/docs/room/inner.txt"}},
        {owners ? "chown -R 1000 room" : "", "ZARNMDOwnerUserID:1000", 0,
         owners ? Names{"/docs/room", "/docs/room/inner.txt", "/docs/room/lynx.txt"} : Names{}},
        {"mkdir -p fresh/sub && echo 'an okapi' > fresh/sub/okapi.txt", "okapi", 0, {"/docs/fresh/sub/okapi.txt"}},
        {"rm -r moved_in", "ZARNMDPath:moved_in", 0, {}},
        {"echo '[{\"path\": \"/docs/fresh\"}]' > " + std::string(kFolderConfig), "*", 0, {"/docs/fresh", "/docs/fresh/sub", "/docs/fresh/sub/okapi.txt"}},
        {"echo '[{\"path\": \"/docs\"}]' > " + std::string(kFolderConfig), "ZARNMDExtension:log", 0, logs},
    };
    for (const Case &c : cases) {
        ASSERT_EQ(0, Shell("cd /var/docs && " + c.change).status) << c.change;
        EXPECT_EQ(c.expected, PathsInTime(c.query, c.uid, c.expected)) << c.change << "\n" << Log();
    }
    // What the daemon made is what a run would make.
    EXPECT_EQ(0u, Index().out.find("docs: 0 added, 0 updated, 0 removed")) << Index().out;
    EXPECT_EQ(std::string::npos, Log().find("live indexing")) << Log();
}

// Past the watch limit, folders left unwatched are caught up by rescans of
// the share, which any change in it brings.
TEST_F(DaemonE2e, LiveIndexRescansTheShareAtTheWatchLimit) {
    Start("", "--max-watches 2");  // /docs and closed/, walked first
    ASSERT_TRUE(LogSays("watch limit reached")) << "not said by the first rescan";
    // Found once the daemon's first rescan is over: logs/ stays unwatched.
    ASSERT_EQ(0, Shell("echo 'a koala' > /var/docs/koala.txt").status);
    EXPECT_EQ(Names({"/docs/koala.txt"}), PathsInTime("koala", 0, {"/docs/koala.txt"}));
    ASSERT_EQ(0, Shell("echo 'a lemur' > /var/docs/logs/lemur.txt && echo 'an ibex' > /var/docs/closed/ibex.txt").status);
    const Names both = {"/docs/closed/ibex.txt", "/docs/logs/lemur.txt"};
    EXPECT_EQ(both, PathsInTime("lemur OR ibex", 0, both));
    const std::string log = Log();
    const size_t first = log.find("watch limit reached");
    EXPECT_TRUE(first != std::string::npos && log.find("watch limit reached", first + 1) == std::string::npos) << log;
}

// Events made while the daemon is stopped overflow the kernel's queue: the
// daemon says so, and a rescan of the share finds what the lost events held.
TEST_F(DaemonE2e, LiveIndexRescansAfterTheKernelDropsEvents) {
    const int queue = std::atoi(Shell("cat /proc/sys/fs/inotify/max_queued_events").out.c_str());
    if (queue <= 0 || queue > 100000) GTEST_SKIP() << "a queue of " << queue << " events takes too long to fill";
    Start();
    ASSERT_EQ(0, Shell("mkdir /var/docs/flood").status);
    ASSERT_EQ(Names({"/docs/flood"}), PathsInTime("ZARNMDFSName:flood", 0, {"/docs/flood"}));  // watched now
    kill(daemon_, SIGSTOP);
    // Four events a file (made, closed, touched, removed), the last file's
    // among those dropped.
    const Result flood = Shell("cd /var/docs/flood && seq " + std::to_string(queue / 2) +
                               " | xargs touch && rm -f * && echo 'a wombat' > last.txt");
    kill(daemon_, SIGCONT);
    ASSERT_EQ(0, flood.status) << flood.err;
    EXPECT_EQ(Names({"/docs/flood/last.txt"}), PathsInTime("wombat", 0, {"/docs/flood/last.txt"}));
    EXPECT_TRUE(LogSays("inotify dropped events")) << Log();
}

// Changes made while another writer (a run) holds the index wait for it.
TEST_F(DaemonE2e, LiveChangesWaitForAnotherWriter) {
    Start("", "--debug");
    std::unique_ptr<zarnd::IndexWriter> run;
    for (int tries = 0; !run && tries < 500; ++tries) {  // the daemon's first rescan may hold it
        try {
            run = zarnd::OpenIndexWriter(zarnd::IndexDirOfShare("docs"));
        } catch (const zarnd::Failure &) {
            usleep(20000);
        }
    }
    ASSERT_TRUE(run);
    ASSERT_EQ(0, Shell("echo 'a marmot' > /var/docs/marmot.txt").status);
    ASSERT_TRUE(LogSays("share docs: another writer holds the index")) << Log();
    run.reset();
    EXPECT_EQ(Names({"/docs/marmot.txt"}), PathsInTime("marmot", 0, {"/docs/marmot.txt"}));
}

// Clients at once, while indexing runs add a batch of files and remove the
// previous one.
TEST_F(DaemonE2e, ManyClientsWhileTheIndexChanges) {
    Start();
    const std::pair<const char *, size_t> queries[] = {{"fox", 4}, {"ZARNMDExtension:log", 5}, {"needle", 1}, {"zzz", 0}};
    std::atomic<bool> done{false};
    std::atomic<int> wrong{0};
    std::vector<std::thread> clients;
    for (size_t t = 0; t < 6; ++t)
        clients.emplace_back([&, t] {
            for (size_t i = t; !done || i < t + 20; ++i) wrong += Hits(Search(queries[i % 4].first)).size() != queries[i % 4].second;
        });
    for (int round = 0; round < 4; ++round)
        EXPECT_EQ(0, Shell("mkdir -p /var/docs/churn && cd /var/docs/churn && rm -f * && for f in $(seq -f '" + std::to_string(round) +
                         "-%g' 40); do echo quux > $f.txt; done && " ZARNELASTICD " index").status);
    done = true;
    for (std::thread &client : clients) client.join();
    EXPECT_EQ(0, wrong.load());
    EXPECT_EQ(40u, Hits(Search("quux")).size());
}

TEST_F(DaemonE2e, SilentAndSlowClientsDoNotHoldTheOnlyWorker) {
    Start("", "--workers 1");
    const int silent = ConnectToDaemon(), partial_header = ConnectToDaemon(), partial_body = ConnectToDaemon();
    ASSERT_EQ(2, write(partial_header, "\0\0", 2));
    ASSERT_EQ(6, write(partial_body, "\0\0\0\x20{\"", 6));
    usleep(100000);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(4u, Hits(Search("fox")).size());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    for (int fd : {silent, partial_header, partial_body}) close(fd);
}

// One daemon per socket; a stale socket is replaced.  The sandbox maps one
// uid only, so no client in it can switch to another (setuid fails there):
// the daemon runs in a nested user namespace as uid 1000, where this
// process, root outside it, shows as uid 1000 too: a peer that is not root.
TEST_F(DaemonE2e, OneDaemonPerSocketAndAPeerOtherThanRootActsOnlyAsItself) {
    Start();
    EXPECT_EQ(1, Shell(ZARNELASTICD " --foreground").status);
    const int secret = Hits(Search("secrets")).at(0)["additional"]["doc_id"].asInt();
    EXPECT_NE(std::string::npos, Log().find("collector: agent \"e2e\" uid 0 (peer uid 0) searches fileindex_docs")) << Log();
    // A daemon that died without cleaning up leaves its socket behind.
    kill(daemon_, SIGKILL);
    waitpid(daemon_, nullptr, 0);
    ASSERT_EQ(0, access(kDaemonSocket, F_OK));
    // Owners read otherwise from in there: no live rescan may rewrite the records.
    Start("unshare --user --map-user=1000 --map-group=1000", "--no-live");
    struct stat st;
    EXPECT_TRUE(stat(kDaemonSocket, &st) == 0 && (st.st_mode & 0777) == 0666);
    const Replies refused = Ask(zarn::json::ToString(Search("fox", 0)));
    EXPECT_TRUE(refused.size() == 1 && refused[0]["error"]["code"] == 403) << zarn::json::ToString(refused[0]);
    EXPECT_NE(std::string::npos, Log().find("refused peer uid 1000")) << Log();
    // As itself the peer gets what uid 1000 may read; without a filter too.
    EXPECT_EQ(kStrangersFox, LibrarySearch("fox", 1000).paths);
    Json::Value unfiltered = Search("fox");
    unfiltered["data"].removeMember("filters");
    EXPECT_EQ(kStrangersFox, Paths(unfiltered));
    // Documents through the library: only those that uid 1000 may read.
    const int doc_id = Hits(Search("lazy", 1000)).at(0)["additional"]["doc_id"].asInt();
    const char *names[] = {"ZARNMDPath", "ZARNMDFSSize", "ZARNMDIsDir", "ZARNMDTextContent", "ZARNMDTitle"};
    ZARNQueryDocumentFieldValue values[5];
    ASSERT_EQ(0, ZARNQueryDocumentFieldGet("docs", doc_id, names, 5, values));
    Names shown;  // type:value
    for (const auto &v : values)
        shown.push_back(std::to_string(v.type) + ":" +
                        (v.type == DOCUMENT_FIELD_TYPE_STRING ? v.value.string_value
                         : v.type == DOCUMENT_FIELD_TYPE_BOOL ? std::to_string(v.value.bool_value)
                                                              : std::to_string(v.value.int_value)));
    // The title is not stored.
    EXPECT_EQ(Names({"4:/docs/fox.txt", "1:44", "3:0", "4:The quick brown fox jumps over the lazy dog\n", "0:0"}), shown);
    for (const int id : {secret, 9999}) EXPECT_EQ(ZARN_ERR_FORMAT, ZARNQueryDocumentFieldGet("docs", id, names, 1, values));
    Stop(SIGINT);
}

}  // namespace

// The real daemon and indexer on a small generated share inside the sandbox:
// the fixture of the daemon's end-to-end tests, and their ways to search.
#ifndef ZARND_TESTS_DAEMON_FIXTURE_H
#define ZARND_TESTS_DAEMON_FIXTURE_H

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "daemon_client.h"
#include "harness.h"
#include "json_text.h"
#include "zarncontentsearchutils.h"
#include "zarnplatform.h"
#include "zarnsearch_run.h"

namespace zarntest {

using Names = std::vector<std::string>;
// What "fox" finds in the share that the fixture makes.
const Names kFox = {"/docs/closed/inner.txt", "/docs/fox.txt", "/docs/private.txt", "/docs/report/notes.txt.gz"};
const std::vector<ZARNQuerySorter> kByPath = {{0, "ZARNMDPath"}};

inline Json::Value Search(const std::string &query, unsigned uid = 0) {
    Json::Value request;
    zarn::json::FromString(R"({"command": "search", "data": {"indice": ["fileindex_docs"], "size": 100, "collector": {"agent": "e2e", "uid": )" +
                           std::to_string(uid) + R"(}, "filters": [{"name": "permission", "data": )" + std::to_string(uid) + "}]}}", &request);
    request["data"]["query_string"]["query"] = query;
    return request;
}

inline Names Paths(const Json::Value &request, int64_t *total = nullptr) {  // sorted
    Names names;
    for (const Json::Value &hit : Hits(request, total)) names.push_back(hit["ZARNMDPath"].asString());
    std::sort(names.begin(), names.end());
    return names;
}

// The paths that a search finds once they are `expected`; what it found
// last when the deadline passes first.
inline Names PathsInTime(const std::string &query, unsigned uid, const Names &expected) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    Names found;
    while ((found = Paths(Search(query, uid))) != expected && std::chrono::steady_clock::now() < deadline) usleep(20000);
    return found;
}

// A search through the library's streaming functions.
struct Page {
    int total;
    Names paths;
};
inline Page LibrarySearch(const char *query, unsigned uid = 0, std::vector<ZARNQuerySorter> sorters = kByPath, int page = 0,
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
    static std::string Log() {
        std::ifstream in("/var/daemon.log");
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    // Whether the daemon's log says `text` (after its first `from` bytes)
    // before a deadline.
    static bool LogSays(const std::string &text, size_t from = 0) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        for (; Log().find(text, from) == std::string::npos; usleep(20000))
            if (std::chrono::steady_clock::now() >= deadline) return false;
        return true;
    }

    // The daemon in the foreground, not waited for; `wrapper` runs it
    // through another program.
    void Launch(const std::string &wrapper = "", const std::string &options = "") {
        daemon_ = fork();
        if (daemon_ == 0) {
            const std::string command = "exec " + wrapper + " " ZARNELASTICD " --foreground " + options + " 2>>/var/daemon.log";
            execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
            _exit(127);
        }
    }

    // Launch, then wait for the line that the daemon logs once its socket
    // takes connections (or for its end, a failure).
    void Start(const std::string &wrapper = "", const std::string &options = "") {
        const size_t logged = Log().size();
        Launch(wrapper, options);
        for (int status = 0; Log().find("listening on", logged) == std::string::npos; usleep(5000)) {
            if (waitpid(daemon_, &status, WNOHANG) == daemon_) {
                daemon_ = -1;
                FAIL() << "the daemon ended (status " << status << ") before it listened\n" << Log();
            }
        }
    }

    // The status of the daemon's end, which it reaches on its own.
    int Ended() {
        int status = 0;
        EXPECT_EQ(daemon_, waitpid(daemon_, &status, 0));
        daemon_ = -1;
        return status;
    }

    // The daemon's own process: a wrapper that forks (strace) runs it as its child.
    pid_t DaemonProcess() const {
        pid_t pid = daemon_;
        for (std::string comm; std::ifstream("/proc/" + std::to_string(pid) + "/comm") >> comm && comm != "zarnelasticd";) {
            const std::string self = std::to_string(pid);
            if (!(std::ifstream("/proc/" + self + "/task/" + self + "/children") >> pid)) break;
        }
        return pid;
    }

    // SIGTERM or SIGINT stops the daemon cleanly and takes its socket away.
    void Stop(int signal_number = SIGTERM) {
        kill(DaemonProcess(), signal_number);
        const int status = Ended();
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status << "\n" << Log();
        EXPECT_NE(0, access(kDaemonSocket, F_OK)) << "socket left behind";
    }

    pid_t daemon_ = -1;
};

}  // namespace zarntest

#endif  // ZARND_TESTS_DAEMON_FIXTURE_H

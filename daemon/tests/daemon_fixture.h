// The real daemon and indexer on a small generated share inside the sandbox:
// the share, the processes, a raw protocol client and the library's search.
#ifndef ZARND_TEST_DAEMON_FIXTURE_H
#define ZARND_TEST_DAEMON_FIXTURE_H

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include <gtest/gtest.h>

#include "harness.h"
#include "json_text.h"
#include "zarncontentsearchutils.h"
#include "zarnplatform.h"

namespace zarnd_test {

using Names = std::vector<std::string>;
constexpr uint32_t kStranger = 54321;  // a uid that the user database does not know

// Runs a shell command to its end; its standard output goes to *out.
inline int Shell(const std::string &command, std::string *out = nullptr) {
    FILE *pipe = popen(command.c_str(), "r");
    std::string text;
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) text.append(buffer, n);
    if (out != nullptr) *out = text;
    const int status = pclose(pipe);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// A connection to the daemon's socket; -1 when nobody answers there.
inline int Connect() {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, zarntest::kDaemonSocket);
    const timeval timeout = {10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0) return fd;
    close(fd);
    return -1;
}

// Every reply packet of one request sent as the packet `text`.
inline std::vector<Json::Value> AskText(const std::string &text_sent) {
    const int fd = Connect();
    zarndaemon::io::PacketWrite(fd, text_sent);  // a refused request may be cut off mid-write
    std::vector<Json::Value> replies(1);
    for (std::string text; zarndaemon::io::PacketRead(fd, text); replies.emplace_back())
        EXPECT_TRUE(zarn::json::FromString(text, &replies.back())) << text;
    close(fd);
    replies.pop_back();
    return replies;
}

inline std::vector<Json::Value> Ask(const Json::Value &request) { return AskText(zarn::json::ToString(request)); }

inline Json::Value SearchRequest(const std::string &query, uint32_t uid = 0) {
    Json::Value request;
    zarn::json::FromString(R"({"command": "search", "data": {"indice": ["fileindex_docs"], "size": 100,
                               "collector": {"agent": "e2e"}}})", &request);
    request["data"]["query_string"]["query"] = query;
    request["data"]["filters"][0]["name"] = "permission";
    request["data"]["filters"][0]["data"] = request["data"]["collector"]["uid"] = uid;
    return request;
}

// The hits of a reply stream, checked for its shape: header, hits, end.
inline std::vector<Json::Value> Hits(const std::vector<Json::Value> &replies, int64_t *total = nullptr) {
    if (replies.size() < 2 || !replies.front().isMember("total") || replies.back()["success"] != true) {
        ADD_FAILURE() << "not a search reply: " << (replies.empty() ? "" : zarn::json::ToString(replies[0]));
        return {};
    }
    if (total != nullptr) *total = replies.front()["total"].asInt64();
    return std::vector<Json::Value>(replies.begin() + 1, replies.end() - 1);
}

inline Names Field(const std::vector<Json::Value> &hits, const char *field = "ZARNMDPath") {
    Names names;
    for (const Json::Value &hit : hits) names.push_back(hit[field].asString());
    return names;
}

inline Names Sorted(Names names) {
    std::sort(names.begin(), names.end());
    return names;
}

// A search through the library's streaming functions.
struct Page {
    int total = -1;
    Names paths, highlights;  // highlight "" for a hit without one
};

inline Page LibrarySearch(const char *query, std::vector<ZARNQuerySorter> sorters = {}, int page = 0,
                          int size = 100, unsigned uid = 0, ConnectionFlag flags = CONNECTION_FLAG_NONE) {
    Page result;
    ZARNQueryHandle *handle = nullptr;
    EXPECT_EQ(ZARN_OK, ZARNQueryConnectionInit(&handle));
    EXPECT_EQ(ZARN_OK, ZARNQueryConnectionOpen(handle, "docs", query, sorters.data(), static_cast<int>(sorters.size()),
                                               page, size, "library test", uid, flags));
    result.total = ZARNQueryCount(handle);
    for (;;) {
        _tag_search_record *record = nullptr;
        EXPECT_EQ(ZARN_OK, ZARNQueryGetNextRecord(handle, &record));
        if (record == nullptr) break;
        result.paths.push_back(record->path);
        result.highlights.push_back(record->highlight != nullptr ? record->highlight : "");
        EXPECT_GT(record->doc_id, 0);
        ZARNQueryFreeRecord(record);
    }
    ZARNQueryConnectionClose(handle);
    return result;
}

class DaemonFixture : public ::testing::Test {
protected:
    // 12 files and 3 folders to index; "@eaDir", the platform's own, is left out.
    void SetUp() override {
        mkdir("/var/tmp", 0755);
        char base[] = "/var/tmp/share.XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(base));
        root_ = std::string(base) + "/docs";
        log_ = std::string(base) + "/daemon.log";
        ASSERT_EQ(0, Shell("umask 022 && mkdir " + root_ + " && cd " + root_ + R"sh( &&
            mkdir report logs closed @eaDir && chmod 750 closed &&
            echo 'The quick brown fox jumps over the lazy dog' > fox.txt &&
            echo 'fox secrets' > private.txt && chmod 600 private.txt &&
            echo 'fox inside the closed folder' > closed/inner.txt &&
            echo 'annual report: revenue grew' > report/annual_report-2020.txt &&
            echo 'gzipped fox notes' | gzip > report/notes.txt.gz &&
            for n in 1 2 10 20 100; do echo "entry $n" > logs/file$n.log; done &&
            for i in $(seq 0 59); do printf '\303\251t\303\251 line %d%s\n' $i "$([ $i = 30 ] && echo ' needle')"; done > long.txt &&
            printf '\177ELF\0\0\1fox' > bin.dat && echo "fox in the platform's own folder" > @eaDir/hidden-fox.txt)sh"));
        zarntest::SetShareTable({{"docs", root_}});
        zarntest::WriteFile(zarntest::kFolderConfig, R"([{"path": "/docs"}])");
        ASSERT_EQ(0, Index());
    }

    void TearDown() override {
        if (daemon_ > 0) Stop();
    }

    int Index(std::string *summary = nullptr) { return Shell(ZARNELASTICD " index", summary); }

    // The daemon in the foreground, its log lines in log_; `wrapper` runs it
    // through another program (a nested user namespace).
    void Start(const std::string &options = "", const std::string &wrapper = "") {
        daemon_ = fork();
        if (daemon_ == 0) {
            const std::string command = "exec " + wrapper + " " ZARNELASTICD " --foreground " + options + " 2>>" + log_;
            execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
            _exit(127);
        }
        int fd = -1;
        for (int i = 0; i < 500 && (fd = Connect()) < 0; ++i) usleep(10000);
        ASSERT_GE(fd, 0) << Log();
        close(fd);
    }

    // SIGTERM or SIGINT stops the daemon cleanly and takes its socket away.
    void Stop(int signal_number = SIGTERM) {
        kill(daemon_, signal_number);
        int status = 0;
        EXPECT_EQ(daemon_, waitpid(daemon_, &status, 0));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status << "\n" << Log();
        EXPECT_NE(0, access(zarntest::kDaemonSocket, F_OK)) << "socket left behind";
        daemon_ = -1;
    }

    std::string Log() const {
        std::string text;
        Shell("cat " + log_, &text);
        return text;
    }

    std::string root_, log_;
    pid_t daemon_ = -1;
};

}  // namespace zarnd_test

#endif  // ZARND_TEST_DAEMON_FIXTURE_H

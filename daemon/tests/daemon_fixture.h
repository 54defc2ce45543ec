// The real daemon and indexer on a small generated share inside the sandbox:
// the share, the processes, and a raw protocol client.
#ifndef ZARND_TEST_DAEMON_FIXTURE_H
#define ZARND_TEST_DAEMON_FIXTURE_H

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "gzip_text.h"
#include "harness.h"
#include "json_text.h"
#include "zarnplatform.h"

namespace zarnd_test {

using Names = std::vector<std::string>;
using Clock = std::chrono::steady_clock;

inline constexpr char kSocket[] = "/var/run/zarnelasticd.sock";
inline constexpr uint32_t kStranger = 54321;  // a uid that the user database does not know

// ---- processes ------------------------------------------------------------

// Runs argv to its end; its standard output goes to *out.
inline int RunProgram(const std::vector<std::string> &argv, std::string *out = nullptr) {
    int pipe_fds[2];
    if (pipe(pipe_fds) != 0) return -1;
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(pipe_fds[1], STDOUT_FILENO);
        close(pipe_fds[0]);
        std::vector<char *> args;
        for (const std::string &arg : argv) args.push_back(const_cast<char *>(arg.c_str()));
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
    close(pipe_fds[1]);
    std::string text;
    char buffer[4096];
    ssize_t n;
    while ((n = read(pipe_fds[0], buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<size_t>(n));
    close(pipe_fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    if (out != nullptr) *out = text;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

inline bool Answers() {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, kSocket);
    const bool ok = connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    close(fd);
    return ok;
}

inline bool WaitFor(const std::function<bool()> &condition, int millis = 5000) {
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(millis);
    while (Clock::now() < end) {
        if (condition()) return true;
        usleep(10000);
    }
    return condition();
}

// ---- the share ------------------------------------------------------------

inline void Write(const std::string &path, const std::string &content, mode_t mode = 0644) {
    zarntest::WriteFile(path, content);
    chmod(path.c_str(), mode);
}

// A long text: 60 lines of two-byte characters, "needle" in the middle.
inline std::string LongText() {
    std::string text;
    for (int i = 0; i < 60; ++i) text += "\xC3\xA9t\xC3\xA9 line " + std::to_string(i) + (i == 30 ? " needle\n" : "\n");
    return text;
}

class DaemonFixture : public ::testing::Test {
protected:
    void SetUp() override {
        mkdir("/var/tmp", 0755);
        char base[] = "/var/tmp/share.XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(base));
        root_ = std::string(base) + "/docs";
        mkdir(root_.c_str(), 0755);
        for (const char *dir : {"/report", "/logs", "/closed"}) mkdir((root_ + dir).c_str(), 0755);
        chmod((root_ + "/closed").c_str(), 0750);
        Write(root_ + "/fox.txt", "The quick brown fox jumps over the lazy dog\n");
        Write(root_ + "/private.txt", "fox secrets\n", 0600);
        Write(root_ + "/closed/inner.txt", "fox inside the closed folder\n");
        Write(root_ + "/report/annual_report-2020.txt", "annual report: revenue grew\n");
        Write(root_ + "/report/notes.txt.gz", Gzip("gzipped fox notes\n"));
        for (int n : {1, 2, 10, 20, 100}) Write(root_ + "/logs/file" + std::to_string(n) + ".log", "entry " + std::to_string(n) + "\n");
        Write(root_ + "/long.txt", LongText());
        Write(root_ + "/bin.dat", std::string("\x7f" "ELF\0\0\1fox", 10));
        mkdir((root_ + "/@eaDir").c_str(), 0755);
        Write(root_ + "/@eaDir/hidden-fox.txt", "fox in the platform's own folder\n");
        zarntest::SetShareTable({{"docs", root_}});
        zarntest::WriteFile(zarntest::kFolderConfig, R"([{"path": "/docs"}])");
        ASSERT_EQ(0, Index());
    }

    void TearDown() override {
        if (daemon_ > 0) Stop();
    }

    // SIGTERM or SIGINT stops the daemon cleanly and takes its socket away.
    void Stop(int signal_number = SIGTERM) {
        kill(daemon_, signal_number);
        int status = 0;
        EXPECT_EQ(daemon_, waitpid(daemon_, &status, 0));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status << "\n" << Log();
        EXPECT_NE(0, access(kSocket, F_OK)) << "socket left behind";
        daemon_ = -1;
    }

    int Index(std::string *summary = nullptr) { return RunProgram({ZARNELASTICD, "index"}, summary); }

    // The daemon in the foreground, its log lines in log_; `wrapper` runs
    // it through another program (a nested user namespace).
    void Start(std::vector<std::string> extra = {}, std::vector<std::string> wrapper = {}) {
        log_ = root_ + "/../daemon.log";
        daemon_ = fork();
        if (daemon_ == 0) {
            const int log = open(log_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            dup2(log, STDERR_FILENO);
            std::vector<std::string> argv = wrapper;
            argv.push_back(ZARNELASTICD);
            argv.push_back("--foreground");
            argv.insert(argv.end(), extra.begin(), extra.end());
            std::vector<char *> args;
            for (const std::string &arg : argv) args.push_back(const_cast<char *>(arg.c_str()));
            args.push_back(nullptr);
            execvp(args[0], args.data());
            _exit(127);
        }
        ASSERT_TRUE(WaitFor(Answers)) << Log();
    }

    std::string Log() const {
        std::ifstream in(log_);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

    std::string root_;
    std::string log_;
    pid_t daemon_ = -1;
};

// ---- raw protocol ---------------------------------------------------------

inline int Connect() {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, kSocket);
    EXPECT_EQ(0, connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address));
    const timeval timeout = {10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    return fd;
}

// Every reply packet of one request, sent as the packet `text`.
inline std::vector<Json::Value> AskText(const std::string &text_sent) {
    const int fd = Connect();
    zarndaemon::io::PacketWrite(fd, text_sent);  // a refused request may be cut off mid-write
    std::vector<Json::Value> replies;
    std::string text;
    while (zarndaemon::io::PacketRead(fd, text)) {
        Json::Value reply;
        EXPECT_TRUE(zarn::json::FromString(text, &reply)) << text;
        replies.push_back(reply);
    }
    close(fd);
    return replies;
}

inline std::vector<Json::Value> Ask(const Json::Value &request) { return AskText(zarn::json::ToString(request)); }

inline Json::Value SearchRequest(const std::string &query, uint32_t uid = 0) {
    Json::Value request;
    request["command"] = "search";
    Json::Value &data = request["data"];
    data["indice"].append("fileindex_docs");
    data["query_string"]["query"] = query;
    data["from"] = 0;
    data["size"] = 100;
    data["filters"][0]["name"] = "permission";
    data["filters"][0]["data"] = uid;
    data["collector"]["agent"] = "e2e";
    data["collector"]["uid"] = uid;
    for (const char *field : {"ZARNMDPath", "ZARNMDFSName", "ZARNMDExtension", "ZARNMDIsDir"})
        data["fields"].append(field);
    return request;
}

// The hits of a reply stream, checked for its shape: header, hits, end.
inline std::vector<Json::Value> Hits(const std::vector<Json::Value> &replies, int64_t *total = nullptr) {
    EXPECT_GE(replies.size(), 2u);
    if (replies.size() < 2) return {};
    EXPECT_TRUE(replies.front().isMember("total")) << zarn::json::ToString(replies.front());
    EXPECT_EQ(Json::Value(true), replies.back()["success"]) << zarn::json::ToString(replies.back());
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

}  // namespace zarnd_test

#endif  // ZARND_TEST_DAEMON_FIXTURE_H

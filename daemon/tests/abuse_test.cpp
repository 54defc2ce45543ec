// The real daemon under abuse by one user other than root, at a small scale:
// while that user floods it with expensive searches, half-sent requests and
// large replies left unread, another user's searches are served at once;
// then random and mutated requests.  Clients switch to their uids for real
// (uids_sandbox.sh), so that the daemon tells them apart as it would outside.
#include <dirent.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>

#include <atomic>
#include <fstream>
#include <thread>

#include <gtest/gtest.h>

#include "harness.h"
#include "json_text.h"

namespace {

using namespace zarntest;

// The exit status and standard output of a shell command.
std::pair<int, std::string> Shell(const std::string &command) {
    FILE *pipe = popen(command.c_str(), "r");
    std::string out;
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
    const int status = pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128, out};
}

long RssKb(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
    return -1;
}

// The daemon's sockets: a connection it fails to close stays one.  (Its
// workers keep the index open, each once it has searched, so files vary.)
int Descriptors(pid_t pid) {
    const std::string fds = "/proc/" + std::to_string(pid) + "/fd";
    DIR *dir = opendir(fds.c_str());
    int count = 0;
    char target[64];
    while (const dirent *entry = readdir(dir)) {
        const ssize_t n = readlink((fds + "/" + entry->d_name).c_str(), target, sizeof target - 1);
        count += n > 7 && std::string(target, 7) == "socket:";
    }
    closedir(dir);
    return count;
}

// One role of the abuse client; its report.
Json::Value Role(const std::string &args) {
    const auto [status, out] = Shell(ZARNELASTICD_ABUSE " " + args);
    Json::Value report;
    EXPECT_TRUE(status == 0 && zarn::json::FromString(out, &report)) << args << ": " << out;
    return report;
}

// Only root in the machine's own user namespace has more than one uid.
bool UsersCanSwitch() {
    std::ifstream map("/proc/self/uid_map");
    uint64_t inside = 1, outside = 1, count = 0;
    map >> inside >> outside >> count;
    return getuid() == 0 && inside == 0 && outside == 0 && count == 4294967295u;
}

TEST(DaemonAbuse, OneUsersFloodLeavesOthersServedAndTheDaemonWhole) {
    if (!UsersCanSwitch()) GTEST_SKIP() << "one uid only here (not root, or inside a user namespace)";
    mount("/dev/null", "/dev/log", "none", MS_BIND, nullptr);  // log lines to the daemon's stderr only
    // Large texts, so that a reply of every hit fills the socket when unread.
    ASSERT_EQ(0, Shell(R"sh(mkdir -p /var/docs/big /var/docs/small && cd /var/docs &&
        for i in $(seq 60); do head -c 12000 /dev/urandom | base64 -w 76 | sed 's/^/fox /' > big/t$i.txt; done &&
        for i in $(seq 200); do echo "small file $i fox copyright" > small/s$i.txt; done)sh").first);
    SetShareTable({{"docs", "/var/docs"}});
    WriteFile(kFolderConfig, R"([{"path": "/docs"}])");
    ASSERT_EQ(0, Shell(ZARNELASTICD " index --quiet").first);
    const pid_t daemon = fork();
    if (daemon == 0) {
        // AddressSanitizer holds 256 MB of freed memory back from reuse: the
        // RSS bound is about the daemon's own memory.
        const char *asan = getenv("ASAN_OPTIONS");
        setenv("ASAN_OPTIONS", (std::string(asan != nullptr ? asan : "") + ":quarantine_size_mb=8").c_str(), 1);
        freopen("/var/daemon.log", "w", stderr);
        execl(ZARNELASTICD, ZARNELASTICD, "--foreground", "--workers", "4", nullptr);
        _exit(127);
    }
    const auto log = [] { return Shell("cat /var/daemon.log").second; };
    // The daemon logs this line once its socket takes connections.
    for (int status = 0; log().find("listening on") == std::string::npos; usleep(10000))
        ASSERT_NE(daemon, waitpid(daemon, &status, WNOHANG)) << "the daemon ended: " << status << "\n" << log();
    Role("search docs 4");  // the first searches open what later ones reuse
    const long rss_before = RssKb(daemon);
    const int fds_before = Descriptors(daemon);
    const Json::Value alone = Role("--as 2000 search docs 50");

    std::atomic<bool> flooding{true};
    long rss_during = 0;
    std::thread sampler([&] {
        for (; flooding; usleep(20000)) rss_during = std::max(rss_during, RssKb(daemon));
    });
    Json::Value flood;
    std::atomic<bool> flood_over{false};
    std::thread flooder([&] {
        flood = Role("--as 1000 flood docs 4 80");
        flood_over = true;
    });
    // The other user's turn comes once the flood holds its connections (at
    // most 64, the daemon's bound for one user), each a descriptor.
    while (Descriptors(daemon) < fds_before + 48 && !flood_over) usleep(5000);
    EXPECT_FALSE(flood_over) << "the flood ended before it held 48 connections";
    const Json::Value during = Role("--as 2000 search docs 50");
    flooder.join();
    flooding = false;
    sampler.join();
    const Json::Value mutated = Role("--as 1000 mutate docs 2000 30");

    int fds_after = -1;  // connections may still be closing
    for (int i = 0; i < 100 && (fds_after = Descriptors(daemon)) != fds_before; ++i) usleep(50000);
    const long rss_after = RssKb(daemon);
    kill(daemon, SIGTERM);
    int status = -1;
    waitpid(daemon, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status << "\n" << log();

    std::printf("normal client p99 alone %.1f ms, during the flood %.1f ms (max %.1f); daemon RSS %ld / %ld / %ld kB "
                "before / during / after; fds %d / %d\nflood: %s\nmutated: %s\n",
                alone["p99_ms"].asDouble(), during["p99_ms"].asDouble(), during["max_ms"].asDouble(), rss_before,
                rss_during, rss_after, fds_before, fds_after, zarn::json::ToString(flood).c_str(),
                zarn::json::ToString(mutated).c_str());
    // The other user is served in full, and without waiting for the flood's
    // unread replies, which hold the flooder's share of the workers to the end.
    EXPECT_EQ(50, alone["ok"].asInt());
    EXPECT_EQ(50, during["ok"].asInt());
    EXPECT_LT(during["max_ms"].asDouble(), 2000);
    // The flood is refused in part, with replies: nothing hangs, is cut or malformed.
    EXPECT_GT(flood["code_503"].asInt(), 0);
    EXPECT_GT(flood["ok"].asInt() + flood["unread_reply_started"].asInt(), 0);
    EXPECT_LT(flood["overrun_ms"].asInt(), 10000);
    EXPECT_EQ(2000, mutated["sent"].asInt());
    for (const Json::Value *report : {&alone, &during, const_cast<const Json::Value *>(&flood), &mutated})
        for (const char *fault : {"hang", "cut", "malformed", "code_500", "no_connection", "first_fault"})
            EXPECT_FALSE(report->isMember(fault)) << zarn::json::ToString(*report);
    EXPECT_EQ(fds_before, fds_after);
    EXPECT_LT(std::max(rss_during, rss_after), rss_before + 64 * 1024);
}

}  // namespace

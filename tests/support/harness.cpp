// The harness's process-wide parts: syslog replaced so that the library's log
// lines land in memory with their priorities, the files tests write, and a
// main that refuses to run outside the sandbox (the library's paths under
// /var must never be the real ones).  One object, pulled in by main, so that
// every test executable gets the replaced syslog.
#include <errno.h>
#include <stdarg.h>
#include <sys/vfs.h>  // tmpfs is 0x01021994

#include <fstream>
#include <regex>
#include <stdexcept>

#include <gtest/gtest.h>

#include "harness.h"

namespace zarntest {

// Never destroyed: the library may still log while the process exits.
struct LogStore {
    std::mutex mutex;
    std::vector<LogLine> lines;
} &store = *new LogStore;

// glibc's printf expands "%m" itself, from errno as it is at the call.
void Record(int priority, const char *format, va_list args) {
    const int saved_errno = errno;
    std::vector<char> text(1 << 16);
    vsnprintf(text.data(), text.size(), format, args);
    std::lock_guard<std::mutex> lock(store.mutex);
    store.lines.push_back({LOG_PRI(priority), text.data()});
    errno = saved_errno;
}

std::vector<LogLine> Logs() { return std::lock_guard<std::mutex>(store.mutex), store.lines; }

void ClearLogs() { std::lock_guard<std::mutex>(store.mutex), store.lines.clear(); }

std::vector<LogLine> LogsMatching(const std::string &pattern) {
    std::vector<LogLine> matching;
    for (const LogLine &line : Logs())
        if (std::regex_search(line.text, std::regex(pattern))) matching.push_back(line);
    return matching;
}

void ExpectOneLog(const char *pattern, int priority) {
    const std::vector<LogLine> lines = Logs();
    ASSERT_EQ(lines.size(), pattern == nullptr ? 0u : 1u) << (lines.empty() ? pattern : lines[0].text);
    if (pattern == nullptr) return;
    EXPECT_TRUE(std::regex_search(lines[0].text, std::regex(pattern))) << lines[0].text << " !~ " << pattern;
    EXPECT_EQ(lines[0].priority, priority) << lines[0].text;
}

void WriteFile(const std::string &path, const std::string &content) {
    if (!(std::ofstream(path, std::ios::binary | std::ios::trunc) << content)) throw std::runtime_error(path);
}

void SetShareTable(const std::vector<std::pair<std::string, std::string>> &shares) {
    std::string content;
    for (const auto &share : shares) content += share.first + "\t" + share.second + "\n";
    WriteFile("/var/run/zarntest-shares", content);
    setenv("ZARN_SHARE_TABLE", "/var/run/zarntest-shares", 1);
}

}  // namespace zarntest

// The plain and the fortified entry points.
extern "C" void vsyslog(int priority, const char *format, va_list args) { zarntest::Record(priority, format, args); }
extern "C" void __vsyslog_chk(int priority, int, const char *format, va_list args) { vsyslog(priority, format, args); }
extern "C" void syslog(int priority, const char *format, ...) {
    va_list args;
    va_start(args, format);
    vsyslog(priority, format, args);
    va_end(args);
}
extern "C" void __syslog_chk(int priority, int, const char *format, ...) {
    va_list args;
    va_start(args, format);
    vsyslog(priority, format, args);
    va_end(args);
}

int main(int argc, char **argv) {
    struct statfs var;
    if (getenv("ZARN_TEST_SANDBOX") == nullptr || statfs("/var", &var) != 0 || var.f_type != 0x01021994) {
        fprintf(stderr, "%s: run me through tests/support/sandbox.sh\n", argv[0]);
        return 2;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

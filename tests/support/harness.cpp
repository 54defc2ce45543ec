// The harness's process-wide parts: syslog replaced so that the library's log
// lines land in memory with their priorities, the files tests write, and a
// main that refuses to run outside the sandbox (the library's paths under
// /var must never be the real ones).  One object, pulled in by main, so that
// every test executable gets the replaced syslog.
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/vfs.h>

#include <fstream>
#include <mutex>
#include <regex>
#include <stdexcept>

#include <gtest/gtest.h>

#include "harness.h"

#ifndef TMPFS_MAGIC
#define TMPFS_MAGIC 0x01021994
#endif

namespace zarntest {
namespace {

// Never destroyed: the library may still log while the process exits.
std::mutex &LogMutex() {
    static std::mutex *mutex = new std::mutex;
    return *mutex;
}

std::vector<LogLine> &LogStore() {
    static std::vector<LogLine> *store = new std::vector<LogLine>;
    return *store;
}

}  // namespace

// glibc's printf expands "%m" itself, from errno as it is at the call.
void Record(int priority, const char *format, va_list args) {
    const int saved_errno = errno;
    va_list copy;
    va_copy(copy, args);
    const int size = vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::string text(size > 0 ? static_cast<size_t>(size) : 0, '\0');
    errno = saved_errno;
    vsnprintf(&text[0], text.size() + 1, format, args);
    std::lock_guard<std::mutex> lock(LogMutex());
    LogStore().push_back({LOG_PRI(priority), text});
    errno = saved_errno;
}

std::vector<LogLine> Logs() {
    std::lock_guard<std::mutex> lock(LogMutex());
    return LogStore();
}

void ClearLogs() {
    std::lock_guard<std::mutex> lock(LogMutex());
    LogStore().clear();
}

std::vector<LogLine> LogsMatching(const std::string &pattern) {
    const std::regex re(pattern);
    std::vector<LogLine> matching;
    for (const LogLine &line : Logs())
        if (std::regex_search(line.text, re)) matching.push_back(line);
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
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    if (!out) throw std::runtime_error("cannot write " + path);
}

void SetShareTable(const std::vector<std::pair<std::string, std::string>> &shares) {
    static const char kTable[] = "/var/run/zarntest-shares";
    std::string content;
    for (const auto &share : shares) content += share.first + "\t" + share.second + "\n";
    WriteFile(kTable, content);
    setenv("ZARN_SHARE_TABLE", kTable, 1);
}

}  // namespace zarntest

extern "C" {

void vsyslog(int priority, const char *format, va_list args) { zarntest::Record(priority, format, args); }

void __vsyslog_chk(int priority, int, const char *format, va_list args) {
    zarntest::Record(priority, format, args);
}

void syslog(int priority, const char *format, ...) {
    va_list args;
    va_start(args, format);
    zarntest::Record(priority, format, args);
    va_end(args);
}

void __syslog_chk(int priority, int, const char *format, ...) {
    va_list args;
    va_start(args, format);
    zarntest::Record(priority, format, args);
    va_end(args);
}

}  // extern "C"

int main(int argc, char **argv) {
    struct statfs var;
    if (getenv("ZARN_TEST_SANDBOX") == nullptr || statfs("/var", &var) != 0 ||
        var.f_type != TMPFS_MAGIC) {
        fprintf(stderr, "%s: run me through tests/support/sandbox.sh\n", argv[0]);
        return 2;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

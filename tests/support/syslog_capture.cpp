// Replaces syslog and its fortified forms in the test executable, so that the
// library's log lines land in memory with their priorities.
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>

#include <mutex>
#include <regex>

#include <gtest/gtest.h>

#include "harness.h"

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

// Replaces syslog and its fortified forms in the test executable, so that the
// library's log lines land in memory with their priorities.
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <syslog.h>

#include <mutex>
#include <regex>

#include "harness.h"

namespace zarntest {
namespace {

std::mutex &LogMutex() {
    static std::mutex *mutex = new std::mutex;
    return *mutex;
}

std::vector<LogLine> &LogStore() {
    static std::vector<LogLine> *store = new std::vector<LogLine>;
    return *store;
}

// "%m" becomes the text of errno as it was when syslog was called.
std::string ExpandErrno(const char *format, int saved_errno) {
    std::string out;
    for (const char *p = format; *p != '\0'; ++p) {
        if (p[0] == '%' && p[1] == '%') {
            out += "%%";
            ++p;
        } else if (p[0] == '%' && p[1] == 'm') {
            for (const char *s = strerror(saved_errno); *s != '\0'; ++s) {
                if (*s == '%') out += '%';
                out += *s;
            }
            ++p;
        } else {
            out += *p;
        }
    }
    return out;
}

void Record(int priority, const char *format, va_list args) {
    const int saved_errno = errno;
    const std::string expanded = ExpandErrno(format, saved_errno);
    va_list copy;
    va_copy(copy, args);
    const int size = vsnprintf(nullptr, 0, expanded.c_str(), copy);
    va_end(copy);
    std::string text(size > 0 ? static_cast<size_t>(size) : 0, '\0');
    if (size > 0) vsnprintf(&text[0], text.size() + 1, expanded.c_str(), args);
    std::lock_guard<std::mutex> lock(LogMutex());
    LogStore().push_back({LOG_PRI(priority), text});
    errno = saved_errno;
}

}  // namespace

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

}  // namespace zarntest

extern "C" {

void vsyslog(int priority, const char *format, va_list args) {
    zarntest::Record(priority, format, args);
}

void syslog(int priority, const char *format, ...) {
    va_list args;
    va_start(args, format);
    zarntest::Record(priority, format, args);
    va_end(args);
}

void __vsyslog_chk(int priority, int /*flag*/, const char *format, va_list args) {
    zarntest::Record(priority, format, args);
}

void __syslog_chk(int priority, int /*flag*/, const char *format, ...) {
    va_list args;
    va_start(args, format);
    zarntest::Record(priority, format, args);
    va_end(args);
}

}  // extern "C"

// zarn_bench: the library's benchmarks.  Run it through scripts/bench.sh,
// which builds it and starts it inside the sandbox (a private mount namespace
// with a tmpfs over /var): it listens on the daemon's socket and writes the
// indexed-folder list, and refuses to run anywhere else.
//
//   zarn_bench [--quick] [--json FILE] [--only stream,roundtrip,fileindex,daemon]
#include <linux/magic.h>
#include <signal.h>
#include <stdarg.h>
#include <sys/statfs.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <string>

#include "bench.h"
#include "bench_server.h"

namespace zarnbench {
namespace {

uint64_t log_lines = 0;

bool InsideSandbox() {
    const char *flag = std::getenv("ZARN_TEST_SANDBOX");
    struct statfs var;
    return flag != nullptr && std::strcmp(flag, "1") == 0 && statfs("/var", &var) == 0 &&
           var.f_type == TMPFS_MAGIC;
}

std::set<std::string> ParseList(const std::string &list) {
    std::set<std::string> items;
    size_t start = 0;
    for (size_t comma; (comma = list.find(',', start)) != std::string::npos; start = comma + 1)
        items.insert(list.substr(start, comma - start));
    items.insert(list.substr(start));
    return items;
}

}  // namespace

uint64_t LogLineCount() { return log_lines; }

}  // namespace zarnbench

// The library's log lines are counted, never written: the run stays off the
// machine's syslog.
extern "C" void vsyslog(int, const char *, va_list) { ++zarnbench::log_lines; }
extern "C" void syslog(int, const char *, ...) { ++zarnbench::log_lines; }
extern "C" void __syslog_chk(int, int, const char *, ...) { ++zarnbench::log_lines; }
extern "C" void __vsyslog_chk(int, int, const char *, va_list) { ++zarnbench::log_lines; }

int main(int argc, char **argv) {
    using namespace zarnbench;
    if (argc == 2 && std::strcmp(argv[1], kServeFlag) == 0) return ServeMain();

    Options options;
    std::string json_path = "results.json";
    std::set<std::string> only = {"stream", "roundtrip", "fileindex", "daemon"};
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--quick") {
            options.quick = true;
        } else if (arg == "--json" && i + 1 < argc) {
            json_path = argv[++i];
        } else if (arg == "--only" && i + 1 < argc) {
            only = ParseList(argv[++i]);
        } else {
            std::fprintf(stderr, "usage: %s [--quick] [--json FILE] [--only LIST]\n", argv[0]);
            return 2;
        }
    }
    if (!InsideSandbox()) {
        std::fprintf(stderr, "zarn_bench uses /var/run and /var/packages: run it through "
                             "scripts/bench.sh (inside the sandbox)\n");
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);

    Report report;
    bool ok = true;
    const bool served = only.count("stream") != 0 || only.count("roundtrip") != 0;
    if (served) {
        if (only.count("stream") != 0) CaptureStreamRequests(options);
        if (only.count("roundtrip") != 0) CaptureRoundTripRequests();
        const uint64_t logs_before = LogLineCount();
        std::unique_ptr<BenchServer> server(new BenchServer);
        if (!server->Running()) {
            std::fprintf(stderr, "the bench server did not start\n");
            return 1;
        }
        if (only.count("stream") != 0) ok = StreamThroughput(report, options) && ok;
        if (only.count("roundtrip") != 0) ok = RoundTrip(report, options) && ok;
        if (LogLineCount() != logs_before) {
            std::fprintf(stderr, "the library logged %llu lines while it was measured\n",
                         static_cast<unsigned long long>(LogLineCount() - logs_before));
            ok = false;
        }
    }
    if (only.count("fileindex") != 0) ok = FileIndexChecks(report, options) && ok;
    if (only.count("daemon") != 0) ok = DaemonSearches(report, options) && ok;

    if (!report.WriteJson(json_path)) {
        std::fprintf(stderr, "cannot write %s\n", json_path.c_str());
        ok = false;
    }
    std::printf("\nresults: %s%s\n", json_path.c_str(),
                report.AllTargetsMet() ? "; every target met" : "; SOME TARGETS MISSED");
    if (!ok) std::fprintf(stderr, "the library gave wrong answers: figures are not valid\n");
    return ok ? 0 : 1;
}

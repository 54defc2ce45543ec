// Measure 5: searches against the reference daemon.  They need a real index
// of /usr/share/doc (a copy, then a minute of indexing), so they are measured
// by the daemon's own bench script rather than in this run; this section says
// where to get them.
#include <string>

#include "bench.h"

namespace zarnbench {

bool DaemonSearches(Report &report, const Options &) {
    report.Section("daemon", "5. Reference daemon",
                   "Searches/s and latency (median, p99) of streaming searches (connect, send,\n"
                   "count, read a page of 50 hits, close) against the reference daemon serving a\n"
                   "share made of /usr/share/doc, one client and four (threads, each with its own\n"
                   "handles and connections).",
                   {"clients", "searches/s", "median ms", "p99 ms"});
    report.Skipped("measured apart, on a real index: sh daemon/bench/bench.sh BUILD_DIR [ROUNDS] "
                   "(latest figures in daemon/README.md)");
    report.EndSection();
    return true;
}

}  // namespace zarnbench

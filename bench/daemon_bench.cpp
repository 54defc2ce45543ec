// Measure 5: searches against the reference daemon, when this tree has one.
#include <string>

#include "bench.h"

namespace zarnbench {

bool DaemonSearches(Report &report, const Options &) {
    report.Section("daemon", "5. Reference daemon",
                   "Searches/s and latency (median, p99) of ZARNSearchQuerySend against the\n"
                   "reference daemon serving a share made of /usr/share/doc, one client and four.",
                   {"clients", "searches/s", "median us", "p99 us"});
    // The reference daemon is built on its own branch; until it is in this
    // tree there is nothing to measure here.
    report.Skipped("daemon not built");
    report.EndSection();
    return true;
}

}  // namespace zarnbench

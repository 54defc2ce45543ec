// Measure 5: searches against the reference daemon, when this tree has one.
#include <string>

#include "bench.h"

namespace zarnbench {

bool DaemonSearches(Report &report, const Options &) {
    report.Section("daemon", "5. Reference daemon",
                   "Searches/s and latency (median, p99) of ZARNSearchQuerySend against the\n"
                   "reference daemon serving a share made of /usr/share/doc, one client and four.",
                   {"clients", "searches/s", "median us", "p99 us"});
    // HOOK: the reference daemon (daemon/) is not in this tree yet.  When it
    // is, this measure builds its index of /usr/share/doc, starts it on the
    // daemon socket and runs the searches here.
    report.Skipped("the reference daemon (daemon/) is not in this tree yet; hook in "
                   "bench/daemon_bench.cpp");
    report.EndSection();
    return true;
}

}  // namespace zarnbench

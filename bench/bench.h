// The measures of the benchmark run.  Each adds its tables to the report;
// each returns false when the library gave a wrong answer (the figures are
// then worthless), never because a target was missed.
#ifndef ZARN_BENCH_BENCH_H
#define ZARN_BENCH_BENCH_H

#include <cstdint>
#include <string>

#include "report.h"
#include "zarncontentsearchutils.h"

namespace zarnbench {

struct Options {
    bool quick = false;  // tiny N, fewer rounds and samples: a smoke run, not figures
};

bool StreamThroughput(Report &report, const Options &options);  // needs BenchServer
bool RoundTrip(Report &report, const Options &options);         // needs BenchServer
bool FileIndexChecks(Report &report, const Options &options);
bool DaemonSearches(Report &report, const Options &options);

// Capture, before the bench server starts, the requests that the library
// writes, so that the floors and bare clients send exactly the same bytes.
void CaptureStreamRequests(const Options &options);
void CaptureRoundTripRequests();

// Reads hits with ZARNQueryGetNextRecord until the end, handing each to
// `consume` before freeing it: the number of hits, or -1 on a failure.
long DrainWithGetNext(ZARNQueryHandle *handle, void (*consume)(const _tag_search_record *));

// Lines the library sent to syslog (they are counted, not written).
uint64_t LogLineCount();

}  // namespace zarnbench

#endif  // ZARN_BENCH_BENCH_H

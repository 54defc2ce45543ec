// Clocks and order statistics for the benchmarks.
#ifndef ZARN_BENCH_TIMING_H
#define ZARN_BENCH_TIMING_H

#include <cstdint>
#include <vector>

namespace zarnbench {

// Monotonic nanoseconds.
int64_t NowNs();

// CPU nanoseconds of the calling thread (user and system): what the thread
// itself spent, whatever else the shared machine was running meanwhile.
int64_t ThreadCpuNs();

// The value below which `fraction` of the samples lie (nearest rank); 0.5 is
// the median.  0 for no samples.
double Quantile(std::vector<double> samples, double fraction);
inline double Median(const std::vector<double> &samples) { return Quantile(samples, 0.5); }

// The process's peak resident set so far, in KiB.
long MaxRssKiB();

}  // namespace zarnbench

#endif  // ZARN_BENCH_TIMING_H

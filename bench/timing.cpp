#include "timing.h"

#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <cmath>

namespace zarnbench {

int64_t NowNs() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

int64_t ThreadCpuNs() {
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

double Quantile(std::vector<double> samples, double fraction) {
    if (samples.empty()) return 0;
    const size_t rank = static_cast<size_t>(std::ceil(fraction * static_cast<double>(samples.size())));
    const size_t index = rank == 0 ? 0 : std::min(rank, samples.size()) - 1;
    std::nth_element(samples.begin(), samples.begin() + static_cast<long>(index), samples.end());
    return samples[index];
}

long MaxRssKiB() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

}  // namespace zarnbench

// A test seam that makes the Nth allocation of the calling thread fail:
// malloc, calloc and realloc return null, operator new throws std::bad_alloc.
// Link support/alloc_fail.cpp into a test executable to replace them there.
#ifndef ZARN_TEST_ALLOC_FAIL_H
#define ZARN_TEST_ALLOC_FAIL_H

#include <cstddef>
#include <functional>
#include <set>

namespace zarntest {

// Counts the calling thread's allocations from now on and fails number
// `fail_at` (1-based); 0 counts without failing.
void ArmAllocationFailure(size_t fail_at);
// Stops counting; returns how many allocations were counted.
size_t DisarmAllocationFailure();

// Runs `scenario` once with nothing failing (the library then holds what it
// keeps between calls), then with allocation 1, 2, 3, ... failing until a run completes
// without reaching the failing allocation.  Collects the results the runs
// returned into *results and returns the number of runs.  Without
// `warm_up` the first armed run starts from what the process holds now,
// so that building the library's caches is swept too.
size_t SweepAllocationFailures(const std::function<int()> &scenario, std::set<int> *results,
                               size_t limit = 5000, bool warm_up = true);

}  // namespace zarntest

#endif  // ZARN_TEST_ALLOC_FAIL_H

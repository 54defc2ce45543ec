// A test seam that makes the Nth allocation of the calling thread fail:
// malloc, calloc and realloc return null, operator new throws std::bad_alloc.
// Link support/alloc_fail.cpp into a test executable to replace them there.
#ifndef ZARN_TEST_ALLOC_FAIL_H
#define ZARN_TEST_ALLOC_FAIL_H

#include <cstddef>

namespace zarntest {

// Counts the calling thread's allocations from now on and fails number
// `fail_at` (1-based); 0 counts without failing.
void ArmAllocationFailure(size_t fail_at);
// Stops counting; returns how many allocations were counted.
size_t DisarmAllocationFailure();

}  // namespace zarntest

#endif  // ZARN_TEST_ALLOC_FAIL_H

// Allocation failures on demand, for the paths that must survive them.  The
// test executable replaces the global operator new; only allocations made by
// the thread that armed a failure count, so helper threads are unaffected.
#ifndef ZARN_TEST_FAULT_ALLOC_H
#define ZARN_TEST_FAULT_ALLOC_H

#include <cstddef>

namespace zarntest {

// The `nth` allocation from now on this thread throws std::bad_alloc (1 is
// the next one); later ones succeed again.
void FailAllocation(long nth);
// Cancels a pending failure; true when the armed failure was raised.
bool DisarmAllocationFailure();

// Blocks from operator new minus those given back, on every thread.
long LiveAllocations();

}  // namespace zarntest

#endif  // ZARN_TEST_FAULT_ALLOC_H

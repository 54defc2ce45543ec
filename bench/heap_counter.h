// Counts the heap in use by this process while armed: malloc, calloc,
// realloc and free of the executable and of every library it loads (operator
// new and delete go through them) are counted by usable block size.  Disarmed,
// the replacements pass straight through.  Arm only while one thread runs.
#ifndef ZARN_BENCH_HEAP_COUNTER_H
#define ZARN_BENCH_HEAP_COUNTER_H

#include <cstddef>
#include <cstdint>

namespace zarnbench {

struct HeapUse {
    int64_t peak_bytes = 0;   // highest heap in use above the level at Arm
    uint64_t allocations = 0; // blocks allocated while armed
};

void ArmHeapCounter();
HeapUse DisarmHeapCounter();

}  // namespace zarnbench

#endif  // ZARN_BENCH_HEAP_COUNTER_H

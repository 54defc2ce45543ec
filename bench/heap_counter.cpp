#include "heap_counter.h"

#include <malloc.h>

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *pointer, size_t size);
void __libc_free(void *pointer);
}

namespace zarnbench {
namespace {

bool armed = false;
int64_t in_use = 0;  // relative to the level at Arm; blocks freed that were
int64_t peak = 0;    // allocated before Arm make it go below zero
uint64_t allocations = 0;

void Allocated(void *pointer) {
    if (!armed || pointer == nullptr) return;
    ++allocations;
    in_use += static_cast<int64_t>(malloc_usable_size(pointer));
    if (in_use > peak) peak = in_use;
}

void Released(void *pointer) {
    if (armed && pointer != nullptr) in_use -= static_cast<int64_t>(malloc_usable_size(pointer));
}

// A block of `before` usable bytes (none when `old` is null) became `moved`
// (null when realloc freed it).
void Resized(const void *old, size_t before, void *moved) {
    if (!armed) return;
    if (old == nullptr) ++allocations;
    in_use -= static_cast<int64_t>(before);
    if (moved != nullptr) in_use += static_cast<int64_t>(malloc_usable_size(moved));
    if (in_use > peak) peak = in_use;
}

}  // namespace

void ArmHeapCounter() {
    in_use = 0;
    peak = 0;
    allocations = 0;
    armed = true;
}

HeapUse DisarmHeapCounter() {
    armed = false;
    return HeapUse{peak, allocations};
}

}  // namespace zarnbench

using zarnbench::Allocated;
using zarnbench::Released;
using zarnbench::Resized;

extern "C" void *malloc(size_t size) {
    void *pointer = __libc_malloc(size);
    Allocated(pointer);
    return pointer;
}

extern "C" void *calloc(size_t count, size_t size) {
    void *pointer = __libc_calloc(count, size);
    Allocated(pointer);
    return pointer;
}

extern "C" void *realloc(void *pointer, size_t size) {
    const size_t before = pointer != nullptr ? malloc_usable_size(pointer) : 0;
    void *moved = __libc_realloc(pointer, size);
    // A failed realloc leaves the old block as it was.
    if (moved != nullptr || size == 0) Resized(pointer, before, moved);
    return moved;
}

extern "C" void free(void *pointer) {
    Released(pointer);
    __libc_free(pointer);
}

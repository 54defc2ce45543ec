// A test seam that makes the Nth allocation of the calling thread fail:
// malloc, calloc and realloc return null, operator new throws std::bad_alloc.
// Linked into the allocation test executable only.  The executable's own
// operator new and delete go to libc: valgrind, told to leave the
// executable's allocator alone, then sees every block.
#include <errno.h>
#include <stddef.h>

#include <new>

extern "C" void *__libc_malloc(size_t), *__libc_calloc(size_t, size_t), *__libc_realloc(void *, size_t);
extern "C" void __libc_free(void *);

namespace zarntest {

thread_local bool armed = false;
thread_local size_t counted = 0, fail_at = 0;

// Counts the calling thread's allocations from now on and fails number `n`
// (1-based); 0 counts without failing.
void ArmAllocationFailure(size_t n) { counted = 0, fail_at = n, armed = true; }

// Stops counting; returns how many allocations were counted.
size_t DisarmAllocationFailure() { return armed = false, counted; }

bool Fails() { return armed && ++counted == fail_at && (errno = ENOMEM) != 0; }

void *NewOrNull(size_t size) { return Fails() ? nullptr : __libc_malloc(size == 0 ? 1 : size); }

void *NewOrThrow(size_t size) {
    if (void *pointer = NewOrNull(size)) return pointer;
    throw std::bad_alloc();
}

}  // namespace zarntest

using namespace zarntest;

extern "C" void *malloc(size_t size) { return Fails() ? nullptr : __libc_malloc(size); }
extern "C" void *calloc(size_t count, size_t size) { return Fails() ? nullptr : __libc_calloc(count, size); }
extern "C" void *realloc(void *pointer, size_t size) { return Fails() ? nullptr : __libc_realloc(pointer, size); }
extern "C" void free(void *pointer) { __libc_free(pointer); }
void *operator new(size_t size) { return NewOrThrow(size); }
void *operator new[](size_t size) { return NewOrThrow(size); }
void *operator new(size_t size, const std::nothrow_t &) noexcept { return NewOrNull(size); }
void *operator new[](size_t size, const std::nothrow_t &) noexcept { return NewOrNull(size); }
void operator delete(void *pointer) noexcept { __libc_free(pointer); }
void operator delete[](void *pointer) noexcept { __libc_free(pointer); }
void operator delete(void *pointer, size_t) noexcept { __libc_free(pointer); }
void operator delete[](void *pointer, size_t) noexcept { __libc_free(pointer); }

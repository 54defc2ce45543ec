#include "alloc_fail.h"

#include <errno.h>

#include <new>

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *pointer, size_t size);
void __libc_free(void *pointer);
}

namespace zarntest {
namespace {

thread_local bool armed = false;
thread_local size_t counted = 0;
thread_local size_t fail_at = 0;

bool NextAllocationFails() {
    if (!armed) return false;
    return ++counted == fail_at;
}

void *NewOrThrow(size_t size) {
    if (NextAllocationFails()) throw std::bad_alloc();
    void *pointer = __libc_malloc(size == 0 ? 1 : size);
    if (pointer == nullptr) throw std::bad_alloc();
    return pointer;
}

}  // namespace

void ArmAllocationFailure(size_t n) {
    counted = 0;
    fail_at = n;
    armed = true;
}

size_t DisarmAllocationFailure() {
    armed = false;
    return counted;
}

size_t SweepAllocationFailures(const std::function<int()> &scenario, std::set<int> *results,
                               size_t limit, bool warm_up) {
    // Unarmed first, so that what the library keeps between calls (its spare
    // JSON reader) is built and every armed run allocates in the same order.
    if (warm_up) (void)scenario();
    for (size_t n = 1; n <= limit; ++n) {
        ArmAllocationFailure(n);
        const int result = scenario();
        const bool reached = DisarmAllocationFailure() >= n;
        results->insert(result);
        if (!reached) return n;
    }
    return limit;
}

}  // namespace zarntest

using zarntest::NewOrThrow;
using zarntest::NextAllocationFails;

extern "C" void *malloc(size_t size) {
    if (NextAllocationFails()) {
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_malloc(size);
}

extern "C" void *calloc(size_t count, size_t size) {
    if (NextAllocationFails()) {
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_calloc(count, size);
}

extern "C" void *realloc(void *pointer, size_t size) {
    if (NextAllocationFails()) {
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_realloc(pointer, size);
}

extern "C" void free(void *pointer) { __libc_free(pointer); }

void *operator new(size_t size) { return NewOrThrow(size); }
void *operator new[](size_t size) { return NewOrThrow(size); }
void *operator new(size_t size, const std::nothrow_t &) noexcept {
    try {
        return NewOrThrow(size);
    } catch (...) {
        return nullptr;
    }
}
void *operator new[](size_t size, const std::nothrow_t &tag) noexcept {
    return operator new(size, tag);
}
void operator delete(void *pointer) noexcept { __libc_free(pointer); }
void operator delete[](void *pointer) noexcept { __libc_free(pointer); }
void operator delete(void *pointer, size_t) noexcept { __libc_free(pointer); }
void operator delete[](void *pointer, size_t) noexcept { __libc_free(pointer); }

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

bool Fails() {
    if (!armed || ++counted != fail_at) return false;
    errno = ENOMEM;
    return true;
}

void *NewOrThrow(size_t size) {
    void *pointer = Fails() ? nullptr : __libc_malloc(size == 0 ? 1 : size);
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

}  // namespace zarntest

using zarntest::Fails;
using zarntest::NewOrThrow;

// The executable's own operator new and delete: valgrind, told to leave the
// executable's allocator alone, then sees every block through libc.
extern "C" void *malloc(size_t size) { return Fails() ? nullptr : __libc_malloc(size); }
extern "C" void *calloc(size_t count, size_t size) { return Fails() ? nullptr : __libc_calloc(count, size); }
extern "C" void *realloc(void *pointer, size_t size) { return Fails() ? nullptr : __libc_realloc(pointer, size); }
extern "C" void free(void *pointer) { __libc_free(pointer); }
void *operator new(size_t size) { return NewOrThrow(size); }
void *operator new[](size_t size) { return NewOrThrow(size); }
void *operator new(size_t size, const std::nothrow_t &) noexcept {
    return Fails() ? nullptr : __libc_malloc(size == 0 ? 1 : size);
}
void *operator new[](size_t size, const std::nothrow_t &tag) noexcept { return operator new(size, tag); }
void operator delete(void *pointer) noexcept { __libc_free(pointer); }
void operator delete[](void *pointer) noexcept { __libc_free(pointer); }
void operator delete(void *pointer, size_t) noexcept { __libc_free(pointer); }
void operator delete[](void *pointer, size_t) noexcept { __libc_free(pointer); }

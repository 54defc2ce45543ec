#include "fault_alloc.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace zarntest {
namespace {
thread_local long countdown = 0;  // 0: nothing armed
thread_local bool raised = false;
std::atomic<long> live{0};

void *Allocate(std::size_t size) {
    if (countdown > 0 && --countdown == 0) {
        raised = true;
        throw std::bad_alloc();
    }
    void *block = std::malloc(size == 0 ? 1 : size);
    if (block == nullptr) throw std::bad_alloc();
    ++live;
    return block;
}

void Release(void *block) {
    if (block == nullptr) return;
    --live;
    std::free(block);
}
}  // namespace

void FailAllocation(long nth) {
    countdown = nth;
    raised = false;
}

bool DisarmAllocationFailure() {
    countdown = 0;
    return raised;
}

long LiveAllocations() { return live.load(); }

}  // namespace zarntest

void *operator new(std::size_t size) { return zarntest::Allocate(size); }
void *operator new[](std::size_t size) { return zarntest::Allocate(size); }
void operator delete(void *block) noexcept { zarntest::Release(block); }
void operator delete[](void *block) noexcept { zarntest::Release(block); }
void operator delete(void *block, std::size_t) noexcept { zarntest::Release(block); }
void operator delete[](void *block, std::size_t) noexcept { zarntest::Release(block); }

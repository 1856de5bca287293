#include "robustness/allocation_failure.h"

#include <cstdlib>
#include <new>

#if KORVSDK_ALLOCATION_FAILURES
std::atomic<int> g_allocationsBeforeFailure{-1};

void* operator new(std::size_t size) {
    int left = g_allocationsBeforeFailure.load();
    while (left >= 0 && !g_allocationsBeforeFailure.compare_exchange_weak(left, left - 1)) {
    }
    if (left == 0) throw std::bad_alloc();
    if (void* block = std::malloc(size != 0 ? size : 1)) return block;
    throw std::bad_alloc();
}
void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
#endif

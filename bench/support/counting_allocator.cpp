#include "counting_allocator.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic<long long> g_allocations{0};
// Out of line so the compiler does not pair free() with the new expressions.
[[gnu::noinline]] void Release(void* p) noexcept { std::free(p); }
}  // namespace

namespace kivbench {
long long AllocationCount() { return g_allocations.load(std::memory_order_relaxed); }
}  // namespace kivbench

void* operator new(std::size_t size) {
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    return std::malloc(size ? size : 1);
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept { return operator new(size, tag); }
void operator delete(void* p) noexcept { Release(p); }
void operator delete[](void* p) noexcept { Release(p); }
void operator delete(void* p, std::size_t) noexcept { Release(p); }
void operator delete[](void* p, std::size_t) noexcept { Release(p); }

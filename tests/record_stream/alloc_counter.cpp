#include "alloc_counter.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic<bool> g_counting{false};
std::atomic<int> g_count{0};
}  // namespace

namespace allocs {
void Start() {
    g_count = 0;
    g_counting = true;
}
int Stop() {
    g_counting = false;
    return g_count.load();
}
}  // namespace allocs

void* operator new(std::size_t size) {
    if (g_counting.load(std::memory_order_relaxed)) g_count.fetch_add(1);
    if (void* p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

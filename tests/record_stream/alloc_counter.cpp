// Counts operator new calls while switched on; a file of its own, where no use sees the replacement.
#include <atomic>
#include <cstdlib>
#include <new>

std::atomic<bool> g_countAllocs{false};
std::atomic<int> g_allocs{0};

void* operator new(std::size_t size) {
    if (g_countAllocs.load(std::memory_order_relaxed)) g_allocs.fetch_add(1);
    if (void* p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

// Counts heap allocations made through operator new while switched on (a file
// of its own: the compiler would see the replaced operators where they are used).
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

#include <atomic>
#include <cstdlib>
#include <new>

#include "largest_allocation.h"

namespace {

std::atomic<std::size_t> largest{0};

void* Allocate(std::size_t size) {
    std::size_t before = largest;
    while (size > before && !largest.compare_exchange_weak(before, size)) {
    }
    if (void* block = std::malloc(size ? size : 1)) return block;
    throw std::bad_alloc();
}

} // namespace

std::size_t TakeLargestAllocation() { return largest.exchange(0); }

void* operator new(std::size_t size) { return Allocate(size); }
void* operator new[](std::size_t size) { return Allocate(size); }
void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }

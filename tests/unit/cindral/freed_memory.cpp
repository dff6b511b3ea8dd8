#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include <openssl/crypto.h>

#include "freed_memory.h"

namespace {

constexpr std::size_t MAX_SECRET = 64;

char forward[MAX_SECRET];
char backward[MAX_SECRET];
std::size_t length = 0; ///< 0 while no object searches
FreedMemory::Count ofNew;
FreedMemory::Count ofOpenSSL;

void Inspect(void* block, FreedMemory::Count& count) {
    if (!block || length == 0) return;
    ++count._freed;
    std::size_t const size = malloc_usable_size(block);
    if (memmem(block, size, forward, length) || memmem(block, size, backward, length)) ++count._withSecret;
}

/// A block whose rest is 0, so that it holds no secret of a former owner.
void* Allocate(std::size_t size) {
    if (void* block = std::calloc(1, size ? size : 1)) return block;
    throw std::bad_alloc();
}

void Free(void* block) {
    Inspect(block, ofNew);
    std::free(block);
}

void* AllocateForOpenSSL(std::size_t size, char const*, int) { return size ? std::calloc(1, size) : nullptr; }

void FreeForOpenSSL(void* block, char const*, int) {
    Inspect(block, ofOpenSSL);
    std::free(block);
}

void* ReallocateForOpenSSL(void* block, std::size_t size, char const*, int) {
    void* const fresh = size ? std::calloc(1, size) : nullptr;
    if (fresh && block) std::memcpy(fresh, block, std::min(size, malloc_usable_size(block)));
    if (fresh || size == 0) FreeForOpenSSL(block, nullptr, 0);
    return fresh;
}

[[maybe_unused]] int const installed =
    CRYPTO_set_mem_functions(AllocateForOpenSSL, ReallocateForOpenSSL, FreeForOpenSSL);

} // namespace

FreedMemory::FreedMemory(std::string const& secret) {
    std::size_t const size = std::min(secret.size(), MAX_SECRET);
    std::copy_n(secret.begin(), size, forward);
    std::reverse_copy(secret.begin(), secret.begin() + static_cast<std::ptrdiff_t>(size), backward);
    ofNew = ofOpenSSL = Count{};
    length = size;
}

FreedMemory::~FreedMemory() { length = 0; }

FreedMemory::Count FreedMemory::OfNew() const { return ofNew; }
FreedMemory::Count FreedMemory::OfOpenSSL() const { return ofOpenSSL; }

void* operator new(std::size_t size) { return Allocate(size); }
void* operator new[](std::size_t size) { return Allocate(size); }
void operator delete(void* block) noexcept { Free(block); }
void operator delete[](void* block) noexcept { Free(block); }
void operator delete(void* block, std::size_t) noexcept { Free(block); }
void operator delete[](void* block, std::size_t) noexcept { Free(block); }

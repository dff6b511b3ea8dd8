#ifndef BRANTLE_FOUNDATIONS_CINDRAL_SECRET_BYTES_H
#define BRANTLE_FOUNDATIONS_CINDRAL_SECRET_BYTES_H

#include <cstddef>
#include <vector>

#include <openssl/crypto.h>

#include <brantle/thornel/string_t.h>

namespace cindral {

/// Wipes memory before freeing it, including the old arrays of a growing vector.
template <typename T>
struct WipingAllocator {
    using value_type = T;

    WipingAllocator() = default;
    template <typename Other>
    WipingAllocator(WipingAllocator<Other> const&) {}

    T* allocate(std::size_t count) { return static_cast<T*>(::operator new(count * sizeof(T))); }
    void deallocate(T* memory, std::size_t count) {
        OPENSSL_cleanse(memory, count * sizeof(T));
        ::operator delete(memory);
    }
    template <typename Other>
    bool operator==(WipingAllocator<Other> const&) const {
        return true;
    }
    template <typename Other>
    bool operator!=(WipingAllocator<Other> const&) const {
        return false;
    }
};

using SecretBytes = std::vector<unsigned char, WipingAllocator<unsigned char>>;

/// Wipes a text that no other value shares.
inline void WipeUnshared(String_t const& text) {
    if (text._rep->_count == 1 && text.Text()) OPENSSL_cleanse(text._rep->_text, str_len(text.Text()));
}

} // namespace cindral

#endif

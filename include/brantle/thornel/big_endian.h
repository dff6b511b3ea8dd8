#ifndef BRANTLE_THORNEL_BIG_ENDIAN_H
#define BRANTLE_THORNEL_BIG_ENDIAN_H

#include <cstddef>

/// Unsigned numbers in memory, most significant byte first. No alignment is required.

/// Writes the number into the sizeof(T) bytes at `to`.
template <class T>
inline void PutBigEndian(void* to, T value) {
    auto* const bytes = static_cast<unsigned char*>(to);
    unsigned long long rest = value;
    for (std::size_t i = sizeof(T); i-- > 0; rest >>= 8) bytes[i] = static_cast<unsigned char>(rest);
}

/// The number in the sizeof(T) bytes at `from`.
template <class T>
inline T GetBigEndian(void const* from) {
    auto const* const bytes = static_cast<unsigned char const*>(from);
    unsigned long long value = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i) value = value << 8 | bytes[i];
    return static_cast<T>(value);
}

#endif

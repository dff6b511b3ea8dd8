#ifndef BRANTLE_TESTS_SUPPORT_PATTERN_H
#define BRANTLE_TESTS_SUPPORT_PATTERN_H

#include <cstddef>
#include <string>

namespace support {

/// Bytes of every value in an order that does not repeat within any test's data, so that a byte lost,
/// doubled or moved shows. Other seeds give other bytes.
inline std::string Pattern(std::size_t size, unsigned int seed = 0) {
    std::string bytes(size, '\0');
    unsigned int state = seed;
    for (char& byte : bytes) {
        state = state * 1103515245u + 12345u;
        byte = static_cast<char>(state >> 16);
    }
    return bytes;
}

} // namespace support

#endif

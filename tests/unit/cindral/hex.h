#ifndef BRANTLE_TESTS_CINDRAL_HEX_H
#define BRANTLE_TESTS_CINDRAL_HEX_H

#include <string>

#include <brantle/thornel/byte_string.h>

/// Hexadecimal digits, blanks between them allowed, and bytes.
inline ByteString FromHex(std::string const& digits) {
    std::string bytes;
    std::string pair;
    for (char digit : digits) {
        if (digit == ' ') continue;
        pair += digit;
        if (pair.size() < 2) continue;
        bytes += static_cast<char>(std::stoi(pair, nullptr, 16));
        pair.clear();
    }
    return ByteString(bytes.data(), static_cast<unsigned int>(bytes.size()));
}

inline std::string ToHex(void const* bytes, std::size_t length) {
    static char const digits[] = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < length; ++i) {
        unsigned char const byte = static_cast<unsigned char const*>(bytes)[i];
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

inline std::string ToHex(ByteString const& bytes) { return ToHex(bytes.Data(), bytes.Length()); }
inline std::string ToHex(std::string const& bytes) { return ToHex(bytes.data(), bytes.size()); }

#endif

#ifndef BRANTLE_TESTS_SUPPORT_TEXT_H
#define BRANTLE_TESTS_SUPPORT_TEXT_H

#include <string>

#include <brantle/thornel/byte_string.h>
#include <brantle/thornel/string_t.h>

/// The library's values as the standard library's, and back.
namespace support {

inline std::string Text(String_t const& text) { return text.Text() ? text.Text() : ""; }

inline std::string Text(ByteString const& bytes) {
    return std::string(reinterpret_cast<char const*>(bytes.Data()), bytes.Length());
}

inline ByteString Bytes(std::string const& bytes) {
    return ByteString(bytes.data(), static_cast<unsigned int>(bytes.size()));
}

} // namespace support

#endif

#ifndef BRANTLE_TESTS_UNIT_TRUST_WIRE_TEXT_H
#define BRANTLE_TESTS_UNIT_TRUST_WIRE_TEXT_H

#include <string>

#include <brantle/cindral/public_key.h>
#include <brantle/thornel/byte_string.h>

#include "support/text.h"

using support::Bytes;
using support::Text;

/// Bytes as a string, built by hand so that no encoder of the library is tested against itself.

/// A uint32 (RFC 4251, section 5).
inline std::string Number(unsigned int value) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(value >> shift & 0xff);
    return bytes;
}

/// A string (RFC 4251, section 5).
inline std::string Field(std::string const& text) {
    return Number(static_cast<unsigned int>(text.size())) + text;
}

inline std::string Byte(int value) { return std::string(1, static_cast<char>(value)); }

/// The blob of an rsa key of that many bytes (RFC 4253, section 6.6); `mark`, 1 to 127, makes the difference
/// between two.
inline std::string RsaBlob(int mark, unsigned int size = 128) {
    return Field("ssh-rsa") + Field(std::string("\1\0\1", 3)) +
           Field(std::string(size, static_cast<char>(mark)));
}

inline cindral::PublicKey RsaKey(int mark, unsigned int size = 128) {
    return cindral::PublicKey(Bytes(RsaBlob(mark, size)));
}

#endif

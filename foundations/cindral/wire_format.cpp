#include <cstring>
#include <vector>

#include <openssl/bn.h>

#include <brantle/thornel/big_endian.h>

#include "wire_format.h"

namespace cindral {

namespace {

/// Turns a big-endian two's complement number into its negative.
void Negate(unsigned char* bytes, unsigned int length) {
    unsigned int carry = 1;
    for (unsigned int i = length; i-- > 0;) {
        carry += static_cast<unsigned char>(~bytes[i]);
        bytes[i] = static_cast<unsigned char>(carry);
        carry >>= 8;
    }
}

bool SignBit(unsigned char const* bytes) { return (bytes[0] & 0x80) != 0; }

} // namespace

bool ByteView::Is(char const* text) const {
    return std::strlen(text) == _length && std::memcmp(_data, text, _length) == 0;
}

void AppendString(ByteString& to, void const* bytes, unsigned int length) {
    unsigned char prefix[4];
    PutBigEndian(prefix, length);
    to.Append(prefix, sizeof prefix);
    if (length > 0) to.Append(bytes, length);
}

void AppendString(ByteString& to, char const* text) {
    AppendString(to, text, static_cast<unsigned int>(std::strlen(text)));
}

ByteString EncodeMpint(bignum_st const* number) {
    // One byte before the magnitude leaves room for the sign.
    unsigned int const magnitude = number ? static_cast<unsigned int>(BN_num_bytes(number)) : 0;
    ByteString encoded(4 + 1 + magnitude);
    unsigned char* body = encoded.Data() + 4;
    body[0] = 0;
    if (magnitude > 0) BN_bn2bin(number, body + 1);
    bool const negative = magnitude > 0 && BN_is_negative(number);
    if (negative) Negate(body, 1 + magnitude);
    bool const needsSign = magnitude > 0 && SignBit(body + 1) != negative;
    unsigned int const length = magnitude + (needsSign ? 1 : 0);
    if (!needsSign) std::memmove(body, body + 1, magnitude);
    PutBigEndian(encoded.Data(), length);
    encoded.Reserve(4 + length);
    return encoded;
}

bool DecodeMpint(unsigned char const* body, unsigned int length, bignum_st* number) {
    if (length == 0) {
        BN_zero(number);
        return true;
    }
    if (!SignBit(body)) return BN_bin2bn(body, static_cast<int>(length), number) != nullptr;
    std::vector<unsigned char> magnitude(body, body + length);
    Negate(magnitude.data(), length);
    if (!BN_bin2bn(magnitude.data(), static_cast<int>(length), number)) return false;
    BN_set_negative(number, 1);
    return true;
}

ByteView WireReader::Bytes(unsigned int length) {
    if (!_ok || length > _left) {
        _ok = false;
        return ByteView();
    }
    ByteView taken;
    taken._data = _pos;
    taken._length = length;
    _pos += length;
    _left -= length;
    return taken;
}

unsigned int WireReader::Int() {
    ByteView const bytes = Bytes(4);
    return _ok ? GetBigEndian<unsigned int>(bytes._data) : 0;
}

void WireReader::Mpint(bignum_st* number) {
    ByteView const body = String();
    if (_ok && !(number && DecodeMpint(body._data, body._length, number))) _ok = false;
}

} // namespace cindral

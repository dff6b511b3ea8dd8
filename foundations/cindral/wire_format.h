#ifndef BRANTLE_FOUNDATIONS_CINDRAL_WIRE_FORMAT_H
#define BRANTLE_FOUNDATIONS_CINDRAL_WIRE_FORMAT_H

#include <brantle/thornel/byte_string.h>

struct bignum_st;

namespace cindral {

/// The strings of RFC 4251 section 5, in memory.

/// Bytes that it does not own.
struct ByteView {
    unsigned char const* _data = nullptr;
    unsigned int _length = 0;

    bool Is(char const* text) const;
};

void AppendString(ByteString& to, void const* bytes, unsigned int length);
void AppendString(ByteString& to, char const* text);

/// The mpint, preceded by its length; null counts as zero.
ByteString EncodeMpint(bignum_st const* number);
/// The number in the body of an mpint. False when OpenSSL has no memory.
bool DecodeMpint(unsigned char const* body, unsigned int length, bignum_st* number);

/// Reads a memory area from its start. A read past the end returns zeros or empty values and clears `Ok()`;
/// nothing after the end is accessed.
class WireReader {
public:
    WireReader(unsigned char const* bytes, unsigned int length) : _pos(bytes), _left(length) {}
    explicit WireReader(ByteView const& area) : WireReader(area._data, area._length) {}

    ByteView Bytes(unsigned int length);
    unsigned int Int();
    ByteView String() { return Bytes(Int()); }
    ByteView Rest() { return Bytes(_left); }
    void Mpint(bignum_st* number);

    bool Ok() const { return _ok; }
    bool AtEnd() const { return _left == 0; }

private:
    unsigned char const* _pos;
    unsigned int _left;
    bool _ok = true;
};

} // namespace cindral

#endif

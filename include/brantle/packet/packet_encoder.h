#ifndef BRANTLE_PACKET_PACKET_ENCODER_H
#define BRANTLE_PACKET_PACKET_ENCODER_H

#include <ostream>

#include <brantle/cindral/sbuf_adapter.h>
#include <brantle/cindral/string_buffer.h>
#include <brantle/export.h>
#include <brantle/thornel/byte_string.h>
#include <brantle/thornel/string_t.h>
#include <generic/tolist>

struct bignum_st;

namespace cindral {

class Digest;
class PrivateKey;
class PublicKey;
class Signature;

/// Writes the data types of RFC 4251, section 5, into a growing buffer.
///
/// It is meant as a local variable for one message. After `Terminate` or `PadLen`, `Str()` returns the bytes;
/// their number is `_count`.
class BRANTLE_API PacketEncoder : public OStringBuffer {
public:
    /// `capacity` bytes to begin with; the buffer grows as needed.
    explicit PacketEncoder(unsigned int capacity);
    ~PacketEncoder();
    PacketEncoder(PacketEncoder const&) = delete;
    PacketEncoder& operator=(PacketEncoder const&) = delete;

    /// The low 8 bits of a message number.
    void WriteTypeCode(int type);
    void WriteByte(unsigned char value);
    /// The low 8 bits, not normalised to 0 or 1: 256 writes 0.
    void WriteBool(int value);
    void WriteShort(unsigned short value);
    void WriteInt(unsigned int value);
    void WriteLong(unsigned long long value);

    /// A `string` of the text without its terminator; null is an empty one.
    void WriteString(char const* text);
    /// A `string` of the bytes; null data is an empty one.
    void WriteBytes(unsigned char const* data, unsigned int length);
    void WriteBytes(ByteString const& bytes);
    /// The bytes without a length.
    void WriteBytesRaw(unsigned char const* data, unsigned int length);
    void WriteBytesRaw(ByteString const& bytes);

    /// The number in the form of `BigNum::Write`. No SSH-2 message uses it.
    void WriteBignum(bignum_st const* number);
    /// An `mpint`.
    void WriteBignum2(bignum_st const* number);

    /// The key blob as a `string`; an empty key writes an empty one.
    void WritePublicKey(PublicKey const& key);
    /// The key in the format of agent messages, without a length; an empty key writes nothing.
    void WritePrivateKey(PrivateKey const& key);
    /// The finished digest as a `string`.
    void WriteDigest(Digest const& digest);
    /// The signature blob as a `string`.
    void WriteSignature(Signature const& signature);
    /// A `uint32` count, then each element as a `string`.
    void WriteStringList(TOList<String_t> const& list);

    /// Bytes of padding that bring the framed packet to a multiple of `block` bytes (RFC 4253, section 6): 5
    /// to `block` + 4. Afterwards, everything written is in the buffer.
    int PadLen(unsigned int block);
    /// Flushes everything written into the buffer.
    void Terminate();

private:
    SBufAdapter _adapter;
    std::ostream _stream;

public:
    unsigned int _count; ///< bytes written so far
};

} // namespace cindral

#endif

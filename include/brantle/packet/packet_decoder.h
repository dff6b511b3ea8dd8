#ifndef BRANTLE_PACKET_PACKET_DECODER_H
#define BRANTLE_PACKET_PACKET_DECODER_H

#include <istream>

#include <brantle/cindral/big_num.h>
#include <brantle/cindral/sbuf_adapter.h>
#include <brantle/cindral/string_buffer.h>
#include <brantle/export.h>
#include <brantle/thornel/byte_string.h>
#include <brantle/thornel/string_t.h>
#include <generic/tolist>

namespace cindral {

/// Reads the data types of RFC 4251, section 5, from one received packet: padding length, payload and
/// padding, without the packet length.
///
/// Every reader throws `BadInput` if the packet ends before the value does, and no value is larger than the
/// packet. Do not use a decoder again after it has thrown.
class BRANTLE_API PacketDecoder {
public:
    /// An empty packet; use `Assign` to set one.
    PacketDecoder();
    /// Reads a copy of the bytes.
    PacketDecoder(unsigned char const* data, unsigned int length);
    /// Reads the value, which is shared, not copied.
    explicit PacketDecoder(ByteString const& data);
    ~PacketDecoder();
    PacketDecoder(PacketDecoder const&) = delete;
    PacketDecoder& operator=(PacketDecoder const&) = delete;

    /// Starts at the beginning of another packet, which is shared. The state of the stream is kept: once a
    /// `Skip` has reached the end, a later one finds the end immediately.
    void Assign(ByteString const& data);

    int ReadTypeCode();
    unsigned char ReadByte();
    /// The byte as a number from 0 to 255.
    int ReadBool();
    unsigned short ReadShort();
    unsigned int ReadInt();
    unsigned long long ReadLong();

    /// A `string` as text. A length above the whole packet's is an `SshProtocolError`.
    String_t ReadString();
    /// A `string`. A length above the whole packet's is an `SshProtocolError`.
    ByteString ReadBytes();
    /// That many bytes, without a length before them.
    ByteString ReadBytes(unsigned int length);

    /// The position of bytes in `_data`.
    struct View {
        unsigned int _start = 0;
        unsigned int _length = 0;
    };
    /// As ReadBytes(), but does not copy the bytes.
    View ReadView();

    /// A number in the form of `BigNum::Read`.
    BigNum ReadBignum();
    /// An `mpint`.
    BigNum ReadBignum2();

    /// A `uint32` count and that many `string`s.
    TOList<String_t> ReadStringList();

    /// Skips `count` bytes of padding, or to the end if fewer are left. If a byte follows them, throws an
    /// `SshProtocolError` that names the message.
    void Skip(unsigned int count);

    ByteString _data; ///< the whole packet

private:
    unsigned int ReadLength();

    IStringBuffer _buffer;
    SBufAdapter _adapter;
    std::istream _stream;
};

} // namespace cindral

#endif

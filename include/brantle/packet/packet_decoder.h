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

/// Reads the data types of RFC 4251, section 5, out of one received packet: padding length, payload and
/// padding, without the packet length.
///
/// Every reader throws `BadInput` where the packet ends before the value does, and no value is larger than
/// the packet. A decoder that has thrown is not used again.
class BRANTLE_API PacketDecoder {
public:
    /// An empty packet; `Assign` gives one to read.
    PacketDecoder();
    /// Over a copy of the bytes.
    PacketDecoder(unsigned char const* data, unsigned int length);
    /// Over the value, shared.
    explicit PacketDecoder(ByteString const& data);
    ~PacketDecoder();
    PacketDecoder(PacketDecoder const&) = delete;
    PacketDecoder& operator=(PacketDecoder const&) = delete;

    /// Starts at the front of another packet, which is shared. The state of the stream stays: a `Skip` that
    /// has come to the end makes a later one see the end at once.
    void Assign(ByteString const& data);

    int ReadTypeCode();
    unsigned char ReadByte();
    /// The byte as it stands, 0 to 255.
    int ReadBool();
    unsigned short ReadShort();
    unsigned int ReadInt();
    unsigned long long ReadLong();

    /// A `string` as text. A length above the whole packet's is an `SshProtocolError`.
    String_t ReadString();
    /// A `string`. A length above the whole packet's is an `SshProtocolError`.
    ByteString ReadBytes();
    /// That many bytes, without a length in front.
    ByteString ReadBytes(unsigned int length);

    /// Where bytes lie in `_data`.
    struct View {
        unsigned int _start = 0;
        unsigned int _length = 0;
    };
    /// As ReadBytes(), but leaves the bytes where they lie.
    View ReadView();

    /// A number in the form of `BigNum::Read`.
    BigNum ReadBignum();
    /// An `mpint`.
    BigNum ReadBignum2();

    /// A `uint32` count and that many `string`s.
    TOList<String_t> ReadStringList();

    /// Passes over `count` bytes of padding, or to the end if fewer are left. A byte after them is an
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

#include <brantle/packet/packet_decoder.h>

#include <algorithm>
#include <climits>

#include <brantle/cindral/bin_buffer.h>
#include <brantle/cindral/exceptions.h>
#include <brantle/packet/packet.h>

namespace cindral {

namespace {

char const* Chars(ByteString const& bytes) { return reinterpret_cast<char const*>(bytes.Data()); }

} // namespace

PacketDecoder::PacketDecoder() : PacketDecoder(ByteString()) {}

PacketDecoder::PacketDecoder(unsigned char const* data, unsigned int length)
    : PacketDecoder(ByteString(data, length)) {}

PacketDecoder::PacketDecoder(ByteString const& data)
    : _data(data), _buffer(Chars(_data), _data.Length()), _adapter(_buffer), _stream(&_adapter) {}

PacketDecoder::~PacketDecoder() = default;

void PacketDecoder::Assign(ByteString const& data) {
    _data = data;
    _buffer.Assign(Chars(_data), _data.Length());
}

int PacketDecoder::ReadTypeCode() { return ReadByte(); }

unsigned char PacketDecoder::ReadByte() { return BinBuffer::ReadByte(_stream); }

int PacketDecoder::ReadBool() { return ReadByte(); }

unsigned short PacketDecoder::ReadShort() { return BinBuffer::ReadShort(_stream); }

unsigned int PacketDecoder::ReadInt() { return BinBuffer::ReadInt(_stream); }

unsigned long long PacketDecoder::ReadLong() { return BinBuffer::ReadLong(_stream); }

unsigned int PacketDecoder::ReadLength() {
    unsigned int const length = ReadInt();
    if (length > _data.Length()) throw SshProtocolError("string length exceeds packet length");
    return length;
}

String_t PacketDecoder::ReadString() {
    unsigned int const length = ReadLength();
    String_t text(length);
    char* const buffer = text.Buffer();
    BinBuffer::ReadString(_stream, reinterpret_cast<unsigned char*>(buffer), length);
    buffer[length] = '\0';
    return text;
}

ByteString PacketDecoder::ReadBytes() { return ReadBytes(ReadLength()); }

ByteString PacketDecoder::ReadBytes(unsigned int length) {
    if (length > _data.Length()) throw BadInput("premature end of packet");
    ByteString bytes(length);
    BinBuffer::ReadString(_stream, bytes.Data(), length);
    return bytes;
}

PacketDecoder::View PacketDecoder::ReadView() {
    unsigned int const length = ReadLength();
    unsigned int present = length;
    char const* const bytes = _buffer.Skip(present);
    if (present < length) throw BadInput("premature end of packet");
    return {static_cast<unsigned int>(bytes - Chars(_data)), length};
}

BigNum PacketDecoder::ReadBignum() {
    BigNum number;
    BigNum::Read(_stream, number._bn);
    return number;
}

BigNum PacketDecoder::ReadBignum2() {
    BigNum number;
    BigNum::Read2(_stream, number._bn);
    return number;
}

TOList<String_t> PacketDecoder::ReadStringList() {
    TOList<String_t> list;
    for (unsigned int count = ReadInt(); count > 0; --count) list.Append(ReadString());
    return list;
}

void PacketDecoder::Skip(unsigned int count) {
    _stream.ignore(std::min<unsigned int>(count, INT_MAX)); // std::streamsize may have 32 bits
    if (_stream.get() == std::istream::traits_type::eof()) return;
    unsigned int const type = _data.Length() > 1 ? _data.Data()[1] : 0u;
    throw SshProtocolError("additional characters in packet after padding", String_t(Packet::MsgName(type)));
}

} // namespace cindral

#include <brantle/sftp/sftp_packet.h>

#include <brantle/cindral/exceptions.h>

namespace cindral {

namespace {

constexpr unsigned int INITIAL_CAPACITY = 256;

} // namespace

SftpPacket::EncoderStream::EncoderStream()
    : OStringBuffer(INITIAL_CAPACITY), OSockStreamAdapter(static_cast<OStringBuffer&>(*this)) {}

SftpPacket::EncoderStream::~EncoderStream() = default;

ByteString SftpPacket::EncoderStream::Bytes() {
    Flush();
    return Release();
}

SftpPacket::DecoderStream::DecoderStream(ByteString const& payload)
    : IStringBuffer(reinterpret_cast<char const*>(payload.Data()), payload.Length()),
      ISockStreamAdapter(static_cast<IStringBuffer&>(*this)) {}

SftpPacket::DecoderStream::~DecoderStream() = default;

int SftpPacket::DecoderStream::Fetch(char* begin, char* end) {
    bool const direct = IsLarge(begin, end) && IsExactly<DecoderStream>(*this);
    return direct ? FetchFromLayer(begin, end) : ISockStreamAdapter::Fetch(begin, end);
}

SftpPacket::SftpPacket(int type, ByteString const& payload) : _payload(payload), _type(type), _id(0) {}

SftpPacket::SftpPacket(int type, unsigned int id) : _type(type), _id(id) {}

SftpPacket::~SftpPacket() = default;

ByteString SftpPacket::Payload() { return _payload; }

void SftpPacket::BeginEncode(EncoderStream& out) const {
    out << static_cast<unsigned char>(_type);
    if (HasId()) out << _id;
}

void SftpPacket::BeginDecode(DecoderStream& in, char const* wrongType) {
    unsigned char type = 0;
    in >> type;
    if (in.Status() != 0 || type != _type) throw SshProtocolError(wrongType, type);
    if (HasId()) in >> _id;
}

void SftpPacket::EndDecode(unsigned int failures, char const* badFields) {
    if (failures != 0) throw SshProtocolError(badFields);
}

} // namespace cindral

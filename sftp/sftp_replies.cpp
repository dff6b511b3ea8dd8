#include <brantle/sftp/sftp_replies.h>

namespace cindral {

namespace {

constexpr char const* WRONG_TYPE_OF_DATA = "expected FXP_DATA package, received";
constexpr char const* TOO_SHORT = "input too short";

struct CountedNames {
    unsigned int& _count;
    TOList<SftpName>& _names;
};

/// The count comes from the peer and is not trusted: the first incomplete name ends the list.
ISockStream& operator>>(ISockStream& in, CountedNames& received) {
    in >> received._count;
    for (unsigned int left = received._count; left > 0 && in.Status() == 0; --left) {
        SftpName name;
        in >> name;
        if (in.Status() == 0) received._names.Append(name);
    }
    return in;
}

} // namespace

SftpPacketVersion::SftpPacketVersion(unsigned int version) : SftpPacket(FXP_VERSION, 0u), _version(version) {}

ByteString SftpPacketVersion::Payload() { return Encode(_version); }

SftpPacketVersion::SftpPacketVersion(ByteString const& payload) : SftpPacket(FXP_VERSION, payload) {
    Decode("expected FXP_VERSION package, received", TOO_SHORT, _version);
}

SftpPacketStatus::SftpPacketStatus(unsigned int id, unsigned int code, String_t const& message,
                                   String_t const& language)
    : SftpPacket(FXP_STATUS, id), _code(code), _message(message), _language(language) {}

ByteString SftpPacketStatus::Payload() { return Encode(_code, _message, _language); }

SftpPacketStatus::SftpPacketStatus(ByteString const& payload) : SftpPacket(FXP_STATUS, payload) {
    Decode<SockStream::END_OF_INPUT>("expected FXP_STATUS package, received", "invalid input", _code,
                                     _message, _language);
}

SftpPacketHandle::SftpPacketHandle(unsigned int id, SftpFileHandle const& handle)
    : SftpPacket(FXP_HANDLE, id), _handle(handle) {}

ByteString SftpPacketHandle::Payload() { return Encode(_handle); }

SftpPacketHandle::SftpPacketHandle(ByteString const& payload) : SftpPacket(FXP_HANDLE, payload) {
    Decode("expected FXP_HANDLE package, received", "invalid string length in input", _handle);
}

SftpPacketData::SftpPacketData(unsigned int id, ByteString const& data)
    : SftpPacket(FXP_DATA, id), _data(data) {}

ByteString SftpPacketData::Payload() { return Encode(_data); }

SftpPacketData::SftpPacketData(ByteString const& payload) : SftpPacket(FXP_DATA, payload) {
    Decode(WRONG_TYPE_OF_DATA, TOO_SHORT, _data);
}

SftpPacketData::SftpPacketData(ByteString const& payload, SftpBufferView& data)
    : SftpPacket(FXP_DATA, payload) {
    Decode(WRONG_TYPE_OF_DATA, TOO_SHORT, data);
}

SftpPacketName::SftpPacketName(unsigned int id, TOList<SftpName>& names)
    : SftpPacket(FXP_NAME, id), _count(names.Len()), _names(names) {}

ByteString SftpPacketName::Payload() { return Encode(_count, _names); }

SftpPacketName::SftpPacketName(ByteString const& payload, TOList<SftpName>& names)
    : SftpPacket(FXP_NAME, payload), _names(names) {
    CountedNames received{_count, _names};
    Decode("expected FXP_NAME package, received", TOO_SHORT, received);
}

SftpPacketAttrs::SftpPacketAttrs(unsigned int id, SftpFileAttr& attrs)
    : SftpPacket(FXP_ATTRS, id), _attrs(attrs) {}

ByteString SftpPacketAttrs::Payload() { return Encode(_attrs); }

SftpPacketAttrs::SftpPacketAttrs(ByteString const& payload, SftpFileAttr& attrs)
    : SftpPacket(FXP_ATTRS, payload), _attrs(attrs) {
    Decode("expected FXP_ATTRS package, received", TOO_SHORT, _attrs);
}

} // namespace cindral

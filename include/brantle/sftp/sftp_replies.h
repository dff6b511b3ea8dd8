#ifndef BRANTLE_SFTP_SFTP_REPLIES_H
#define BRANTLE_SFTP_SFTP_REPLIES_H

#include <brantle/export.h>
#include <brantle/sftp/sftp_block.h>
#include <brantle/sftp/sftp_file_attr.h>
#include <brantle/sftp/sftp_file_handle.h>
#include <brantle/sftp/sftp_name.h>
#include <brantle/sftp/sftp_packet.h>
#include <brantle/thornel/byte_string.h>
#include <brantle/thornel/string_t.h>
#include <generic/tolist>

// Sections are those of draft-ietf-secsh-filexfer-02.

namespace cindral {

/// Answers SftpPacketInit (section 4): the server's version. It has no request id; extensions are not read.
class BRANTLE_API SftpPacketVersion : public SftpPacket {
public:
    explicit SftpPacketVersion(unsigned int version);
    explicit SftpPacketVersion(ByteString const& payload);
    ByteString Payload() override;

    unsigned int _version = 0;
};

/// How a request ended (section 7), in the fields of SftpStatus. Empty texts are accepted only in this
/// message: an empty message text leaves both texts empty.
class BRANTLE_API SftpPacketStatus : public SftpPacket {
public:
    SftpPacketStatus(unsigned int id, unsigned int code, String_t const& message, String_t const& language);
    explicit SftpPacketStatus(ByteString const& payload);
    ByteString Payload() override;

    unsigned int _code = 0;
    String_t _message;
    String_t _language;
};

/// The handle of what was opened (section 7).
class BRANTLE_API SftpPacketHandle : public SftpPacket {
public:
    SftpPacketHandle(unsigned int id, SftpFileHandle const& handle);
    explicit SftpPacketHandle(ByteString const& payload);
    ByteString Payload() override;

    SftpFileHandle _handle;
};

/// Bytes read from a file (section 7).
class BRANTLE_API SftpPacketData : public SftpPacket {
public:
    SftpPacketData(unsigned int id, ByteString const& data);
    explicit SftpPacketData(ByteString const& payload);
    /// Decodes into the caller's memory; `_data` stays empty.
    SftpPacketData(ByteString const& payload, SftpBufferView& data);
    ByteString Payload() override;

    ByteString _data;
};

/// Names (section 7): directory entries, or one path. The caller owns the list, which must outlive the
/// message.
///
/// Received names are appended to the list, and those before a failure stay there. Unlike the draft, and
/// unlike decoding, encoding writes the count twice.
class BRANTLE_API SftpPacketName : public SftpPacket {
public:
    SftpPacketName(unsigned int id, TOList<SftpName>& names);
    SftpPacketName(ByteString const& payload, TOList<SftpName>& names);
    ByteString Payload() override;

    unsigned int _count = 0;
    TOList<SftpName>& _names;
};

/// Attributes of a file (section 7). The caller owns them, and they must outlive the message; received
/// attributes are stored there.
class BRANTLE_API SftpPacketAttrs : public SftpPacket {
public:
    SftpPacketAttrs(unsigned int id, SftpFileAttr& attrs);
    SftpPacketAttrs(ByteString const& payload, SftpFileAttr& attrs);
    ByteString Payload() override;

    SftpFileAttr& _attrs;
};

} // namespace cindral

#endif

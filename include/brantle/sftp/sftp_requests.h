#ifndef BRANTLE_SFTP_SFTP_REQUESTS_H
#define BRANTLE_SFTP_SFTP_REQUESTS_H

#include <brantle/export.h>
#include <brantle/sftp/sftp_block.h>
#include <brantle/sftp/sftp_file_attr.h>
#include <brantle/sftp/sftp_file_handle.h>
#include <brantle/sftp/sftp_packet.h>
#include <brantle/thornel/byte_string.h>
#include <brantle/thornel/string_t.h>

// Sections are those of draft-ietf-secsh-filexfer-02.

namespace cindral {

/// Starts the protocol (section 4): the client's version. It has no request id.
class BRANTLE_API SftpPacketInit : public SftpPacket {
public:
    explicit SftpPacketInit(unsigned int version);
    explicit SftpPacketInit(ByteString const& payload);
    ByteString Payload() override;

    unsigned int _version = 0;
};

/// Opens a file (section 6.3).
class BRANTLE_API SftpPacketOpen : public SftpPacket {
public:
    SftpPacketOpen(unsigned int id, String_t const& filename, unsigned int pflags, SftpFileAttr const& attrs);
    explicit SftpPacketOpen(ByteString const& payload);
    ByteString Payload() override;

    String_t _filename;
    unsigned int _pflags = 0; ///< bits of SSH_FXF_*
    SftpFileAttr _attrs;      ///< of a file that is created
};

/// Closes a file or directory (section 6.3).
class BRANTLE_API SftpPacketClose : public SftpPacket {
public:
    SftpPacketClose(unsigned int id, SftpFileHandle const& handle);
    explicit SftpPacketClose(ByteString const& payload);
    ByteString Payload() override;

    SftpFileHandle _handle;
};

/// Requests a range of a file (section 6.4). Offsets and lengths are in bytes, here and below.
class BRANTLE_API SftpPacketRead : public SftpPacket {
public:
    SftpPacketRead(unsigned int id, SftpFileHandle const& handle, long long offset, unsigned int length);
    explicit SftpPacketRead(ByteString const& payload);
    ByteString Payload() override;

    SftpFileHandle _handle;
    long long _offset = 0;
    unsigned int _length = 0;
};

/// Writes a range of a file (section 6.4).
class BRANTLE_API SftpPacketWrite : public SftpPacket {
public:
    SftpPacketWrite(unsigned int id, SftpFileHandle const& handle, long long offset, ByteString const& data);
    /// The bytes must remain valid until the message is encoded; `_data` is empty.
    SftpPacketWrite(unsigned int id, SftpFileHandle const& handle, long long offset,
                    SftpDataView const& data);
    explicit SftpPacketWrite(ByteString const& payload);
    ByteString Payload() override;

    SftpFileHandle _handle;
    long long _offset = 0;
    ByteString _data;

private:
    SftpDataView _source;
};

/// Asks for a file's attributes (section 6.8), of a link itself with FXP_LSTAT or of its target with
/// FXP_STAT. Unlike in the draft, the path is followed by flags that say which attributes are wanted.
class BRANTLE_API SftpPacketStat : public SftpPacket {
public:
    SftpPacketStat(int type, unsigned int id, String_t const& path, unsigned int attrFlags);
    SftpPacketStat(int type, ByteString const& payload);
    ByteString Payload() override;

    String_t _path;
    unsigned int _attrFlags = 0; ///< as in SftpFileAttr
};

/// Asks for the attributes of an open file (section 6.8). Unlike in the draft, the handle is followed by
/// flags that say which attributes are wanted.
class BRANTLE_API SftpPacketFstat : public SftpPacket {
public:
    SftpPacketFstat(unsigned int id, SftpFileHandle const& handle, unsigned int attrFlags);
    explicit SftpPacketFstat(ByteString const& payload);
    ByteString Payload() override;

    SftpFileHandle _handle;
    unsigned int _attrFlags = 0; ///< as in SftpFileAttr
};

/// Sets attributes of a file (section 6.9). The caller owns the attributes, which must outlive the message;
/// received ones are stored there.
class BRANTLE_API SftpPacketSetstat : public SftpPacket {
public:
    SftpPacketSetstat(unsigned int id, String_t const& path, SftpFileAttr& attrs);
    SftpPacketSetstat(ByteString const& payload, SftpFileAttr& attrs);
    ByteString Payload() override;

    String_t _path;
    SftpFileAttr& _attrs;
};

/// Sets attributes of an open file (section 6.9), with the attributes as in SftpPacketSetstat.
class BRANTLE_API SftpPacketFsetstat : public SftpPacket {
public:
    SftpPacketFsetstat(unsigned int id, SftpFileHandle const& handle, SftpFileAttr& attrs);
    SftpPacketFsetstat(ByteString const& payload, SftpFileAttr& attrs);
    ByteString Payload() override;

    SftpFileHandle _handle;
    SftpFileAttr& _attrs;
};

/// Opens a directory (section 6.7).
class BRANTLE_API SftpPacketOpenDir : public SftpPacket {
public:
    SftpPacketOpenDir(unsigned int id, String_t const& path);
    explicit SftpPacketOpenDir(ByteString const& payload);
    ByteString Payload() override;

    String_t _path;
};

/// Asks for entries of an open directory (section 6.7).
class BRANTLE_API SftpPacketReadDir : public SftpPacket {
public:
    SftpPacketReadDir(unsigned int id, SftpFileHandle const& handle);
    explicit SftpPacketReadDir(ByteString const& payload);
    ByteString Payload() override;

    SftpFileHandle _handle;
};

/// Removes a file (section 6.5).
class BRANTLE_API SftpPacketRemove : public SftpPacket {
public:
    SftpPacketRemove(unsigned int id, String_t const& filename);
    explicit SftpPacketRemove(ByteString const& payload);
    ByteString Payload() override;

    String_t _filename;
};

/// Creates a directory (section 6.6).
class BRANTLE_API SftpPacketMkdir : public SftpPacket {
public:
    SftpPacketMkdir(unsigned int id, String_t const& path, SftpFileAttr const& attrs);
    explicit SftpPacketMkdir(ByteString const& payload);
    ByteString Payload() override;

    String_t _path;
    SftpFileAttr _attrs;
};

/// Removes a directory (section 6.6).
class BRANTLE_API SftpPacketRmdir : public SftpPacket {
public:
    SftpPacketRmdir(unsigned int id, String_t const& path);
    explicit SftpPacketRmdir(ByteString const& payload);
    ByteString Payload() override;

    String_t _path;
};

/// Asks for the absolute form of a path (section 6.11).
class BRANTLE_API SftpPacketRealpath : public SftpPacket {
public:
    SftpPacketRealpath(unsigned int id, String_t const& path);
    explicit SftpPacketRealpath(ByteString const& payload);
    ByteString Payload() override;

    String_t _path;
};

/// Renames a file or directory (section 6.5). Unlike in the draft, the paths are followed by a word of flags.
class BRANTLE_API SftpPacketRename : public SftpPacket {
public:
    SftpPacketRename(unsigned int id, String_t const& oldPath, String_t const& newPath, unsigned int flags);
    explicit SftpPacketRename(ByteString const& payload);
    ByteString Payload() override;

    String_t _oldPath;
    String_t _newPath;
    unsigned int _flags = 0;
};

/// Requests the target of a symbolic link (section 6.10).
class BRANTLE_API SftpPacketReadlink : public SftpPacket {
public:
    SftpPacketReadlink(unsigned int id, String_t const& path);
    explicit SftpPacketReadlink(ByteString const& payload);
    ByteString Payload() override;

    String_t _path;
};

/// Creates a symbolic link (section 6.10). Peers differ on which path is the link.
class BRANTLE_API SftpPacketSymlink : public SftpPacket {
public:
    SftpPacketSymlink(unsigned int id, String_t const& firstPath, String_t const& secondPath);
    explicit SftpPacketSymlink(ByteString const& payload);
    ByteString Payload() override;

    String_t _firstPath;
    String_t _secondPath;
};

} // namespace cindral

#endif

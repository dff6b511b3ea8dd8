#include <brantle/sftp/sftp_requests.h>

#include <brantle/cindral/exceptions.h>

namespace cindral {

SftpPacketInit::SftpPacketInit(unsigned int version) : SftpPacket(FXP_INIT, 0u), _version(version) {}

ByteString SftpPacketInit::Payload() { return Encode(_version); }

SftpPacketInit::SftpPacketInit(ByteString const& payload) : SftpPacket(FXP_INIT, payload) {
    Decode("expected FXP_INIT package, received", "input too short", _version);
}

SftpPacketOpen::SftpPacketOpen(unsigned int id, String_t const& filename, unsigned int pflags,
                               SftpFileAttr const& attrs)
    : SftpPacket(FXP_OPEN, id), _filename(filename), _pflags(pflags), _attrs(attrs) {}

ByteString SftpPacketOpen::Payload() { return Encode(_filename, _pflags, _attrs); }

SftpPacketOpen::SftpPacketOpen(ByteString const& payload) : SftpPacket(FXP_OPEN, payload) {
    if (payload.Length() == 0) throw SshProtocolError("invalid string length in input");
    Decode("expected FXP_OPEN package, received", "invalid string length in input", _filename, _pflags,
           _attrs);
}

SftpPacketClose::SftpPacketClose(unsigned int id, SftpFileHandle const& handle)
    : SftpPacket(FXP_CLOSE, id), _handle(handle) {}

ByteString SftpPacketClose::Payload() { return Encode(_handle); }

SftpPacketClose::SftpPacketClose(ByteString const& payload) : SftpPacket(FXP_CLOSE, payload) {
    Decode("expected FXP_CLOSE package, received", "invalid string length in input", _handle);
}

SftpPacketRead::SftpPacketRead(unsigned int id, SftpFileHandle const& handle, long long offset,
                               unsigned int length)
    : SftpPacket(FXP_READ, id), _handle(handle), _offset(offset), _length(length) {}

ByteString SftpPacketRead::Payload() { return Encode(_handle, _offset, _length); }

SftpPacketRead::SftpPacketRead(ByteString const& payload) : SftpPacket(FXP_READ, payload) {
    Decode("expected FXP_READ package, received", "invalid read packet data", _handle, _offset, _length);
}

SftpPacketWrite::SftpPacketWrite(unsigned int id, SftpFileHandle const& handle, long long offset,
                                 ByteString const& data)
    : SftpPacket(FXP_WRITE, id), _handle(handle), _offset(offset), _data(data) {}

SftpPacketWrite::SftpPacketWrite(unsigned int id, SftpFileHandle const& handle, long long offset,
                                 SftpDataView const& data)
    : SftpPacket(FXP_WRITE, id), _handle(handle), _offset(offset), _source(data) {}

ByteString SftpPacketWrite::Payload() {
    return _source._data ? Encode(_handle, _offset, _source) : Encode(_handle, _offset, _data);
}

SftpPacketWrite::SftpPacketWrite(ByteString const& payload) : SftpPacket(FXP_WRITE, payload) {
    Decode("expected FXP_WRITE package, received", "invalid write packet data", _handle, _offset, _data);
}

SftpPacketStat::SftpPacketStat(int type, unsigned int id, String_t const& path, unsigned int attrFlags)
    : SftpPacket(type, id), _path(path), _attrFlags(attrFlags) {}

ByteString SftpPacketStat::Payload() { return Encode(_path, _attrFlags); }

SftpPacketStat::SftpPacketStat(int type, ByteString const& payload) : SftpPacket(type, payload) {
    Decode("expected FXP_LSTAT or FXP_STAT package, received", "invalid string length in input", _path,
           _attrFlags);
}

SftpPacketFstat::SftpPacketFstat(unsigned int id, SftpFileHandle const& handle, unsigned int attrFlags)
    : SftpPacket(FXP_FSTAT, id), _handle(handle), _attrFlags(attrFlags) {}

ByteString SftpPacketFstat::Payload() { return Encode(_handle, _attrFlags); }

SftpPacketFstat::SftpPacketFstat(ByteString const& payload) : SftpPacket(FXP_FSTAT, payload) {
    Decode("expected FXP_FSTAT package, received", "input too short", _handle, _attrFlags);
}

SftpPacketSetstat::SftpPacketSetstat(unsigned int id, String_t const& path, SftpFileAttr& attrs)
    : SftpPacket(FXP_SETSTAT, id), _path(path), _attrs(attrs) {}

ByteString SftpPacketSetstat::Payload() { return Encode(_path, _attrs); }

SftpPacketSetstat::SftpPacketSetstat(ByteString const& payload, SftpFileAttr& attrs)
    : SftpPacket(FXP_SETSTAT, payload), _attrs(attrs) {
    Decode("expected FXP_SETSTAT package, received", "invalid string length in input", _path, _attrs);
}

SftpPacketFsetstat::SftpPacketFsetstat(unsigned int id, SftpFileHandle const& handle, SftpFileAttr& attrs)
    : SftpPacket(FXP_FSETSTAT, id), _handle(handle), _attrs(attrs) {}

ByteString SftpPacketFsetstat::Payload() { return Encode(_handle, _attrs); }

SftpPacketFsetstat::SftpPacketFsetstat(ByteString const& payload, SftpFileAttr& attrs)
    : SftpPacket(FXP_FSETSTAT, payload), _attrs(attrs) {
    Decode("expected FXP_FSETSTAT package, received", "input too short", _handle, _attrs);
}

SftpPacketOpenDir::SftpPacketOpenDir(unsigned int id, String_t const& path)
    : SftpPacket(FXP_OPENDIR, id), _path(path) {}

ByteString SftpPacketOpenDir::Payload() { return Encode(_path); }

SftpPacketOpenDir::SftpPacketOpenDir(ByteString const& payload) : SftpPacket(FXP_OPENDIR, payload) {
    Decode("expected FXP_OPENDIR package, received", "invalid string length in input", _path);
}

SftpPacketReadDir::SftpPacketReadDir(unsigned int id, SftpFileHandle const& handle)
    : SftpPacket(FXP_READDIR, id), _handle(handle) {}

ByteString SftpPacketReadDir::Payload() { return Encode(_handle); }

SftpPacketReadDir::SftpPacketReadDir(ByteString const& payload) : SftpPacket(FXP_READDIR, payload) {
    Decode("expected FXP_READDIR package, received", "input too short", _handle);
}

SftpPacketRemove::SftpPacketRemove(unsigned int id, String_t const& filename)
    : SftpPacket(FXP_REMOVE, id), _filename(filename) {}

ByteString SftpPacketRemove::Payload() { return Encode(_filename); }

SftpPacketRemove::SftpPacketRemove(ByteString const& payload) : SftpPacket(FXP_REMOVE, payload) {
    Decode("expected FXP_REMOVE package, received", "invalid string length in input", _filename);
}

SftpPacketMkdir::SftpPacketMkdir(unsigned int id, String_t const& path, SftpFileAttr const& attrs)
    : SftpPacket(FXP_MKDIR, id), _path(path), _attrs(attrs) {}

ByteString SftpPacketMkdir::Payload() { return Encode(_path, _attrs); }

SftpPacketMkdir::SftpPacketMkdir(ByteString const& payload) : SftpPacket(FXP_MKDIR, payload) {
    Decode("expected FXP_MKDIR package, received", "invalid string length in input", _path, _attrs);
}

SftpPacketRmdir::SftpPacketRmdir(unsigned int id, String_t const& path)
    : SftpPacket(FXP_RMDIR, id), _path(path) {}

ByteString SftpPacketRmdir::Payload() { return Encode(_path); }

SftpPacketRmdir::SftpPacketRmdir(ByteString const& payload) : SftpPacket(FXP_RMDIR, payload) {
    Decode("expected FXP_RMDIR package, received", "invalid string length in input", _path);
}

SftpPacketRealpath::SftpPacketRealpath(unsigned int id, String_t const& path)
    : SftpPacket(FXP_REALPATH, id), _path(path) {}

ByteString SftpPacketRealpath::Payload() { return Encode(_path); }

SftpPacketRealpath::SftpPacketRealpath(ByteString const& payload) : SftpPacket(FXP_REALPATH, payload) {
    Decode("expected FXP_REALPATH package, received", "invalid string length in input", _path);
}

SftpPacketRename::SftpPacketRename(unsigned int id, String_t const& oldPath, String_t const& newPath,
                                   unsigned int flags)
    : SftpPacket(FXP_RENAME, id), _oldPath(oldPath), _newPath(newPath), _flags(flags) {}

ByteString SftpPacketRename::Payload() { return Encode(_oldPath, _newPath, _flags); }

SftpPacketRename::SftpPacketRename(ByteString const& payload) : SftpPacket(FXP_RENAME, payload) {
    Decode("expected FXP_RENAME package, received", "invalid string length in input", _oldPath, _newPath,
           _flags);
}

SftpPacketReadlink::SftpPacketReadlink(unsigned int id, String_t const& path)
    : SftpPacket(FXP_READLINK, id), _path(path) {}

ByteString SftpPacketReadlink::Payload() { return Encode(_path); }

SftpPacketReadlink::SftpPacketReadlink(ByteString const& payload) : SftpPacket(FXP_READLINK, payload) {
    Decode("expected FXP_READLINK package, received", "invalid string length in input", _path);
}

SftpPacketSymlink::SftpPacketSymlink(unsigned int id, String_t const& firstPath, String_t const& secondPath)
    : SftpPacket(FXP_SYMLINK, id), _firstPath(firstPath), _secondPath(secondPath) {}

ByteString SftpPacketSymlink::Payload() { return Encode(_firstPath, _secondPath); }

SftpPacketSymlink::SftpPacketSymlink(ByteString const& payload) : SftpPacket(FXP_SYMLINK, payload) {
    Decode("expected FXP_SYMLINK package, received", "invalid string length in input", _firstPath,
           _secondPath);
}

} // namespace cindral

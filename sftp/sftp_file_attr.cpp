#include <brantle/sftp/sftp_file_attr.h>

#include <cstring>

#include <brantle/thornel/byte_string.h>

namespace cindral {

namespace {

/// The count comes from the peer and is not trusted: the end of the input ends the pairs too.
void SkipExtendedPairs(ISockStream& in) {
    unsigned int count = 0;
    in >> count;
    for (ByteString dropped; count > 0 && !(in.Status() & SockStream::END_OF_INPUT); --count) {
        in >> dropped >> dropped;
    }
}

} // namespace

SftpFileAttr::SftpFileAttr() : _flags(0), _size(0), _uid(0), _gid(0), _permissions(0), _atime(0), _mtime(0) {}

SftpFileAttr::SftpFileAttr(struct stat const& file)
    : _flags(SIZE | UIDGID | PERMISSIONS | ACMODTIME), _size(static_cast<unsigned long long>(file.st_size)),
      _uid(file.st_uid), _gid(file.st_gid), _permissions(file.st_mode),
      _atime(static_cast<unsigned int>(file.st_atime)), _mtime(static_cast<unsigned int>(file.st_mtime)) {}

SftpFileAttr SftpFileAttr::Default(unsigned int mode) {
    SftpFileAttr attr;
    attr._flags = PERMISSIONS;
    attr._permissions = mode;
    return attr;
}

void SftpFileAttr::FillStat(struct stat& file) const {
    std::memset(&file, 0, sizeof(file));
    if (_flags & SIZE) file.st_size = static_cast<off_t>(_size & 0xffffffff);
    if (_flags & UIDGID) {
        file.st_uid = _uid;
        file.st_gid = _gid;
    }
    if (_flags & PERMISSIONS) file.st_mode = _permissions;
    if (_flags & ACMODTIME) {
        file.st_atime = static_cast<time_t>(_atime);
        file.st_mtime = static_cast<time_t>(_mtime);
    }
}

OSockStream& operator<<(OSockStream& out, SftpFileAttr const& attr) {
    out << attr._flags;
    if (attr._flags & SftpFileAttr::SIZE) out << attr._size;
    if (attr._flags & SftpFileAttr::UIDGID) out << attr._uid << attr._gid;
    if (attr._flags & SftpFileAttr::PERMISSIONS) out << attr._permissions;
    if (attr._flags & SftpFileAttr::ACMODTIME) out << attr._atime << attr._mtime;
    return out;
}

ISockStream& operator>>(ISockStream& in, SftpFileAttr& attr) {
    in >> attr._flags;
    if (attr._flags & SftpFileAttr::SIZE) in >> attr._size;
    if (attr._flags & SftpFileAttr::UIDGID) in >> attr._uid >> attr._gid;
    if (attr._flags & SftpFileAttr::PERMISSIONS) in >> attr._permissions;
    if (attr._flags & SftpFileAttr::ACMODTIME) in >> attr._atime >> attr._mtime;
    if (attr._flags & SftpFileAttr::EXTENDED) SkipExtendedPairs(in);
    return in;
}

} // namespace cindral

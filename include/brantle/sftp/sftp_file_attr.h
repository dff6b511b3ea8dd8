#ifndef BRANTLE_SFTP_SFTP_FILE_ATTR_H
#define BRANTLE_SFTP_SFTP_FILE_ATTR_H

#include <sys/stat.h>

#include <brantle/export.h>
#include <brantle/thornel/sock_stream.h>

namespace cindral {

/// Attributes of a remote file (draft-ietf-secsh-filexfer-02, section 5). The flags say which fields count.
class BRANTLE_API SftpFileAttr {
public:
    static constexpr unsigned int SIZE = 1;
    static constexpr unsigned int UIDGID = 2;
    static constexpr unsigned int PERMISSIONS = 4;
    static constexpr unsigned int ACMODTIME = 8;
    static constexpr unsigned int EXTENDED = 0x80000000; ///< vendor-specific pairs follow on the wire

    /// No field present, all fields 0.
    SftpFileAttr();
    /// All fields, of a local file.
    explicit SftpFileAttr(struct stat const& file);
    /// Only permissions.
    static SftpFileAttr Default(unsigned int mode);

    /// Clears `file` and stores the fields present. Only the low 32 bits of the size are stored; use `_size`
    /// if a file may have 4 GiB or more.
    void FillStat(struct stat& file) const;

    unsigned int _flags;
    unsigned long long _size; ///< bytes
    unsigned int _uid;
    unsigned int _gid;
    unsigned int _permissions; ///< POSIX mode, with the file type where the peer sends it
    unsigned int _atime;       ///< seconds since the epoch, as is `_mtime`
    unsigned int _mtime;
};

/// Writes the flags unchanged, and the fields present; extended pairs are never written.
BRANTLE_API OSockStream& operator<<(OSockStream& out, SftpFileAttr const& attr);
/// Reads the flags and the fields present; the other fields are unchanged. Extended pairs are read and
/// discarded.
BRANTLE_API ISockStream& operator>>(ISockStream& in, SftpFileAttr& attr);

} // namespace cindral

#endif

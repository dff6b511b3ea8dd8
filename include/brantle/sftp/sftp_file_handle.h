#ifndef BRANTLE_SFTP_SFTP_FILE_HANDLE_H
#define BRANTLE_SFTP_SFTP_FILE_HANDLE_H

#include <brantle/export.h>
#include <brantle/thornel/byte_string.h>
#include <brantle/thornel/sock_stream.h>

namespace cindral {

/// What the server calls an open file or directory; an empty one is none. Copies share the bytes. Nothing is
/// closed with it.
class BRANTLE_API SftpFileHandle {
public:
    SftpFileHandle() = default;
    explicit SftpFileHandle(ByteString const& bytes) : _bytes(bytes) {}

    ByteString _bytes;
};

/// The bytes with their length in front, as of any ByteString.
BRANTLE_API OSockStream& operator<<(OSockStream& out, SftpFileHandle const& handle);
BRANTLE_API ISockStream& operator>>(ISockStream& in, SftpFileHandle& handle);

} // namespace cindral

#endif

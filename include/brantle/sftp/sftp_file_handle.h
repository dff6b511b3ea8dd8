#ifndef BRANTLE_SFTP_SFTP_FILE_HANDLE_H
#define BRANTLE_SFTP_SFTP_FILE_HANDLE_H

#include <brantle/export.h>
#include <brantle/thornel/byte_string.h>
#include <brantle/thornel/sock_stream.h>

namespace cindral {

/// The server's handle for an open file or directory; an empty one means none. Copies share the bytes.
/// Destroying it closes nothing.
class BRANTLE_API SftpFileHandle {
public:
    SftpFileHandle() = default;
    explicit SftpFileHandle(ByteString const& bytes) : _bytes(bytes) {}

    ByteString _bytes;
};

/// The length and the bytes, as for any ByteString.
BRANTLE_API OSockStream& operator<<(OSockStream& out, SftpFileHandle const& handle);
BRANTLE_API ISockStream& operator>>(ISockStream& in, SftpFileHandle& handle);

} // namespace cindral

#endif

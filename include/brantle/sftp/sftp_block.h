#ifndef BRANTLE_SFTP_SFTP_BLOCK_H
#define BRANTLE_SFTP_SFTP_BLOCK_H

#include <brantle/export.h>
#include <brantle/thornel/sock_stream.h>

namespace cindral {

/// Bytes to write to a file, at most INT_MAX, in the caller's memory, which must remain valid. In messages it
/// is used in place of a ByteString to avoid a copy.
struct SftpDataView {
    char const* _data = nullptr;
    unsigned int _length = 0;
};

/// The caller's memory for bytes read from a file. In messages it is used in place of a ByteString.
struct SftpBufferView {
    char* _data;
    unsigned int _room;
    unsigned int _length = 0; ///< number of bytes received; if they do not fit, none is stored
};

BRANTLE_API OSockStream& operator<<(OSockStream& out, SftpDataView const& source);
BRANTLE_API ISockStream& operator>>(ISockStream& in, SftpBufferView& target);

} // namespace cindral

#endif

#ifndef BRANTLE_SFTP_SFTP_BLOCK_H
#define BRANTLE_SFTP_SFTP_BLOCK_H

#include <brantle/export.h>
#include <brantle/thornel/sock_stream.h>

namespace cindral {

/// Bytes for a file, at most INT_MAX, where they lie in the caller's memory, which must stay. In messages it
/// stands for a ByteString, of which it spares the copy.
struct SftpDataView {
    char const* _data = nullptr;
    unsigned int _length = 0;
};

/// Memory of the caller's for the bytes of a file. In messages it stands for a ByteString.
struct SftpBufferView {
    char* _data;
    unsigned int _room;
    unsigned int _length = 0; ///< of the bytes received; with more than there is room for, none is stored
};

BRANTLE_API OSockStream& operator<<(OSockStream& out, SftpDataView const& source);
BRANTLE_API ISockStream& operator>>(ISockStream& in, SftpBufferView& target);

} // namespace cindral

#endif

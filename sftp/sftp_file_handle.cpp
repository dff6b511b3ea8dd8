#include <brantle/sftp/sftp_file_handle.h>

namespace cindral {

OSockStream& operator<<(OSockStream& out, SftpFileHandle const& handle) { return out << handle._bytes; }

ISockStream& operator>>(ISockStream& in, SftpFileHandle& handle) { return in >> handle._bytes; }

} // namespace cindral

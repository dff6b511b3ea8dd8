#include <brantle/sftp/sftp_status.h>

#include <brantle/sftp/sftp_string.h>

namespace cindral {

OSockStream& operator<<(OSockStream& out, SftpStatus const& status) {
    out << status._code;
    WriteSftpString(out, status._message);
    return WriteSftpString(out, status._language);
}

ISockStream& operator>>(ISockStream& in, SftpStatus& status) {
    in >> status._code;
    ReadSftpString(in, status._message);
    return ReadSftpString(in, status._language);
}

} // namespace cindral

#include <brantle/sftp/sftp_name.h>

#include <brantle/sftp/sftp_string.h>

namespace cindral {

OSockStream& operator<<(OSockStream& out, SftpName const& name) {
    WriteSftpString(out, name._filename);
    WriteSftpString(out, name._longname);
    return out << name._attrs;
}

ISockStream& operator>>(ISockStream& in, SftpName& name) {
    ReadSftpString(in, name._filename);
    ReadSftpString(in, name._longname);
    return in >> name._attrs;
}

OSockStream& operator<<(OSockStream& out, TOList<SftpName> const& names) {
    out << static_cast<int>(names.Len());
    for (TOListIterator<SftpName> name(names); name; ++name) out << *name;
    return out;
}

} // namespace cindral

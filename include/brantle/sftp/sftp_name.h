#ifndef BRANTLE_SFTP_SFTP_NAME_H
#define BRANTLE_SFTP_SFTP_NAME_H

#include <brantle/export.h>
#include <brantle/sftp/sftp_file_attr.h>
#include <brantle/thornel/sock_stream.h>
#include <brantle/thornel/string_t.h>
#include <generic/tolist>

namespace cindral {

/// A directory entry as the server sends it. The texts are stored unchanged and unchecked.
class BRANTLE_API SftpName {
public:
    String_t _filename;
    String_t _longname; ///< the entry as a line of a listing
    SftpFileAttr _attrs;
};

/// Both texts and the attributes.
BRANTLE_API OSockStream& operator<<(OSockStream& out, SftpName const& name);
/// An empty text is an error, as in ReadSftpString.
BRANTLE_API ISockStream& operator>>(ISockStream& in, SftpName& name);

/// The number of names, then each name.
BRANTLE_API OSockStream& operator<<(OSockStream& out, TOList<SftpName> const& names);

} // namespace cindral

#endif

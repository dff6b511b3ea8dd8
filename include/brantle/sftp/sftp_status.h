#ifndef BRANTLE_SFTP_SFTP_STATUS_H
#define BRANTLE_SFTP_SFTP_STATUS_H

#include <brantle/export.h>
#include <brantle/thornel/sock_stream.h>
#include <brantle/thornel/string_t.h>

namespace cindral {

/// How the server ended a request (draft-ietf-secsh-filexfer-02, section 7). Codes and texts come from the
/// server; the codes named here are the only ones with a meaning to this library.
class BRANTLE_API SftpStatus {
public:
    static constexpr int FX_OK = 0;
    static constexpr int FX_EOF = 1;
    static constexpr int FX_BAD_MESSAGE = 5; ///< also set by this library

    int _code = FX_OK;
    String_t _message;
    String_t _language; ///< tag of the message's language (RFC 3066)
};

/// The code and both texts.
BRANTLE_API OSockStream& operator<<(OSockStream& out, SftpStatus const& status);
/// An empty text sets MALFORMED, as in ReadSftpString.
BRANTLE_API ISockStream& operator>>(ISockStream& in, SftpStatus& status);

} // namespace cindral

#endif

#ifndef BRANTLE_SFTP_SFTP_STRING_H
#define BRANTLE_SFTP_SFTP_STRING_H

#include <brantle/export.h>
#include <brantle/thornel/sock_stream.h>
#include <brantle/thornel/string_t.h>

namespace cindral {

/// Longest text that `ReadSftpString` accepts, in bytes.
constexpr unsigned int MAX_SFTP_STRING = 262144;

/// Writes a text: a 32-bit length and that many bytes.
BRANTLE_API OSockStream& WriteSftpString(OSockStream& out, String_t const& text);

/// Reads a text of 1 to MAX_SFTP_STRING bytes; a zero byte in it ends it early. Any other length, 0 included,
/// leaves the text unchanged and sets the status to MALFORMED. If the status already reports a failure, only
/// the length is read.
BRANTLE_API ISockStream& ReadSftpString(ISockStream& in, String_t& text);

} // namespace cindral

#endif

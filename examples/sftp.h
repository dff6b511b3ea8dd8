// What the SFTP examples have in common: a session that is started, and words for what failed.

#ifndef EXAMPLES_SFTP_H
#define EXAMPLES_SFTP_H

#include <string>

#include "login.h"

namespace examples {

/// Says what has failed: in the server's own words if it has refused something, which shows in a fresh
/// status, or else in those of this system.
inline int FileFailed(Status status, String_t const& file, int result, cindral::SftpStatus const& answer) {
    String_t what = Printable(file);
    what += ": ";
    if (answer._code == cindral::SftpStatus::FX_OK)
        what += std::strerror(-result);
    else if (answer._message == "")
        what += ("refused with code " + std::to_string(answer._code)).c_str();
    else
        what += Printable(answer._message);
    return Fail(status, what);
}

/// Logs in, starts SFTP and does the work on the session, which gives the exit status.
template <class Work>
int WorkOnFiles(CommandLine const& arguments, Work const& work) {
    using cindral::SftpClientSession;
    return LoginAndWork<SftpClientSession>(arguments, [&work](SftpClientSession& session) {
        int const result = session.Start();
        if (result > 0) return Fail(CHANNEL_REFUSED, "the server refuses the channel");
        if (result < 0) return Fail(CONNECTION_FAILED, "the server does not name its directory");
        return work(session);
    });
}

} // namespace examples

#endif

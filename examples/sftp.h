// What the SFTP examples share: starting the session, and reporting failures.

#ifndef EXAMPLES_SFTP_H
#define EXAMPLES_SFTP_H

#include <string>

#include "login.h"

namespace examples {

/// Reports a failure: in the server's own words if it refused something, which shows in `answer` if that was
/// fresh before the operation, or else in those of this system.
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

/// Logs in, starts SFTP and calls `work` with the session and its dialect, which is null for the reduced one.
/// Returns the exit status.
template <class Session, class Dialect = cindral::StandardDialect, class Work>
int WorkOnFiles(CommandLine const& arguments, Work const& work) {
    return LoginAndWork<Session, Dialect>(arguments, [&work](Session& session, Dialect* dialect) {
        int const result = session.Start();
        if (result > 0) return Fail(CHANNEL_REFUSED, Reason(dialect, "the server refused the channel"));
        if (result < 0) return Fail(CONNECTION_FAILED, "the server did not name its directory");
        return work(session, dialect);
    });
}

} // namespace examples

#endif

#ifndef BRANTLE_APPS_SSH_CMD_SESSION_H
#define BRANTLE_APPS_SSH_CMD_SESSION_H

#include <brantle/export.h>
#include <brantle/session/ssh_session.h>

namespace cindral {

/// Runs one remote command, attached to the process's descriptors 0, 1 and 2. Connect, exchange keys
/// and authenticate first. The remote error output comes out on descriptor 1 as well; the end of
/// standard input is passed on; no pseudo-terminal is requested.
class BRANTLE_API SshCmdSession : public SshSession {
public:
    /// The target as for SshSession; `command` goes to the server's shell as it stands.
    SshCmdSession(unsigned short port, String_t const& host, String_t const& command);
    SshCmdSession(String_t const& host, String_t const& command);
    ~SshCmdSession() override;

    /// Returns -1 without traffic if not authenticated, 1 if the server refuses the channel, -1
    /// after the command has ended, an errno value if poll(2) failed. The remote exit status is not
    /// reported. Throws what SshSession::Run throws.
    int Run() override;

private:
    String_t _command;
};

} // namespace cindral

#endif

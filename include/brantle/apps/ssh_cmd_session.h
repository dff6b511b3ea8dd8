#ifndef BRANTLE_APPS_SSH_CMD_SESSION_H
#define BRANTLE_APPS_SSH_CMD_SESSION_H

#include <brantle/export.h>
#include <brantle/session/ssh_session.h>

namespace cindral {

/// Runs one remote command, attached to the process's descriptors 0, 1 and 2. Connect, exchange keys and
/// authenticate first. The remote standard error is also written to descriptor 1; end of file on standard
/// input is passed on; no pseudo-terminal is requested.
class BRANTLE_API SshCmdSession : public SshSession {
public:
    /// Takes the target as SshSession does; `command` is passed to the server's shell unchanged.
    SshCmdSession(unsigned short port, String_t const& host, String_t const& command);
    SshCmdSession(String_t const& host, String_t const& command);
    ~SshCmdSession() override;

    /// Returns -1 without sending anything if not authenticated, 1 if the server refuses the channel, -1
    /// after the command has ended, an errno value if poll(2) failed. The remote exit status is not reported.
    /// Throws what SshSession::Run throws.
    int Run() override;

private:
    String_t _command;
};

} // namespace cindral

#endif

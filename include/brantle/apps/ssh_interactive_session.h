#ifndef BRANTLE_APPS_SSH_INTERACTIVE_SESSION_H
#define BRANTLE_APPS_SSH_INTERACTIVE_SESSION_H

#include <brantle/cindral/save_termios.h>
#include <brantle/export.h>
#include <brantle/session/ssh_session.h>

namespace cindral {

/// Runs an interactive shell on a remote pseudo-terminal, with the terminal on descriptor 0 in raw mode while
/// it runs. Connect, exchange keys and authenticate first. The terminal size is sent to the server once;
/// there is no escape character.
class BRANTLE_API SshInteractiveSession : public SshSession {
public:
    /// Takes the target as SshSession does. Saves the settings of the terminal on descriptor 0; the
    /// destructor restores them.
    SshInteractiveSession(unsigned short port, String_t const& host);
    explicit SshInteractiveSession(String_t const& host);
    ~SshInteractiveSession() override;

    /// Leaves raw mode, stops the loop, and writes "Connection to HOST closed." to standard output. Called
    /// when the remote shell ends, or by the program. Returns the previous value of the stop flag.
    ///
    /// REQUIRES: no other thread, such as the one in Run, uses the terminal's settings or std::cout at the
    /// same time. So, unlike SshSession::Terminate, it may not be called from every thread.
    int Terminate() override;

    /// Results as for SshCmdSession. When the peer disconnects, and on an exception, the terminal
    /// stays raw until the session is destroyed.
    int Run() override;

private:
    SaveTermios _termios;
};

} // namespace cindral

#endif

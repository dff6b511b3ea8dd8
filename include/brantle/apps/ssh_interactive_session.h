#ifndef BRANTLE_APPS_SSH_INTERACTIVE_SESSION_H
#define BRANTLE_APPS_SSH_INTERACTIVE_SESSION_H

#include <brantle/cindral/save_termios.h>
#include <brantle/export.h>
#include <brantle/session/ssh_session.h>

namespace cindral {

/// Holds an interactive shell on a remote pseudo-terminal, with the terminal on descriptor 0 in raw
/// mode meanwhile. Connect, exchange keys and authenticate first. The window's size is told to the
/// server once; there is no escape character.
class BRANTLE_API SshInteractiveSession : public SshSession {
public:
    /// The target as for SshSession. Remembers the settings of the terminal on descriptor 0; the
    /// destructor puts them back.
    SshInteractiveSession(unsigned short port, String_t const& host);
    explicit SshInteractiveSession(String_t const& host);
    ~SshInteractiveSession() override;

    /// Leaves raw mode, stops the loop, and writes "Connection to HOST closed." to standard output.
    /// Called when the remote shell ends, or by the program. Returns the stop flag as it was.
    ///
    /// REQUIRES: no other thread uses the terminal's settings or std::cout meanwhile, as Run's may. Unlike
    /// SshSession::Terminate it is thus not to be called from any thread.
    int Terminate() override;

    /// Results as for SshCmdSession. When the peer disconnects, and on an exception, the terminal
    /// stays raw until the session is destroyed.
    int Run() override;

private:
    SaveTermios _termios;
};

} // namespace cindral

#endif

#include <brantle/apps/ssh_cmd_session.h>

namespace cindral {

SshCmdSession::SshCmdSession(unsigned short port, String_t const& host, String_t const& command)
    : SshSession(CLIENT, port, host), _command(command) {}

SshCmdSession::SshCmdSession(String_t const& host, String_t const& command)
    : SshSession(CLIENT, host), _command(command) {}

SshCmdSession::~SshCmdSession() = default;

int SshCmdSession::Run() {
    if (!_authenticated) return -1;
    if (int const result = Open(); result < 0) return -result;
    StartCommand(_command);
    InitDispatcher();
    return SshSession::Run();
}

} // namespace cindral

#include <brantle/apps/ssh_interactive_session.h>

#include <unistd.h>

#include <iostream>

#include <brantle/packet/session_requests.h>

namespace cindral {

SshInteractiveSession::SshInteractiveSession(unsigned short port, String_t const& host)
    : SshSession(CLIENT, port, host), _termios(STDIN_FILENO) {}

SshInteractiveSession::SshInteractiveSession(String_t const& host)
    : SshSession(CLIENT, host), _termios(STDIN_FILENO) {}

SshInteractiveSession::~SshInteractiveSession() = default;

int SshInteractiveSession::Run() {
    if (!_authenticated) return -1;
    if (int const result = Open(); result < 0) return -result;
    PacketSessionPtyRequest request(_remoteChannel, STDIN_FILENO, _termios.Settings());
    _out.WritePacket(request);
    StartShell();
    InitDispatcher();
    // Only now, so that everything printed before this was printed in the terminal's usual mode.
    _termios.SetRaw();
    return SshSession::Run();
}

int SshInteractiveSession::Terminate() {
    _termios.LeaveRaw();
    int const stopped = SshSession::Terminate();
    std::cout << "Connection to " << _socket.Addr().Host() << " closed." << '\n' << std::flush;
    return stopped;
}

} // namespace cindral

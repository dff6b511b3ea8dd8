// The session channel: RFC 4254, section 6.

#include <brantle/cindral/exceptions.h>
#include <brantle/packet/channel_messages.h>
#include <brantle/packet/session_requests.h>
#include <brantle/packet/transport_messages.h>
#include <brantle/session/ssh_session.h>

namespace cindral {

namespace {

constexpr unsigned int LOCAL_CHANNEL = 0;

} // namespace

int SshSession::Open() {
    PacketOpenSessionChannel open(LOCAL_CHANNEL, INITIAL_WINDOW, MAX_PACKET);
    _out.WritePacket(open);
    ByteString const reply = _in.ReadPacket();
    int const number = MessageNumber(reply);
    if (number == Packet::SSH_MSG_CHANNEL_OPEN_FAILURE) return -1;
    if (number != Packet::SSH_MSG_CHANNEL_OPEN_CONFIRMATION)
        throw SshProtocolError("expected either CHANNEL_OPEN_CONFIRMATION or CHANNEL_OPEN_FAILURE packet");
    PacketDecoder decoder(reply);
    PacketChannelOpenConfirmation const confirmation(decoder);
    _remoteChannel = confirmation._senderChannel;
    _windowSize = INITIAL_WINDOW;
    if (_x11.Get()) RequestX11Forwarding();
    return 0;
}

void SshSession::StartShell() {
    PacketSessionStartShell request(_remoteChannel, 0);
    _out.WritePacket(request);
}

void SshSession::StartCommand(String_t const& command, bool more) {
    PacketSessionStartCmd request(_remoteChannel, 0, command);
    _out.WritePacket(request, more);
}

void SshSession::StartSubsystem(String_t const& name, bool more) {
    PacketSessionStartSubsystem request(_remoteChannel, 0, name);
    _out.WritePacket(request, more);
}

void SshSession::Disconnect(int reason, String_t const& text) {
    PacketDisconnect message(reason, text, String_t());
    _out.WritePacket(message);
}

} // namespace cindral

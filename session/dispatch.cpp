// The part of a session that runs in the loop: dispatchers and message handlers (RFC 4254).

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>

#include <brantle/channel/ssh_channel_ref.h>
#include <brantle/cindral/exceptions.h>
#include <brantle/packet/channel_messages.h>
#include <brantle/packet/session_requests.h>
#include <brantle/packet/transport_messages.h>
#include <brantle/session/session_dialect.h>
#include <brantle/thornel/sock_io.h>
#include <brantle/thornel/text.h>

namespace cindral {

namespace {

/// Whether a CHANNEL_OPEN is for a session, in the format of RFC 4254, section 6.1: channel type, sender
/// channel, window and maximum packet size, without the address that PacketOpenTcpChannel reads.
bool IsSessionOpen(ByteString const& packet) {
    PacketDecoder decoder(packet);
    unsigned int const padding = decoder.ReadByte();
    decoder.ReadTypeCode();
    String_t const type = decoder.ReadString();
    return type == "session" && packet.Length() == 2 + 4 + str_len(type.Text()) + 12 + padding;
}

} // namespace

/// Passes events on the socket to its session.
class SshSession::SshDispatcher : public IOMultiplexerDispatcher {
public:
    explicit SshDispatcher(SshSession* session)
        : IOMultiplexerDispatcher(IOMultiplexerRead), _session(session) {}
    SshDispatcher* Clone() const override { return new SshDispatcher(*this); }
    int Dispatch(int fd) override { return _session->Dispatch(fd); }
    int InAvail() const override { return _session->_dialect && _session->_dialect->HasInput(); }

private:
    SshSession* _session;
};

/// Passes data from a local descriptor to its channel, which need not be in the session's table. If the
/// channel is replaced, the reference follows; if it is destroyed, the registration ends.
class SshSession::FdDispatcher : public IOMultiplexerDispatcher {
public:
    FdDispatcher(SshSession* session, SshChannel* channel)
        : IOMultiplexerDispatcher(IOMultiplexerRead), _session(session), _channel(channel) {}
    FdDispatcher* Clone() const override { return new FdDispatcher(*this); }
    int Dispatch(int fd) override;

private:
    SshSession* _session;
    SshChannelRef _channel;
};

int SshSession::FdDispatcher::Dispatch(int fd) {
    SshChannel* const channel = _channel.Get();
    if (!channel) return 0;
    char buffer[8192];
    ssize_t const n = read(fd, buffer, sizeof buffer);
    if (n > 0) {
        channel->ForwardToSshd(buffer, static_cast<unsigned int>(n));
        return 1;
    }
    if (n == 0) {
        _session->CloseChannel(channel->_localId);
        return 0;
    }
    char const* const reason = std::strerror(errno);
    std::cerr << "error on " << fd << ' ' << reason << _eol << std::flush;
    return 1;
}

void SshSession::InitDispatcher() {
    static struct {
        int _number;
        Handler _handler;
    } const table[] = {
        {Packet::SSH_MSG_CHANNEL_DATA, &SshSession::HandleChannelData},
        {Packet::SSH_MSG_CHANNEL_EXTENDED_DATA, &SshSession::HandleChannelExtendedData},
        {Packet::SSH_MSG_CHANNEL_WINDOW_ADJUST, &SshSession::HandleChannelWindowAdjust},
        {Packet::SSH_MSG_CHANNEL_REQUEST, &SshSession::HandleChannelRequest},
        {Packet::SSH_MSG_CHANNEL_OPEN, &SshSession::HandleChannelOpen},
        {Packet::SSH_MSG_CHANNEL_CLOSE, &SshSession::HandleChannelClose},
        {Packet::SSH_MSG_CHANNEL_EOF, &SshSession::HandleChannelEof},
        {Packet::SSH_MSG_IGNORE, &SshSession::HandleIgnore},
        {Packet::SSH_MSG_DISCONNECT, &SshSession::HandleDisconnect},
    };
    for (auto const& entry : table) _handlers.Insert(entry._number, entry._handler);
    _mux.Register(_fd, SshDispatcher(this));
    SshChannel* terminal = _channels.NewTtyChannel(_remoteChannel, "client-session", _windowSize,
                                                   STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO, &_in, &_out);
    RegisterChannelInput(STDIN_FILENO, terminal);
    SetNodelay(_fd);
    SockIO::SetCloseOnExec(_fd);
}

void SshSession::RegisterFdDispatcher(SshChannel* channel) {
    if (!channel) throw InvalidArgument("SshSession::RegisterFdDispatcher", "no channel");
    SetNodelay(channel->_fdIn);
    SockIO::SetCloseOnExec(channel->_fdIn);
    RegisterChannelInput(channel->_fdIn, channel);
}

void SshSession::RegisterChannelInput(int fd, SshChannel* channel) {
    if (_dialect) return _dialect->RegisterInput(fd, *channel);
    _mux.Register(fd, FdDispatcher(this, channel));
}

void SshSession::CloseChannel(unsigned int id) {
    SshChannel* channel = _channels.Find(static_cast<int>(id));
    if (!channel) return;
    channel->_eofSent = 1;
    PacketChannelEof eof(channel->_remoteId);
    _out.WritePacket(eof);
}

SshChannel* SshSession::ReplaceChannel(unsigned int id, SshChannelMakerBase const& maker) {
    return _channels.ReplaceChannel(static_cast<int>(id), maker);
}

int SshSession::Dispatch(int fd) {
    if (fd != _fd) throw SystemError("invalid input", EINVAL, CryptoException::EncodeInt(fd));
    if (_dialect) return _dialect->Dispatch();
    // Deliberate: blocks for the rest of a partly received packet, which also delays timers and Terminate.
    // Pinned by Dispatch.PartialPacketIsCompletedInTheSameDispatch.
    return HandlePackets([this] { return _in.HasBufferedInput(); });
}

/// Handles packets that were read together with the reply: poll(2) will not report those. It will report the
/// rest of a partly received packet.
void SshSession::DispatchBufferedPackets() {
    auto const isWhole = [this] { return _in.HasBufferedPacket(); };
    if (_task.IsStopped() || !isWhole())
        _channels.FlushAllChannels();
    else if (HandlePackets(isWhole) == 0)
        _mux.Unregister(_fd);
}

/// Handles a packet, and further ones while `hasMore()` is true, until a handler returns 0; then flushes the
/// channels. Returns what the last handler returned, 1 if there was none.
template <class HasMore>
int SshSession::HandlePackets(HasMore const& hasMore) {
    int result = 1;
    do {
        PacketDecoder decoder(_in.ReadPacket());
        int const number = MessageNumber(decoder._data);
        if (Handler const* handler = _handlers.Find(number)) {
            result = (this->**handler)(decoder);
            if (result == 0) break;
        } else {
            ReportIgnored(number);
        }
    } while (hasMore());
    _channels.FlushAllChannels();
    return result;
}

void SshSession::ReportIgnored(int number) {
    std::cerr << "ignore packet ";
    // Deliberate: a number without a name, such as 7, leaves std::cerr in a failed state until the process
    // ends. Pinned by Dispatch.NumberWithoutANameFailsTheErrorStream.
    if (char const* name = Packet::MsgName(static_cast<unsigned int>(number)))
        std::cerr << name;
    else
        std::cerr.setstate(std::ios::badbit);
    std::cerr << '\n' << std::flush;
}

int SshSession::HandleDisconnect(PacketDecoder& decoder) {
    PacketDisconnect const message(decoder);
    // Deliberate: printed as received, control characters included. Pinned by
    // RunLoop.ControlCharactersOfADisconnectArePrintedAsReceived.
    std::cerr << "connection closed by peer, " << message._description << _eol << std::flush;
    _task.Stop();
    return 1;
}

int SshSession::HandleIgnore(PacketDecoder& decoder) {
    PacketIgnore const message(decoder);
    return 1;
}

int SshSession::HandleChannelData(PacketDecoder& decoder) {
    PacketDecoder::View data;
    PacketChannelData const message(decoder, data);
    _channels.Forward(static_cast<int>(message._recipientChannel),
                      reinterpret_cast<char const*>(decoder._data.Data()) + data._start, data._length);
    return 1;
}

int SshSession::HandleChannelExtendedData(PacketDecoder& decoder) {
    PacketChannelExtendedData const message(decoder);
    _channels.ForwardExtended(static_cast<int>(message._recipientChannel),
                              reinterpret_cast<char const*>(message._bytes.Data()), message._bytes.Length());
    return 1;
}

int SshSession::HandleChannelWindowAdjust(PacketDecoder& decoder) {
    PacketChannelWindowAdjust const message(decoder);
    return 1;
}

int SshSession::HandleChannelRequest(PacketDecoder& decoder) {
    PacketChannelRequest const message(decoder);
    // Deliberate: an exit message on any channel ends the session, and no request is answered. Pinned by
    // Dispatch.ExitMessageEndsTheRunOnAnyChannelAndGetsNoReply.
    if (!(message._request == "exit-status") && !(message._request == "exit-signal")) return 1;
    Terminate();
    return 0;
}

int SshSession::HandleChannelEof(PacketDecoder& decoder) {
    PacketChannelEof const message(decoder);
    SshChannel const* channel = _channels.Find(static_cast<int>(message._recipientChannel));
    if (!channel) return 1;
    unsigned int const remoteId = channel->_remoteId;
    if (!channel->_eofSent) {
        PacketChannelEof eof(remoteId);
        _out.WritePacket(eof);
    }
    _mux.Unregister(channel->_fdIn);
    PacketChannelClose close(remoteId);
    _out.WritePacket(close);
    return 1;
}

int SshSession::HandleChannelClose(PacketDecoder& decoder) {
    PacketChannelClose const message(decoder);
    auto const id = static_cast<int>(message._recipientChannel);
    // Data received before the CLOSE must not be lost with the channel.
    if (SshChannel* channel = _channels.Find(id)) channel->Flush();
    int const fd = _channels.RemoveChannel(id);
    if (fd >= 0) _mux.Unregister(fd);
    return 1;
}

int SshSession::HandleChannelOpen(PacketDecoder& decoder) {
    int reason = Packet::SSH_OPEN_ADMINISTRATIVELY_PROHIBITED;
    if (IsSessionOpen(decoder._data)) {
        RefuseChannel(PacketOpenSessionChannel(decoder)._senderChannel, reason);
        return 1;
    }
    PacketOpenTcpChannel const request(decoder);
    if (request._channelType == "forwarded-tcpip") reason = OpenForwardedTcpChannel(request);
    if (request._channelType == "x11") reason = OpenForwardedX11Channel(request);
    if (reason != 0) RefuseChannel(request._senderChannel, reason);
    return 1;
}

void SshSession::RefuseChannel(unsigned int sender, int reason) {
    PacketChannelOpenFailure refusal(sender, static_cast<unsigned int>(reason), "open failed", String_t());
    _out.WritePacket(refusal);
}

} // namespace cindral

// X11 forwarding as the session sees it: RFC 4254, section 6.3.

#include <brantle/channel/x11_forwarding.h>
#include <brantle/packet/channel_messages.h>
#include <brantle/packet/session_requests.h>
#include <brantle/thornel/file_descriptor.h>
#include <brantle/thornel/sock_io.h>
#include <brantle/thornel/sock_stream.h>

#include "forwarded_connection.h"

namespace cindral {

namespace {

/// Limit on channels that wait for the first data of their X clients: each uses memory here, but costs the
/// peer nothing.
constexpr unsigned int MAX_UNCONNECTED = 1024;

/// The first message of an X client (X Window System Protocol, section 8): byte order, protocol version, and
/// the name and the data of its authorization, both padded.
class SetupMessage {
public:
    SetupMessage(unsigned char const* bytes, unsigned int length) : _bytes(bytes, length) {}

    /// Whether this is version 11 of the protocol, with lengths within bounds that match the size of the
    /// message.
    bool IsAcceptable() const {
        if (_bytes.Length() < HEADER || (_bytes.Data()[0] != 'B' && _bytes.Data()[0] != 'l')) return false;
        return NameLength() <= MAX_LENGTH && Number(2) == 11 && DataLength() <= MAX_LENGTH &&
               _bytes.Length() == HEADER + Padded(NameLength()) + Padded(DataLength());
    }

    ByteString Name() const { return _bytes.SubStr(HEADER, NameLength()); }
    ByteString Data() const { return _bytes.SubStr(HEADER + Padded(NameLength()), DataLength()); }

    /// Sends the message with name and data replaced; their lengths are not changed.
    void Send(int fd, String_t const& name, ByteString const& data) const {
        OSockStream out(fd);
        Write(out, _bytes.SubStr(0, HEADER));
        out.Write(name.Text(), static_cast<int>(str_len(name.Text())));
        Write(out, PaddingAfter(HEADER, NameLength()));
        Write(out, data);
        Write(out, PaddingAfter(HEADER + Padded(NameLength()), DataLength()));
        out.Flush();
    }

private:
    static constexpr unsigned int HEADER = 12;
    static constexpr unsigned int MAX_LENGTH = 256;

    static unsigned int Padded(unsigned int length) { return (length + 3) / 4 * 4; }

    static void Write(OSockStream& out, ByteString const& bytes) {
        out.Write(reinterpret_cast<char const*>(bytes.Data()), static_cast<int>(bytes.Length()));
    }

    unsigned int Number(unsigned int offset) const {
        unsigned int const first = _bytes.Data()[offset];
        unsigned int const second = _bytes.Data()[offset + 1];
        return _bytes.Data()[0] == 'B' ? first << 8 | second : second << 8 | first;
    }

    unsigned int NameLength() const { return Number(6); }
    unsigned int DataLength() const { return Number(8); }

    ByteString PaddingAfter(unsigned int start, unsigned int length) const {
        return _bytes.SubStr(start + length, Padded(length) - length);
    }

    ByteString const _bytes;
};

} // namespace

int SshSession::StartX11Forwarding(int singleConnection, String_t const& display) {
    if (str_empty(display.Text()) || _x11.Get()) return -1;
    _x11.Reset(new X11Forwarding(display, singleConnection));
    return 0;
}

/// Requests the forwarding from the server; if it refuses, the forwarding is disabled.
void SshSession::RequestX11Forwarding() {
    PacketSessionX11Request request(_remoteChannel, 1, _x11->_singleConnection,
                                    X11Forwarding::_defaultAuthMethod,
                                    X11Forwarding::CookieString(_x11->_fakeCookie), _x11->_screenNumber);
    _out.WritePacket(request);
    // Deliberate: the very next message is taken as the reply, and anything but a success as a refusal.
    // Pinned by X11Request.AnyMessageButSuccessIsARefusal.
    PacketDecoder decoder(_in.ReadPacket());
    PacketChannelResponse const response(decoder);
    if (response._type != Packet::SSH_MSG_CHANNEL_SUCCESS) _x11.Reset(nullptr);
}

int SshSession::OpenForwardedX11Channel(PacketOpenTcpChannel const& request) {
    if (!_x11.Get()) return Packet::SSH_OPEN_ADMINISTRATIVELY_PROHIBITED;
    if (_channels.CountUnconnectedX11() >= MAX_UNCONNECTED) return Packet::SSH_OPEN_RESOURCE_SHORTAGE;
    SshChannel const* channel = _channels.NewX11Connection(request._senderChannel, request._channelType,
                                                           _windowSize, *this, &_in, &_out);
    PacketChannelOpenConfirmation confirmation(request._senderChannel, channel->_localId, _windowSize,
                                               request._maxPacketSize);
    _out.WritePacket(confirmation);
    return 0;
}

int SshSession::InitiateX11Connection(unsigned char const* data, unsigned int length, SshChannel* channel) {
    if (!_x11.Get() || !channel) return -1;
    SetupMessage const message(data, length);
    char const* const method = X11Forwarding::_defaultAuthMethod;
    if (!message.IsAcceptable() || message.Name() != ByteString(method, str_len(method)) ||
        message.Data() != _x11->_fakeCookie) {
        return -1;
    }
    int error = 0;
    FileDescriptor fd(_x11->Connect(CONNECT_LIMIT, error));
    if (fd < 0 || !IsWritable(fd)) return -1;
    if (!_x11->_unixSocket) SetNodelay(fd);
    SockIO::SetCloseOnExec(fd);
    ByteString const& real = _x11->_realCookie;
    bool const isKnown = real.Length() != 0;
    if (isKnown && real.Length() != X11Forwarding::COOKIE_LENGTH) return -1;
    // An X server without access control does not check the cookie. Deliberate: the lengths in the message
    // are not changed, whatever the method. Pinned by X11Setup.MethodIsThatOfXauthAndLengthsAreUnchanged.
    message.Send(fd, _x11->_authMethod, isKnown ? real : _x11->_fakeCookie);
    RegisterChannelInput(fd, channel);
    return fd.Release();
}

} // namespace cindral

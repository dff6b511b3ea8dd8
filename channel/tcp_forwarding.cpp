// TCP forwarding in both directions: RFC 4254, section 7.

#include <brantle/channel/tcp_forwarding.h>

#include <netinet/in.h>

#include <cerrno>
#include <utility>

#include <brantle/packet/channel_messages.h>
#include <brantle/packet/global_requests.h>
#include <brantle/session/session_dialect.h>
#include <brantle/thornel/client_socket.h>
#include <brantle/thornel/file_descriptor.h>

#include "forwarded_connection.h"

namespace cindral {

namespace {

constexpr unsigned int ACCEPT_LIMIT = 60; ///< seconds
constexpr int BACKLOG = 1;
constexpr int DIALECT_BACKLOG = 128;

/// Starts a forwarding from its text form.
template <class Start>
int StartParsed(String_t const& spec, Start start) {
    String_t bindAddress, host;
    unsigned int listenPort = 0, port = 0;
    int const parsed = SshSession::ParseFwdSpec(spec.Text(), bindAddress, listenPort, host, port);
    return parsed < 0 ? parsed : start(port, host, listenPort, bindAddress);
}

} // namespace

SshSession::ForwardingInfo::ForwardingInfo() : _port(0) {}

SshSession::ForwardingInfo::ForwardingInfo(String_t const& bindAddress, unsigned int port,
                                           String_t const& host)
    : _bindAddress(bindAddress), _host(host), _port(port) {}

SshSession::LocalForwarding::LocalForwarding() : _server(nullptr) {}

SshSession::LocalForwarding::LocalForwarding(String_t const& bindAddress, unsigned int listenPort,
                                             unsigned int port, String_t const& host)
    : ForwardingInfo(bindAddress, port, host),
      _server(new ServerSocketIn(static_cast<int>(listenPort), bindAddress)) {}

SshSession::LocalForwarding::LocalForwarding(LocalForwarding const& other)
    : ForwardingInfo(other), _server(std::exchange(other._server, nullptr)) {}

SshSession::LocalForwarding& SshSession::LocalForwarding::operator=(LocalForwarding const& other) {
    if (this == &other) return *this;
    delete _server;
    ForwardingInfo::operator=(other);
    _server = std::exchange(other._server, nullptr);
    return *this;
}

SshSession::LocalForwarding::~LocalForwarding() { delete _server; }

/// Finds the forwarding of a listener by the listening port: a forwarding may be cancelled while its
/// descriptor is still registered, and the number of that descriptor may then be reused for another file.
class SshSession::LFAcceptor : public IOMultiplexerDispatcher {
public:
    LFAcceptor(SshSession* session, unsigned int listenPort)
        : IOMultiplexerDispatcher(IOMultiplexerRead), _session(session), _listenPort(listenPort) {}
    LFAcceptor* Clone() const override { return new LFAcceptor(*this); }
    int Dispatch(int fd) override;

private:
    SshSession* _session;
    unsigned int _listenPort;
};

int SshSession::LFAcceptor::Dispatch(int fd) {
    SshSession* const session = _session; // a handler called below may replace this dispatcher
    LocalForwarding* const forwarding = session->_localForwardings.Find(_listenPort);
    if (!forwarding || !forwarding->_server || forwarding->_server->Fd() != fd) return 0;
    if (session->_dialect) {
        session->_dialect->Accept(*forwarding);
        return 1;
    }
    // Deliberate: the result is ignored. If no descriptor is free, the connection stays pending and the loop
    // busy-waits. Pinned by LocalForwarding.ListenerStaysInTheLoopWhileNoDescriptorIsLeft.
    session->AcceptLocalFwdConnection(forwarding);
    session->DispatchBufferedPackets();
    return 1;
}

int SshSession::StartLocalForwarding(String_t const& spec) {
    return StartParsed(spec, [this](auto const&... parts) { return StartLocalForwarding(parts...); });
}

int SshSession::StartLocalForwarding(unsigned int port, String_t const& host, unsigned int listenPort,
                                     String_t const& bindAddress) {
    auto const [entry, isNew] =
        _localForwardings.Insert(listenPort, LocalForwarding(bindAddress, listenPort, port, host));
    if (!isNew) return -1;
    if (entry->_server->Listen(_dialect ? DIALECT_BACKLOG : BACKLOG) < 0) {
        int const error = errno;
        _localForwardings.Remove(listenPort);
        return -error;
    }
    _mux.Register(entry->_server->Fd(), LFAcceptor(this, listenPort));
    return 0;
}

int SshSession::CancelLocalForwarding(unsigned int listenPort) {
    // Deliberate without a dialect: the registration of the closed descriptor stays. Pinned by
    // LocalForwarding.CancelClosesTheListenerAndKeepsItsRegistration.
    LocalForwarding const* const forwarding = _dialect ? _localForwardings.Find(listenPort) : nullptr;
    if (forwarding) _mux.Unregister(forwarding->_server->Fd());
    return _localForwardings.Remove(listenPort) ? 0 : -1;
}

int SshSession::AcceptLocalFwdConnection(LocalForwarding* forwarding) {
    if (!forwarding->_server) return -1;
    sockaddr_in caller{};
    FileDescriptor connection(forwarding->_server->AcceptConnection(caller, ACCEPT_LIMIT));
    if (connection < 0) return -1;
    String_t address;
    unsigned short port = 0;
    int const decoded = ServerSocketIn::DecodeCaller(caller, address, port);
    if (decoded < 0) return decoded;
    PacketOpenTcpChannel request(_channels.NextId(), INITIAL_WINDOW, MAX_PACKET, forwarding->_host,
                                 forwarding->_port, address, port);
    _out.WritePacket(request);
    return WaitForOpenConfirmation(request._channelType, connection);
}

/// Handles packets until the reply is among them, or until all that have arrived are handled. In the latter
/// case the caller closes the connection, and the reply is ignored when it arrives.
int SshSession::WaitForOpenConfirmation(String_t const& channelType, FileDescriptor& connection) {
    do {
        PacketDecoder decoder(_in.ReadPacket());
        int const number = MessageNumber(decoder._data);
        if (number == Packet::SSH_MSG_CHANNEL_OPEN_CONFIRMATION) {
            PacketChannelOpenConfirmation const confirmation(decoder);
            RegisterFdDispatcher(_channels.NewTcpConnection(confirmation._senderChannel, channelType,
                                                            _windowSize, connection, &_in, &_out));
            return 0;
        }
        // Deliberate: CHANNEL_OPEN_FAILURE is not treated as a reply but as a message without a handler.
        // Pinned by LocalForwarding.OpenFailureClosesTheConnectionSilently.
        if (number == Packet::SSH_MSG_CHANNEL_FAILURE) return -1;
        Handler const* handler = _handlers.Find(number);
        if (handler && (this->**handler)(decoder) == 0) break;
    } while (_in.HasBufferedInput());
    _channels.FlushAllChannels();
    return 0;
}

int SshSession::StartRemoteForwarding(String_t const& spec) {
    return StartParsed(spec, [this](auto const&... parts) { return StartRemoteForwarding(parts...); });
}

int SshSession::StartRemoteForwarding(unsigned int port, String_t const& host, unsigned int listenPort,
                                      String_t const& bindAddress) {
    if (_remoteForwardings.Find(listenPort)) return -1;
    if (_dialect && _dialect->ResolveTarget(host, port) < 0) return -1;
    PacketGlobalRequest request("tcpip-forward", 1, bindAddress, listenPort);
    _out.WritePacket(request);
    // Deliberate: the very next message is taken as the reply. Pinned by
    // RemoteForwarding.OtherMessageIsARefusal.
    PacketDecoder decoder(_in.ReadPacket());
    PacketRequestResult const result(decoder);
    if (result._type != Packet::SSH_MSG_REQUEST_SUCCESS) return -1;
    if (_dialect) listenPort = _dialect->ListeningPort(listenPort);
    _remoteForwardings.Insert(listenPort, ForwardingInfo(bindAddress, port, host));
    return 0;
}

int SshSession::CancelRemoteForwarding(unsigned int listenPort) {
    if (_dialect) listenPort = _dialect->ListeningPort(listenPort);
    ForwardingInfo const* const forwarding = _remoteForwardings.Find(listenPort);
    if (!forwarding) return -1;
    String_t const bindAddress = forwarding->_bindAddress;
    _remoteForwardings.Remove(listenPort);
    PacketGlobalRequest request("cancel-tcpip-forward", 0, bindAddress, listenPort);
    _out.WritePacket(request);
    return 0;
}

int SshSession::OpenForwardedTcpChannel(PacketOpenTcpChannel const& request) {
    ForwardingInfo const* const forwarding = _remoteForwardings.Find(request._port);
    if (!forwarding) return 1;
    ClientSocketIn target(static_cast<unsigned short>(forwarding->_port), forwarding->_host.Text());
    if (!target) return 1;
    int error = 0;
    FileDescriptor connection(target.Connect(CONNECT_LIMIT, error));
    if (connection < 0) return 1;
    SshChannel* const channel = _channels.NewTcpConnection(request._senderChannel, request._channelType,
                                                           _windowSize, connection, &_in, &_out);
    // Deliberate: the channel stays in the table. Pinned by
    // RemoteForwarding.ConnectionNotWritableWithin60MillisecondsIsRefusedAndKept.
    if (!IsWritable(channel->_fdIn)) return 1;
    PacketChannelOpenConfirmation confirmation(request._senderChannel, channel->_localId, _windowSize,
                                               request._maxPacketSize);
    _out.WritePacket(confirmation);
    RegisterFdDispatcher(channel);
    return 0;
}

} // namespace cindral

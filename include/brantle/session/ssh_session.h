#ifndef BRANTLE_SESSION_SSH_SESSION_H
#define BRANTLE_SESSION_SSH_SESSION_H

#include <brantle/channel/ssh_channel_mgr.h>
#include <brantle/cindral/big_num.h>
#include <brantle/cindral/block_cipher.h>
#include <brantle/cindral/enter_password.h>
#include <brantle/cindral/mac.h>
#include <brantle/cindral/private_key.h>
#include <brantle/cindral/public_key.h>
#include <brantle/cindral/signature.h>
#include <brantle/event/iomultiplexer.h>
#include <brantle/event/iomultiplexer_task.h>
#include <brantle/export.h>
#include <brantle/kex/dh_exchange.h>
#include <brantle/kex/dh_gex_parameters.h>
#include <brantle/kex/kex_type.h>
#include <brantle/packet/channel_messages.h>
#include <brantle/packet/kex_messages.h>
#include <brantle/packet/packet_decoder.h>
#include <brantle/packet/packet_stream.h>
#include <brantle/session/kbd_interactive.h>
#include <brantle/thornel/byte_string.h>
#include <brantle/thornel/client_socket.h>
#include <brantle/thornel/file_descriptor.h>
#include <brantle/thornel/string_t.h>
#include <generic/autoptr>
#include <generic/gcmp>
#include <generic/tmap>

namespace cindral {

class SessionDialect;

/// One client connection to one SSH server: the hub of the library.
///
/// The sources of this one class are in three folders: session/ (connecting, authentication, the session
/// channel, the loop), kex/ (key exchange) and channel/ (forwarding of TCP and X11).
///
/// The order of calls is: constructor, Connect, KeyExchange, Authenticate, StartX11Forwarding,
/// StartLocalForwarding and StartRemoteForwarding as needed, Open, one of StartShell, StartCommand or
/// StartSubsystem, InitDispatcher, Run. Everything before Run blocks on the caller's thread. The order is not
/// checked.
///
/// A refusal by the peer is reported as a negative result, a protocol violation as an SshProtocolError (or
/// BadInput if a message is truncated). After either the connection is unusable: destroy the session, which
/// closes it. Only Disconnect sends a DISCONNECT.
///
/// A session belongs to one thread at a time; only Terminate may be called from any thread, unless an
/// override of it is more restrictive. The object is large, about 65 KiB, because the buffers of both
/// directions are embedded in it.
class BRANTLE_API SshSession {
public:
    /// The slot of the cipher and MAC pairs that serves output; the other one serves input. SERVER does not
    /// select a server's role: it only swaps the two slots. Nothing uses it; pass CLIENT.
    enum Mode { CLIENT = 0, SERVER = 1 };

    /// The state of X11 forwarding; see <brantle/channel/x11_forwarding.h>.
    class X11Forwarding;

    /// The parameters of a forwarding; see <brantle/channel/tcp_forwarding.h>.
    class ForwardingInfo;
    class LocalForwarding;

    /// Takes the target as a port and a host name or address, or as one string "host:port", as ParseUrl
    /// returns it. Throws SystemError "initialize client socket failed" if the host can't be resolved or the
    /// string is malformed.
    SshSession(Mode mode, unsigned short port, String_t const& host);
    SshSession(Mode mode, String_t const& host);
    SshSession(SshSession const&) = delete;
    SshSession& operator=(SshSession const&) = delete;
    /// Closes the connection.
    virtual ~SshSession();

    /// Asks the loop to end the next time it checks the stop flag. May be called from any thread. A poll(2)
    /// in progress is not interrupted: the loop ends when it returns, after up to 60 seconds, or when a
    /// Dispatch that is waiting for the rest of a packet has received it. Returns the previous value of the
    /// flag. The override in SshInteractiveSession does more and may not be called from every thread.
    virtual int Terminate();

    /// Serves the socket: handles every packet that has arrived, then flushes the channels. Called by the
    /// loop. `fd` must be the session's socket, otherwise SystemError "invalid input" is thrown.
    ///
    /// If only part of a packet has arrived, this blocks for the rest, for up to 180 seconds at a time: a
    /// server that never completes the packet keeps timers from firing and Terminate from taking effect.
    ///
    /// Packets that arrived together with the reply to a forwarded connection are handled there, without a
    /// call of this operation.
    virtual int Dispatch(int fd);

    /// Runs the loop on the caller's thread until the session ends. Returns -1 once stopped, an errno value
    /// if poll(2) failed. A protocol violation by the peer is thrown as an exception.
    ///
    /// The text of a DISCONNECT goes to std::cerr as the server sent it, control characters included. A
    /// message whose number has no name, such as 7, sets std::cerr to a failed state: nothing more is printed
    /// there by the whole process until the program clears that state.
    virtual int Run();

    /// Splits a target text, [user "@"] host [":" port], where the host may be an address in brackets, into
    /// user and "host:port". The last "@" is the separator; without one, the user is the local user; without
    /// a port, ":22" is added. Returns 0, or -EINVAL for a null pointer (the outputs are then unchanged) or
    /// an unclosed bracket.
    static int ParseUrl(char const* url, String_t& user, String_t& host);

    /// Sets TCP_NODELAY on a socket. Throws SystemError "setsockopt".
    static void SetNodelay(int fd);

    /// Connects within `timeout` seconds and exchanges identification lines (RFC 4253, section 4.2): reads
    /// the server's first line without checking it, then sends the client's, terminated by a single line
    /// feed. Returns 0 or a negated errno value. The wait for the server's line has no limit.
    int Connect(unsigned int timeout);

    /// Negotiates algorithms, runs the group exchange (RFC 4253, section 7; RFC 4419), checks the
    /// host key against KnownHosts and turns encryption on. Returns 0, or -1 if there is no common
    /// algorithm, the group is out of bounds, or the host key, the server's public value or its
    /// signature is not accepted. The server host key, compression and language lists are not
    /// compared. Throws what the decoders and DhExchange throw.
    ///
    /// After -1, or an exception, the server is not authenticated and nothing is encrypted: abandon the
    /// connection. Authenticate sends nothing on it. A previously unknown host key has by then been stored
    /// nevertheless: it is written to known_hosts before the server has proved that it holds the private key.
    int KeyExchange();

    /// Runs the ssh-userauth service (RFC 4252): asks with "none", then tries the methods that the server
    /// lists, in its order, until one succeeds. Returns 0, or -1 if all fail. If no keys are in use, because
    /// KeyExchange has not been called or has not returned 0, it also returns -1 and sends nothing: the
    /// password would be sent in the clear, to an unknown peer.
    ///
    /// `identity` is the path of a private key, with its public key in the same directory, with the extension
    /// ".ssh" or ".pub"; empty for the defaults in ~/.ssh. A key agent is asked first. `password` is both the
    /// login password and the key's passphrase; its text is wiped once it has been sent, so the caller's own
    /// copy is empty afterwards. Copies of it, and of what the user types, remain in the memory of the sent
    /// messages and on the stack. `enter` asks for further passwords, up to its number of tries; `callback`
    /// answers keyboard-interactive requests.
    ///
    /// A banner is printed on standard output as the server sent it, control characters included, so it can
    /// imitate anything, even one of the program's own prompts. Throws SshProtocolError on an unexpected
    /// message.
    int Authenticate(String_t const& identity, String_t const& user, String_t const& password,
                     EnterPassword& enter, KbdInteractiveCallback& callback);

    /// Returns the next packet that is not a banner. A program may need it, too, if the server sends other
    /// messages between authentication and Open: Open does not tolerate any.
    ByteString AuthReadPacket();

    /// Lets remote X clients reach the X server that `display` names, as in "localhost:10.0", "unix:0" or
    /// ":0" (RFC 4254, section 6.3). Call it before Open, which sends the request to the server. With
    /// `singleConnection` the server is asked to forward no more than one connection. Returns 0, or -1 if
    /// `display` is empty or forwarding has already been started. Blocks until the `xauth` command has ended.
    ///
    /// REQUIRES: `display` is text that the program trusts, such as the user's own DISPLAY. It is inserted
    /// into a shell command unquoted: never pass text from an untrusted source.
    int StartX11Forwarding(int singleConnection, String_t const& display);

    /// Parses a forwarding specification, [bindAddress ":"] listenPort ":" host ":" port, where a bind
    /// address or host may be enclosed in "[" and "]]" with no colon after it, as a host that consists of
    /// digits only must be. The bind address defaults to "localhost". Anything after the port and a further
    /// colon is ignored. Returns 0, or -EINVAL for any other string or null; the outputs parsed up to that
    /// point are then set.
    static int ParseFwdSpec(char const* spec, String_t& bindAddress, unsigned int& listenPort, String_t& host,
                            unsigned int& port);

    /// Listens on `listenPort` of the local address `bindAddress` (IPv4, empty or "*" for all); while Run
    /// runs, the server is asked to connect each connection accepted there to `port` of `host` (RFC 4254,
    /// section 7.2). Returns 0, -1 if that port is forwarded already, or a negated errno value if
    /// listening fails. `spec` is as ParseFwdSpec reads it, whose -EINVAL is returned.
    ///
    /// A connection that is made while data flows on other channels may be dropped; see
    /// AcceptLocalFwdConnection. One that arrives while the process has no free descriptor remains pending,
    /// and the loop busy-waits until a descriptor is free.
    int StartLocalForwarding(String_t const& spec);
    int StartLocalForwarding(unsigned int port, String_t const& host, unsigned int listenPort,
                             String_t const& bindAddress);

    /// Stops listening; existing connections stay open. Returns 0, or -1 if the port is not forwarded. The
    /// closed descriptor remains registered with the loop, which busy-waits until that descriptor number is
    /// registered again or unregistered.
    int CancelLocalForwarding(unsigned int listenPort);

    /// Asks the server to listen on `listenPort` of its address `bindAddress` and to forward each connection
    /// to this client, which connects it to `port` of `host` (RFC 4254, section 7.1). Returns 0, or -1 if the
    /// server refuses or that port is forwarded already; `spec` is as above. A listenPort of 0 is stored as
    /// 0: the port that the server chooses is not read from its reply. Throws what the decoder of the reply
    /// throws.
    ///
    /// REQUIRES: nothing else arrives from the server in the meantime, since the next packet is taken as the
    /// reply: call it before Open.
    ///
    /// If the server's CHANNEL_OPEN contains the originator's address, as RFC 4254 specifies, Run ends with
    /// an SshProtocolError; without it, the connection is accepted.
    int StartRemoteForwarding(String_t const& spec);
    int StartRemoteForwarding(unsigned int port, String_t const& host, unsigned int listenPort,
                              String_t const& bindAddress);

    /// Removes the forwarding and asks the server to stop listening, without requesting a reply; existing
    /// connections stay open. Returns 0, or -1 if the port is not forwarded.
    int CancelRemoteForwarding(unsigned int listenPort);

    /// Opens the session channel (RFC 4254, section 6.1) and requests X11 forwarding if StartX11Forwarding
    /// has been called. Returns 0, even if the server refuses the forwarding, which is then disabled; or -1
    /// if the server refuses the channel. Throws SshProtocolError on any other reply.
    int Open();

    /// Send the request to start a shell, a command or a subsystem (RFC 4254, section 6.5) on the session
    /// channel, without requesting a reply.
    void StartShell();
    void StartCommand(String_t const& command) { StartCommand(command, false); }
    void StartSubsystem(String_t const& name) { StartSubsystem(name, false); }

    /// Sends DISCONNECT with one of the reasons of Packet and a description; does not close the connection.
    void Disconnect(int reason, String_t const& text);

    /// Prepares the loop: the handlers of messages, the socket, and the session channel attached to
    /// the process's descriptors 0, 1 and 2.
    void InitDispatcher();

    /// Registers the input descriptor of `channel`, a TCP socket, with the loop: its data is passed to the
    /// channel's ForwardToSshd, and at end of file CloseChannel is called with the channel's `_localId`. The
    /// channel need not be in the session's table, and its ownership does not change. If it is destroyed, the
    /// registration ends the next time the descriptor is ready; if ReplaceChannel replaces it, the data goes
    /// to the replacement.
    ///
    /// Throws InvalidArgument for a null channel, and what SetNodelay throws.
    void RegisterFdDispatcher(SshChannel* channel);

    /// Sends CHANNEL_EOF on the channel with that local number, which stays open. Does nothing if there is no
    /// such channel.
    void CloseChannel(unsigned int id);

    /// Confirms a channel opened for a remote X client; the X server is connected only when the client's
    /// first data arrives. Returns 0, or the reason code for a refusal (RFC 4254, section 5.1): 1
    /// (administratively prohibited) if X11 is not forwarded, 4 (resource shortage) while 1,024 such channels
    /// have no connection yet.
    int OpenForwardedX11Channel(PacketOpenTcpChannel const& request);

    /// Connects an X11 channel to the X server, given the client's connection set-up message, which must be
    /// complete, with nothing after it, and contain the cookie that was given to the peer. The X server's
    /// real cookie is substituted for it. Blocks for up to 60 seconds. Returns the descriptor, registered
    /// with the loop for `channel`, which now owns it; or -1 if no connection was made, as for a null
    /// `channel`, or if it has been closed again. Throws what SetNodelay throws.
    int InitiateX11Connection(unsigned char const* data, unsigned int length, SshChannel* channel);

    /// Accepts one connection of a local forwarding, waiting up to 60 seconds for it, and asks the server to
    /// open a channel for it. Called by the loop, which ignores the result.
    ///
    /// Waits for one packet and handles all that have arrived with it; if only part of the last one has, it
    /// waits for the rest. If one of them is the confirmation (RFC 4254, section 5.1), the connection is
    /// attached to its channel and registered with the loop; otherwise it is closed, even if the confirmation
    /// is still in transit. Returns 0, even if the server refuses or has not replied yet; -1 if there was no
    /// connection or the server replies with CHANNEL_FAILURE; what DecodeCaller returns if the caller has no
    /// IPv4 address.
    int AcceptLocalFwdConnection(LocalForwarding* forwarding);

    /// Connects to a remote forwarding's target within 60 seconds and attaches the connection to a new
    /// channel. Returns 0, or 1 for a refusal; a connection that is not writable within 60 ms is refused, but
    /// its channel stays in the table.
    int OpenForwardedTcpChannel(PacketOpenTcpChannel const& request);

    /// Swaps the class of a live channel; see SshChannelMgr::ReplaceChannel.
    SshChannel* ReplaceChannel(unsigned int id, SshChannelMakerBase const& maker);

    /// The multiplexer that Run drives, for a program's own descriptors, timers and callbacks.
    IOMultiplexer& Multiplexer() { return _mux; }

    /// The connected socket, for a program that wants to poll it, negative while there is none; and whether
    /// bytes of a further packet have already been read from it.
    int Fd() const { return _fd; }
    bool HasBufferedInput() const { return _in.HasBufferedInput(); }

    /// What has been negotiated and received so far; a string is empty until the corresponding step.
    KexType KexMethod() const { return _kexType; }
    String_t const& ServerVersion() const { return _serverVersion; }
    String_t const& Banner() const { return _banner; }
    /// Cipher and MAC names; direction 0 is client to server, 1 is server to client.
    String_t const& CipherName(int direction) const { return _cipherNames[direction]; }
    String_t const& MacName(int direction) const { return _macNames[direction]; }
    /// The exchange hash of the key exchange.
    ByteString const& SessionId() const { return _sessionId; }
    bool IsAuthenticated() const { return _authenticated != 0; }

protected:
    friend class SessionDialect;
    class BRANTLE_LOCAL SshDispatcher;
    class BRANTLE_LOCAL FdDispatcher;
    class BRANTLE_LOCAL LFAcceptor;
    using Handler = int (SshSession::*)(PacketDecoder&);
    using KexFunction = int (SshSession::*)(PacketKexInit& own, PacketKexInit& peer);

    /// The same; with `more`, the caller immediately sends data on the channel or reads from its data stream,
    /// which also sends the request.
    void StartCommand(String_t const& command, bool more);
    void StartSubsystem(String_t const& name, bool more);

    // Key exchange
    int NegotiateAlgorithms(PacketKexInit const& own, PacketKexInit const& peer);
    KexType ChooseKex(String_t const& own, String_t const& peer);
    int KexGroup1(PacketKexInit& own, PacketKexInit& peer);
    int KexGroup14(PacketKexInit& own, PacketKexInit& peer);
    int Kex(DhExchange& exchange, PacketKexInit& own, PacketKexInit& peer);
    int KexGex(PacketKexInit& own, PacketKexInit& peer);
    void KexFinish(ByteString const& hash, BigNum const& secret);
    int CheckServerHostKey(PublicKey const& key) const;
    ByteString DeriveKey(DigestType type, unsigned char letter, ByteString const& hash, BigNum const& secret);
    void DeriveKeys(DigestType type, ByteString const& hash, BigNum const& secret);

    // User authentication
    void InitiateAuthentication();
    int AuthKey(String_t const& identity, String_t const& user, String_t const& password,
                EnterPassword& enter);
    int AuthPasswd(String_t const& user, String_t password, EnterPassword& enter);
    int AuthInteractive(String_t const& user, String_t const& submethods, KbdInteractiveCallback& callback);
    int SignAuthData(PublicKey const& key, String_t const& identity, String_t const& user,
                     String_t const& password, EnterPassword& enter, Signature& signature);
    ByteString MakeAuthData(char const* service, String_t const& user, PublicKey const& key);
    int ReadIdentity(PrivateKey& privateKey, String_t const& identity, String_t const& password,
                     EnterPassword& enter);
    int ReadPubkey(PublicKey& key, String_t const& identity);

    // Handlers of messages: zero ends the current Dispatch
    int HandleDisconnect(PacketDecoder& decoder);
    int HandleIgnore(PacketDecoder& decoder);
    int HandleChannelOpen(PacketDecoder& decoder);
    int HandleChannelData(PacketDecoder& decoder);
    int HandleChannelExtendedData(PacketDecoder& decoder);
    int HandleChannelWindowAdjust(PacketDecoder& decoder);
    int HandleChannelRequest(PacketDecoder& decoder);
    int HandleChannelEof(PacketDecoder& decoder);
    int HandleChannelClose(PacketDecoder& decoder);
    int WaitForOpenConfirmation(String_t const& channelType, FileDescriptor& connection);
    void DispatchBufferedPackets();
    /// The socket part of Connect, with the descriptor stored and not yet bound to the streams.
    int OpenSocket(unsigned int timeout);
    void ReportIgnored(int number);
    void RefuseChannel(unsigned int sender, int reason);

    /// Registers a descriptor that feeds `channel` with the loop.
    void RegisterChannelInput(int fd, SshChannel* channel);
    void RequestX11Forwarding();

    static constexpr unsigned int INITIAL_WINDOW = 0x200000; ///< granted for each channel
    static constexpr unsigned int MAX_PACKET = 0x8000;

    static char const* const _defaultClientVersion;
    static char const* const _defaultKexAlgorithms;
    static DhGexParameters const _defaultDhGexParameters;
    static char const* const _eol;
    static KexFunction const _kexFuncs[4];

    // The order of these members matters for destruction: the loop is destroyed before the channels, and the
    // streams before the descriptor is closed. The streams refer to ciphers and MACs that are constructed
    // after them.
    Mode _mode;
    ClientSocketIn _socket;
    int _fd = -1; ///< the connected socket
private:
    /// On destruction, closes `_fd` with the value that it has then.
    struct SocketCloser {
        int const& _fd;
        ~SocketCloser();
    } _socketCloser{_fd};

protected:
    OSshPacketStream _out;
    ISshPacketStream _in;
    KexType _kexType = KEX_NONE;
    String_t _clientVersion = _defaultClientVersion;
    String_t _serverVersion;
    String_t _banner;
    String_t _cipherNames[2];
    String_t _macNames[2];
    BlockCipher _ciphers[2];
    Mac _macs[2];
    ByteString _sessionId;
    unsigned int _keyNeed = 16; ///< bytes of each key
    int _authenticated = 0;
    unsigned int _remoteChannel = 0; ///< the peer's number for the session channel
    unsigned int _windowSize = 0;    ///< what this side grants each channel, in bytes
    TMap<int, Handler, GCmp<int>> _handlers;
    SshChannelMgr _channels;
    TMap<unsigned int, ForwardingInfo, GCmp<unsigned int>> _remoteForwardings; ///< by listening port
    TMap<unsigned int, LocalForwarding, GCmp<unsigned int>> _localForwardings; ///< by listening port
    AutoPtr<X11Forwarding> _x11; ///< null while X11 is not forwarded
    IOMultiplexer _mux;
    IOMultiplexerTask _task;
    SessionDialect* _dialect = nullptr; ///< replaces the communication with the server if not null; not owned

private:
    /// The end of both kinds of exchange: checks the server's reply, then computes the hash and the keys.
    template <class Reply, class Hash>
    int KexHandleReply(DhExchange& exchange, Reply const& reply, PacketKexInit& own, PacketKexInit& peer,
                       Hash const& hash);

    /// Whether both directions are encrypted and authenticated.
    bool HasKeys() const;
    int HandleAuthReply(int number);

    template <class HasMore>
    int HandlePackets(HasMore const& hasMore);
};

} // namespace cindral

#endif

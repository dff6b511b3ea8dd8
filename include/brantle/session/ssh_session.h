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
/// It is one class whose sources stand in three folders: session/ (connecting, authentication, the session
/// channel, the loop), kex/ (key exchange) and channel/ (forwarding of TCP and X11).
///
/// The order of calls is: constructor, Connect, KeyExchange, Authenticate, the starts of forwardings that
/// are wanted, Open, one of StartShell, StartCommand and StartSubsystem, InitDispatcher, Run. Everything
/// before Run blocks on the caller's thread. Steps out of order are not guarded.
///
/// A refusal comes back as a negative result, a violation of the protocol as an SshProtocolError (or
/// BadInput for a message that ends too early). After either the connection is of no further use:
/// destroy the session, which closes it. Nothing sends DISCONNECT but Disconnect.
///
/// A session belongs to one thread at a time; Terminate alone may be called from any, where no override of
/// it asks for more.
/// The object is large, about 65 KiB, as the buffers of both directions are embedded in it.
class BRANTLE_API SshSession {
public:
    /// The slot of the cipher and MAC pairs that serves output; the other one serves input. SERVER is no
    /// server's role: it swaps the slots and changes nothing else. Nothing uses it; pass CLIENT.
    enum Mode { CLIENT = 0, SERVER = 1 };

    /// The state of X11 forwarding; see <brantle/channel/x11_forwarding.h>.
    class X11Forwarding;

    /// What is known of a forwarding; see <brantle/channel/tcp_forwarding.h>.
    class ForwardingInfo;
    class LocalForwarding;

    /// The target by port and host name or address, or by one text "host:port", as ParseUrl gives
    /// it. Throws SystemError "initialize client socket failed" if the host can't be resolved or
    /// the text can't be read.
    SshSession(Mode mode, unsigned short port, String_t const& host);
    SshSession(Mode mode, String_t const& host);
    SshSession(SshSession const&) = delete;
    SshSession& operator=(SshSession const&) = delete;
    /// Closes the connection.
    virtual ~SshSession();

    /// Asks the loop to end at its next look at the stop flag, and may be called from any thread. Nothing
    /// wakes a sleeping poll(2): the loop ends when that returns, after up to 60 seconds, or when Dispatch
    /// has the rest of a packet. Returns the flag as it was. The override in SshInteractiveSession does more
    /// and is not for every thread.
    virtual int Terminate();

    /// Serves the socket: handles every packet that has arrived, then flushes the channels. Called
    /// by the loop. `fd` must be the session's socket, else SystemError "invalid input".
    ///
    /// The rest of a packet of which a part has arrived is waited for, for up to 180 seconds at a time: a
    /// server that never completes it keeps timers from firing and Terminate from taking effect.
    virtual int Dispatch(int fd);

    /// Runs the loop on the caller's thread until the session ends. Returns -1 once stopped, an
    /// errno value if poll(2) failed. What a peer does against the protocol leaves as an exception.
    ///
    /// The text of a DISCONNECT goes to std::cerr as the server sent it, control characters included. A
    /// message whose number has no name, such as 7, leaves std::cerr failed: nothing more is printed there,
    /// in the whole process, until the program clears its state.
    virtual int Run();

    /// Splits a target text, [user "@"] host [":" port], where the host may be an address in
    /// brackets, into user and "host:port". The last "@" counts; without one the user is the local
    /// one; without a port, ":22" is added. Returns 0, or -EINVAL for a null text (the outputs stay)
    /// or an unclosed bracket.
    static int ParseUrl(char const* url, String_t& user, String_t& host);

    /// Sets TCP_NODELAY on a socket. Throws SystemError "setsockopt".
    static void SetNodelay(int fd);

    /// Connects within `timeout` seconds and exchanges identification lines (RFC 4253, section 4.2):
    /// takes the server's first line as it is, then sends the local one, ended by a line feed alone.
    /// Returns 0 or a negated errno value. The wait for the server's line has no limit.
    int Connect(unsigned int timeout);

    /// Negotiates algorithms, runs the group exchange (RFC 4253, section 7; RFC 4419), checks the
    /// host key against KnownHosts and turns encryption on. Returns 0, or -1 if there is no common
    /// algorithm, the group is out of bounds, or the host key, the server's public value or its
    /// signature is not accepted. The server host key, compression and language lists are not
    /// compared. Throws what the decoders and DhExchange throw.
    ///
    /// After -1, or an exception, nobody knows who the server is and nothing is encrypted: give the
    /// connection up. Authenticate sends nothing on it. A host key that was unknown is then known all the
    /// same: it is written to known_hosts before the server has shown that it holds the key.
    int KeyExchange();

    /// Runs the ssh-userauth service (RFC 4252): asks with "none", then tries the methods that the
    /// server lists, in its order, until one succeeds. Returns 0, or -1 if all fail. Without keys in force,
    /// as when KeyExchange has not been called or has not returned 0, it is -1 as well and nothing is sent:
    /// the password would leave in clear, for whoever is at the other end.
    ///
    /// `identity` is the path of a private key, with its public key beside it under the extension
    /// ".ssh" or ".pub"; empty for the defaults in ~/.ssh. A key agent is asked first. `password` is
    /// both the login password and the key's passphrase; its text is wiped when it has been sent, so
    /// that the caller's own copy reads as empty afterwards. Copies of it, and of what is typed, stay in the
    /// memory of the messages sent and on the stack. `enter` asks for further passwords, as
    /// often as its number of tries; `callback` answers keyboard-interactive requests.
    ///
    /// A banner is printed on standard output as the server sent it, control characters included, so that it
    /// may look like anything, a prompt of the program's too. Throws SshProtocolError on a message out of
    /// place.
    int Authenticate(String_t const& identity, String_t const& user, String_t const& password,
                     EnterPassword& enter, KbdInteractiveCallback& callback);

    /// The next packet that is not a banner. Of use to a program, too, for a server that sends
    /// messages of its own between authentication and Open, which tolerates none.
    ByteString AuthReadPacket();

    /// Lets remote X clients reach the X server that `display` names, as in "localhost:10.0", "unix:0" or
    /// ":0" (RFC 4254, section 6.3). To be called before Open, which asks the server for it. With
    /// `singleConnection` the server is asked to forward no more than one connection. Returns 0, or -1 if
    /// `display` is empty or forwarding has been started already. Waits for the `xauth` command.
    ///
    /// REQUIRES: `display` is text that the program trusts, such as the user's own DISPLAY. It becomes
    /// part of a shell command as it is: pass nothing that came from anybody else.
    int StartX11Forwarding(int singleConnection, String_t const& display);

    /// Splits the text of a forwarding, [bindAddress ":"] listenPort ":" host ":" port, where a bind address
    /// or host may stand in "[" and "]]" with no colon after it, as a host of digits alone has to. Without
    /// a bind address it is "localhost". What follows the port after a further colon is not looked at.
    /// Returns 0, or -EINVAL for another text or null; the outputs are then set as far as the text went.
    static int ParseFwdSpec(char const* spec, String_t& bindAddress, unsigned int& listenPort, String_t& host,
                            unsigned int& port);

    /// Listens on `listenPort` of the local address `bindAddress` (IPv4, empty or "*" for all); while Run
    /// runs, the server is asked to connect each connection accepted there to `port` of `host` (RFC 4254,
    /// section 7.2). Returns 0, -1 if that port is forwarded already, or a negated errno value if
    /// listening fails. `spec` is as ParseFwdSpec reads it, whose -EINVAL is returned.
    ///
    /// A connection that is made while data flows on other channels may be dropped; see
    /// AcceptLocalFwdConnection. One that comes while the process has no descriptor left stays waiting, and
    /// the loop busy-waits until there is one.
    int StartLocalForwarding(String_t const& spec);
    int StartLocalForwarding(unsigned int port, String_t const& host, unsigned int listenPort,
                             String_t const& bindAddress);

    /// Stops listening; connections stay. Returns 0, or -1 if the port is not forwarded. The loop keeps the
    /// record of the closed descriptor, and busy-waits until its number is registered again or unregistered.
    int CancelLocalForwarding(unsigned int listenPort);

    /// Asks the server to listen on `listenPort` of its address `bindAddress` and to lead each connection
    /// here, where it goes on to `port` of `host` (RFC 4254, section 7.1). Returns 0, or -1 if the server
    /// refuses or that port is forwarded already; `spec` is as above. A listenPort of 0 stays 0: the port
    /// that the server then chooses is not learnt. Throws what the decoder of the answer throws.
    ///
    /// REQUIRES: nothing else arrives from the server meanwhile, since the next packet is taken for the
    /// answer: to be called before Open.
    ///
    /// A connection that the server announces with the originator's address, as RFC 4254 has it, ends Run
    /// with an SshProtocolError; one that it announces without is served.
    int StartRemoteForwarding(String_t const& spec);
    int StartRemoteForwarding(unsigned int port, String_t const& host, unsigned int listenPort,
                              String_t const& bindAddress);

    /// Forgets the forwarding and tells the server to stop listening, without asking for a reply;
    /// connections stay. Returns 0, or -1 if the port is not forwarded.
    int CancelRemoteForwarding(unsigned int listenPort);

    /// Opens the session channel (RFC 4254, section 6.1) and asks for X11 forwarding, if it has been
    /// started. Returns 0, also where the server refuses the forwarding, which is then off; or -1 if the
    /// server refuses the channel. Throws SshProtocolError on any other answer.
    int Open();

    /// Send the request to start a shell, a command or a subsystem (RFC 4254, section 6.5) on the
    /// session channel, without asking for a reply.
    void StartShell();
    void StartCommand(String_t const& command) { StartCommand(command, false); }
    void StartSubsystem(String_t const& name) { StartSubsystem(name, false); }

    /// Sends DISCONNECT with one of the reasons of Packet and a text; closes nothing.
    void Disconnect(int reason, String_t const& text);

    /// Prepares the loop: the handlers of messages, the socket, and the session channel attached to
    /// the process's descriptors 0, 1 and 2.
    void InitDispatcher();

    /// Registers the input descriptor of `channel`, a TCP socket, with the loop: what comes from it goes to
    /// the channel's ForwardToSshd, and its end to CloseChannel with the channel's `_localId`. The channel
    /// need not be in the session's table and stays its owner's. If it is destroyed the registration ends, as
    /// soon as the descriptor is ready; if ReplaceChannel puts another in its place, that one is fed.
    ///
    /// Throws InvalidArgument for a null channel, and what SetNodelay throws.
    void RegisterFdDispatcher(SshChannel* channel);

    /// Sends CHANNEL_EOF on the channel of that local number; the channel stays. Unknown: nothing.
    void CloseChannel(unsigned int id);

    /// Confirms a channel of a remote X client; its connection to the X server waits for the client's first
    /// data. Returns 0, or the reason of a refusal (RFC 4254, section 5.1): 1 (administratively prohibited)
    /// if X11 is not forwarded, 4 (resource shortage) while 1,024 channels are without a connection.
    int OpenForwardedX11Channel(PacketOpenTcpChannel const& request);

    /// Connects an X11 channel to the X server, given the client's connection set-up message, which
    /// must be whole, alone and show the cookie that the peer was given. The X server gets its own cookie in
    /// its place. Blocks for up to 60 seconds. Returns the descriptor, attached to `channel` in the loop
    /// and from then on the channel's, or -1: nothing was connected, as for a null `channel`, or it is closed
    /// again. Throws what SetNodelay throws.
    int InitiateX11Connection(unsigned char const* data, unsigned int length, SshChannel* channel);

    /// Accepts one connection of a local forwarding, waiting for one for up to 60 seconds, and asks the
    /// server for a channel for it. Called by the loop, which ignores the result.
    ///
    /// Waits for one packet and handles what has come with it, up to the end of a packet that has begun. With
    /// a confirmation (RFC 4254, section 5.1) among that, the connection is attached to its channel in the
    /// loop; else it is closed, even if the confirmation is still on its way. Returns 0, also where the
    /// server refuses or has not answered yet; -1 if no connection came or the server answers with
    /// CHANNEL_FAILURE; what DecodeCaller returns if the caller has no IPv4 address.
    int AcceptLocalFwdConnection(LocalForwarding* forwarding);

    /// Connects to a remote forwarding's target within 60 seconds and joins it to a new channel. Returns 0,
    /// or 1 for a refusal; a connection not writable within 60 ms stays in the channel table all the same.
    int OpenForwardedTcpChannel(PacketOpenTcpChannel const& request);

    /// Swaps the class of a live channel; see SshChannelMgr::ReplaceChannel.
    SshChannel* ReplaceChannel(unsigned int id, SshChannelMakerBase const& maker);

    /// The multiplexer that Run drives, for a program's own descriptors, timers and callbacks.
    IOMultiplexer& Multiplexer() { return _mux; }

    /// The connected socket, for a program that wants to poll it; negative while there is none. And
    /// whether bytes of a further packet have been read from it already.
    int Fd() const { return _fd; }
    bool HasBufferedInput() const { return _in.HasBufferedInput(); }

    /// What has been agreed and received so far; texts are empty before their step.
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

    /// The same; with `more`, data for the channel or a read of its data stream follows at once, and takes
    /// the request along.
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

    // Declared in this order since destruction depends on it: the loop goes before the channels,
    // and the streams go before the descriptor is closed. The streams refer to ciphers and MACs
    // that are built after them.
    Mode _mode;
    ClientSocketIn _socket;
    int _fd = -1; ///< the connected socket
private:
    /// Closes `_fd`, whatever number it holds then.
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
    unsigned int _remoteChannel = 0; ///< the peer's number of the session channel
    unsigned int _windowSize = 0;    ///< what this side grants each channel, in bytes
    TMap<int, Handler, GCmp<int>> _handlers;
    SshChannelMgr _channels;
    TMap<unsigned int, ForwardingInfo, GCmp<unsigned int>> _remoteForwardings; ///< by listening port
    TMap<unsigned int, LocalForwarding, GCmp<unsigned int>> _localForwardings; ///< by listening port
    AutoPtr<X11Forwarding> _x11; ///< null while X11 is not forwarded
    IOMultiplexer _mux;
    IOMultiplexerTask _task;
    SessionDialect* _dialect = nullptr; ///< another way to speak with the server; not owned

private:
    /// What both kinds of exchange end with: the checks of the server's reply, the hash and the keys.
    template <class Reply, class Hash>
    int KexConclude(DhExchange& exchange, Reply const& reply, PacketKexInit& own, PacketKexInit& peer,
                    Hash const& hash);

    /// Whether both directions are encrypted and authenticated.
    bool HasKeys() const;
    int TakeVerdict(int number);

    template <class HasMore>
    int HandlePackets(HasMore const& hasMore);
};

} // namespace cindral

#endif

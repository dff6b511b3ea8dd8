#ifndef BRANTLE_SESSION_SSH_SESSION_H
#define BRANTLE_SESSION_SSH_SESSION_H

#include <generic/gcmp>
#include <generic/tmap>

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
#include <brantle/packet/kex_messages.h>
#include <brantle/packet/packet_decoder.h>
#include <brantle/packet/packet_stream.h>
#include <brantle/session/kbd_interactive.h>
#include <brantle/thornel/byte_string.h>
#include <brantle/thornel/client_socket.h>
#include <brantle/thornel/file_descriptor.h>
#include <brantle/thornel/string_t.h>

namespace cindral {

/// One client connection to one SSH server: the hub of the library.
///
/// The order of calls is: constructor, Connect, KeyExchange, Authenticate, Open, one of StartShell,
/// StartCommand and StartSubsystem, InitDispatcher, Run. Everything before Run blocks on the
/// caller's thread. Steps out of order are not guarded.
///
/// A refusal comes back as a negative result, a breach of the protocol as an SshProtocolError (or
/// BadInput for a message that ends too early). After either the connection is of no further use:
/// destroy the session, which closes it. Nothing sends DISCONNECT but Disconnect.
///
/// A session belongs to one thread at a time; Terminate alone may be called from any.
/// The object is large, as the buffers of both directions are embedded in it.
class BRANTLE_API SshSession {
public:
    /// The slot of the cipher and MAC pairs that serves output; the other one serves input.
    enum Mode { CLIENT = 0, SERVER = 1 };

    /// The target by port and host name or address, or by one text "host:port", as ParseUrl gives
    /// it. Throws SystemError "initialize client socket failed" if the host can't be resolved or
    /// the text can't be read.
    SshSession(Mode mode, unsigned short port, String_t const& host);
    SshSession(Mode mode, String_t const& host);
    SshSession(SshSession const&) = delete;
    SshSession& operator=(SshSession const&) = delete;
    /// Closes the connection.
    virtual ~SshSession();

    /// Asks the loop to end at its next look at the stop flag; nothing wakes a sleeping poll(2).
    /// Returns the flag as it was.
    virtual int Terminate();

    /// Serves the socket: handles every packet that has arrived, then flushes the channels. Called
    /// by the loop. `fd` must be the session's socket, else SystemError "invalid input".
    virtual int Dispatch(int fd);

    /// Runs the loop on the caller's thread until the session ends. Returns -1 once stopped, an
    /// errno value if poll(2) failed. What a peer does against the protocol leaves as an exception.
    virtual int Run();

    /// Splits a target text, [user "@"] host [":" port], where the host may be an address in
    /// brackets, into user and "host:port". The last "@" counts; without one the user is the local
    /// one; without a port, ":22" is added. Returns 0, or -EINVAL for a null text (the outputs stay)
    /// or an unclosed bracket.
    static int ParseUrl(char const* url, String_t& user, String_t& host);

    /// Sets TCP_NODELAY on a socket. Throws SystemError "setsockopt".
    static void SetNodelay(int fd);

    /// Connects within `timeout` seconds and exchanges identification lines (RFC 4253, section 4.2):
    /// takes the server's first line as it is, then sends the own one, ended by a line feed alone.
    /// Returns 0 or a negated errno value. The wait for the server's line has no limit.
    int Connect(unsigned int timeout);

    /// Negotiates algorithms, runs the group exchange (RFC 4253, section 7; RFC 4419), checks the
    /// host key against KnownHosts and turns encryption on. Returns 0, or -1 if there is no common
    /// algorithm, the group is out of bounds, or the host key, the server's public value or its
    /// signature is not accepted. The server host key, compression and language lists are not
    /// compared. Throws what the decoders and DhExchange throw.
    int KeyExchange();

    /// Runs the ssh-userauth service (RFC 4252): asks with "none", then tries the methods that the
    /// server lists, in its order, until one succeeds. Returns 0, or -1 if all fail.
    ///
    /// `identity` is the path of a private key, with its public key beside it under the extension
    /// ".ssh" or ".pub"; empty for the defaults in ~/.ssh. A key agent is asked first. `password` is
    /// both the login password and the key's passphrase; its text is wiped when it has been sent, so
    /// that the caller's own copy reads as empty afterwards. `enter` asks for further passwords, as
    /// often as its number of tries; `callback` answers keyboard-interactive requests.
    ///
    /// A banner is printed on standard output. Throws SshProtocolError on a message out of place.
    int Authenticate(String_t const& identity, String_t const& user, String_t const& password,
                     EnterPassword& enter, KbdInteractiveCallback& callback);

    /// The next packet that is not a banner. Of use to a program, too, for a server that sends
    /// messages of its own between authentication and Open, which tolerates none.
    ByteString AuthReadPacket();

    /// Opens the session channel (RFC 4254, section 6.1). Returns 0, or -1 if the server refuses.
    /// Throws SshProtocolError on any other answer.
    int Open();

    /// Send the request to start a shell, a command or a subsystem (RFC 4254, section 6.5) on the
    /// session channel, without asking for a reply.
    void StartShell();
    void StartCommand(String_t const& command) { StartCommand(command, false); }
    void StartSubsystem(String_t const& name) { StartSubsystem(name, false); }

    /// Sends DISCONNECT with one of the reasons of Packet and a text; closes nothing.
    void Disconnect(int reason, String_t const& text);

    /// Prepares the loop: the handlers of messages, the socket, and the session channel joined to
    /// the process's descriptors 0, 1 and 2.
    void InitDispatcher();

    /// Registers the descriptor that feeds `channel`, a TCP socket, with the loop.
    void RegisterFdDispatcher(SshChannel* channel);

    /// Sends CHANNEL_EOF on the channel of that local number; the channel stays. Unknown: nothing.
    void CloseChannel(unsigned int id);

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
    class BRANTLE_LOCAL SshDispatcher;
    class BRANTLE_LOCAL FdDispatcher;
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
    int AuthKey(String_t const& identity, String_t const& user, String_t const& password, EnterPassword& enter);
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
    void ReportIgnored(int number);

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
    FileDescriptor _fd{-1}; ///< the connected socket
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
    IOMultiplexer _mux;
    IOMultiplexerTask _task;

private:
    /// What both kinds of exchange end with: the checks of the server's reply, the hash and the keys.
    template <class Reply, class Hash>
    int KexConclude(DhExchange& exchange, Reply const& reply, PacketKexInit& own, PacketKexInit& peer,
                    Hash const& hash);
};

} // namespace cindral

#endif

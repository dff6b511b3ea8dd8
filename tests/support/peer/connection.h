#ifndef TESTS_SUPPORT_PEER_CONNECTION_H
#define TESTS_SUPPORT_PEER_CONNECTION_H

#include <functional>
#include <optional>

#include "support/peer/link.h"
#include "support/peer/peer_crypto.h"
#include "support/peer/wire.h"

namespace peer {

/// Message numbers of RFC 4250, section 4.1, and RFC 4419.
enum Message : std::uint8_t {
    DISCONNECT = 1,
    IGNORE = 2,
    UNIMPLEMENTED = 3,
    DEBUG = 4,
    SERVICE_REQUEST = 5,
    SERVICE_ACCEPT = 6,
    KEXINIT = 20,
    NEWKEYS = 21,
    KEXDH_INIT = 30,
    KEXDH_REPLY = 31,
    GEX_GROUP = 31,
    GEX_INIT = 32,
    GEX_REPLY = 33,
    GEX_REQUEST = 34,
    USERAUTH_REQUEST = 50,
    USERAUTH_FAILURE = 51,
    USERAUTH_SUCCESS = 52,
    USERAUTH_BANNER = 53,
    USERAUTH_PK_OK = 60,
    USERAUTH_PASSWD_CHANGEREQ = 60,
    USERAUTH_INFO_REQUEST = 60,
    USERAUTH_INFO_RESPONSE = 61,
    GLOBAL_REQUEST = 80,
    REQUEST_SUCCESS = 81,
    REQUEST_FAILURE = 82,
    CHANNEL_OPEN = 90,
    CHANNEL_OPEN_CONFIRMATION = 91,
    CHANNEL_OPEN_FAILURE = 92,
    CHANNEL_WINDOW_ADJUST = 93,
    CHANNEL_DATA = 94,
    CHANNEL_EXTENDED_DATA = 95,
    CHANNEL_EOF = 96,
    CHANNEL_CLOSE = 97,
    CHANNEL_REQUEST = 98,
    CHANNEL_SUCCESS = 99,
    CHANNEL_FAILURE = 100,
};

/// One packet as it passed, in either direction.
struct PacketRecord {
    std::uint32_t sequence = 0;
    bool encrypted = false;
    std::size_t blockSize = 8;
    std::uint32_t packetLength = 0;
    std::uint8_t paddingLength = 0;
    Bytes payload;
    Bytes padding;
    Bytes plain; ///< packet_length to padding, as the MAC covers it
    Bytes raw;   ///< the same as on the wire
    Bytes mac;
    bool macValid = true;
    std::size_t streamOffset = 0; ///< of the first byte of raw in its direction

    std::uint8_t Type() const { return payload.empty() ? std::uint8_t{0} : payload[0]; }
};

/// What one SendPacket does differently. What is not set follows RFC 4253, section 6.
struct SendOptions {
    std::optional<std::uint32_t> packetLength; ///< written in place of the true length
    std::optional<std::uint8_t> paddingLength; ///< written in place of the true number of padding bytes
    std::optional<Bytes> padding;              ///< padding bytes that are sent
    std::optional<std::size_t> flipMacByte;    ///< this byte of the MAC is changed
    std::optional<std::size_t> macBytes; ///< that many MAC bytes are sent, then the connection is closed
};

struct KexInitLists {
    Bytes cookie;
    std::string kex;
    std::string hostKey;
    std::string cipherClientToServer;
    std::string cipherServerToClient;
    std::string macClientToServer;
    std::string macServerToClient;
    std::string compressionClientToServer = "none";
    std::string compressionServerToClient = "none";
    std::string languagesClientToServer;
    std::string languagesServerToClient;
    bool firstKexPacketFollows = false;
    std::uint32_t reserved = 0;

    KexInitLists();
    Bytes Payload() const;
    static KexInitLists Parse(Bytes const& payload);
    /// One cipher and one MAC for both directions.
    KexInitLists& Pin(std::string const& cipher, std::string const& mac);
};

/// What the host and its user accounts are like; a script may change it up to the step that uses it.
struct ServerSettings {
    /// Listen on ::1 in place of 127.0.0.1; to be set before the peer starts.
    bool ipv6 = false;
    std::string versionLine = "SSH-2.0-ScriptedPeer_1.0\r\n";
    /// Send KEXINIT in the same segment as the version line.
    bool kexInitWithVersion = false;
    KexInitLists kexInit;
    KeyPair const* hostKey = &KeyPair::HostRsa();
    /// The group to be sent; without one the smallest that suits the request.
    std::optional<DhGroup> group;
    /// How keys of more than 20 bytes go on. The library under test agrees only with LengthPrefixed.
    KeyExtension keyExtension = KeyExtension::LengthPrefixed;

    std::string user = "tester";
    std::string password = "secret";
    bool noneAccepted = false;
    std::string methods = "publickey,password,keyboard-interactive"; ///< of each USERAUTH_FAILURE
    std::vector<Bytes> authorizedKeys{KeyPair::UserRsa().Blob(), KeyPair::UserDsa().Blob()};
    std::string banner; ///< sent before the first answer, when not empty

    std::uint32_t channel = 42; ///< the server's number of the session channel
    std::uint32_t window = 0x200000;
    std::uint32_t maxPacket = 0x8000;
};

/// Everything that the key exchange produced.
struct KexState {
    std::string clientVersion; ///< without line end
    std::string serverVersion;
    Bytes clientKexInit; ///< payloads
    Bytes serverKexInit;
    std::string cipherClientToServer;
    std::string cipherServerToClient;
    std::string macClientToServer;
    std::string macServerToClient;
    std::uint32_t min = 0;
    std::uint32_t preferred = 0;
    std::uint32_t max = 0;
    DhGroup group;
    Bytes e;
    Bytes f;
    Bytes k;
    Bytes hash;           ///< H, and the session identifier
    std::size_t need = 0; ///< bytes of key material per key, at least 16
    KeySet keys;
};

struct GroupReply {
    Bytes hostKeyBlob;
    Bytes f; ///< sent as a positive mpint
    Bytes signature;

    Bytes Payload() const;
};

struct AuthRequest {
    Bytes payload;
    std::string user;
    std::string service;
    std::string method;
    bool flag = false; ///< publickey: a signature follows; password: a change
    std::string algorithm;
    Bytes key;
    Bytes signature;
    std::string password;
    std::string language;
    std::string submethods;
};

struct Prompt {
    std::string text;
    bool echo;
};

struct ChannelOpen {
    std::string type;
    std::uint32_t sender;
    std::uint32_t window;
    std::uint32_t maxPacket;
    Bytes rest;
};

struct ChannelRequest {
    std::uint32_t recipient;
    std::string type;
    bool wantReply;
    Bytes rest;
};

/// How far WellBehaved goes.
enum class Stage { Identified, KexInitExchanged, NewKeys, Service, Authenticated, Opened };

/// One accepted connection, in the hands of the script. See scripted_peer.h for the vocabulary.
class Connection {
public:
    using Settings = ServerSettings;

    Connection(int fd, int abortFd, ServerSettings const& settings, std::size_t index);

    ServerSettings settings;
    KexState kex;
    std::vector<PacketRecord> received;
    std::vector<PacketRecord> sent;
    /// Payloads of the packets received after the first one of that message number; none if it never came.
    std::vector<Bytes> ReceivedAfter(std::uint8_t type) const;
    std::size_t const index; ///< 0 for the first connection accepted by this peer
    /// Changes a packet, from packet_length to padding, before its MAC is computed and it is encrypted.
    std::function<void(std::uint32_t sequence, Bytes& plain)> tamper;

    // --- bytes
    Link& Wire() { return _link; }
    Link const& Wire() const { return _link; }
    void SendRaw(Bytes const& bytes) { _link.Send(bytes); }
    void SendLine(std::string_view line) { _link.Send(ToBytes(line)); }
    /// Up to and with the line feed.
    std::string ReadLine();
    /// Waits for the end of the stream; any byte that comes before it is an error.
    void ExpectClosed();
    /// Reads and drops everything until the client closes.
    void ReadUntilClosed();

    // --- packets
    void SendPacket(Bytes const& payload, SendOptions const& options = {});
    /// The bytes SendPacket would send, MAC included, with the sending state advanced.
    Bytes Encode(Bytes const& payload, SendOptions const& options = {});
    /// Several packets in one segment.
    void SendTogether(std::vector<Bytes> const& payloads);
    /// The payload. A MAC that does not fit is recorded and throws.
    Bytes ReadPacket();
    /// Reads one packet of that type; the reader comes after the type byte.
    Reader ExpectPacket(std::uint8_t type);

    // --- steps up to encryption
    void Identify();
    void SendKexInit();
    void ReceiveKexInit();
    /// Agrees on ciphers and MACs as RFC 4253 section 7.1 has it, with the client's preference.
    void Negotiate();
    void ReceiveGroupRequest();
    void SendGroup();
    void ReceiveGroupInit();
    /// Computes K and H over the present `kex` and `settings`, and signs H.
    GroupReply MakeGroupReply();
    void SendGroupReply(GroupReply const& reply);
    /// The five steps above in a row.
    void GroupExchange();
    void SendNewKeys();
    void ReceiveNewKeys();
    void NewKeys();

    // --- authentication
    void ServiceAccept();
    AuthRequest ReadAuthRequest();
    /// Over the data of RFC 4252, section 7.
    bool SignatureIsValid(AuthRequest const& request) const;
    void SendAuthFailure(std::string_view methods, bool partial = false);
    void SendAuthSuccess();
    void SendBanner(std::string_view text, std::string_view language = "");
    void SendPkOk(std::string_view algorithm, Bytes const& key);
    void SendInfoRequest(std::string_view name, std::string_view instruction,
                         std::vector<Prompt> const& prompts);
    std::vector<std::string> ReadInfoResponse();
    /// Answers requests by the settings until one succeeds. Keyboard-interactive asks for the password once.
    void Authenticate();

    // --- connection protocol
    ChannelOpen ReadChannelOpen();
    void SendOpenConfirmation(std::uint32_t recipient = 0);
    void SendOpenFailure(std::uint32_t reason, std::string_view text, std::uint32_t recipient = 0);
    /// CHANNEL_OPEN answered by a confirmation from the settings.
    void ConfirmOpen();
    ChannelRequest ReadChannelRequest();
    void SendChannelMessage(std::uint8_t type, std::uint32_t recipient = 0);
    void SendData(std::string_view data, std::uint32_t recipient = 0);
    void SendExtendedData(std::string_view data, std::uint32_t type = 1, std::uint32_t recipient = 0);
    void SendEof(std::uint32_t recipient = 0) { SendChannelMessage(CHANNEL_EOF, recipient); }
    void SendClose(std::uint32_t recipient = 0) { SendChannelMessage(CHANNEL_CLOSE, recipient); }
    void SendWindowAdjust(std::uint32_t bytes, std::uint32_t recipient = 0);
    void SendExitStatus(std::uint32_t status, bool wantReply = false, std::uint32_t recipient = 0);
    void SendExitSignal(std::string_view name, bool core = false, std::uint32_t recipient = 0);
    void SendDisconnect(std::uint32_t reason, std::string_view text);
    void SendIgnore(std::string_view data = "");
    void SendDebug(std::string_view text, bool show = false);

    /// All steps from where a connection begins up to and with that stage.
    void WellBehaved(Stage stage);

    // --- installing states by hand
    void InstallSending();
    void InstallReceiving();

    void SetSendSequence(std::uint32_t sequence) { _sendSequence = sequence; }

    std::uint32_t SendSequence() const { return _sendSequence; }
    std::uint32_t ReceiveSequence() const { return _receiveSequence; }

private:
    void AnswerAuth(AuthRequest const& request, bool& done);

    Link _link;
    Cipher _sendCipher;
    Cipher _receiveCipher;
    MacKey _sendMac;
    MacKey _receiveMac;
    std::uint32_t _sendSequence = 0;
    std::uint32_t _receiveSequence = 0;
    bool _keysDerived = false;
    void DeriveKeys();
};

} // namespace peer

#endif

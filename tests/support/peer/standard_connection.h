#ifndef TESTS_SUPPORT_PEER_STANDARD_CONNECTION_H
#define TESTS_SUPPORT_PEER_STANDARD_CONNECTION_H

#include <deque>
#include <optional>

#include "support/peer/connection.h"
#include "support/peer/standard_crypto.h"

namespace peer {

inline constexpr std::uint8_t EXT_INFO = 7;

/// What a server of today is like; a script may change it up to the step that uses it.
struct StandardSettings {
    bool ipv6 = false;
    std::string versionLine = "SSH-2.0-StandardPeer\r\n";
    KexInitLists kexInit; ///< one algorithm of each kind, which Pin() and Kex() change
    bool strict = true;   ///< offers kex-strict-s-v00@openssh.com in the first KEXINIT
    StandardKey const* hostKey = &StandardKey::Host();
    std::optional<DhGroup> group; ///< of the group exchange; without one the preferred of the request
    /// Sent in EXT_INFO after the first keys, if the client has asked for it; empty: no EXT_INFO.
    std::string signatureAlgorithms = "ssh-ed25519,rsa-sha2-512,rsa-sha2-256";

    std::string user = "tester";
    std::string password = "secret";
    bool noneAccepted = true;
    std::string methods = "publickey,password"; ///< of each USERAUTH_FAILURE

    std::uint32_t channel = 42; ///< the server's number of the session channel
    std::uint32_t window = 0x200000;
    std::uint32_t maxPacket = 0x8000;

    StandardSettings();
    /// The cipher of both directions, with the MAC if it needs one.
    StandardSettings& Pin(std::string const& cipher, std::string const& mac = "hmac-sha2-256");
    /// Key exchange method and host key algorithm.
    StandardSettings& Kex(std::string const& kex, std::string const& hostKeyAlgorithm = "ssh-ed25519");
};

/// One exchange, the present or the last one.
struct StandardKex {
    Bytes clientInit; ///< payloads; empty as long as it has not come, or not been sent, in this exchange
    Bytes serverInit;
    std::string name;
    std::string hostKeyAlgorithm;
    std::string ciphers[2]; ///< client to server, server to client
    std::string macs[2];
    Bytes groupRequest; ///< the fields of GEX_REQUEST
    DhGroup group;
    Bytes clientValue; ///< a point, or the magnitude of e
    Bytes secret;      ///< magnitude of K
    Bytes hash;
};

/// The server's last message of a key exchange method, whose fields a script may falsify.
struct KexReply {
    std::uint8_t number;
    Bytes hostKey;
    Bytes value; ///< the body of the string or mpint
    Bytes signature;

    Bytes Payload() const { return Writer().U8(number).String(hostKey).String(value).String(signature); }
};

/// One accepted connection of a server of today, in the hands of the script. It is the counterpart of
/// Connection (see scripted_peer.h), with these differences:
///
/// - The algorithms are curve25519-sha256, ecdh-sha2-nistp256, diffie-hellman-group14-sha256 and
///   diffie-hellman-group-exchange-sha256; ssh-ed25519 and rsa-sha2-512/256; aes128/256-gcm@openssh.com,
///   chacha20-poly1305@openssh.com and aes128/256-ctr; hmac-sha2-256/512 and their -etm forms.
/// - Keys may be exchanged at any time: Rekey() does it as well as the first Exchange(). What the client
/// sends
///   meanwhile, up to its KEXINIT, is kept for ReadPacket.
/// - Under strict rules sequence numbers begin at 0 with each NEWKEYS, in each direction.
class StandardConnection {
public:
    using Settings = StandardSettings;

    StandardConnection(int fd, int abortFd, StandardSettings const& settings, std::size_t index);

    StandardSettings settings;
    StandardKex kex;
    std::string clientVersion; ///< without line end
    Bytes sessionId;
    bool strict = false; ///< both sides have said so
    bool resets = true;  ///< whether sequence numbers are reset under strict rules, as they ought to be
    bool answersKexInit = true; ///< ReadPacket answers when the client renews the keys
    std::vector<PacketRecord> received;
    std::vector<PacketRecord> sent;
    std::size_t const index;

    /// Payloads of the packets received after the first one of that message number; none if it never came.
    std::vector<Bytes> ReceivedAfter(std::uint8_t type) const;
    /// How many packets of that number have come.
    std::size_t CountReceived(std::uint8_t type) const;

    // --- bytes and packets, as in Connection
    Link& Wire() { return _link; }
    Link const& Wire() const { return _link; }
    void SendRaw(Bytes const& bytes) { _link.Send(bytes); }
    void SendLine(std::string_view line) { _link.Send(ToBytes(line)); }
    std::string ReadLine();
    void ExpectClosed();
    void ReadUntilClosed();
    void SendPacket(Bytes const& payload, SendOptions const& options = {});
    Bytes Encode(Bytes const& payload, SendOptions const& options = {});
    /// Seals any bytes as a packet, its length field included, and sends them.
    void SendSealed(Bytes const& plain);
    void SendTogether(std::vector<Bytes> const& payloads);
    Bytes ReadPacket();
    Reader ExpectPacket(std::uint8_t type);
    /// Reads until a packet of that type comes; the others are dropped.
    Reader SkipTo(std::uint8_t type);
    /// Reads and records packets until the client has closed.
    void ReadToTheEnd();

    // --- key exchange
    void Identify();
    void SendKexInit();
    void ReceiveKexInit();
    /// The client's first message of the method, with those of the group exchange before it.
    void ReceiveKexMessage();
    /// Over the settings' host key and the secret, or another value and secret if they are given.
    KexReply MakeReply(std::optional<Share> const& share = std::nullopt);
    void SendReply(KexReply const& reply) { SendPacket(reply.Payload()); }
    /// NEWKEYS, with the keys in force from the next packet on.
    void SendNewKeys();
    void ReceiveNewKeys();
    /// All but KEXINIT.
    void FinishExchange();
    /// The first exchange, from KEXINIT on, with EXT_INFO at its end.
    void Exchange();
    /// Another one, started by either side.
    void Rekey();

    // --- authentication and the session channel
    void ServiceAccept();
    AuthRequest ReadAuthRequest();
    void SendAuthFailure(std::string_view methods, bool partial = false);
    /// Answers requests by the settings until one succeeds: none, or the password.
    void Authenticate();
    /// CHANNEL_OPEN answered by a confirmation from the settings.
    void ConfirmOpen();
    /// A channel request, answered if it asks for that.
    ChannelRequest ReadChannelRequest(bool succeeds = true);

    /// All steps from where a connection begins up to and with that stage.
    void WellBehaved(Stage stage);

    std::uint32_t SendSequence() const { return _sendSequence; }
    std::uint32_t ReceiveSequence() const { return _receiveSequence; }

private:
    Bytes TakePacket();
    void Negotiate();
    Share AgreeInGroup(Bytes const& clientValue) const;
    Protection MakeProtection(int direction) const;
    Bytes Derive(char letter) const;

    Link _link;
    Protection _sending;
    Protection _receiving;
    std::uint32_t _sendSequence = 0;
    std::uint32_t _receiveSequence = 0;
    bool _wantsExtInfo = false;
    std::deque<Bytes> _kept; ///< what came before a KEXINIT
};

} // namespace peer

#endif

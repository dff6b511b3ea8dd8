#ifndef TESTS_SUPPORT_PEER_STANDARD_CONNECTION_H
#define TESTS_SUPPORT_PEER_STANDARD_CONNECTION_H

#include <deque>
#include <optional>

#include "support/peer/connection.h"
#include "support/peer/standard_crypto.h"

namespace peer {

inline constexpr std::uint8_t EXT_INFO = 7;

/// What a server of today is like; a script may change it up to the step that uses it.
struct StandardSettings : PeerSettings {
    std::string versionLine = "SSH-2.0-StandardPeer\r\n";
    KexInitLists kexInit; ///< one algorithm of each kind, which Pin() and Kex() change
    bool strict = true;   ///< offers kex-strict-s-v00@openssh.com in the first KEXINIT
    StandardKey const* hostKey = &StandardKey::Host();
    std::optional<DhGroup> group; ///< of the group exchange; without one the preferred of the request
    /// Sent in EXT_INFO after the first keys, if the client has asked for it; empty: no EXT_INFO.
    std::string signatureAlgorithms = "ssh-ed25519,rsa-sha2-512,rsa-sha2-256";

    bool noneAccepted = true;
    std::string methods = "publickey,password"; ///< of each USERAUTH_FAILURE

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
class StandardConnection : public PeerConnection {
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

    /// Seals any bytes as a packet, its length field included, and sends them.
    void SendSealed(Bytes const& plain);
    Bytes ReadPacket() override;
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
    /// Answers requests by the settings until one succeeds: none, or the password.
    void Authenticate();
    /// A channel request, answered if it asks for that.
    ChannelRequest ReadChannelRequest(bool succeeds = true);

    /// All steps from where a connection begins up to and with that stage.
    void WellBehaved(Stage stage);

private:
    PeerSettings const& CommonSettings() const override { return settings; }
    Alignment SendingAlignment() const override { return {_sending.Alignment(), _sending.LengthIsOutside()}; }
    void Seal(PacketRecord& record, SendOptions const& options) override;
    Bytes TakePacket();
    void Negotiate();
    Share AgreeInGroup(Bytes const& clientValue) const;
    Protection MakeProtection(int direction) const;
    Bytes Derive(char letter) const;

    Protection _sending;
    Protection _receiving;
    bool _wantsExtInfo = false;
    std::deque<Bytes> _kept; ///< what came before a KEXINIT
};

} // namespace peer

#endif

#ifndef TESTS_SUPPORT_PEER_CONNECTION_H
#define TESTS_SUPPORT_PEER_CONNECTION_H

#include <functional>
#include <optional>

#include "support/peer/peer_connection.h"
#include "support/peer/peer_crypto.h"

namespace peer {

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
struct ServerSettings : PeerSettings {
    std::string versionLine = "SSH-2.0-ScriptedPeer_1.0\r\n";
    /// Send KEXINIT in the same segment as the version line.
    bool kexInitWithVersion = false;
    KexInitLists kexInit;
    KeyPair const* hostKey = &KeyPair::HostRsa();
    /// The group to be sent; without one the smallest that suits the request.
    std::optional<DhGroup> group;
    /// How keys of more than 20 bytes go on. The library under test agrees only with LengthPrefixed.
    KeyExtension keyExtension = KeyExtension::LengthPrefixed;

    bool noneAccepted = false;
    std::string methods = "publickey,password,keyboard-interactive"; ///< of each USERAUTH_FAILURE
    std::vector<Bytes> authorizedKeys{KeyPair::UserRsa().Blob(), KeyPair::UserDsa().Blob()};
    std::string banner; ///< sent before the first answer, when not empty
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

/// How far WellBehaved goes.
enum class Stage { Identified, KexInitExchanged, NewKeys, Service, Authenticated, Opened };

/// One accepted connection, in the hands of the script. See scripted_peer.h for the vocabulary.
class Connection : public PeerConnection {
public:
    using Settings = ServerSettings;

    Connection(int fd, int abortFd, ServerSettings const& settings, std::size_t index);

    ServerSettings settings;
    KexState kex;
    /// Changes a packet, from packet_length to padding, before its MAC is computed and it is encrypted.
    std::function<void(std::uint32_t sequence, Bytes& plain)> tamper;

    /// A MAC that does not fit is recorded, too.
    Bytes ReadPacket() override;

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
    /// Over the data of RFC 4252, section 7.
    bool SignatureIsValid(AuthRequest const& request) const;
    /// Answers requests by the settings until one succeeds. Keyboard-interactive asks for the password once.
    void Authenticate();

    /// All steps from where a connection begins up to and with that stage.
    void WellBehaved(Stage stage);

    // --- installing states by hand
    void InstallSending();
    void InstallReceiving();

    void SetSendSequence(std::uint32_t sequence) { _sendSequence = sequence; }

private:
    PeerSettings const& CommonSettings() const override { return settings; }
    Alignment SendingAlignment() const override { return {_sendCipher.BlockSize(), false}; }
    void Seal(PacketRecord& record, SendOptions const& options) override;
    void AnswerAuth(AuthRequest const& request, bool& done);

    Cipher _sendCipher;
    Cipher _receiveCipher;
    MacKey _sendMac;
    MacKey _receiveMac;
    bool _keysDerived = false;
    void DeriveKeys();
};

} // namespace peer

#endif

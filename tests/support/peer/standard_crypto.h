#ifndef TESTS_SUPPORT_PEER_STANDARD_CRYPTO_H
#define TESTS_SUPPORT_PEER_STANDARD_CRYPTO_H

#include <cstddef>
#include <memory>
#include <string>

#include <openssl/evp.h>

#include "support/peer/wire.h"

// The algorithms of current servers, using only libcrypto.
namespace peer {

/// Encryption and integrity of one direction (RFC 4253, section 6; RFC 5647 as OpenSSH has it;
/// chacha20-poly1305@openssh.com; -etm@openssh.com). Its state runs on from packet to packet.
class Protection {
public:
    /// Neither.
    Protection() = default;
    /// Takes the six keys' three of one direction, each at least as long as the algorithms need. `mac` is not
    /// looked at for ciphers that authenticate by themselves.
    Protection(std::string const& cipher, std::string const& mac, Bytes const& iv, Bytes const& key,
               Bytes const& macKey, bool encrypts);

    bool IsNone() const { return _kind == Kind::None; }
    std::size_t Alignment() const { return _kind == Kind::None || _kind == Kind::Chacha ? 8 : 16; }
    /// Whether the length field doesn't count for the alignment.
    bool LengthIsOutside() const { return _kind == Kind::Gcm || _kind == Kind::Chacha || _etm; }
    std::size_t TagLength() const;
    /// Bytes to be read before the length is known.
    std::size_t HeadLength() const { return _kind == Kind::Ctr && !_etm ? 16 : 4; }

    /// From the plain packet, length field to padding, the bytes on the wire with their tag.
    Bytes Seal(std::uint32_t sequence, Bytes const& plain);
    /// The length field, from the head.
    std::uint32_t Length(std::uint32_t sequence, Bytes const& head);
    /// The plain packet from the head and what follows it, tag included. Throws PeerError if it is forged.
    Bytes Open(std::uint32_t sequence, Bytes const& head, Bytes const& rest);

private:
    enum class Kind { None, Ctr, Gcm, Chacha };
    struct FreeContext {
        void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
    };

    Bytes Run(Bytes const& data);
    Bytes Mac(std::uint32_t sequence, Bytes const& data) const;
    Bytes RunGcm(Bytes const& packet, Bytes& tag);

    Kind _kind = Kind::None;
    bool _etm = false;
    bool _encrypts = false;
    std::unique_ptr<EVP_CIPHER_CTX, FreeContext> _context;
    EVP_MD const* _digest = nullptr;
    Bytes _iv;  ///< gcm
    Bytes _key; ///< gcm, chacha
    Bytes _macKey;
    Bytes _plainHead; ///< ctr: what Length() has decrypted
};

/// Bytes of key that a cipher needs.
std::size_t StandardKeyLength(std::string const& cipher);

/// A key pair of the host's or a user's: Ed25519 or RSA of 2048 bits, the same in every process, or ECDSA,
/// new in each.
class StandardKey {
public:
    static StandardKey const& Host();
    static StandardKey const& OtherHost();
    static StandardKey const& User();
    static StandardKey const& HostRsa();
    /// On the curve of 256, 384 or 521 bits.
    static StandardKey const& HostEcdsa(int bits);

    /// "ssh-ed25519", "ssh-rsa" or "ecdsa-sha2-nistp256" and so on.
    std::string const& Type() const { return _type; }
    Bytes const& Blob() const { return _blob; }
    /// The signature blob, by an algorithm that suits the type.
    Bytes Sign(std::string const& algorithm, Bytes const& data) const;
    /// Whether the signature blob is one by this key.
    bool Verify(std::string const& algorithm, Bytes const& signature, Bytes const& data) const;
    /// The private half in PKCS #8.
    std::string Pem() const;
    /// "ssh-ed25519 BASE64".
    std::string PublicLine() const;

private:
    StandardKey(std::string const& type, std::shared_ptr<EVP_PKEY> key, Bytes blob)
        : _type(type), _key(std::move(key)), _blob(std::move(blob)) {}
    static StandardKey MakeEd25519(std::string const& seed);
    static StandardKey MakeRsa();
    static StandardKey MakeEcdsa(int bits);

    std::string _type;
    std::shared_ptr<EVP_PKEY> _key;
    Bytes _blob;
};

Bytes Sha2(EVP_MD const* digest, Bytes const& data);

/// The server's public value, the same for every exchange of the process, and the secret with a client's; the
/// value is encoded as the method has it. Throws PeerError for a client's value that is none.
struct Share {
    Bytes publicValue; ///< a point, or the magnitude of a number
    Bytes secret;      ///< magnitude
};
Share AgreeX25519(Bytes const& clientPoint);
Share AgreeNistp256(Bytes const& clientPoint);

} // namespace peer

#endif

#ifndef TESTS_SUPPORT_PEER_PEER_CRYPTO_H
#define TESTS_SUPPORT_PEER_PEER_CRYPTO_H

#include <array>
#include <memory>
#include <string>

#include <openssl/evp.h>

#include "support/peer/wire.h"

namespace peer {

std::size_t CipherKeyLength(std::string const& name);
std::size_t CipherBlockSize(std::string const& name);
std::size_t MacKeyLength(std::string const& name);

/// One direction's cipher; "none" passes data through in blocks of 8. Its state runs on from call to call.
class Cipher {
public:
    Cipher();
    /// Key and vector may be longer than the cipher needs.
    Cipher(std::string const& name, Bytes const& key, Bytes const& iv, bool encrypt);

    std::size_t BlockSize() const { return _blockSize; }
    bool IsNone() const { return !_context; }
    Bytes Process(Bytes const& data);

private:
    struct FreeContext {
        void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
    };
    std::size_t _blockSize;
    std::unique_ptr<EVP_CIPHER_CTX, FreeContext> _context;
};

/// One direction's MAC, RFC 4253 section 6.4; empty values while none is set.
class MacKey {
public:
    MacKey() = default;
    MacKey(std::string const& name, Bytes const& key);

    std::size_t Length() const { return _length; }
    Bytes Compute(std::uint32_t sequence, Bytes const& plain) const;

private:
    EVP_MD const* _digest = nullptr;
    Bytes _key;
    std::size_t _length = 0;
};

Bytes Sha1(Bytes const& data);

/// A fixed test key, as host key of the server or as a user's key.
class KeyPair {
public:
    static KeyPair const& HostRsa();
    static KeyPair const& OtherHostRsa();
    static KeyPair const& HostDsa();
    static KeyPair const& UserRsa();
    static KeyPair const& UserDsa();

    /// "ssh-rsa" or "ssh-dss".
    std::string const& Type() const { return _type; }
    /// Key blob of RFC 4253, section 6.6.
    Bytes const& Blob() const { return _blob; }
    /// Signature blob over data, with SHA-1.
    Bytes Sign(Bytes const& data) const;
    /// "ssh-rsa BASE64 comment", with no line end.
    std::string PublicLine(std::string const& comment = "test") const;
    /// The private key file as it is (PEM).
    std::string const& Pem() const { return _pem; }
    /// The same under a passphrase.
    std::string EncryptedPem(std::string const& passphrase) const;

private:
    explicit KeyPair(std::string const& file);

    std::string _pem;
    std::string _type;
    Bytes _blob;
    std::shared_ptr<EVP_PKEY> _key;
};

/// Whether the signature blob fits data (SHA-1) under the key blob, which may be of any ssh-rsa or ssh-dss
/// key.
bool VerifySignature(Bytes const& keyBlob, Bytes const& signatureBlob, Bytes const& data);

/// The values of one Diffie-Hellman group, as big-endian bytes.
struct DhGroup {
    Bytes p;
    Bytes g;
    unsigned bits;

    /// The MODP groups of RFC 2409 (1024) and RFC 3526 (1536, 2048, 3072, 4096, 6144, 8192).
    static DhGroup const& Modp(unsigned bits);
    /// The smallest of them that suits a request.
    static DhGroup const& ForRequest(std::uint32_t min, std::uint32_t preferred, std::uint32_t max);
};

/// base ^ exponent mod modulus.
Bytes ModularPower(Bytes const& base, Bytes const& exponent, Bytes const& modulus);
/// number + delta, for a small delta of either sign.
Bytes AddSmall(Bytes const& number, int delta);

/// The server's private exponent, the same in every process, and its public value in a group, kept per group.
Bytes const& ServerExponent();
Bytes ServerPublicValue(DhGroup const& group);

/// What enters the exchange hash of RFC 4419, section 3.
struct ExchangeHashInput {
    std::string clientVersion;
    std::string serverVersion;
    Bytes clientKexInit;
    Bytes serverKexInit;
    Bytes hostKeyBlob;
    std::uint32_t min;
    std::uint32_t preferred;
    std::uint32_t max;
    Bytes p;
    Bytes g;
    Bytes e;
    Bytes f;
    Bytes k;
};

Bytes ExchangeHash(ExchangeHashInput const& input);

/// How a key longer than one digest goes on: as RFC 4253, section 7.2 has it, or with the exchange hash and
/// the key so far entering as strings, each after its length.
enum class KeyExtension { Rfc4253, LengthPrefixed };

/// The six keys, letters 'A' to 'F', each at least `need` bytes and a whole number of digests long.
struct KeySet {
    std::array<Bytes, 6> keys;
    Bytes const& operator[](char letter) const { return keys.at(static_cast<std::size_t>(letter - 'A')); }
};

KeySet DeriveKeySet(KeyExtension form, Bytes const& k, Bytes const& hash, Bytes const& sessionId,
                    std::size_t need);

} // namespace peer

#endif

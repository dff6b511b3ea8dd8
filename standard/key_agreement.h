#ifndef BRANTLE_STANDARD_KEY_AGREEMENT_H
#define BRANTLE_STANDARD_KEY_AGREEMENT_H

#include <memory>
#include <string>

#include "standard/bytes.h"

namespace cindral::standard {

/// The client's part in one key exchange method, from the message after KEXINIT up to the server's signature:
/// curve25519 (RFC 8731), ECDH (RFC 5656, section 4), Diffie-Hellman in a fixed group (RFC 4253, section 8;
/// RFC 8268) or in one of the server's choice (RFC 4419). The signature is not verified here.
///
/// Each object serves one exchange, with a private key that nobody else has seen.
class KeyAgreement {
public:
    virtual ~KeyAgreement() = default;
    KeyAgreement(KeyAgreement const&) = delete;
    KeyAgreement& operator=(KeyAgreement const&) = delete;

    /// Throws InvalidArgument for a name that is not supported.
    static std::unique_ptr<KeyAgreement> Create(std::string const& name);

    /// The digest of the exchange hash and of key derivation, as libcrypto names it.
    char const* Digest() const { return _digest; }

    /// The first message to send, number 30, or 34 for the group exchange. The view is good until the next
    /// call of Take(). Throws OpenSSLError. REQUIRES: called once, before Take().
    View Begin();
    /// Takes a message of the server's. Returns the next one to send, as Begin() does, or none when it was
    /// the last. Throws SshProtocolError for a message that is not due now, malformed, or that holds a public
    /// value or group which the method doesn't allow; OpenSSLError. The object is of no further use then.
    View Take(View message);

    // When Take() has returned no message:

    bool IsFinished() const { return _finished; }
    /// The server's key blob, K_S, and its signature blob.
    View HostKey() const { return _hostKey; }
    View Signature() const { return _signature; }
    /// What the exchange hash covers between K_S and K: both public values, in the group exchange the sizes
    /// asked for and the group before them.
    View HashFields() const { return _hashFields.Get(); }
    /// K, as it enters the exchange hash and key derivation, which is as mpint with its length.
    SecretBytes const& SharedSecret() const { return _secret.Get(); }

protected:
    explicit KeyAgreement(char const* digest) : _digest(digest) {}

    virtual Bytes FirstMessage() = 0;
    /// The next message to send. Calls Finish() and returns none for the last one.
    virtual Bytes TakeNext(View message) = 0;

    void Finish(View hostKey, View signature, View secret);

    Writer _hashFields;

private:
    char const* _digest;
    Bytes _sent;
    Bytes _hostKey;
    Bytes _signature;
    SecretWriter _secret;
    bool _finished = false;
};

} // namespace cindral::standard

#endif

#ifndef BRANTLE_STANDARD_KEY_AGREEMENT_H
#define BRANTLE_STANDARD_KEY_AGREEMENT_H

#include <memory>
#include <string>

#include "standard/bytes.h"

namespace cindral::standard {

/// The client's part in one key exchange method, from the message after KEXINIT up to the server's signature:
/// curve25519 (RFC 8731), ECDH (RFC 5656, section 4), Diffie-Hellman in a fixed group (RFC 4253, section 8;
/// RFC 8268) or in one that the server chooses (RFC 4419). The signature is not verified here.
///
/// Each object is used for one exchange, with a new private key.
class KeyAgreement {
public:
    virtual ~KeyAgreement() = default;
    KeyAgreement(KeyAgreement const&) = delete;
    KeyAgreement& operator=(KeyAgreement const&) = delete;

    /// Throws InvalidArgument for a name that is not supported.
    static std::unique_ptr<KeyAgreement> Create(std::string const& name);

    /// The digest of the exchange hash and of key derivation, as libcrypto names it.
    char const* Digest() const { return _digest; }

    /// The first message to send, number 30, or 34 for the group exchange. The view is valid until the next
    /// call of Take(). Throws OpenSSLError. REQUIRES: called once, before Take().
    View Begin();
    /// Handles a message from the server. Returns the next one to send, as Begin() does, or none after the
    /// last one. Throws SshProtocolError for a message that is not expected now, is malformed, or holds a
    /// public value or group that the method does not allow; OpenSSLError. The object can't be used
    /// afterwards.
    View Take(View message);

    // When Take() has returned no message:

    bool IsFinished() const { return _finished; }
    /// The server's key blob, K_S, and its signature blob.
    View HostKey() const { return _hostKey; }
    View Signature() const { return _signature; }
    /// What the exchange hash covers between K_S and K: both public values, preceded in the group exchange by
    /// the sizes requested and the group.
    View HashFields() const { return _hashFields.Get(); }
    /// K in the encoding that the exchange hash and the key derivation use: an mpint with its length.
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

#ifndef BRANTLE_FOUNDATIONS_CINDRAL_OPENSSH_KEY_H
#define BRANTLE_FOUNDATIONS_CINDRAL_OPENSSH_KEY_H

#include "wire_format.h"

struct evp_pkey_st;

namespace cindral {

/// The body of an "OPENSSH PRIVATE KEY" file, parsed without its passphrase. All spans point into the memory
/// passed to `Open`.
class OpenSSHKey {
public:
    /// `anyType` admits ed25519 and ecdsa keys beside rsa and dsa. Returns 0 or a `PrivateKey::Failure`.
    int Open(unsigned char const* body, unsigned int length, bool anyType);
    bool IsEncrypted() const { return _encrypted; }
    /// The blob of the public half, which is never encrypted. Empty before `Open` has read it.
    ByteView const& PublicBlob() const { return _public; }
    /// Decrypts and reads the key. The passphrase is ignored if the key is not encrypted. Returns 0 or a
    /// `PrivateKey::Failure`. Throws `OpenSSLError`.
    int Read(ByteView const& passphrase, evp_pkey_st*& key) const;

private:
    bool _anyType = false;
    ByteView _public;
    ByteView _cipher;
    ByteView _salt;
    unsigned int _rounds = 0;
    ByteView _private;
    bool _encrypted = false;
};

} // namespace cindral

#endif

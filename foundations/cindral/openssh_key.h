#ifndef BRANTLE_FOUNDATIONS_CINDRAL_OPENSSH_KEY_H
#define BRANTLE_FOUNDATIONS_CINDRAL_OPENSSH_KEY_H

#include "wire_format.h"

struct evp_pkey_st;

namespace cindral {

/// The body of an "OPENSSH PRIVATE KEY" file, opened without its passphrase. All spans point into
/// the memory given to `Open`.
class OpenSSHKey {
public:
    /// Returns 0 or a `PrivateKey::Failure`.
    int Open(unsigned char const* body, unsigned int length);
    bool IsEncrypted() const { return _encrypted; }
    /// Decrypts and reads the key. The passphrase is not looked at when the key is not encrypted.
    /// Returns 0 or a `PrivateKey::Failure`. Throws `OpenSSLError`.
    int Read(ByteView const& passphrase, evp_pkey_st*& key) const;

private:
    ByteView _cipher;
    ByteView _salt;
    unsigned int _rounds = 0;
    ByteView _private;
    bool _encrypted = false;
};

} // namespace cindral

#endif

#ifndef BRANTLE_FOUNDATIONS_CINDRAL_PEM_KEY_H
#define BRANTLE_FOUNDATIONS_CINDRAL_PEM_KEY_H

#include "openssh_key.h"
#include "secret_bytes.h"

namespace cindral {

/// A key file, parsed without its passphrase: one of the PEM formats, or the OpenSSH format, which has a
/// different body in the same armour.
class PemKey {
public:
    /// `anyType` admits all types of keys, otherwise only rsa and dsa.
    explicit PemKey(bool anyType) : _anyType(anyType) {}
    ~PemKey();
    PemKey(PemKey const&) = delete;
    PemKey& operator=(PemKey const&) = delete;

    /// Returns 0 or a `PrivateKey::Failure`.
    int Open(SecretBytes const& contents);
    bool IsEncrypted() const;
    /// The blob of the public half; empty for a form that doesn't hold one in the clear.
    ByteView const& PublicBlob() const { return _openSSH.PublicBlob(); }
    /// Decrypts and reads the key. The passphrase is ignored if the key is not encrypted. Returns 0 or a
    /// `PrivateKey::Failure`. Throws `OpenSSLError`.
    int Read(ByteView const& passphrase, evp_pkey_st*& key) const;

private:
    bool IsLabel(char const* label) const;
    void Clear();
    int CheckEncryption();
    int ReadTraditional(ByteView const& passphrase, evp_pkey_st*& key) const;
    int ReadEncryptedPkcs8(ByteView const& passphrase, evp_pkey_st*& key) const;

    bool _anyType;
    char* _label = nullptr;
    char* _header = nullptr;
    unsigned char* _body = nullptr;
    long _length = 0;
    OpenSSHKey _openSSH;
};

} // namespace cindral

#endif

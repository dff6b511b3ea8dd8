#ifndef BRANTLE_STANDARD_PRIVATE_KEY_FILE_H
#define BRANTLE_STANDARD_PRIVATE_KEY_FILE_H

#include <string>

#include <brantle/cindral/enter_password.h>

#include "foundations/cindral/openssl_ptr.h"
#include "standard/bytes.h"

namespace cindral::standard {

/// A file with a user's private key, ed25519, ecdsa or RSA of at least MIN_RSA_BITS, as ssh-keygen and
/// openssl write them. The public half is known, where possible, before a passphrase is asked for, so that a
/// server can be asked first whether it takes the key.
class PrivateKeyFile {
public:
    explicit PrivateKeyFile(std::string path) : _path(std::move(path)) {}

    std::string const& Path() const { return _path; }

    /// Reads what can be read without a passphrase: all of a key that is not encrypted, else the public half,
    /// out of the file itself or out of the file of that name with ".pub" after it. Returns 0, also when an
    /// encrypted file's public half is nowhere to be found; minus errno, or a PrivateKey::Failure, that of an
    /// encrypted key of an unsupported type included, as far as the type shows. Throws OpenSSLError.
    int Open();
    /// Decrypts the private half, if Open() has not read it, with a passphrase from `enter`: the preset one
    /// first, then as many as it allows tries. Returns 0; minus errno, a PrivateKey::Failure, or the negative
    /// result of `enter`. A public half that turns out to be another key's is BROKEN_FILE. Throws
    /// OpenSSLError.
    int Load(EnterPassword& enter);

    /// What a negative result of Open() or Load() means, such as "wrong passphrase".
    static std::string Describe(int result);

    /// Empty as long as the public half is not known.
    Bytes const& KeyBlob() const { return _keyBlob; }
    bool IsLoaded() const { return _key != nullptr; }
    /// Null unless loaded; the object's own.
    EVP_PKEY* Key() const { return _key.get(); }

private:
    int Read(EnterPassword* enter);
    void ReadPublicFile();

    std::string _path;
    Bytes _keyBlob;
    PkeyPtr _key;
};

} // namespace cindral::standard

#endif

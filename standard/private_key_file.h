#ifndef BRANTLE_STANDARD_PRIVATE_KEY_FILE_H
#define BRANTLE_STANDARD_PRIVATE_KEY_FILE_H

#include <string>

#include <brantle/cindral/enter_password.h>

#include "foundations/cindral/openssl_ptr.h"
#include "standard/bytes.h"

namespace cindral::standard {

/// A file with a user's private key, ed25519, ecdsa or RSA of at least MIN_RSA_BITS, as ssh-keygen and
/// openssl write them. The public half is known, where possible, before a passphrase is asked for, so that
/// the server can be asked first whether it accepts the key.
class PrivateKeyFile {
public:
    explicit PrivateKeyFile(std::string path) : _path(std::move(path)) {}

    std::string const& Path() const { return _path; }

    /// Reads what can be read without a passphrase: all of an unencrypted key, otherwise the public half,
    /// from the file itself or from the file with ".pub" appended to its name. Returns 0, even if the public
    /// half of an encrypted key can't be found; minus errno; or a PrivateKey::Failure, also for an encrypted
    /// key of an unsupported type, if the file shows its type. Throws OpenSSLError.
    int Open();
    /// Decrypts the private half, unless Open() has already read it, with a passphrase from `enter`: the
    /// preset one first, then as many as it allows tries. Returns 0; minus errno, a PrivateKey::Failure, or
    /// the negative result of `enter`. If the public half belongs to another key, the result is BROKEN_FILE;
    /// of an ed25519 key in OpenSSH's format only the public halves that the file holds are compared. Throws
    /// OpenSSLError.
    int Load(EnterPassword& enter);

    /// What a negative result of Open() or Load() means, such as "wrong passphrase".
    static std::string Describe(int result);

    /// Empty while the public half is not known.
    Bytes const& KeyBlob() const { return _keyBlob; }
    bool IsLoaded() const { return _key != nullptr; }
    /// Null unless loaded; owned by this object.
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

#ifndef BRANTLE_CINDRAL_PRIVATE_KEY_H
#define BRANTLE_CINDRAL_PRIVATE_KEY_H

#include <brantle/cindral/enter_password.h>
#include <brantle/cindral/export.h>
#include <brantle/cindral/key_types.h>
#include <brantle/thornel/byte_string.h>

struct evp_pkey_st;

namespace cindral {

/// A private key, rsa or dsa, or no key at all. One thread at a time.
class CINDRAL_API PrivateKey {
public:
    /// Negative results of `Read` that are not negated errno values.
    enum Failure : int {
        BROKEN_FILE = -1001,      ///< not a key file in a known format, or truncated or damaged
        WRONG_PASSPHRASE = -1002, ///< none of the passphrases tried was right
        UNSUPPORTED_KEY = -1003,  ///< a key neither rsa nor dsa, or a cipher or format version not known
        NO_PASSPHRASE = -1004,    ///< encrypted, and no passphrase can be asked for
    };

    /// The implementation; owns the OpenSSL key.
    class CINDRAL_API Rep {
    public:
        /// Takes ownership of `key`, an rsa or dsa key pair.
        explicit Rep(evp_pkey_st* key);
        virtual ~Rep();
        Rep(Rep const&) = delete;
        Rep& operator=(Rep const&) = delete;

        /// Non-zero when the object holds a key.
        virtual int IsLoaded() const;

        KeyType Type() const;
        /// The key as in an agent's add-identity message: the algorithm name as string, then the numbers as
        /// mpint: n, e, d, the inverse of q modulo p, p, q for rsa; p, q, g, y, x for dsa. It contains the
        /// secret numbers, which the caller has to wipe. Throws `OpenSSLError`.
        ByteString EncodeSSH() const;

        evp_pkey_st* _key;
    };

    /// No key.
    PrivateKey();
    ~PrivateKey();
    PrivateKey(PrivateKey const&) = delete;
    PrivateKey& operator=(PrivateKey const&) = delete;

    /// Reads a key file: PEM (PKCS#1, PKCS#8, DSA) or "BEGIN OPENSSH PRIVATE KEY", plain or encrypted (the
    /// latter with aes256-ctr or aes256-cbc and bcrypt of up to 2^20 rounds). For an encrypted key, the
    /// secret preset in `enter` is tried first, even if a class derived from it overrides the call operator;
    /// then `enter` is called up to its number of tries. Returns 0; a negated errno value if the file can't
    /// be read; a `Failure`; or the negative result of `enter`. On failure the object is unchanged.
    /// Passphrase and decrypted bytes are wiped.
    int Read(char const* path, EnterPassword& enter);

    /// Reads a key file with a key of any type, ed25519 and ecdsa included, into an OpenSSL key that the
    /// caller frees with `EVP_PKEY_free`; everything else is as in `Read`. `publicBlob` gets the key blob of
    /// the public half, which a "BEGIN OPENSSH PRIVATE KEY" file holds unencrypted, also when the result is a
    /// failure; it is empty for the PEM forms. `enter` may be null, and an encrypted key then gives
    /// `NO_PASSPHRASE`.
    static int ReadAny(char const* path, EnterPassword* enter, ByteString& publicBlob, evp_pkey_st*& key);

    /// Null until a `Read` succeeds.
    Rep* _rep;
};

} // namespace cindral

#endif

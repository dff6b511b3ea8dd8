#ifndef BRANTLE_CINDRAL_PUBLIC_KEY_H
#define BRANTLE_CINDRAL_PUBLIC_KEY_H

#include <brantle/cindral/big_num.h>
#include <brantle/cindral/export.h>
#include <brantle/cindral/key_types.h>
#include <brantle/thornel/byte_string.h>
#include <brantle/thornel/string_t.h>

struct evp_pkey_st;

namespace cindral {

/// A public key, "ssh-rsa" or "ssh-dss" (RFC 4253 section 6.6): a value, or no key at all.
class CINDRAL_API PublicKey {
public:
    /// A loaded key; immutable.
    class CINDRAL_API Rep {
    public:
        virtual ~Rep();
        virtual KeyType Type() const;
        /// The algorithm name, such as "ssh-rsa".
        virtual char const* Name() const;
        /// Non-zero when both keys are equal.
        virtual int Equals(Rep const& other) const;

        /// The key blob, byte for byte as read.
        ByteString EncodeSSH() const;
        /// The key blob in base 64 on one line, as in a known hosts file.
        String_t EncodeSSH64() const;
        /// A new OpenSSL key, which the caller frees with `EVP_PKEY_free`; null when OpenSSL rejects the
        /// numbers.
        evp_pkey_st* NewPkey() const;

        /// The key that `blob` holds, or null when the blob is malformed, has trailing bytes or is for
        /// another algorithm. The caller owns the result.
        static Rep* Parse(ByteString const& blob);
        Rep* Clone() const;

    private:
        Rep() = default;
        Rep(Rep const&) = default;
        Rep& operator=(Rep const&) = delete;

        KeyType _type = KEY_NONE;
        ByteString _blob;
        BigNum _numbers[4]; ///< in wire order: e, n for rsa; p, q, g, y for dss
    };

    /// No key.
    PublicKey();
    PublicKey(PublicKey const& other);
    /// The key in an SSH key blob; no key when the blob is not a well-formed one.
    explicit PublicKey(ByteString const& blob);
    ~PublicKey();
    PublicKey& operator=(PublicKey const& other);
    PublicKey& operator=(ByteString const& blob);

    /// Reads the first line of a file in the one-line format: algorithm name, base 64, comment. Returns 0; a
    /// negated errno value if the file can't be read; or -EINVAL if it contains no such key, and the object
    /// is then unchanged.
    int ReadSSH(char const* path);

    /// Null when there is no key.
    Rep* _rep;
};

} // namespace cindral

#endif

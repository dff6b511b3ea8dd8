#ifndef BRANTLE_CINDRAL_SIGNATURE_H
#define BRANTLE_CINDRAL_SIGNATURE_H

#include <brantle/cindral/export.h>
#include <brantle/cindral/key_types.h>
#include <brantle/cindral/private_key.h>
#include <brantle/cindral/public_key.h>
#include <brantle/thornel/byte_string.h>

namespace cindral {

/// A signature in the blob form of RFC 4253 section 6.6: the name "ssh-rsa" or "ssh-dss" and the
/// signature, both as strings. One thread at a time.
class CINDRAL_API Signature {
public:
    /// The implementation: a key type and, once signed or decoded, the signature.
    class CINDRAL_API Rep {
    public:
        explicit Rep(KeyType type);
        virtual ~Rep();

        /// The blob for the wire; empty when there is no signature.
        virtual ByteString Encode() const;
        /// Stores a signature blob. Returns 0; negative, with the object unchanged, when it is malformed, has
        /// trailing bytes, or is not for this key type and digest.
        virtual int Decode(ByteString const& blob, DigestType digest);

        KeyType _type;
        ByteString _blob;
    };

    /// An empty signature for keys of that type.
    explicit Signature(KeyType type);
    /// The signature in a blob; if the blob is malformed, one whose verification always fails.
    explicit Signature(ByteString const& blob);
    Signature(Signature const& other);
    Signature& operator=(Signature const& other);
    ~Signature();

    /// Signs `data`. Returns 0; negative when there is no key, the key is of another type, its size does not
    /// fit the signature format (a dsa subgroup other than 160 bits), or OpenSSL fails.
    int Sign(ByteString const& data, DigestType digest, PrivateKey const& key);
    /// Verifies this signature over `data`. Returns 1 when it is valid; any other value means failure.
    int Verify(ByteString const& data, DigestType digest, PublicKey const& key);

    /// Never null.
    Rep* _rep;
};

} // namespace cindral

#endif

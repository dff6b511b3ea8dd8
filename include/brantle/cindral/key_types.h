#ifndef BRANTLE_CINDRAL_KEY_TYPES_H
#define BRANTLE_CINDRAL_KEY_TYPES_H

namespace cindral {

/// The kinds of keys and signatures (RFC 4253 section 6.6). Non-zero for every key type except KEY_NONE.
enum KeyType : int {
    KEY_NONE = 0, ///< no key
    KEY_RSA = 1,  ///< "ssh-rsa"
    KEY_DSA = 2,  ///< "ssh-dss"
};

/// The host key algorithms that the client offers, most preferred first.
inline constexpr char HOST_KEY_ALGORITHMS[] = "ssh-rsa,ssh-dss";

/// The digests that `Digest` and `Signature` support.
enum DigestType : int {
    DIGEST_SHA1 = 2, ///< SHA-1, 20 bytes
};

} // namespace cindral

#endif

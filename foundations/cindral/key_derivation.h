#ifndef BRANTLE_FOUNDATIONS_CINDRAL_KEY_DERIVATION_H
#define BRANTLE_FOUNDATIONS_CINDRAL_KEY_DERIVATION_H

#include <openssl/x509.h>

namespace cindral {

/// Whether the derivation of a key from a passphrase, as an encrypted PKCS #8 file names it (RFC 8018, RFC
/// 7914), takes a bounded time: at most 2^24 iterations of a hash, or a cost of scrypt (N r p) of 2^22. A
/// scheme that is not known here is left to libcrypto, which refuses it.
bool IsDerivationBounded(X509_ALGOR const& scheme);

} // namespace cindral

#endif

#ifndef BRANTLE_FOUNDATIONS_CINDRAL_BCRYPT_PBKDF_H
#define BRANTLE_FOUNDATIONS_CINDRAL_BCRYPT_PBKDF_H

#include "secret_bytes.h"
#include "wire_format.h"

namespace cindral {

/// Derives `length` bytes from a passphrase with the key derivation "bcrypt" of encrypted key files: PBKDF2
/// over bcrypt, with the inputs hashed with SHA-512 first and the output bytes spread over all blocks. Throws
/// `OpenSSLError`. REQUIRES: `rounds` is at least 1.
SecretBytes BcryptPbkdf(ByteView const& passphrase, ByteView const& salt, unsigned int rounds,
                        unsigned int length);

} // namespace cindral

#endif

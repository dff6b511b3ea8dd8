#ifndef BRANTLE_STANDARD_SIGNATURE_SCHEME_H
#define BRANTLE_STANDARD_SIGNATURE_SCHEME_H

#include <string>
#include <string_view>

#include "foundations/cindral/openssl_ptr.h"
#include "standard/bytes.h"

namespace cindral::standard {

// Public keys and signatures of hosts and users: ssh-ed25519 (RFC 8709), ecdsa-sha2-nistp256, -nistp384 and
// -nistp521 (RFC 5656, section 3), and ssh-rsa keys with rsa-sha2-512 and rsa-sha2-256 (RFC 8332).

/// Minimum size of an RSA modulus in bits. OpenSSH accepts 1024, which can be factored with enough effort.
constexpr int MIN_RSA_BITS = 2048;

/// The type name at the front of a key blob; empty if there is none.
std::string KeyTypeOf(View keyBlob);

/// The signature algorithms for keys of that type, comma-separated, most preferred first; empty if the type
/// is not supported.
std::string SignatureAlgorithmsOf(std::string_view keyType);

/// The public key in a blob. Throws SshProtocolError if the type is not supported, the blob is malformed or
/// followed by other bytes, the point is not on its curve, or the RSA modulus is too short.
PkeyPtr ParseKeyBlob(View keyBlob);

/// The blob of a key's public half. Throws InvalidArgument if the type is not supported.
Bytes MakeKeyBlob(EVP_PKEY* key);

/// Whether `signatureBlob` (the name of the algorithm, and the signature) is a valid signature of the data by
/// the key. Also false if the algorithm does not fit the key, or the blob names another algorithm or is
/// malformed. An RSA signature may lack its leading zeros (RFC 8332, section 3). Throws SshProtocolError as
/// ParseKeyBlob() does.
bool Verify(std::string_view algorithm, View keyBlob, View data, View signatureBlob);

/// The signature blob for the data. Throws InvalidArgument if the algorithm does not fit the key, and
/// OpenSSLError.
Bytes Sign(std::string_view algorithm, EVP_PKEY* key, View data);

} // namespace cindral::standard

#endif

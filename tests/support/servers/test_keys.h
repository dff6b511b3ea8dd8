#ifndef BRANTLE_TESTS_SUPPORT_SERVERS_TEST_KEYS_H
#define BRANTLE_TESTS_SUPPORT_SERVERS_TEST_KEYS_H

#include <string>

namespace servers {

/// The passphrase of the encrypted keys.
inline constexpr char const* KEY_PASSPHRASE = "a throw-away passphrase";

/// Throw-away keys made by ssh-keygen in `directory`, NAME.pub beside each private key NAME:
///
///     host_rsa host_dsa                            PEM
///     user_rsa user_dsa                            PEM
///     user_rsa.openssh user_dsa.openssh            the same keys as "BEGIN OPENSSH PRIVATE KEY"
///     user_rsa.encrypted user_dsa.encrypted        the same keys as PEM under KEY_PASSPHRASE
///     user_rsa.openssh.encrypted user_dsa.openssh.encrypted
///     authorized_keys                              both user keys, one a line
///     authorized_rfc4716                           both user keys, as RFC 4716 writes them
///
/// Throws std::runtime_error when ssh-keygen fails.
void MakeTestKeys(std::string const& directory);

} // namespace servers

#endif

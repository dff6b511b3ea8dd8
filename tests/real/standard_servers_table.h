#ifndef TESTS_REAL_STANDARD_SERVERS_TABLE_H
#define TESTS_REAL_STANDARD_SERVERS_TABLE_H

namespace standard_servers {

/// What works with which server, as standard_servers_test.cpp tests it, row by row and column by column, and
/// as docs/standard.md shows it. "+" works; a number doesn't, for the reason of that number.
inline constexpr char TABLE[] = R"(
| Server | ed25519 | ecdsa256 | ecdsa384 | ecdsa521 | rsa | exec | signal | bulk | SFTP | scp | -L | -R | X11 | rekey | rekeyed |
|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|
| sshd 9.2 | + | + | + | + | + | + | + | + | + | + | + | + | + | + | 1 |
| sshd 9.2, AEAD and EtM alone | + | + | + | + | + | + | + | + | + | + | + | + | + | + | 1 |
| sshd 9.2, RekeyLimit 64K | + | + | + | + | + | + | + | + | + | + | + | + | + | + | + |
| sshd 9.2, RekeyLimit 1M 5s | + | + | + | + | + | + | + | + | + | + | + | + | + | + | + |
| sshd 9.2, ClientAliveInterval 1 | + | + | + | + | + | + | + | + | + | + | + | + | + | + | 1 |
| sshd 9.2, ForceCommand | + | + | + | + | + | + | + | + | + | + | + | + | + | + | 1 |
| sshd 9.2, ForceCommand internal-sftp | + | + | + | + | + | 2 | 2 | + | + | 2 | + | + | 2 | + | 1 |
| sshd 9.2, key and password | + | + | + | + | + | + | + | + | + | + | + | + | + | + | 1 |
| sshd 9.2, key and questions | + | + | + | + | + | + | + | + | + | + | + | + | + | + | 1 |
| sshd 10.0 | + | + | + | + | + | + | + | + | + | + | + | + | + | + | 1 |
| dropbear 2022.83 | + | + | + | + | + | + | + | + | + | + | + | + | 3 | + | 4 |
| asyncssh 2.10 | + | + | + | + | + | + | + | + | + | + | + | + | + | + | 1 |
| asyncssh 2.10, rekey_bytes 1 MiB | + | + | + | + | + | + | + | + | + | + | + | + | + | + | + |
| paramiko 2.12 | + | + | + | + | + | + | + | + | + | + | + | + | 3 | + | 4 |
| paramiko 2.12, REKEY_BYTES 1 MiB | + | + | + | + | + | + | + | + | + | + | 8 | 8 | 3 | + | + |
| ProFTPD 1.3.8 mod_sftp | + | + | + | + | + | 5 | 5 | + | + | + | 6 | 6 | 5 | + | 1 |
| ProFTPD 1.3.8 mod_sftp, SFTPRekey 1 MB | + | + | + | + | + | 5 | 5 | + | + | + | 6 | 6 | 5 | + | + |
| tinyssh 20230101 | + | 7 | 7 | 7 | 7 | + | + | + | + | + | 6 | 6 | 3 | + | 1 |
)";

/// The reasons, each as a list item of Markdown.
inline constexpr char REASONS[] = R"(
1. It starts no key exchange within the bytes of the test, configured as it is.
2. The server runs internal-sftp in place of every command.
3. It has no X11 forwarding: the command runs without a display, and `LastError` says so.
4. It starts one by itself only after far more bytes than the test sends; with `BRANTLE_LONG=1` it is seen.
5. It runs no commands: the request is refused, which ends the session with an error.
6. It forwards no ports: a connection to a local port is closed, a remote forwarding refused.
7. It takes ed25519 keys alone.
8. Only within one key exchange: paramiko's reader waits for itself if a channel is closed while the server renews the
   keys, and gives the connection up after 30 seconds.
)";

} // namespace standard_servers

#endif

#ifndef BRANTLE_STANDARD_STANDARD_DIALECT_H
#define BRANTLE_STANDARD_STANDARD_DIALECT_H

#include <memory>

#include <brantle/session/ssh_session.h>
#include <brantle/standard/export.h>
#include <brantle/thornel/string_t.h>

namespace cindral {

/// Makes an ordinary session speak with the servers that people run: today's algorithms, known hosts in full,
/// windows, rekeying, exit status, transfers with many requests in flight.
///
///     SshCmdSession session(host, command);
///     StandardDialect dialect(session);
///     session.Connect(20); session.KeyExchange(); session.Authenticate(...); session.Run();
///     return dialect.ExitStatus();
///
/// The calls on the session and their results stay the same. A refusal is a negative result, as there, and
/// LastError says why; what breaks the protocol is an SshProtocolError, and so is a connection that ends
/// before its work is done.
///
/// REQUIRES: the dialect is made before Connect and outlives the last call on the session; it is destroyed
/// before the session, as an object declared after it is. Everything is called on the session's thread.
class BRANTLE_STANDARD_API StandardDialect {
public:
    /// Attaches to the session. Throws InvalidArgument if that is connected already, or has a dialect.
    explicit StandardDialect(SshSession& session);
    /// Detaches. The session is of use for nothing but its destruction then.
    virtual ~StandardDialect();
    StandardDialect(StandardDialect const&) = delete;
    StandardDialect& operator=(StandardDialect const&) = delete;

    // What is offered: comma-separated names, most preferred first; docs/standard.md lists them and the
    // defaults. Throw InvalidArgument, which says which name is unknown, empty or repeated; the old list then
    // stays. To be called before KeyExchange.
    void SetKexAlgorithms(String_t const& names);
    void SetHostKeyAlgorithms(String_t const& names);
    /// Signatures for user authentication; before Authenticate.
    void SetPublicKeyAlgorithms(String_t const& names);
    void SetCiphers(String_t const& names);
    void SetMacs(String_t const& names);

    /// What becomes of a host that is not known: accepted, and appended to the user's known_hosts file, or
    /// refused.
    enum HostKeyPolicy { ACCEPT_NEW, KNOWN_ONLY };
    /// ACCEPT_NEW at first.
    void SetHostKeyPolicy(HostKeyPolicy policy);
    /// Asked for a host that is not known, whatever the policy, with the key's type and its fingerprint
    /// ("SHA256:..."), once the server has shown that the key is its own. 1 accepts it and appends it to the
    /// known hosts, 0 refuses. Does what the policy says; a program may override it to ask its user. Never
    /// called for a key that has changed or is revoked, which is always refused.
    virtual int ConfirmHostKey(String_t const& host, String_t const& type, String_t const& fingerprint);

    /// While Run runs, asks the server each so many seconds whether it is still there; once `unanswered` such
    /// questions have no answer, Run throws SshProtocolError. 0 seconds is off, as at first. Before Run.
    void SetKeepalive(unsigned int seconds, unsigned int unanswered);
    /// Renews the keys after so many bytes in either direction, or seconds (0: no limit). 1 GiB and 3600 at
    /// first. InvalidArgument for less than 1,024 bytes.
    void SetRekeyLimit(unsigned long long bytes, unsigned int seconds);
    /// How many requests an SFTP copy of a whole file has on the way; 64 at first. InvalidArgument for 0 and
    /// above 1,024.
    void SetRequestsInFlight(unsigned int count);
    /// Called as the copy of a whole file proceeds, over SFTP and scp, with the file's name, bytes done and
    /// bytes in all, 0 if that is not known. Does nothing; may throw, which ends the copy.
    virtual void Progress(String_t const& name, unsigned long long done, unsigned long long total);

    /// The remote command's exit status, -1 while there is none: the command has not ended, was ended by a
    /// signal, or the connection ended before the channel was closed.
    int ExitStatus() const;
    /// The signal that ended the command, without "SIG", as in "KILL"; empty: none.
    String_t const& ExitSignal() const;
    /// What was agreed, empty before KeyExchange. Ciphers and MACs are the session's to tell; a cipher that
    /// authenticates by itself has an empty MAC.
    String_t const& KexName() const;
    String_t const& HostKeyName() const;
    /// Whether both sides follow the strict rules of key exchange, kex-strict-c-v00@openssh.com.
    bool IsStrict() const;
    /// Key exchanges completed on this connection.
    unsigned int KeyExchanges() const;
    /// The port that the server chose for the last StartRemoteForwarding of port 0; 0 while there is none.
    unsigned int RemotePort() const;
    /// The reason of the last refusal or failure in words, for a user: both sides' lists where nothing is in
    /// common, file and line of another host key, the methods that the server still takes, the server's words
    /// with their control characters made visible. Empty: none.
    String_t const& LastError() const;

private:
    class BRANTLE_STANDARD_LOCAL Impl;
    std::unique_ptr<Impl> _impl;
};

} // namespace cindral

#endif

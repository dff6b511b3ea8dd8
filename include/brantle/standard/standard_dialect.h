#ifndef BRANTLE_STANDARD_STANDARD_DIALECT_H
#define BRANTLE_STANDARD_STANDARD_DIALECT_H

#include <memory>

#include <brantle/session/ssh_session.h>
#include <brantle/standard/export.h>
#include <brantle/thornel/string_t.h>

namespace cindral {

/// Makes an ordinary session work with standard servers: current algorithms, full known_hosts files, flow
/// control, rekeying, exit status, transfers with many requests in flight.
///
///     SshCmdSession session(host, command);
///     StandardDialect dialect(session);
///     session.Connect(20); session.KeyExchange(); session.Authenticate(...); session.Run();
///     return dialect.ExitStatus();
///
/// The calls on the session and their results stay the same. A refusal is a negative result, as there, and
/// LastError gives the reason; a violation of the protocol throws SshProtocolError, as does a connection that
/// ends early. A server has 180 seconds for the whole of KeyExchange, and within Authenticate for each answer
/// that a login waits for, whatever else it sends meanwhile; a copy ends after 180 seconds in which no data
/// moves.
///
/// A session makes one connection: once it has reached a server, Connect returns -EISCONN. The prompts of
/// keyboard-interactive begin with "(user@host:port) ", so that they can't pass for prompts of this side.
///
/// REQUIRES: the dialect is constructed before Connect and outlives the last call on the session; it is
/// destroyed before the session, as an object declared after it is. Everything is called on the session's
/// thread.
class BRANTLE_STANDARD_API StandardDialect {
public:
    /// Attaches to the session. Throws InvalidArgument if the session is already connected or has a dialect.
    explicit StandardDialect(SshSession& session);
    /// Detaches. The session can then only be destroyed.
    virtual ~StandardDialect();
    StandardDialect(StandardDialect const&) = delete;
    StandardDialect& operator=(StandardDialect const&) = delete;

    // What is offered (RFC 4253, section 7.1): comma-separated names, most preferred first; docs/standard.md
    // lists them and the defaults. Throw InvalidArgument, which names the unknown, empty or repeated name;
    // the old list is then kept. To be called before KeyExchange.
    void SetKexAlgorithms(String_t const& names);
    void SetHostKeyAlgorithms(String_t const& names);
    /// Signature algorithms for user authentication (RFC 4252, section 7; RFC 8332); to be called before
    /// Authenticate.
    void SetPublicKeyAlgorithms(String_t const& names);
    void SetCiphers(String_t const& names);
    void SetMacs(String_t const& names);

    /// What happens with an unknown host: it is accepted, and appended to the user's known_hosts file, or
    /// refused.
    enum HostKeyPolicy { ACCEPT_NEW, KNOWN_ONLY };
    /// The default is ACCEPT_NEW. To be called before KeyExchange.
    void SetHostKeyPolicy(HostKeyPolicy policy);
    /// Called for an unknown host, whatever the policy, with the key's type and fingerprint ("SHA256:..."),
    /// after the server has proved that it holds the private key. Returns 1 to accept the key and append it
    /// to the known hosts, 0 to refuse it. The default follows the policy; a program may override it to ask
    /// its user, on the thread and within the call of KeyExchange, and may throw, which ends that. Never
    /// called for a key that has changed or is revoked, which is always refused.
    virtual int ConfirmHostKey(String_t const& host, String_t const& type, String_t const& fingerprint);

    /// While Run runs, sends a keepalive request every `seconds` seconds; when `unanswered` of them have no
    /// reply, Run throws SshProtocolError. 0 seconds, the default, turns this off. Throws InvalidArgument if
    /// `unanswered` is 0 and `seconds` is not. To be called before Run.
    void SetKeepalive(unsigned int seconds, unsigned int unanswered);
    /// Rekeys (RFC 4253, section 9) after so many bytes in either direction, or seconds (0: no limit). The
    /// default is 1 GiB and 3600. While Run runs, seconds count also when nothing is transferred, and the
    /// keys are renewed at most an eighth of them, or a second, late; outside of it keys are renewed within
    /// calls that send or receive. Throws InvalidArgument for less than 1,024 bytes. To be called before Run.
    void SetRekeyLimit(unsigned long long bytes, unsigned int seconds);
    /// How many requests an SFTP copy of a whole file has in flight; the default is 64. Throws
    /// InvalidArgument for 0 and above 1,024.
    void SetRequestsInFlight(unsigned int count);
    /// Whether a file that is received over SFTP or scp, and created, gets the server's permission bits,
    /// within 0777 and the umask; by default it does not, but gets 0666 within the umask. Other mode bits
    /// from the server, such as set-user-ID, are never used, and an existing file, terminal or device keeps
    /// its mode.
    void SetKeepModes(bool keep);
    /// Called as the copy of a whole file proceeds, over SFTP and scp, with the file's name, the bytes done
    /// and the total, which is 0 if not known. The default does nothing; an override may throw, which ends
    /// the copy and reaches its caller: over SFTP the session can be used further, over scp its channel is
    /// closed, and it can only be destroyed.
    virtual void Progress(String_t const& name, unsigned long long done, unsigned long long total);

    /// The remote command's exit status, -1 while there is none: the command has not ended, was ended by a
    /// signal, or the connection ended before the channel was closed. RFC 4254, section 6.10.
    int ExitStatus() const;
    /// The signal that ended the command, without "SIG", as in "KILL"; empty: none.
    String_t const& ExitSignal() const;
    /// The algorithms that KeyExchange negotiated, empty before it; a rekeying may agree on others, but for
    /// the host key. The session returns the ciphers and MACs; a cipher that authenticates the packet has an
    /// empty MAC.
    String_t const& KexName() const;
    String_t const& HostKeyName() const;
    /// Whether strict key exchange (kex-strict-c-v00@openssh.com) is in force.
    bool IsStrict() const;
    /// Number of key exchanges completed on this connection.
    unsigned int KeyExchanges() const;
    /// The port that the server chose for the last StartRemoteForwarding of port 0 (RFC 4254, section 7.1); 0
    /// while there is none. There may be several such forwardings: CancelRemoteForwarding takes the port of
    /// each, or 0 for the last.
    unsigned int RemotePort() const;
    /// The reason for the last refusal or failure, to be shown to a user: both sides' lists if no algorithm
    /// is in common, file and line of a different host key, the methods that the server still accepts, the
    /// server's message with its control characters made visible. Empty if there was none.
    String_t const& LastError() const;

private:
    class BRANTLE_STANDARD_LOCAL Impl;
    std::unique_ptr<Impl> _impl;
};

} // namespace cindral

#endif

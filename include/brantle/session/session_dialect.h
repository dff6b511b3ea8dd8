#ifndef BRANTLE_SESSION_SESSION_DIALECT_H
#define BRANTLE_SESSION_SESSION_DIALECT_H

#include <brantle/export.h>
#include <brantle/session/ssh_session.h>

namespace cindral {

class FileTransfer;
class PacketFilter;

/// Another way to speak with the server, beside a session, which asks it where the two differ. Without a
/// dialect a session speaks as its own contracts say. A class for use by programs is StandardDialect, of
/// libbrantle-standard; this one is what it is built on.
///
/// A dialect is attached before Connect and outlives the last call on the session, which does not own it.
/// Every operation is called only by the session, on its thread. Results and exceptions are those of the
/// session's operation that calls: a refusal is a negative result, a violation of the protocol an
/// SshProtocolError.
class BRANTLE_API SessionDialect {
public:
    SessionDialect(SessionDialect const&) = delete;
    SessionDialect& operator=(SessionDialect const&) = delete;
    virtual ~SessionDialect();

    /// In place of SshSession::Connect: connects within `timeout` seconds and exchanges identifications (RFC
    /// 4253, section 4.2). Returns 0 or a negated errno value.
    virtual int Connect(unsigned int timeout) = 0;
    /// In place of SshSession::KeyExchange, for the first exchange (RFC 4253, sections 7 to 9). Returns 0, or
    /// -1 if there is no common algorithm or the host is not trusted.
    virtual int KeyExchange() = 0;
    /// In place of SshSession::Authenticate (RFC 4252), with its arguments. Returns 0 or -1.
    virtual int Authenticate(String_t const& identity, String_t const& user, String_t const& password,
                             EnterPassword& enter, KbdInteractiveCallback& callback) = 0;
    /// In place of SshSession::Dispatch: handles what the socket, which is readable, or HasInput has, without
    /// waiting for more. Returns 1; 0 would take the socket out of the loop.
    virtual int Dispatch() = 0;

    /// Whether Dispatch has something to do before the socket has input.
    virtual bool HasInput() = 0;
    /// In place of the registration of a descriptor that feeds a channel with the loop. The first call is
    /// for the session channel, and begins the loop. Descriptor and channel remain the session's.
    virtual void RegisterInput(int fd, SshChannel const& channel) = 0;
    /// Accepts the connections that wait at a local forwarding's listener, which is readable, and asks the
    /// server for a channel for each (RFC 4254, section 7.2).
    virtual void Accept(SshSession::LocalForwarding& forwarding) = 0;
    /// Looks up the target of a remote forwarding, before the server is asked to listen. Returns 0, or -1 if
    /// the host is not known: the forwarding is not started then.
    virtual int ResolveTarget(String_t const& host, unsigned int port) = 0;
    /// The port under which a remote forwarding is stored, and cancelled: `listenPort`, or if that is 0, the
    /// one that the server chose for the last forwarding of port 0.
    virtual unsigned int ListeningPort(unsigned int listenPort) = 0;
    /// Copies whole files in place of the sessions for SFTP and scp. The dialect owns the result, which is
    /// the same object each time.
    virtual FileTransfer& Transfer() = 0;

protected:
    /// Attaches nothing yet.
    explicit SessionDialect(SshSession& session) : _session(session) {}

    /// Sets this dialect and its filter in the session. Throws InvalidArgument if the session has a dialect
    /// or is connected. REQUIRES: both outlive the last call on the session, or are detached before they go.
    void Attach(PacketFilter& filter);
    /// Takes both out again. A session that was connected can then only be destroyed.
    void Detach();

    // The parts of the session that a dialect works with.
    SshChannelMgr& Table() const { return _session._channels; }
    IOMultiplexer& Mux() const { return _session._mux; }
    ISshPacketStream& In() const { return _session._in; }
    OSshPacketStream& Out() const { return _session._out; }
    ClientSocketIn& Socket() const { return _session._socket; }
    int OpenSocket(unsigned int timeout) { return _session.OpenSocket(timeout); }
    String_t const& ClientVersion() const { return _session._clientVersion; }
    void SetServerVersion(String_t const& version) { _session._serverVersion = version; }
    void SetBanner(String_t const& banner) { _session._banner = banner; }
    void SetAgreed(int direction, String_t const& cipher, String_t const& mac) {
        _session._cipherNames[direction] = cipher;
        _session._macNames[direction] = mac;
    }
    void SetSessionId(ByteString const& id) { _session._sessionId = id; }
    void SetAuthenticated() { _session._authenticated = 1; }
    TMap<unsigned int, SshSession::ForwardingInfo, GCmp<unsigned int>> const& RemoteForwardings() const {
        return _session._remoteForwardings;
    }
    /// Null while X11 is not forwarded.
    SshSession::X11Forwarding const* X11() const { return _session._x11.Get(); }

    SshSession& _session;
};

} // namespace cindral

#endif

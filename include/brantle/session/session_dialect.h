#ifndef BRANTLE_SESSION_SESSION_DIALECT_H
#define BRANTLE_SESSION_SESSION_DIALECT_H

#include <brantle/export.h>
#include <brantle/session/ssh_session.h>

namespace cindral {

class FileTransfer;
class PacketFilter;

/// Another way to speak with the server, beside a session, which asks it where the two differ. Without a
/// dialect a session speaks as its own contracts say.
///
/// A dialect is attached before Connect and outlives the last call on the session. Every operation is called
/// only by the session, on its thread.
class BRANTLE_API SessionDialect {
public:
    SessionDialect(SessionDialect const&) = delete;
    SessionDialect& operator=(SessionDialect const&) = delete;
    virtual ~SessionDialect();

    /// In place of the operation of that name. Results as there.
    virtual int Connect(unsigned int timeout) = 0;
    virtual int KeyExchange() = 0;
    virtual int Authenticate(String_t const& identity, String_t const& user, String_t const& password,
                             EnterPassword& enter, KbdInteractiveCallback& callback) = 0;
    virtual int Dispatch() = 0;

    /// Whether Dispatch has something to do before the socket has input.
    virtual bool HasInput() = 0;
    /// In place of the registration of a descriptor that feeds a channel with the loop.
    virtual void RegisterInput(int fd, SshChannel const& channel) = 0;
    /// Accepts what waits at a forwarding's listener.
    virtual void Accept(SshSession::LocalForwarding& forwarding) = 0;
    /// Copies whole files in place of the sessions for SFTP and scp.
    virtual FileTransfer& Transfer() = 0;

protected:
    /// Attaches nothing yet.
    explicit SessionDialect(SshSession& session) : _session(session) {}

    /// Sets this dialect and its filter in the session. InvalidArgument if it has a dialect or is connected.
    void Attach(PacketFilter& filter);
    /// Takes both out again.
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

    SshSession& _session;
};

} // namespace cindral

#endif

#include <brantle/standard/standard_dialect.h>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <openssl/crypto.h>

#include <brantle/channel/tcp_forwarding.h>
#include <brantle/channel/x11_forwarding.h>
#include <brantle/cindral/exceptions.h>
#include <brantle/event/timers.h>
#include <brantle/packet/channel_messages.h>
#include <brantle/packet/packet_filter.h>
#include <brantle/session/session_dialect.h>
#include <brantle/sftp/sftp_file_attr.h>
#include <brantle/sftp/sftp_packet.h>
#include <brantle/thornel/descriptor_io.h>
#include <brantle/thornel/sock_io.h>

#include "standard/algorithms.h"
#include "standard/channel_loop.h"
#include "standard/channels.h"
#include "standard/connection.h"
#include "standard/data_port.h"
#include "standard/explained.h"
#include "standard/file_copies.h"
#include "standard/find_identities.h"
#include "standard/known_hosts_file.h"
#include "standard/printable.h"
#include "standard/sftp_replies.h"
#include "standard/user_auth.h"

namespace cindral {

using namespace standard;

namespace {

constexpr unsigned int SESSION_CHANNEL = 0;
constexpr unsigned char NUL = 0;
constexpr std::size_t MAX_OPENINGS = 64;        ///< CHANNEL_OPEN messages received before the loop runs
constexpr std::size_t MAX_DEFERRED = 0x2000000; ///< bytes of messages that wait for the loop
constexpr std::size_t MESSAGE_OVERHEAD = 64;    ///< what each of them occupies besides
constexpr std::size_t DATA_LENGTH = 1 + 1 + 4; ///< where a message for the session has the length of its data
constexpr std::size_t DATA_START = DATA_LENGTH + 4;
constexpr unsigned int X11_PORT = 6000; ///< of display 0
constexpr unsigned int X11_DISPLAYS = 1000;

String_t Text(std::string const& text) {
    return String_t(text.data(), static_cast<unsigned int>(text.size()));
}

char const* Chars(String_t const& text) { return text.Text() ? text.Text() : ""; }

/// A message in the form that ISshPacketStream returns: with a padding length of 0 before it.
Bytes Packed(View message) { return Writer(0).Fixed(message).Take(); }

ByteString ToByteString(Bytes const& bytes) {
    return ByteString(bytes.data(), static_cast<unsigned int>(bytes.size()));
}

/// What dialect and server need to know of a request of the session.
struct RequestSummary {
    explicit RequestSummary(View message) {
        Reader fields(Fields(message), "request");
        if (message[0] == Packet::SSH_MSG_CHANNEL_REQUEST) fields.Int();
        View const name = fields.String();
        isReported = fields.Bool();
        isX11 = name == View("x11-req");
        isSftp = name == View("subsystem") && fields.String() == View("sftp");
    }

    bool isReported; ///< the session waits for the answer
    bool isX11;
    bool isSftp;
};

/// Copies the attributes of a file (draft-ietf-secsh-filexfer-02, section 5).
void CopyAttributes(Reader& from, Writer& to) {
    unsigned int const flags = from.Int();
    to.Int(flags);
    if (flags & SftpFileAttr::SIZE) to.Fixed(from.Fixed(8));
    if (flags & SftpFileAttr::UIDGID) to.Fixed(from.Fixed(8));
    if (flags & SftpFileAttr::PERMISSIONS) to.Fixed(from.Fixed(4));
    if (flags & SftpFileAttr::ACMODTIME) to.Fixed(from.Fixed(8));
    if (!(flags & SftpFileAttr::EXTENDED)) return;
    unsigned int pairs = from.Int();
    for (to.Int(pairs); pairs > 0; --pairs) {
        to.String(from.String());
        to.String(from.String());
    }
}

} // namespace

/// Translates between a session and its server: the session speaks its own dialect, the server that of the
/// RFCs.
class StandardDialect::Impl : public SessionDialect,
                              public PacketFilter,
                              public HostKeyCheck,
                              public ChannelEvents,
                              public LoopHost,
                              public DataPort,
                              private SftpReplies {
public:
    Impl(StandardDialect& face, SshSession& session);
    ~Impl() override;

    // SessionDialect
    int Connect(unsigned int timeout) override;
    int KeyExchange() override;
    int Authenticate(String_t const& identity, String_t const& user, String_t const& password,
                     EnterPassword& enter, KbdInteractiveCallback& callback) override;
    int Dispatch() override;
    bool HasInput() override;
    void RegisterInput(int fd, SshChannel const& channel) override;
    void Accept(SshSession::LocalForwarding& forwarding) override;
    int ResolveTarget(String_t const& host, unsigned int port) override;
    unsigned int ListeningPort(unsigned int listenPort) override {
        return listenPort == 0 ? _channels.RemotePort() : listenPort;
    }
    FileTransfer& Transfer() override { return _copies; }

    // PacketFilter; its HasInput is the one above
    ByteString Read() override;
    void Write(Packet& packet, bool more) override;

    // HostKeyCheck
    std::string Order(std::string const& algorithms) override;
    std::string Refuse(std::string const& algorithm, View key) override;

    // ChannelEvents
    void OnOpened(Channel& channel) override;
    void OnOpenFailed(Channel& channel, std::string const& reason) override;
    void OnData(Channel& channel, View data) override;
    void OnErrorData(Channel& channel, View data) override;
    void OnEof(Channel& channel) override;
    bool OnClosed(Channel& channel) override;
    void OnWindow(Channel& channel) override;
    void OnOpenRequest(OpenRequest const& request) override;
    void OnRequestRefused(Channel& channel, std::string const& name, bool isReported) override;
    void OnForwardingRefused() override { SetLastError("the server refused the remote forwarding"); }

    // DataPort
    void Write(View data) override;
    unsigned char* BeginWrite(std::size_t size) override;
    void EndWrite(std::size_t size) override;
    void SetReceiver(DataReceiver* receiver) override {
        _receiver = receiver;
        NoteProgress();
    }
    void Serve() override;
    void Close() override;

    // LoopHost
    SshChannelMgr& Table() override { return SessionDialect::Table(); }
    IOMultiplexer& Mux() override { return SessionDialect::Mux(); }
    SshChannel& NewTcpChannel(unsigned int remote, char const* type, FileDescriptor& connection) override;
    SocketAddresses const* X11Server() override { return X11() ? &_x11Server : nullptr; }
    Bytes X11Setup(View message) override;
    SocketAddresses const* FindTarget(unsigned int port) override;
    void OnSessionEnd() override { _session.Terminate(); }
    void SetLastError(std::string const& text) override { _lastError = Text(text); }

    void SetAlgorithms(AlgorithmKind kind, char const* place, String_t const& names, std::string& list);

    StandardDialect& _face;
    Offer _offer;
    std::string _publicKeyAlgorithms;
    HostKeyPolicy _policy = ACCEPT_NEW;
    RekeyLimit _rekeyLimit;
    unsigned int _keepaliveSeconds = 0;
    unsigned int _keepaliveUnanswered = 0;
    CopyOptions _copyOptions;

    Connection _connection;
    Channels _channels;
    ChannelLoop _loop;
    int _exitStatus = -1;
    String_t _exitSignal;
    String_t _kexName;
    String_t _hostKeyName;
    String_t _lastError;

private:
    /// Fires several times within the time after which keys are renewed, and once a minute at least.
    class IdleTimer : public IOMultiplexer::PeriodicTimer, public TPVarrCmp<IOMultiplexer::Timer> {
    public:
        explicit IdleTimer(Impl& impl) : PeriodicTimer(Interval(impl._rekeyLimit.seconds)), _impl(impl) {}
        void Fire(IOMultiplexer::Timeval const&) override { _impl.ServeIdle(); }
        int operator()(IOMultiplexer::Timer* timer) const override { return timer != this; }

    private:
        static IOMultiplexer::Timeval Interval(unsigned int limit) {
            return {limit == 0 ? 60 : std::clamp(limit / 8, 1u, 60u), 0};
        }

        Impl& _impl;
    };

    /// Data for the session, as a message, and the number of bytes of channel data that it represents.
    struct Incoming {
        Bytes packet;
        std::size_t bytes;
    };
    // SftpReplies
    void TakeReply(View message) override;

    int Identify(Deadline const& deadline, std::string& reason);
    void Deliver(View data, std::size_t bytes);
    void DeliverStatus(View message);
    void Submit(View message);
    void ResolveX11Server();
    ByteString ReadAnswer();
    ByteString ReadData();
    void GrantPart();
    void WriteMessage(Packet& packet, bool more);
    void AddInput(int fd, SshChannel const& channel);
    Channel& OpenSession();
    void NoteProgress() { _progressBy = Deadline(Transport::TIME_LIMIT); }
    void NoteOutput() { _unwritten = _connection.PendingOutput(); }
    void ServeBlocking() { ServeBlocking(_progressBy); }
    void ServeBlocking(Deadline const& deadline);
    void FlushBlocking();
    void TakeMessages();
    bool MustWait(View message) const;
    void Defer(View message);
    void TakeDeferred();
    void EndEarly();
    void ShowErrors();
    ByteString NoData();
    void ServeIdle();
    int Refused(std::string const& reason);
    /// Does a step for the session. If it throws, the last error says why.
    template <class Step>
    auto Explained(Step const& step) -> decltype(step());

    KnownHostsFile _knownHosts;
    BlockCipher _plain; ///< messages are encoded without a cipher, and padded here
    FileCopies _copies;
    std::deque<Incoming> _inbox; ///< data for the session, outside the loop
    Bytes _errors;               ///< extended data, likewise
    std::vector<Bytes> _answers; ///< for the session
    int _awaited = 0;            ///< number of the message whose answer the session reads next; 0: data
    Deadline _answerBy{Transport::TIME_LIMIT};
    Deadline _progressBy{Transport::TIME_LIMIT}; ///< data of the channel has to move, outside the loop
    bool _isLate = false;                        ///< a deadline has passed
    std::size_t _unwritten = 0;        ///< of the pending output; what follows are answers to the server
    DataReceiver* _receiver = nullptr; ///< of the session channel's data, if not null
    bool _isSftp = false;
    std::size_t _granted = 0;       ///< bytes of an incomplete SFTP message for which window has been granted
    std::deque<Bytes> _deferred;    ///< messages that wait for the loop
    std::size_t _deferredBytes = 0; ///< that they occupy
    bool _hasEnded = false;         ///< the session channel delivers no more data
    bool _endsEarly = false;        ///< it was over before the loop ran
    std::map<std::pair<std::string, unsigned int>, SocketAddresses> _targets; ///< of remote forwardings
    SocketAddresses _x11Server;
    std::unique_ptr<IdleTimer> _idle;
};

StandardDialect::Impl::Impl(StandardDialect& face, SshSession& session)
    : SessionDialect(session), _face(face),
      _offer{DefaultAlgorithms(AlgorithmKind::KEX), DefaultAlgorithms(AlgorithmKind::HOST_KEY),
             DefaultAlgorithms(AlgorithmKind::CIPHER), DefaultAlgorithms(AlgorithmKind::MAC)},
      _publicKeyAlgorithms(DefaultAlgorithms(AlgorithmKind::PUBLIC_KEY)),
      _connection(_offer, *this, _rekeyLimit), _channels(_connection, *this),
      _loop(*this, _connection, _channels),
      _copies(
          *this, _copyOptions,
          [this, &face](String_t const& name, unsigned long long done, unsigned long long total) {
              face.Progress(name, done, total);
              NoteProgress();
          },
          [this](std::string const& text) { SetLastError(text); }) {
    Attach(*this);
}

StandardDialect::Impl::~Impl() {
    if (_idle) SessionDialect::Mux().Unregister(*_idle);
    Detach();
}

template <class Step>
auto StandardDialect::Impl::Explained(Step const& step) -> decltype(step()) {
    return standard::Explained([this](char const* text) { SetLastError(text); }, step);
}

int StandardDialect::Impl::Refused(std::string const& reason) {
    SetLastError(reason);
    return -1;
}

// --- connecting

int StandardDialect::Impl::Connect(unsigned int timeout) {
    if (_connection.Fd() >= 0) {
        SetLastError("the session has been connected already: each connection needs a session of its own");
        return -EISCONN;
    }
    Deadline const deadline{std::chrono::seconds(timeout)};
    std::string reason;
    int result = OpenSocket(timeout);
    if (result >= 0) result = Identify(deadline, reason);
    if (result >= 0) return result;
    if (reason.empty()) reason = std::strerror(-result);
    SetLastError(std::string("can't connect to ") + Chars(Socket().RefString()) + ": " + reason);
    return result;
}

int StandardDialect::Impl::Identify(Deadline const& deadline, std::string& reason) {
    SshSession::SetNodelay(_session.Fd());
    SockIO::SetCloseOnExec(_session.Fd());
    std::string server;
    int result = 0;
    try {
        result = _connection.Identify(_session.Fd(), deadline, Chars(ClientVersion()), server, reason);
    } catch (SshProtocolError const& failure) {
        reason = failure.what();
        result = -ECONNRESET;
    } catch (SystemError const& failure) {
        reason = failure.what();
        result = -failure.Errno();
    }
    SetServerVersion(Text(server));
    return result;
}

int StandardDialect::Impl::KeyExchange() {
    if (_connection.Fd() < 0) return Refused("the session is not connected");
    try {
        Explained([&] { _connection.ExchangeKeys(); });
    } catch (Declined const& declined) {
        _connection.Disconnect(Packet::SSH_DISCONNECT_KEY_EXCHANGE_FAILED, "key exchange failed");
        return Refused(declined.Text());
    }
    auto const& exchange = _connection.Exchange();
    Agreement const& agreed = exchange.Agreed();
    _kexName = Text(agreed.kex);
    _hostKeyName = Text(agreed.hostKey);
    for (int direction = 0; direction < 2; ++direction)
        SetAgreed(direction, Text(agreed.ciphers[direction]), Text(agreed.macs[direction]));
    Bytes const& id = exchange.SessionId();
    SetSessionId(ByteString(id.data(), static_cast<unsigned int>(id.size())));
    return 0;
}

std::string StandardDialect::Impl::Order(std::string const& algorithms) {
    SockIO::SockAddr const& address = Socket().Addr();
    std::string first, rest;
    auto const known = _knownHosts.KnownAlgorithms(Chars(address.Host()), address.Port());
    auto const add = [](std::string& list, std::string const& name) {
        list += (list.empty() ? "" : ",") + name;
    };
    for (std::string const& name : known)
        if (HasName(algorithms, name)) add(first, name);
    for (std::string const& name : SplitNames(algorithms))
        if (!HasName(first, name)) add(rest, name);
    if (!first.empty() && !rest.empty()) first += ',';
    return first + rest;
}

std::string StandardDialect::Impl::Refuse(std::string const& algorithm, View key) {
    SockIO::SockAddr const& address = Socket().Addr();
    std::string const host = Chars(address.Host());
    KnownHostsFile::Finding const finding =
        _knownHosts.Lookup(host, address.Port(), Chars(address.IpAddr()), key);
    if (finding.verdict == KnownHostsFile::MATCH) return std::string();
    if (finding.verdict != KnownHostsFile::UNKNOWN) return finding.Text(host);
    std::string const type(FindSignature(algorithm).keyType);
    std::string const fingerprint = Fingerprint(key);
    if (_face.ConfirmHostKey(Text(host), Text(type), Text(fingerprint)) != 1)
        return "the host " + host + " is not known, and its " + type + " key (" + fingerprint +
               ") was not accepted";
    if (int const failure = _knownHosts.Append(host, address.Port(), key))
        SetLastError("the host key could not be added to ~/.ssh/known_hosts: " +
                     std::string(std::strerror(-failure)));
    return std::string();
}

int StandardDialect::Impl::Authenticate(String_t const& identity, String_t const& user,
                                        String_t const& password, EnterPassword& enter,
                                        KbdInteractiveCallback& callback) {
    if (!_connection.Exchange().HasKeys())
        return Refused("no keys are in force: KeyExchange has not succeeded");
    String_t const host = Socket().RefString();
    Login login;
    login.sessionId = _connection.Exchange().SessionId();
    login.user = Chars(user);
    login.host = Chars(host);
    login.password = View(Chars(password));
    login.algorithms = _publicKeyAlgorithms;
    login.serverAlgorithms = &_connection.ServerSignatureAlgorithms();
    UserAuthenticator authenticator(
        _connection, login,
        [&](std::vector<std::string>& notes) {
            auto const agent = std::make_shared<AgentClient>();
            return FindIdentities(Chars(identity), agent, login.password, enter, notes);
        },
        enter, callback);
    // As without a dialect, so that the caller's own text is empty, too.
    struct Wiping {
        ~Wiping() {
            if (_text && _authenticator.HasSentPassword()) OPENSSL_cleanse(_text, str_len(_text));
        }
        UserAuthenticator const& _authenticator;
        char* _text;
    } const wiping{authenticator, password._rep->_text};
    int result = -1;
    try {
        result = authenticator.Run();
    } catch (CryptoException const& failure) {
        SetLastError(failure.what() + ("; " + authenticator.LastError()));
        throw;
    }
    SetBanner(Text(authenticator.Banner()));
    if (result < 0) return Refused(authenticator.LastError());
    SetAuthenticated();
    return 0;
}

// --- messages outside the loop

bool StandardDialect::Impl::HasInput() {
    if (_connection.HasPacket()) return true;
    return _loop.IsRunning() ? _endsEarly || !_deferred.empty() : !_inbox.empty() || !_answers.empty();
}

ByteString StandardDialect::Impl::Read() {
    NoteProgress();
    return Explained([&] {
        if (!_connection.Exchange().HasKeys()) throw SshProtocolError("no keys are in force");
        return _awaited != 0 ? ReadAnswer() : ReadData();
    });
}

/// A channel that the server has closed answers no more requests.
ByteString StandardDialect::Impl::ReadAnswer() {
    static constexpr unsigned char FAILURE = Packet::SSH_MSG_CHANNEL_FAILURE;
    while (_answers.empty()) {
        Channel const* const session = _channels.Find(SESSION_CHANNEL);
        if (_awaited == Packet::SSH_MSG_CHANNEL_REQUEST && (!session || session->closeReceived))
            _answers.push_back(Packed(Writer(FAILURE).Int(SESSION_CHANNEL).Get()));
        else
            ServeBlocking(_answerBy);
    }
    ByteString const answer = ToByteString(_answers.front());
    _answers.erase(_answers.begin());
    _awaited = 0;
    return answer;
}

ByteString StandardDialect::Impl::ReadData() {
    while (_inbox.empty()) {
        ShowErrors();
        if (_hasEnded) return NoData();
        GrantPart();
        ServeBlocking();
    }
    Incoming const incoming = std::move(_inbox.front());
    _inbox.pop_front();
    if (Channel* const channel = _channels.Find(SESSION_CHANNEL)) _channels.Consume(*channel, incoming.bytes);
    return ToByteString(incoming.packet);
}

/// While the session waits for an SFTP message, its size is not limited by the window.
void StandardDialect::Impl::GrantPart() {
    Channel* const channel = _channels.Find(SESSION_CHANNEL);
    if (!channel || PartSize() <= _granted) return;
    _channels.Consume(*channel, PartSize() - _granted);
    _granted = PartSize();
}

/// Handles what has arrived; waits if nothing has. The caller checks what it waits for after each call: also
/// the end of a key exchange, or written output, may be it.
void StandardDialect::Impl::ServeBlocking(Deadline const& deadline) {
    std::size_t const pending = _connection.PendingOutput();
    bool const wasLate = std::exchange(_isLate, deadline.Remaining().count() == 0);
    if (_isLate && !wasLate) { // the process may have been stopped, and there be something
        _connection.Flush();
        _connection.Fill();
    } else if (_isLate || !_connection.HasPacket()) {
        _connection.WaitAndFill(deadline);
    }
    std::size_t const written = pending - std::min(pending, _connection.PendingOutput());
    if (_unwritten > 0 && written > 0) NoteProgress();
    _unwritten -= std::min(_unwritten, written);
    TakeMessages();
}

/// Writes what is pending now, without what a server that keeps asking is answered meanwhile.
void StandardDialect::Impl::FlushBlocking() {
    NoteProgress();
    _connection.Flush();
    NoteOutput();
    while (_unwritten > 0) ServeBlocking(_awaited != 0 ? _answerBy : _progressBy);
}

/// Handles what has been read.
void StandardDialect::Impl::TakeMessages() {
    View message;
    while (_connection.Next(message)) {
        if (MustWait(message))
            Defer(message);
        else if (_channels.Take(message))
            _answers.push_back(Packed(message));
    }
}

/// Whether a message is left to the loop. Within it, a call that waits for an answer may come from a
/// channel's own operation, which must not be called again meanwhile, nor any channel end.
bool StandardDialect::Impl::MustWait(View message) const {
    int const number = message[0];
    if (!_loop.IsRunning()) return number == Packet::SSH_MSG_CHANNEL_OPEN && _deferred.size() < MAX_OPENINGS;
    switch (number) {
    case Packet::SSH_MSG_REQUEST_SUCCESS:
    case Packet::SSH_MSG_REQUEST_FAILURE:
    case Packet::SSH_MSG_UNIMPLEMENTED:
    case Packet::SSH_MSG_CHANNEL_SUCCESS:
    case Packet::SSH_MSG_CHANNEL_FAILURE:
        return false;
    case Packet::SSH_MSG_CHANNEL_OPEN_CONFIRMATION:
    case Packet::SSH_MSG_CHANNEL_OPEN_FAILURE:
        return _awaited != Packet::SSH_MSG_CHANNEL_OPEN;
    default:
        return true;
    }
}

void StandardDialect::Impl::Defer(View message) {
    _deferredBytes += message.size() + MESSAGE_OVERHEAD;
    if (_deferredBytes > MAX_DEFERRED) throw SshProtocolError("too many messages before an answer");
    _deferred.push_back(message.Copy());
}

void StandardDialect::Impl::TakeDeferred() {
    while (!_deferred.empty()) {
        Bytes const deferred = std::move(_deferred.front());
        _deferred.pop_front();
        _deferredBytes -= deferred.size() + MESSAGE_OVERHEAD;
        View message(deferred);
        _channels.Take(message);
    }
}

void StandardDialect::Impl::Write(Packet& packet, bool more) {
    Explained([&] { WriteMessage(packet, more); });
}

void StandardDialect::Impl::WriteMessage(Packet& packet, bool more) {
    if (!_connection.Exchange().HasKeys()) throw SshProtocolError("no keys are in force");
    ByteString const payload = packet.Payload(_plain);
    View const message(payload.Data(), payload.Length());
    if (message.empty()) return;
    int const number = message[0];
    // The session's grants follow its own rule; here window is granted according to what has been read.
    if (number == Packet::SSH_MSG_CHANNEL_WINDOW_ADJUST) return;
    if (number == Packet::SSH_MSG_CHANNEL_DATA || number == Packet::SSH_MSG_CHANNEL_EOF ||
        number == Packet::SSH_MSG_CHANNEL_CLOSE) {
        Reader fields(Fields(message), "channel message");
        unsigned int const remote = fields.Int();
        // Data streams always use 0 for the session channel, whatever number the server has assigned.
        Channel* const channel =
            _loop.IsRunning() ? _channels.FindRemote(remote) : _channels.Find(SESSION_CHANNEL);
        if (!channel) return;
        if (number == Packet::SSH_MSG_CHANNEL_DATA && _loop.IsRunning())
            _loop.Send(*channel, fields.String());
        else if (number == Packet::SSH_MSG_CHANNEL_DATA)
            Write(fields.String());
        else if (_loop.IsRunning())
            _loop.SendEnd(*channel, number == Packet::SSH_MSG_CHANNEL_CLOSE);
        else if (number == Packet::SSH_MSG_CHANNEL_EOF)
            _channels.PostEof(*channel);
        else
            _channels.PostClose(*channel);
    } else {
        Submit(message);
    }
    if (more) return;
    if (_loop.IsRunning())
        _loop.Settle();
    else
        FlushBlocking();
}

void StandardDialect::Impl::Submit(View message) {
    int const number = message[0];
    bool isAwaited = number == Packet::SSH_MSG_CHANNEL_OPEN;
    if (number == Packet::SSH_MSG_CHANNEL_REQUEST || number == Packet::SSH_MSG_GLOBAL_REQUEST) {
        RequestSummary const request(message);
        isAwaited = request.isReported;
        if (request.isX11) ResolveX11Server();
        if (request.isSftp) _isSftp = true;
    }
    _channels.Submit(message);
    if (number == Packet::SSH_MSG_CHANNEL_OPEN) {
        _hasEnded = _isSftp = _endsEarly = false;
        _granted = 0;
        _inbox.clear();
        _errors.clear();
        DropPart();
    }
    if (!isAwaited) return;
    _awaited = number;
    _answerBy = Deadline(Transport::TIME_LIMIT);
}

Channel& StandardDialect::Impl::OpenSession() {
    Channel* const channel = _channels.Find(SESSION_CHANNEL);
    if (!channel || _hasEnded || !channel->IsOpen()) {
        bool const isByServer = !channel || channel->eofReceived || channel->closeReceived;
        throw SshProtocolError(isByServer ? "the server has closed the channel" : "the channel is closed");
    }
    return *channel;
}

void StandardDialect::Impl::Write(View data) {
    NoteProgress();
    for (std::size_t done = 0; done < data.size();) {
        Channel& channel = OpenSession();
        if (channel.Sendable() == 0 || !_connection.MayPost()) {
            ServeBlocking();
            continue;
        }
        std::size_t const n = std::min(channel.Sendable(), data.size() - done);
        _channels.PostData(channel, View(data.data() + done, n));
        NoteProgress();
        NoteOutput();
        done += n;
    }
}

unsigned char* StandardDialect::Impl::BeginWrite(std::size_t size) {
    while (!_connection.MayPost()) ServeBlocking();
    return OpenSession().Sendable() >= size ? _channels.BeginData(size) : nullptr;
}

void StandardDialect::Impl::EndWrite(std::size_t size) {
    _channels.EndData(OpenSession(), size);
    NoteProgress();
    NoteOutput();
}

void StandardDialect::Impl::Serve() {
    OpenSession();
    ServeBlocking();
}

void StandardDialect::Impl::Close() {
    if (Channel* const channel = _channels.Find(SESSION_CHANNEL)) _channels.PostClose(*channel);
    _hasEnded = true;
    FlushBlocking();
}

/// A name without a long name gets one that consists of a NUL byte: the session requires one, and reads this
/// one as empty.
void StandardDialect::Impl::TakeReply(View message) {
    if (message[0] == SftpPacket::FXP_STATUS) return DeliverStatus(message);
    if (message[0] != SftpPacket::FXP_NAME) {
        Writer whole;
        return Deliver(whole.String(message).Get(), message.size() + 4);
    }
    Reader fields(message, "SFTP name");
    Writer names;
    names.Byte(fields.Byte()).Int(fields.Int());
    unsigned int const count = fields.Int();
    names.Int(count);
    for (unsigned int left = count; left > 0; --left) {
        names.String(fields.String());
        View const line = fields.String();
        names.String(line.empty() ? View(&NUL, 1) : line);
        CopyAttributes(fields, names);
    }
    names.Fixed(fields.Rest());
    Writer whole;
    Deliver(whole.String(names.Get()).Get(), message.size() + 4);
}

/// The texts may be shown on a terminal afterwards. Servers leave them out, and the session expects them.
void StandardDialect::Impl::DeliverStatus(View message) {
    Reader fields(message, "SFTP status");
    Writer status;
    status.Byte(fields.Byte()).Int(fields.Int()).Int(fields.Int());
    for (int texts = 0; texts < 2; ++texts)
        status.String(fields.Left() > 0 ? Printable(fields.String()) : std::string());
    Writer whole;
    Deliver(whole.String(status.Get()).Get(), message.size() + 4);
}

/// Small pieces are put together: each message costs memory of its own.
void StandardDialect::Impl::Deliver(View data, std::size_t bytes) {
    std::size_t const granted = std::min(bytes, std::exchange(_granted, 0));
    if (_inbox.empty() || _inbox.back().packet.size() + data.size() > Channels::MAX_PACKET)
        _inbox.push_back(
            {Writer(0).Byte(Packet::SSH_MSG_CHANNEL_DATA).Int(SESSION_CHANNEL).Int(0).Take(), 0});
    Incoming& last = _inbox.back();
    last.packet.insert(last.packet.end(), data.begin(), data.end());
    StoreInt(last.packet.data() + DATA_LENGTH, static_cast<unsigned int>(last.packet.size() - DATA_START));
    last.bytes += bytes - granted;
}

// --- in the loop

int StandardDialect::Impl::Dispatch() {
    Explained([&] {
        if (_endsEarly) return EndEarly();
        TakeDeferred();
        _loop.Dispatch();
    });
    return 1;
}

void StandardDialect::Impl::EndEarly() {
    _endsEarly = false;
    if (Channel* const session = _channels.Find(SESSION_CHANNEL)) _loop.OnClosed(*session);
    _channels.Remove(SESSION_CHANNEL);
    _connection.FlushRest();
}

void StandardDialect::Impl::RegisterInput(int fd, SshChannel const& channel) {
    Explained([&] { AddInput(fd, channel); });
}

void StandardDialect::Impl::AddInput(int fd, SshChannel const& channel) {
    bool const isFirst = !_loop.IsRunning();
    if (isFirst) _loop.SetKeepalive(_keepaliveSeconds, _keepaliveUnanswered);
    _loop.RegisterInput(fd, channel);
    if (!isFirst) return;
    _idle = std::make_unique<IdleTimer>(*this);
    Mux().Insert(_idle.get());
    // What arrived before the loop was running; the rest of it is left to the first Dispatch.
    Channel* const session = _channels.Find(SESSION_CHANNEL);
    for (Incoming const& incoming : std::exchange(_inbox, {}))
        if (session)
            _loop.OnData(*session,
                         View(incoming.packet.data() + DATA_START, incoming.packet.size() - DATA_START),
                         false);
    if (session && !_errors.empty()) _loop.OnData(*session, std::exchange(_errors, {}), true);
    if (!_endsEarly) _loop.Settle();
}

/// The session reads on although the remote program, scp for example, has ended.
ByteString StandardDialect::Impl::NoData() {
    Channel const* const channel = _channels.Find(SESSION_CHANNEL);
    int const status = channel ? channel->exitStatus : _exitStatus;
    if (status > 0) SetLastError("the remote program ended with status " + std::to_string(status));
    if (status < 0) SetLastError("the remote program has ended");
    return ByteString();
}

/// Renews the keys by time also when nothing is sent or received.
void StandardDialect::Impl::ServeIdle() {
    if (_channels.Find(SESSION_CHANNEL)) Explained([&] { _loop.Settle(); });
}

int StandardDialect::Impl::ResolveTarget(String_t const& host, unsigned int port) {
    SocketAddresses addresses = ResolveHost(Chars(host), port);
    if (addresses.empty())
        return Refused(std::string("the target ") + Chars(host) + " of the remote forwarding is not known");
    _targets[{Chars(host), port}] = std::move(addresses);
    return 0;
}

/// Before the loop runs, as the resolver may block.
void StandardDialect::Impl::ResolveX11Server() {
    SshSession::X11Forwarding const* const x11 = X11();
    if (!x11) return;
    std::string const host = Chars(x11->_host);
    if (host.empty() || host == "unix")
        _x11Server = LocalAddress(Chars(x11->_localSocket));
    else if (x11->_displayNumber < X11_DISPLAYS)
        _x11Server = ResolveHost(host, X11_PORT + x11->_displayNumber);
}

void StandardDialect::Impl::Accept(SshSession::LocalForwarding& forwarding) {
    Explained([&] { _loop.Accept(forwarding._server->Fd(), Chars(forwarding._host), forwarding._port); });
}

void StandardDialect::Impl::OnOpened(Channel& channel) { _loop.OnOpened(channel); }

void StandardDialect::Impl::OnOpenFailed(Channel& channel, std::string const& reason) {
    _loop.OnOpenFailed(channel, reason);
}

void StandardDialect::Impl::OnData(Channel& channel, View data) {
    if (_loop.IsRunning()) return _loop.OnData(channel, data, false);
    if (_receiver) {
        _receiver->TakeData(data);
        _channels.Consume(channel, data.size());
    } else if (_isSftp) {
        TakeData(data);
    } else {
        Deliver(data, data.size());
    }
    NoteProgress();
}

void StandardDialect::Impl::OnErrorData(Channel& channel, View data) {
    if (_loop.IsRunning()) return _loop.OnData(channel, data, true);
    _errors.insert(_errors.end(), data.begin(), data.end());
    if (_receiver || _isSftp) ShowErrors();
    NoteProgress();
}

/// Outside the loop they are messages of the server's, of its scp for example, and not a command's output.
void StandardDialect::Impl::ShowErrors() {
    if (_errors.empty()) return;
    std::string const text = Printable(_errors, Lines::KEPT);
    char const* from = text.data();
    DescriptorIO(STDERR_FILENO).Write(from, from + text.size(), 0);
    if (Channel* const channel = _channels.Find(SESSION_CHANNEL)) _channels.Consume(*channel, _errors.size());
    _errors.clear();
}

void StandardDialect::Impl::OnEof(Channel& channel) {
    if (_loop.IsRunning()) return _loop.OnEof(channel);
    if (channel.isSession) _hasEnded = true;
}

bool StandardDialect::Impl::OnClosed(Channel& channel) {
    if (channel.isSession) {
        _exitStatus = channel.exitStatus;
        _exitSignal = Text(channel.exitSignal);
        _hasEnded = true;
        if (!channel.exitSignal.empty())
            SetLastError("the remote command was ended by the signal " + channel.exitSignal);
        else if (channel.exitStatus < 0)
            SetLastError("the server closed the channel without an exit status");
    }
    if (!_loop.IsRunning()) {
        _endsEarly = channel.isSession;
        return !channel.isSession;
    }
    _loop.OnClosed(channel);
    return true;
}

void StandardDialect::Impl::OnWindow(Channel& channel) {
    if (_loop.IsRunning()) _loop.OnWindow(channel);
}

void StandardDialect::Impl::OnOpenRequest(OpenRequest const& request) {
    if (_loop.IsRunning()) return _loop.OnOpenRequest(request);
    _channels.PostRefusal(request, Packet::SSH_OPEN_RESOURCE_SHORTAGE, "too many channels");
}

void StandardDialect::Impl::OnRequestRefused(Channel&, std::string const& name, bool isReported) {
    if (isReported) return SetLastError("the server refused the request \"" + name + "\"");
    std::string const hint = _isSftp && name == "subsystem" ? " (it does not offer SFTP)" : "";
    throw SshProtocolError("the server refused a request", Text(name + hint));
}

SshChannel& StandardDialect::Impl::NewTcpChannel(unsigned int remote, char const* type,
                                                 FileDescriptor& connection) {
    return *Table().NewTcpConnection(remote, type, Channels::MAX_WINDOW, connection, &In(), &Out());
}

/// An X server without access control does not check the cookie: without one, the remote client's is passed
/// on.
Bytes StandardDialect::Impl::X11Setup(View message) {
    SshSession::X11Forwarding const* const x11 = X11();
    if (!x11) return {};
    auto const view = [](ByteString const& bytes) { return View(bytes.Data(), bytes.Length()); };
    View const fake = view(x11->_fakeCookie);
    View const real = view(x11->_realCookie);
    return ReplaceX11Authorization(message, {SshSession::X11Forwarding::_defaultAuthMethod, fake},
                                   {Chars(x11->_authMethod), real.empty() ? fake : real});
}

/// Some servers announce connections to the port that they chose under 0, as it was asked for.
SocketAddresses const* StandardDialect::Impl::FindTarget(unsigned int port) {
    SshSession::ForwardingInfo const* const info = RemoteForwardings().Find(ListeningPort(port));
    if (!info) return nullptr;
    auto const found = _targets.find({Chars(info->_host), info->_port});
    return found == _targets.end() ? nullptr : &found->second;
}

void StandardDialect::Impl::SetAlgorithms(AlgorithmKind kind, char const* place, String_t const& names,
                                          std::string& list) {
    CheckAlgorithms(kind, place, Chars(names));
    list = Chars(names);
}

// --- the public face

StandardDialect::StandardDialect(SshSession& session) : _impl(std::make_unique<Impl>(*this, session)) {}

StandardDialect::~StandardDialect() = default;

void StandardDialect::SetKexAlgorithms(String_t const& names) {
    _impl->SetAlgorithms(AlgorithmKind::KEX, "StandardDialect::SetKexAlgorithms", names, _impl->_offer.kex);
}

void StandardDialect::SetHostKeyAlgorithms(String_t const& names) {
    _impl->SetAlgorithms(AlgorithmKind::HOST_KEY, "StandardDialect::SetHostKeyAlgorithms", names,
                         _impl->_offer.hostKeys);
}

void StandardDialect::SetPublicKeyAlgorithms(String_t const& names) {
    _impl->SetAlgorithms(AlgorithmKind::PUBLIC_KEY, "StandardDialect::SetPublicKeyAlgorithms", names,
                         _impl->_publicKeyAlgorithms);
}

void StandardDialect::SetCiphers(String_t const& names) {
    _impl->SetAlgorithms(AlgorithmKind::CIPHER, "StandardDialect::SetCiphers", names, _impl->_offer.ciphers);
}

void StandardDialect::SetMacs(String_t const& names) {
    _impl->SetAlgorithms(AlgorithmKind::MAC, "StandardDialect::SetMacs", names, _impl->_offer.macs);
}

void StandardDialect::SetHostKeyPolicy(HostKeyPolicy policy) { _impl->_policy = policy; }

int StandardDialect::ConfirmHostKey(String_t const&, String_t const&, String_t const&) {
    return _impl->_policy == ACCEPT_NEW;
}

void StandardDialect::SetKeepalive(unsigned int seconds, unsigned int unanswered) {
    if (seconds > 0 && unanswered == 0)
        throw InvalidArgument("StandardDialect::SetKeepalive", "no keepalive may be unanswered");
    _impl->_keepaliveSeconds = seconds;
    _impl->_keepaliveUnanswered = unanswered;
}

void StandardDialect::SetRekeyLimit(unsigned long long bytes, unsigned int seconds) {
    if (bytes < 1024) throw InvalidArgument("StandardDialect::SetRekeyLimit", "less than 1024 bytes");
    _impl->_rekeyLimit.bytes = bytes;
    _impl->_rekeyLimit.seconds = seconds;
}

void StandardDialect::SetRequestsInFlight(unsigned int count) {
    if (count == 0 || count > 1024)
        throw InvalidArgument("StandardDialect::SetRequestsInFlight", "not from 1 to 1024");
    _impl->_copyOptions.requestsInFlight = count;
}

void StandardDialect::SetKeepModes(bool keep) { _impl->_copyOptions.keepsModes = keep; }

void StandardDialect::Progress(String_t const&, unsigned long long, unsigned long long) {}

int StandardDialect::ExitStatus() const { return _impl->_exitStatus; }
String_t const& StandardDialect::ExitSignal() const { return _impl->_exitSignal; }
String_t const& StandardDialect::KexName() const { return _impl->_kexName; }
String_t const& StandardDialect::HostKeyName() const { return _impl->_hostKeyName; }
bool StandardDialect::IsStrict() const { return _impl->_connection.Exchange().IsStrict(); }
unsigned int StandardDialect::KeyExchanges() const { return _impl->_connection.Exchange().Completed(); }
unsigned int StandardDialect::RemotePort() const { return _impl->_channels.RemotePort(); }
String_t const& StandardDialect::LastError() const { return _impl->_lastError; }

} // namespace cindral

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <typeinfo>
#include <utility>

#include <brantle/packet/packet.h>
#include <brantle/session/ssh_session.h>

#include "standard/channel_loop.h"
#include "standard/explained.h"

namespace cindral::standard {

namespace {

constexpr std::size_t PROGRAM_READ = 8192; ///< passed at a time to a channel of the program's class
constexpr int READS = 4;                   ///< of one descriptor before the others' turn
constexpr int ACCEPTS = 16;                ///< likewise

using TtyChannel = SshChannelMgr::TtyChannel;
using FdChannel = SshChannelMgr::FdChannel;

bool IsA(SshChannel const& object, std::type_info const& type) { return typeid(object) == type; }

/// Whether a channel is of a class that the program derives, whose overridden operations are called.
bool IsPrograms(SshChannel const& object) {
    return !IsA(object, typeid(TtyChannel)) && !IsA(object, typeid(FdChannel));
}

int OpenSpare() { return open("/dev/null", O_RDONLY | O_CLOEXEC); }

} // namespace

/// Serves a descriptor that is ready. What it serves is kept as a number, as the channel may be gone.
class ChannelLoop::Dispatcher : public IOMultiplexerDispatcher {
public:
    Dispatcher(ChannelLoop& loop, IOMultiplexerDispatcherType events, std::function<void()> serve)
        : IOMultiplexerDispatcher(events), _loop(loop), _serve(std::move(serve)) {}
    Dispatcher* Clone() const override { return new Dispatcher(*this); }
    int Dispatch(int) override {
        _loop.Explain(std::function<void()>(_serve)); // a copy: this object may be replaced meanwhile
        return 1;
    }

private:
    ChannelLoop& _loop;
    std::function<void()> _serve;
};

class ChannelLoop::KeepaliveTimer : public IOMultiplexer::PeriodicTimer,
                                    public TPVarrCmp<IOMultiplexer::Timer> {
public:
    KeepaliveTimer(ChannelLoop& loop, unsigned int seconds)
        : PeriodicTimer(IOMultiplexer::Timeval(seconds, 0)), _loop(loop) {}
    void Fire(IOMultiplexer::Timeval const&) override {
        _loop.Explain([this] { _loop.KeepAlive(); });
    }
    int operator()(IOMultiplexer::Timer* timer) const override { return timer != this; }

private:
    ChannelLoop& _loop;
};

ChannelLoop::ChannelLoop(LoopHost& host, Connection& connection, Channels& channels)
    : _host(host), _connection(connection), _channels(channels) {}

ChannelLoop::~ChannelLoop() {
    for (auto& entry : _pumps) {
        WatchInput(entry.first, entry.second, false);
        for (auto* sink : {entry.second.output.get(), entry.second.errors.get()})
            if (sink && !sink->IsEmpty()) _host.Mux().Unregister(sink->Fd());
    }
    for (auto& entry : _pending) _host.Mux().Unregister(entry.second.connector->Take()._fd);
    if (_socketIsWatched) _host.Mux().Unregister(_socket._fd);
    if (_keepalive) _host.Mux().Unregister(*_keepalive);
}

void ChannelLoop::Explain(std::function<void()> const& step) {
    Explained([this](char const* text) { _host.SetLastError(text); }, step);
}

void ChannelLoop::KeepAlive() {
    if (_isDraining) return;
    if (_channels.UnansweredKeepalives() >= _keepaliveUnanswered)
        throw SshProtocolError("the server does not answer keepalives");
    _channels.PostKeepalive();
    Settle();
}

void ChannelLoop::SetKeepalive(unsigned int seconds, unsigned int unanswered) {
    _keepaliveSeconds = seconds;
    _keepaliveUnanswered = unanswered;
}

// --- the local side

SshChannel* ChannelLoop::Object(unsigned int local) const {
    return _host.Table().Find(static_cast<int>(local));
}

ChannelLoop::Pump* ChannelLoop::Find(unsigned int local) {
    auto const found = _pumps.find(local);
    return found == _pumps.end() ? nullptr : &found->second;
}

void ChannelLoop::RegisterInput(int fd, SshChannel const& object) {
    if (!_isRunning) {
        _isRunning = true;
        // Now, so that a lack of descriptors later on does not affect the session.
        _socket._fd = fcntl(_connection.Fd(), F_DUPFD_CLOEXEC, 0);
        _spare._fd = OpenSpare();
        if (_keepaliveSeconds > 0) {
            _keepalive = std::make_unique<KeepaliveTimer>(*this, _keepaliveSeconds);
            _host.Mux().Insert(_keepalive.get());
        }
    }
    Pump& pump = _pumps[object._localId];
    WatchInput(object._localId, pump, false);
    pump.input = fd;
    pump.inputIsOwned = IsA(object, typeid(FdChannel));
    WatchInput(object._localId, pump, MayRead(_channels.Find(object._localId), pump));
}

bool ChannelLoop::MayRead(Channel const* channel, Pump const& pump) const {
    return !_isDraining && pump.input >= 0 && channel && channel->Sendable() > 0 && pump.unsent.empty() &&
           _connection.MayPost();
}

void ChannelLoop::WatchInput(unsigned int local, Pump& pump, bool watch) {
    if (pump.inputIsWatched == watch) return;
    pump.inputIsWatched = watch;
    if (watch)
        _host.Mux().Register(pump.input, Dispatcher(*this, IOMultiplexerRead, [this, local, fd = pump.input] {
                                 ServeInput(local, fd);
                             }));
    else
        _host.Mux().Unregister(pump.input);
}

void ChannelLoop::ServeInput(unsigned int local, int fd) {
    Channel* const channel = _channels.Find(local);
    Pump* const pump = Find(local);
    if (!pump || pump->input != fd) return;
    if (MayRead(channel, *pump))
        ReadInput(*channel, *pump);
    else
        WatchInput(local, *pump, false);
    Settle();
}

void ChannelLoop::ReadInput(Channel& channel, Pump& pump) {
    SshChannel* const object = Object(channel.local);
    if (object && IsPrograms(*object)) {
        char buffer[PROGRAM_READ];
        ssize_t const n = read(pump.input, buffer, sizeof buffer);
        if (n > 0)
            object->ForwardToSshd(buffer, static_cast<unsigned int>(n));
        else if (n == 0 || (errno != EINTR && errno != EAGAIN))
            EndInput(channel, pump);
        return;
    }
    for (int reads = 0; reads < READS && MayRead(&channel, pump); ++reads) {
        std::size_t const room = channel.Sendable();
        ssize_t const n = read(pump.input, _channels.BeginData(room), room);
        if (n > 0) _channels.EndData(channel, static_cast<std::size_t>(n));
        if (n == 0 || (n < 0 && errno != EINTR && errno != EAGAIN)) return EndInput(channel, pump);
        // After a short read of a pipe, socket or terminal, another read would block.
        if (n < 0 || static_cast<std::size_t>(n) < room) return;
        pollfd more{pump.input, POLLIN, 0};
        if (poll(&more, 1, 0) <= 0) return;
    }
}

/// Handles the end of the input, or its failure; the rest of the channel is not affected.
void ChannelLoop::EndInput(Channel& channel, Pump& pump) {
    WatchInput(channel.local, pump, false);
    pump.input = -1;
    _channels.PostEof(channel);
    AfterOutput(channel.local, pump);
}

void ChannelLoop::Send(Channel& channel, View data) {
    Pump& pump = _pumps[channel.local];
    pump.unsent.insert(pump.unsent.end(), data.begin(), data.end());
    OnWindow(channel);
}

void ChannelLoop::SendEnd(Channel& channel, bool closes) {
    Pump& pump = _pumps[channel.local];
    (closes ? pump.closeWaits : pump.eofWaits) = true;
    PostEnd(channel, pump);
}

void ChannelLoop::PostEnd(Channel& channel, Pump& pump) {
    if (!pump.unsent.empty() || (!pump.eofWaits && !pump.closeWaits)) return;
    if (pump.eofWaits) _channels.PostEof(channel);
    if (pump.closeWaits) _channels.PostClose(channel);
    pump.eofWaits = pump.closeWaits = false;
    AfterOutput(channel.local, pump);
}

void ChannelLoop::OnWindow(Channel& channel) {
    Pump* const pump = Find(channel.local);
    if (!pump || pump->unsent.empty()) return;
    Bytes& unsent = pump->unsent;
    std::size_t& pos = pump->unsentPos;
    while (pos < unsent.size() && channel.Sendable() > 0 && _connection.MayPost()) {
        std::size_t const n = std::min(channel.Sendable(), unsent.size() - pos);
        _channels.PostData(channel, View(unsent.data() + pos, n));
        pos += n;
    }
    if (pos > unsent.size() / 2) { // not for each part of the window, which may be small
        unsent.erase(unsent.begin(), unsent.begin() + static_cast<std::ptrdiff_t>(pos));
        pos = 0;
    }
    PostEnd(channel, *pump);
}

/// Posts what the windows and the connection have room for now. Whether that was anything.
bool ChannelLoop::PostUnsent() {
    bool hasPosted = false;
    for (auto& entry : _pumps) {
        Pump const& pump = entry.second;
        std::size_t const before = pump.unsent.size() - pump.unsentPos;
        Channel* const channel = before > 0 ? _channels.Find(entry.first) : nullptr;
        if (channel) OnWindow(*channel);
        hasPosted = hasPosted || pump.unsent.size() - pump.unsentPos < before;
    }
    return hasPosted;
}

// --- the server's side

void ChannelLoop::Dispatch() {
    _connection.Fill();
    View message;
    while (_connection.Next(message)) _channels.Take(message);
    if (_hasFlushes) {
        _hasFlushes = false;
        _host.Table().FlushAllChannels();
    }
    Settle();
}

/// Called after every event: writes, and updates which descriptors are watched.
void ChannelLoop::Settle() {
    for (auto& [local, pump] : _pumps)
        if ((pump.input >= 0 || pump.inputIsOwned) && !Object(local)) Abandon(local, pump);
    DropReplacedInputs();
    if (_isDraining) {
        _connection.FlushRest();
    } else {
        do _connection.Flush();
        while (PostUnsent());
    }
    WatchSocket();
    for (auto& entry : _pumps)
        WatchInput(entry.first, entry.second, MayRead(_channels.Find(entry.first), entry.second));
}

/// Stops reading for channels that the program has replaced: their descriptors are closed, and another
/// connection may get the number.
void ChannelLoop::DropReplacedInputs() {
    for (auto& [local, pump] : _pumps) {
        SshChannel const* const object = pump.inputIsOwned && pump.input >= 0 ? Object(local) : nullptr;
        if (!object || object->_fdIn == pump.input) continue;
        WatchInput(local, pump, false);
        pump.input = -1;
    }
}

/// Ends a channel that the program has taken out of the table: its descriptor may be closed.
void ChannelLoop::Abandon(unsigned int local, Pump& pump) {
    WatchInput(local, pump, false);
    pump.input = -1;
    pump.inputIsOwned = false;
    if (Channel* const channel = _channels.Find(local)) _channels.PostClose(*channel);
}

void ChannelLoop::WatchSocket() {
    bool const wanted = _connection.HasPendingOutput();
    if (wanted == _socketIsWatched) return;
    if (_socket._fd < 0) _socket._fd = fcntl(_connection.Fd(), F_DUPFD_CLOEXEC, 0); // once more
    if (_socket._fd < 0) throw SystemError("dup", errno, String_t());
    _socketIsWatched = wanted;
    if (wanted)
        _host.Mux().Register(_socket._fd, Dispatcher(*this, IOMultiplexerWrite, [this] { Settle(); }));
    else
        _host.Mux().Unregister(_socket._fd);
}

void ChannelLoop::OnData(Channel& channel, View data, bool isError) {
    SshChannel* const object = Object(channel.local);
    if (!object) return _channels.Consume(channel, data.size());
    Pump& pump = _pumps[channel.local];
    if (IsPrograms(*object)) {
        Bytes const copy = data.Copy(); // the program may wait for an answer, which takes the data's place
        auto const bytes = reinterpret_cast<char const*>(copy.data());
        auto const size = static_cast<unsigned int>(copy.size());
        unsigned int const local = channel.local;
        _hasFlushes = true;
        if (isError)
            object->ForwardExtended(bytes, size);
        else
            object->Forward(bytes, size);
        // The program may have ended the channel.
        if (Channel* const still = _channels.Find(local)) _channels.Consume(*still, size);
        return;
    }
    if (isError && !channel.isSession) return _channels.Consume(channel, data.size());
    if (object->_fdOut < 0 && !channel.isSession) return DeliverX11(channel, pump, data);
    Deliver(&channel, channel.local, pump, data, isError);
}

/// Writes to the channel's descriptor, and grants window for what was written. If the local program is gone,
/// a forwarded connection ends; for the session channel that is a failure of the session.
void ChannelLoop::Deliver(Channel* channel, unsigned int local, Pump& pump, View data, bool isError) {
    std::unique_ptr<DescriptorSink>& sink = isError ? pump.errors : pump.output;
    SshChannel const* const object = Object(local);
    if (!sink && !object) return;
    bool const wasEmpty = !sink || sink->IsEmpty();
    try {
        if (!sink) {
            int const fd = isError ? object->_fdErr : object->_fdOut;
            sink = std::make_unique<DescriptorSink>(fd, channel && channel->isSession && fd != pump.input);
        }
        std::size_t const left = sink->Write(data);
        if (channel) _channels.Consume(*channel, left);
    } catch (SystemError const&) {
        if (channel ? channel->isSession : pump.isSession) throw;
        if (sink) sink->Clear();
        if (channel) _channels.PostClose(*channel);
    }
    if (sink) WatchOutput(local, *sink, isError, wasEmpty);
}

/// Keeps what an X client sends until there is a connection to the X server, which its first message has to
/// prove that it may have.
void ChannelLoop::DeliverX11(Channel& channel, Pump& pump, View data) {
    pump.x11Setup.insert(pump.x11Setup.end(), data.begin(), data.end());
    if (pump.isConnecting) return;
    std::size_t const length = X11SetupLength(pump.x11Setup);
    if (length > X11_MAX_SETUP) return _channels.PostClose(channel);
    if (length == 0 || pump.x11Setup.size() < length) return;
    SocketAddresses const* const server = _host.X11Server();
    Bytes setup = _host.X11Setup(View(pump.x11Setup.data(), length));
    if (!server || setup.empty()) return _channels.PostClose(channel);
    setup.insert(setup.end(), pump.x11Setup.begin() + static_cast<std::ptrdiff_t>(length),
                 pump.x11Setup.end());
    pump.x11Setup = std::move(setup);
    pump.isConnecting = true;
    Pending pending;
    pending.x11Channel = channel.local;
    StartConnecting(std::move(pending), *server);
}

void ChannelLoop::WatchOutput(unsigned int local, DescriptorSink& sink, bool isError, bool wasEmpty) {
    if (wasEmpty && !sink.IsEmpty())
        _host.Mux().Register(sink.Fd(), Dispatcher(*this, IOMultiplexerWrite,
                                                   [this, local, isError] { ServeOutput(local, isError); }));
    else if (!wasEmpty && sink.IsEmpty())
        _host.Mux().Unregister(sink.Fd());
}

void ChannelLoop::ServeOutput(unsigned int local, bool isError) {
    Pump* const pump = Find(local);
    if (!pump) return;
    Deliver(_channels.Find(local), local, *pump, View(), isError);
    AfterOutput(local, *pump);
    Settle();
}

void ChannelLoop::OnEof(Channel& channel) {
    if (Pump* const pump = Find(channel.local)) AfterOutput(channel.local, *pump);
}

/// Does what has to wait until all data is written: ends the connection, the channel or the session.
void ChannelLoop::AfterOutput(unsigned int local, Pump& pump) {
    if ((pump.output && !pump.output->IsEmpty()) || (pump.errors && !pump.errors->IsEmpty())) return;
    Channel* const channel = _channels.Find(local);
    if (pump.isClosing) return Drop(local);
    if (!channel || channel->isSession || !channel->eofReceived) return;
    SshChannel const* const object = Object(local);
    if (object && !IsPrograms(*object) && object->_fdOut >= 0) shutdown(object->_fdOut, SHUT_WR);
    if (channel->eofSent) _channels.PostClose(*channel);
}

void ChannelLoop::OnClosed(Channel& channel) {
    Pump& pump = _pumps[channel.local];
    WatchInput(channel.local, pump, false);
    pump.input = -1;
    pump.isClosing = true;
    pump.isSession = channel.isSession;
    // The output that is left needs no server, which may end the connection now.
    if (channel.isSession) _isDraining = true;
    AfterOutput(channel.local, pump);
    if (channel.isSession && Find(channel.local)) _host.Mux().Unregister(_connection.Fd());
}

void ChannelLoop::Drop(unsigned int local) {
    bool const isSession = Find(local)->isSession;
    _pumps.erase(local);
    if (isSession) return _host.OnSessionEnd();
    _host.Table().RemoveChannel(static_cast<int>(local));
}

// --- forwarding

void ChannelLoop::Accept(int listener, std::string const& host, unsigned int port) {
    if (_spare._fd < 0) _spare._fd = OpenSpare(); // another thread was faster the last time
    for (int accepted = 0; accepted < ACCEPTS; ++accepted) {
        int const connection = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (connection >= 0) {
            AcceptOne(connection, host, port);
        } else if ((errno == EMFILE || errno == ENFILE) && _spare._fd >= 0) {
            // Otherwise the listener would stay ready, and the loop would busy-wait.
            close(_spare._fd);
            int const refused = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (refused >= 0) close(refused);
            _spare._fd = OpenSpare();
            _host.SetLastError("no descriptor left for a forwarded connection");
        } else if (errno != EINTR && errno != ECONNABORTED) {
            break;
        }
        pollfd more{listener, POLLIN, 0};
        if (poll(&more, 1, 0) <= 0) break;
    }
    Settle();
}

void ChannelLoop::AcceptOne(int accepted, std::string const& host, unsigned int port) {
    FileDescriptor connection(accepted);
    if (_isDraining) return;
    if (_channels.Count() + _pending.size() >= MAX_CHANNELS)
        return _host.SetLastError("too many channels for a further forwarded connection");
    sockaddr_in caller{};
    socklen_t size = sizeof caller;
    char address[INET_ADDRSTRLEN] = "0.0.0.0";
    unsigned int callerPort = 0;
    if (getpeername(accepted, reinterpret_cast<sockaddr*>(&caller), &size) == 0 &&
        caller.sin_family == AF_INET) {
        inet_ntop(AF_INET, &caller.sin_addr, address, sizeof address);
        callerPort = ntohs(caller.sin_port);
    }
    SshSession::SetNodelay(accepted);
    SshChannel& object = _host.NewTcpChannel(0, "direct-tcpip", connection);
    Channel& channel =
        _channels.Add(std::make_unique<Channel>(object._localId), Channels::MAX_WINDOW, Channels::MAX_PACKET);
    Writer fields;
    fields.String(host).Int(port).String(address).Int(callerPort);
    _channels.PostOpen(channel, "direct-tcpip", fields.Get());
}

void ChannelLoop::OnOpened(Channel& channel) {
    SshChannel* const object = Object(channel.local);
    if (!object) return _channels.PostClose(channel);
    object->_remoteId = channel.remote;
    RegisterInput(object->_fdIn, *object);
}

void ChannelLoop::OnOpenFailed(Channel& channel, std::string const& reason) {
    _host.SetLastError(reason);
    if (channel.isSession) return;
    _pumps.erase(channel.local);
    _host.Table().RemoveChannel(static_cast<int>(channel.local));
}

void ChannelLoop::OnOpenRequest(OpenRequest const& request) {
    if (_channels.Count() + _pending.size() >= MAX_CHANNELS)
        return _channels.PostRefusal(request, Packet::SSH_OPEN_RESOURCE_SHORTAGE, "too many channels");
    if (request.type == "forwarded-tcpip") return OpenForwarded(request);
    if (request.type == "x11" && _host.X11Server()) return OpenX11(request);
    _channels.PostRefusal(request, Packet::SSH_OPEN_ADMINISTRATIVELY_PROHIBITED, "open failed");
}

/// Confirms at once: the X client does not send anything before.
void ChannelLoop::OpenX11(OpenRequest const& request) {
    FileDescriptor none;
    SshChannel const& object = _host.NewTcpChannel(request.sender, "x11", none);
    _channels.PostConfirmation(
        _channels.Add(std::make_unique<Channel>(object._localId), Channels::MAX_WINDOW, Channels::MAX_PACKET),
        request);
}

/// RFC 4254, section 7.2.
void ChannelLoop::OpenForwarded(OpenRequest const& request) {
    Reader fields(request.rest, "CHANNEL_OPEN");
    fields.String();
    unsigned int const port = fields.Int();
    fields.String();
    fields.Int();
    fields.End();
    SocketAddresses const* const target = _host.FindTarget(port);
    if (!target)
        return _channels.PostRefusal(request, Packet::SSH_OPEN_ADMINISTRATIVELY_PROHIBITED,
                                     "port not forwarded");
    Pending pending;
    pending.sender = request.sender;
    pending.window = request.window;
    pending.maxPacket = request.maxPacket;
    StartConnecting(std::move(pending), *target);
}

void ChannelLoop::StartConnecting(Pending pending, SocketAddresses const& addresses) {
    pending.connector = std::make_unique<SocketConnector>(addresses);
    unsigned int const key = _nextPending++;
    Connect(key, _pending[key] = std::move(pending));
}

void ChannelLoop::Connect(unsigned int key, Pending& pending) {
    DropReplacedInputs();
    int const fd = pending.connector->Next();
    if (fd >= 0) {
        _host.Mux().Register(fd, Dispatcher(*this, IOMultiplexerWrite, [this, key] { ServeConnect(key); }));
        return;
    }
    if (pending.x11Channel == 0)
        _channels.PostRefusal(Request(pending), Packet::SSH_OPEN_CONNECT_FAILED, "connect failed");
    else if (Channel* const channel = _channels.Find(pending.x11Channel))
        _channels.PostClose(*channel);
    _pending.erase(key);
}

OpenRequest ChannelLoop::Request(Pending const& pending) {
    OpenRequest request{};
    request.sender = pending.sender;
    request.window = pending.window;
    request.maxPacket = pending.maxPacket;
    return request;
}

void ChannelLoop::ServeConnect(unsigned int key) {
    auto const found = _pending.find(key);
    if (found == _pending.end()) return;
    Pending& pending = found->second;
    FileDescriptor& fd = pending.connector->Take();
    _host.Mux().Unregister(fd._fd);
    if (!pending.connector->IsConnected()) {
        Connect(key, pending);
        return Settle();
    }
    if (pending.x11Channel == 0)
        AttachTarget(pending, fd);
    else
        AttachX11(pending.x11Channel, fd);
    _pending.erase(key);
    Settle();
}

void ChannelLoop::AttachTarget(Pending const& pending, FileDescriptor& fd) {
    SshChannel& object = _host.NewTcpChannel(pending.sender, "forwarded-tcpip", fd);
    Channel& channel =
        _channels.Add(std::make_unique<Channel>(object._localId), Channels::MAX_WINDOW, Channels::MAX_PACKET);
    _channels.PostConfirmation(channel, Request(pending));
    RegisterInput(object._fdIn, object);
}

/// The X client may be gone by now.
void ChannelLoop::AttachX11(unsigned int local, FileDescriptor& fd) {
    Channel* const channel = _channels.Find(local);
    SshChannel* const object = Object(local);
    Pump* const pump = Find(local);
    if (!channel || !object || !pump || IsPrograms(*object)) return;
    object->_fdIn = object->_fdOut = object->_fdErr = fd._fd;
    static_cast<FdChannel*>(object)->_fd = fd.Release();
    Bytes const waiting = std::exchange(pump->x11Setup, {});
    Deliver(channel, local, *pump, waiting, false);
    RegisterInput(object->_fdIn, *object);
    AfterOutput(local, *pump);
}

} // namespace cindral::standard

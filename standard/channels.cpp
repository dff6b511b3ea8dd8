#include <algorithm>
#include <climits>
#include <cstring>

#include <brantle/packet/packet.h>

#include "standard/channels.h"
#include "standard/printable.h"

namespace cindral::standard {

namespace {

constexpr unsigned int MAX_STATUS_TEXT = 256;

/// RFC 4254, section 5.1.
std::string ReasonText(unsigned int reason) {
    switch (reason) {
    case Packet::SSH_OPEN_ADMINISTRATIVELY_PROHIBITED:
        return "administratively prohibited";
    case Packet::SSH_OPEN_CONNECT_FAILED:
        return "connect failed";
    case Packet::SSH_OPEN_UNKNOWN_CHANNEL_TYPE:
        return "unknown channel type";
    case Packet::SSH_OPEN_RESOURCE_SHORTAGE:
        return "resource shortage";
    default:
        return "reason " + std::to_string(reason);
    }
}

[[noreturn]] void Violation(char const* what) { throw SshProtocolError(what); }

} // namespace

Channels::Channels(Connection& connection, ChannelEvents& events)
    : _connection(connection), _events(events) {}

Channels::~Channels() = default;

unsigned int Channels::PacketSize(unsigned int announced) {
    if (announced == 0) Violation("the server takes no data in a message");
    return std::min(announced, MAX_PACKET);
}

Channel& Channels::Add(std::unique_ptr<Channel> channel, unsigned int windowSize, unsigned int maxPacket) {
    channel->windowSize = channel->localWindow = windowSize;
    channel->localMax = maxPacket;
    unsigned int const number = channel->local;
    _numbers = std::max(_numbers, number + 1);
    return *(_channels[number] = std::move(channel));
}

Channel* Channels::Find(unsigned int local) const {
    auto const found = _channels.find(local);
    return found == _channels.end() ? nullptr : found->second.get();
}

Channel* Channels::FindRemote(unsigned int remote) const {
    for (auto const& entry : _channels)
        if (entry.second->isConfirmed && !entry.second->IsOver() && entry.second->remote == remote)
            return entry.second.get();
    return nullptr;
}

bool Channels::IsInUse(unsigned int remote) const {
    return FindRemote(remote) || std::find(_openings.begin(), _openings.end(), remote) != _openings.end();
}

Channel& Channels::Known(unsigned int local, char const* what) const {
    Channel* const channel = Find(local);
    if (!channel) throw SshProtocolError("message for a channel that does not exist", String_t(what));
    return *channel;
}

Channel& Channels::Open(unsigned int local, char const* what) const {
    Channel& channel = Known(local, what);
    if (!channel.isConfirmed || channel.closeReceived)
        throw SshProtocolError("message for a channel that is not open", String_t(what));
    return channel;
}

// --- messages of the server

bool Channels::Take(View& message) {
    switch (message[0]) {
    case Packet::SSH_MSG_GLOBAL_REQUEST:
        TakeGlobalRequest(Fields(message));
        return false;
    case Packet::SSH_MSG_REQUEST_SUCCESS:
    case Packet::SSH_MSG_REQUEST_FAILURE:
        return TakeGlobalAnswer(message, _globals.begin());
    case Packet::SSH_MSG_UNIMPLEMENTED:
        return TakeUnimplemented(message);
    case Packet::SSH_MSG_CHANNEL_OPEN:
        TakeOpening(message);
        return false;
    case Packet::SSH_MSG_CHANNEL_OPEN_CONFIRMATION:
        return TakeConfirmation(message);
    case Packet::SSH_MSG_CHANNEL_OPEN_FAILURE:
        return TakeOpenFailure(message);
    case Packet::SSH_MSG_CHANNEL_WINDOW_ADJUST:
        TakeAdjustment(Fields(message));
        return false;
    case Packet::SSH_MSG_CHANNEL_DATA:
        TakeData(Fields(message), false);
        return false;
    case Packet::SSH_MSG_CHANNEL_EXTENDED_DATA:
        TakeData(Fields(message), true);
        return false;
    case Packet::SSH_MSG_CHANNEL_EOF:
        TakeEof(Fields(message));
        return false;
    case Packet::SSH_MSG_CHANNEL_CLOSE:
        TakeClose(Fields(message));
        return false;
    case Packet::SSH_MSG_CHANNEL_REQUEST:
        TakeRequest(Fields(message));
        return false;
    case Packet::SSH_MSG_CHANNEL_SUCCESS:
    case Packet::SSH_MSG_CHANNEL_FAILURE:
        return TakeAnswer(message);
    default:
        _connection.PostUnimplemented();
        return false;
    }
}

bool Channels::TakeConfirmation(View message) {
    Reader fields(Fields(message), "CHANNEL_OPEN_CONFIRMATION");
    Channel& channel = Known(fields.Int(), "CHANNEL_OPEN_CONFIRMATION");
    if (channel.isConfirmed) Violation("a channel was confirmed twice");
    unsigned int const remote = fields.Int();
    if (IsInUse(remote)) Violation("the server uses a channel number twice");
    channel.remote = remote;
    channel.remoteWindow = fields.Int();
    channel.remoteMax = PacketSize(fields.Int());
    channel.isConfirmed = true;
    if (channel.isSession) return true;
    _events.OnOpened(channel);
    return false;
}

bool Channels::TakeOpenFailure(View message) {
    Reader fields(Fields(message), "CHANNEL_OPEN_FAILURE");
    Channel& channel = Known(fields.Int(), "CHANNEL_OPEN_FAILURE");
    if (channel.isConfirmed) Violation("a channel was refused after it had been confirmed");
    unsigned int const reason = fields.Int();
    std::string const text = Printable(fields.String());
    bool const isSession = channel.isSession;
    _events.OnOpenFailed(channel,
                         "the server refused the channel: " + text + " (" + ReasonText(reason) + ")");
    Remove(channel.local);
    return isSession;
}

void Channels::TakeData(View message, bool isError) {
    Reader fields(message, isError ? "CHANNEL_EXTENDED_DATA" : "CHANNEL_DATA");
    Channel& channel = Open(fields.Int(), "CHANNEL_DATA");
    if (isError) fields.Int(); // every type of extended data counts as standard error
    View const data = fields.String();
    fields.End();
    if (channel.eofReceived) Violation("data after CHANNEL_EOF");
    if (data.size() > channel.localMax) Violation("data beyond the packet size of the channel");
    if (data.size() > channel.localWindow) Violation("data beyond the window of the channel");
    channel.localWindow -= static_cast<unsigned int>(data.size());
    if (data.empty()) return;
    if (channel.closeSent)
        Consume(channel, data.size());
    else if (isError)
        _events.OnErrorData(channel, data);
    else
        _events.OnData(channel, data);
}

void Channels::TakeAdjustment(View message) {
    Reader fields(message, "CHANNEL_WINDOW_ADJUST");
    unsigned int const number = fields.Int();
    unsigned int const more = fields.Int();
    fields.End();
    // Some servers go on granting after their CLOSE.
    Channel const* const known = Find(number);
    if (number < _numbers && (!known || known->IsOver())) return;
    Channel& channel = Open(number, "CHANNEL_WINDOW_ADJUST");
    if (channel.remoteWindow + more < more) Violation("the window of a channel overflows");
    channel.remoteWindow += more;
    if (more > 0) _events.OnWindow(channel);
}

void Channels::TakeEof(View message) {
    Reader fields(message, "CHANNEL_EOF");
    Channel& channel = Open(fields.Int(), "CHANNEL_EOF");
    fields.End();
    if (channel.eofReceived) return;
    channel.eofReceived = true;
    _events.OnEof(channel);
}

void Channels::TakeClose(View message) {
    Reader fields(message, "CHANNEL_CLOSE");
    Channel& channel = Open(fields.Int(), "CHANNEL_CLOSE");
    fields.End();
    channel.closeReceived = true;
    PostClose(channel);
    RemoveIfClosed(channel);
}

void Channels::RemoveIfClosed(Channel& channel) {
    if (channel.IsOver() && _events.OnClosed(channel)) Remove(channel.local);
}

void Channels::TakeRequest(View message) {
    Reader fields(message, "CHANNEL_REQUEST");
    Channel& channel = Open(fields.Int(), "CHANNEL_REQUEST");
    std::string const name = fields.String().Str();
    bool const wantsReply = fields.Bool();
    bool const isExit = name == "exit-status" || name == "exit-signal";
    if (isExit) TakeExit(channel, name, fields);
    if (!wantsReply || channel.closeSent) return;
    int const answer = isExit ? Packet::SSH_MSG_CHANNEL_SUCCESS : Packet::SSH_MSG_CHANNEL_FAILURE;
    _connection.Post(Writer(answer).Int(channel.remote).Get());
}

void Channels::TakeExit(Channel& channel, std::string const& name, Reader& fields) {
    if (name == "exit-status") {
        channel.exitStatus = static_cast<int>(std::min<unsigned int>(fields.Int(), INT_MAX));
        fields.End();
    } else {
        channel.exitSignal = Printable(fields.String()).substr(0, MAX_STATUS_TEXT);
    }
}

bool Channels::TakeAnswer(View message) {
    Reader fields(Fields(message), "channel request answer");
    Channel& channel = Open(fields.Int(), "channel request answer");
    fields.End();
    if (channel.requests.empty()) Violation("an answer to no channel request");
    Channel::Request const request = channel.requests.front();
    channel.requests.pop_front();
    if (message[0] == Packet::SSH_MSG_CHANNEL_FAILURE)
        _events.OnRequestRefused(channel, request.name, request.isReported);
    return request.isReported;
}

void Channels::TakeGlobalRequest(View message) {
    Reader fields(message, "GLOBAL_REQUEST");
    fields.String();
    if (fields.Bool()) _connection.Post(Writer(Packet::SSH_MSG_REQUEST_FAILURE).Get());
}

/// The session expects no port in the reply to its tcpip-forward request, even if the server sends one.
bool Channels::TakeGlobalAnswer(View& message, Globals::iterator request) {
    if (request == _globals.end() || !request->sequence) Violation("an answer to no global request");
    Global::Kind const kind = request->kind;
    _globals.erase(request);
    if (kind == Global::KEEPALIVE) _keepalives = 0;
    if (kind == Global::FORWARDING && message[0] == Packet::SSH_MSG_REQUEST_FAILURE)
        _events.OnForwardingRefused();
    if (kind == Global::FORWARDING && message[0] == Packet::SSH_MSG_REQUEST_SUCCESS) {
        Reader fields(Fields(message), "REQUEST_SUCCESS");
        if (_isAnyPort) _remotePort = fields.Int();
        message = View(message.data(), 1);
    }
    return kind != Global::KEEPALIVE;
}

/// A server without any global request answers them in this way; everything else that is sent here is known
/// to all.
bool Channels::TakeUnimplemented(View& message) {
    static constexpr unsigned char FAILURE = Packet::SSH_MSG_REQUEST_FAILURE;
    unsigned int const sequence = Reader(Fields(message), "UNIMPLEMENTED").Int();
    auto const find = [this](unsigned int number) {
        return std::find_if(_globals.begin(), _globals.end(),
                            [number](Global const& global) { return global.sequence == number; });
    };
    auto request = find(sequence);
    if (request == _globals.end())
        request = find(sequence - 1); // tinyssh gives the number after the packet's
    if (request == _globals.end()) return false;
    message = View(&FAILURE, 1);
    return TakeGlobalAnswer(message, request);
}

void Channels::TakeOpening(View message) {
    Reader fields(Fields(message), "CHANNEL_OPEN");
    OpenRequest request{};
    request.message = message;
    request.type = fields.String().Str();
    request.sender = fields.Int();
    request.window = fields.Int();
    request.maxPacket = fields.Int();
    request.rest = fields.Rest();
    if (IsInUse(request.sender)) Violation("the server uses a channel number twice");
    _openings.push_back(request.sender);
    _events.OnOpenRequest(request);
}

void Channels::EndOpening(unsigned int sender) {
    _openings.erase(std::remove(_openings.begin(), _openings.end(), sender), _openings.end());
}

// --- messages of the client

void Channels::Submit(View message) {
    switch (message[0]) {
    case Packet::SSH_MSG_CHANNEL_OPEN:
        return SubmitOpening(message);
    case Packet::SSH_MSG_CHANNEL_REQUEST:
        return SubmitRequest(message);
    case Packet::SSH_MSG_GLOBAL_REQUEST:
        return SubmitGlobalRequest(message);
    default:
        return _connection.Post(message);
    }
}

void Channels::SubmitOpening(View message) {
    Reader fields(Fields(message), "CHANNEL_OPEN");
    bool const isSession = fields.String() == View("session");
    unsigned int const local = fields.Int();
    unsigned int const window = fields.Int();
    Channel const* const known = Find(local);
    if (known && !known->IsOver())
        throw InvalidArgument("SshSession::Open", "the session channel has not ended");
    Channel& channel = Add(std::make_unique<Channel>(local), window, fields.Int());
    channel.isSession = isSession;
    _connection.Post(message);
}

/// Requests that start something are sent with "want reply": one that is refused must not be taken for one
/// that runs.
void Channels::SubmitRequest(View message) {
    Reader fields(Fields(message), "CHANNEL_REQUEST");
    Channel* const channel = FindRemote(fields.Int());
    View const name = fields.String();
    auto const flag = static_cast<std::size_t>(name.end() - message.begin());
    bool const isReported = fields.Bool();
    if (!channel || channel->closeSent) return;
    Bytes request = message.Copy();
    request[flag] = 1;
    channel->requests.push_back({name.Str(), isReported});
    _connection.Post(request);
}

void Channels::SubmitGlobalRequest(View message) {
    Reader fields(Fields(message), "GLOBAL_REQUEST");
    bool const isForwarding = fields.String() == View("tcpip-forward");
    if (!fields.Bool()) return _connection.Post(message);
    PostGlobal(isForwarding ? Global::FORWARDING : Global::REPORTED, message);
    if (!isForwarding) return;
    fields.String();
    _isAnyPort = fields.Int() == 0;
}

void Channels::PostGlobal(Global::Kind kind, View message) {
    _globals.push_back({kind, {}});
    _connection.Post(message, &_globals.back().sequence);
}

void Channels::PostKeepalive() {
    ++_keepalives;
    PostGlobal(Global::KEEPALIVE,
               Writer(Packet::SSH_MSG_GLOBAL_REQUEST).String("keepalive@openssh.com").Bool(true).Get());
}

unsigned char* Channels::BeginData(std::size_t size) {
    return _connection.BeginPost(DATA_HEADER + size) + DATA_HEADER;
}

void Channels::EndData(Channel& channel, std::size_t size) {
    if (size == 0) return;
    // At the same place as in BeginData(): nothing has been posted in between.
    unsigned char* const message = _connection.BeginPost(DATA_HEADER + size);
    message[0] = Packet::SSH_MSG_CHANNEL_DATA;
    StoreInt(message + 1, channel.remote);
    StoreInt(message + 5, static_cast<unsigned int>(size));
    _connection.EndPost(DATA_HEADER + size);
    channel.remoteWindow -= static_cast<unsigned int>(size);
}

void Channels::PostData(Channel& channel, View data) {
    std::memcpy(BeginData(data.size()), data.data(), data.size());
    EndData(channel, data.size());
}

void Channels::PostEof(Channel& channel) {
    if (!channel.IsOpen() || channel.eofSent) return;
    channel.eofSent = true;
    _connection.Post(Writer(Packet::SSH_MSG_CHANNEL_EOF).Int(channel.remote).Get());
}

void Channels::PostClose(Channel& channel) {
    if (!channel.IsOpen()) return;
    channel.closeSent = true;
    _connection.Post(Writer(Packet::SSH_MSG_CHANNEL_CLOSE).Int(channel.remote).Get());
}

void Channels::PostOpen(Channel& channel, char const* type, View fields) {
    Writer open(Packet::SSH_MSG_CHANNEL_OPEN);
    open.String(type).Int(channel.local).Int(channel.localWindow).Int(channel.localMax).Fixed(fields);
    _connection.Post(open.Get());
}

void Channels::PostConfirmation(Channel& channel, OpenRequest const& request) {
    channel.remote = request.sender;
    channel.remoteWindow = request.window;
    channel.remoteMax = PacketSize(request.maxPacket);
    channel.isConfirmed = true;
    EndOpening(request.sender);
    Writer confirmation(Packet::SSH_MSG_CHANNEL_OPEN_CONFIRMATION);
    confirmation.Int(channel.remote).Int(channel.local).Int(channel.localWindow).Int(channel.localMax);
    _connection.Post(confirmation.Get());
}

void Channels::PostRefusal(OpenRequest const& request, int reason, char const* text) {
    EndOpening(request.sender);
    Writer refusal(Packet::SSH_MSG_CHANNEL_OPEN_FAILURE);
    refusal.Int(request.sender).Int(static_cast<unsigned int>(reason)).String(text).String("");
    _connection.Post(refusal.Get());
}

void Channels::Consume(Channel& channel, std::size_t size) {
    channel.consumed += static_cast<unsigned int>(size);
    if (channel.consumed < channel.windowSize / 2 || channel.closeSent || channel.eofReceived) return;
    channel.localWindow += channel.consumed;
    _connection.Post(
        Writer(Packet::SSH_MSG_CHANNEL_WINDOW_ADJUST).Int(channel.remote).Int(channel.consumed).Get());
    channel.consumed = 0;
}

} // namespace cindral::standard

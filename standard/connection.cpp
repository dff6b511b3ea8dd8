#include <cerrno>

#include <brantle/packet/packet.h>

#include "standard/connection.h"
#include "standard/printable.h"

namespace cindral::standard {

namespace {

constexpr std::size_t MAX_LINE = 8192;       ///< of the lines before the identification
constexpr unsigned int MAX_LINES = 1024;     ///< likewise
constexpr std::size_t MAX_HELD = 0x10000;    ///< messages
constexpr std::size_t MAX_EARLY = 64;        ///< messages
constexpr std::size_t MAX_UNREAD = 0x400000; ///< bytes of answers that the server does not read
constexpr int FIRST_EXCHANGE_MESSAGE = 20;
constexpr int LAST_EXCHANGE_MESSAGE = 49;
constexpr int EXT_INFO = 7; // RFC 8308

bool StartsWith(std::string const& text, char const* start) { return text.rfind(start, 0) == 0; }

/// Whether the layers above handle a message of that number: those of RFC 4252 and 4254, and UNIMPLEMENTED.
bool IsKnownAbove(int number) {
    auto const isFrom = [number](int first, int last) { return number >= first && number <= last; };
    return isFrom(3, 3) || isFrom(5, 6) || isFrom(50, 53) || isFrom(60, 61) || isFrom(80, 82) ||
           isFrom(90, 100);
}

} // namespace

Connection::Connection(Offer const& offer, HostKeyCheck& hostKeys, RekeyLimit const& limit)
    : _limit(limit), _exchange(_transport, offer, hostKeys) {}

int Connection::Identify(int fd, Deadline const& deadline, std::string const& client, std::string& server,
                         std::string& reason) {
    _transport.Attach(fd);
    if (int const failure = _transport.SendLine(client + "\r\n", deadline)) return failure;
    for (unsigned int lines = 0; lines < MAX_LINES;) {
        if (!_transport.NextLine(server, MAX_LINE)) {
            if (!_transport.WaitForInput(deadline)) {
                reason = "the server has not identified itself in time";
                return -ETIMEDOUT;
            }
            _transport.Fill();
            continue;
        }
        ++lines;
        if (!StartsWith(server, "SSH-")) continue;
        if (!server.empty() && server.back() == '\r') server.pop_back();
        if (StartsWith(server, "SSH-2.0-") || StartsWith(server, "SSH-1.99-")) {
            _exchange.SetIdentification(client, server);
            return 0;
        }
        reason = "the server speaks another protocol version: " + Printable(View(server));
        return -EPROTONOSUPPORT;
    }
    reason = "the server sends lines without end in place of its identification";
    return -EPROTO;
}

void Connection::ExchangeKeys() {
    Deadline const deadline(Transport::TIME_LIMIT);
    _exchange.Start();
    View message;
    while (!_exchange.HasKeys()) {
        while (!_exchange.HasKeys() && NextOfStep(message))
            throw SshProtocolError("message before the first keys", message[0]);
        if (!_exchange.HasKeys()) WaitAndFill(deadline);
    }
    _transport.FlushAll(deadline);
}

void Connection::Send(View message) {
    _answerBy = Deadline(Transport::TIME_LIMIT);
    View other;
    while (!_exchange.MaySend()) {
        if (!NextOfStep(other)) {
            if (!_exchange.MaySend()) WaitAndFill(_answerBy);
        } else if (_early.size() < MAX_EARLY) {
            _early.push_back(other.Copy());
        } else {
            throw SshProtocolError("too many messages within a key exchange");
        }
    }
    _transport.Send(message);
    Flush();
    _transport.FlushAll(_answerBy);
}

View Connection::Receive() {
    if (!_early.empty()) {
        _received = std::move(_early.front());
        _early.pop_front();
        return _received;
    }
    View message;
    while (!NextOfStep(message)) WaitAndFill(_answerBy);
    return message;
}

/// Room for output may be what the caller needs: a server with a large window need not send anything.
void Connection::WaitAndFill(Deadline const& deadline) {
    if (deadline.Remaining().count() == 0) throw SshProtocolError("the server does not answer");
    if (IsRekeyDue()) _exchange.Start();
    if (_transport.PendingOutput() > 0) {
        if (!_transport.WaitForEither(deadline)) throw SshProtocolError("the server does not take data");
    } else if (!_transport.WaitForInput(deadline)) {
        throw SshProtocolError("the server does not answer");
    }
    _transport.Flush();
    Fill();
}

/// The buffer may be full of packets: to read nothing into it would look like the connection's end.
void Connection::Fill() {
    if (!_transport.HasPacket()) _transport.Fill();
}

void Connection::Post(View message, std::optional<unsigned int>* sequence) {
    if (_transport.PendingOutput() > MAX_UNREAD) throw SshProtocolError("the server does not take data");
    if (_exchange.MaySend() && _held.empty()) return SendNow(message, sequence);
    if (_held.size() >= MAX_HELD) throw SshProtocolError("too many requests within a key exchange");
    _held.push_back({message.Copy(), sequence});
}

void Connection::SendNow(View message, std::optional<unsigned int>* sequence) {
    if (sequence) *sequence = _transport.OutputSequence();
    _transport.Send(message);
}

void Connection::PostHeld() {
    if (_held.empty() || !_exchange.MaySend()) return;
    for (Held const& held : _held) SendNow(held.message, held.sequence);
    _held.clear();
}

void Connection::Flush() {
    if (IsRekeyDue()) _exchange.Start();
    _transport.Flush();
}

void Connection::FlushRest() noexcept {
    try {
        _transport.Flush();
    } catch (...) {
        return; // as where there is no peer left
    }
}

bool Connection::IsRekeyDue() const {
    if (!_exchange.HasKeys() || _exchange.IsUnderWay()) return false;
    return _transport.BytesSinceKeys() >= _limit.bytes || _transport.PacketsSinceKeys() >= _limit.packets ||
           (_limit.seconds > 0 && Clock::now() - _keysSince >= std::chrono::seconds(_limit.seconds));
}

bool Connection::Next(View& message) {
    while (_transport.Next(message))
        if (!TakeTransportMessage(message)) return true;
    return false;
}

/// As Next, for steps whose messages every server knows.
bool Connection::NextOfStep(View& message) {
    while (Next(message))
        if (message[0] != Packet::SSH_MSG_UNIMPLEMENTED) return true;
    return false;
}

/// Returns whether the message has been handled here.
bool Connection::TakeTransportMessage(View message) {
    int const number = message[0];
    if (number >= FIRST_EXCHANGE_MESSAGE && number <= LAST_EXCHANGE_MESSAGE) {
        TakeExchangeMessage(message);
        return true;
    }
    if (number == Packet::SSH_MSG_DISCONNECT) {
        Reader fields(Fields(message), "DISCONNECT");
        fields.Int();
        throw SshProtocolError("disconnected by the server", String_t(Printable(fields.String()).c_str()));
    }
    _exchange.CheckStrict(number);
    switch (number) {
    case Packet::SSH_MSG_IGNORE:
    case Packet::SSH_MSG_DEBUG:
        return true;
    case EXT_INFO:
        if (!_exchange.HasKeys()) return false;
        TakeExtensions(message);
        return true;
    default:
        if (IsKnownAbove(number) || !_exchange.HasKeys()) return false;
        PostUnimplemented();
        return true;
    }
}

/// What is declined once there are keys ends the connection: no caller is there to be refused.
void Connection::TakeExchangeMessage(View message) {
    try {
        _exchange.Take(message);
    } catch (Declined const& declined) {
        if (!_exchange.HasKeys()) throw;
        Disconnect(Packet::SSH_DISCONNECT_KEY_EXCHANGE_FAILED, "key exchange failed");
        throw SshProtocolError(declined.Text().c_str());
    }
    if (_exchange.Completed() != _exchangesSeen) {
        _exchangesSeen = _exchange.Completed();
        _keysSince = Clock::now();
    }
    PostHeld();
}

void Connection::TakeExtensions(View message) {
    Reader fields(Fields(message), "EXT_INFO");
    for (unsigned int left = fields.Int(); left > 0; --left) {
        View const name = fields.String();
        View const value = fields.String();
        if (name == View("server-sig-algs")) _serverSigAlgs = value.Str();
    }
    fields.End();
}

void Connection::PostUnimplemented() {
    Post(Writer(Packet::SSH_MSG_UNIMPLEMENTED).Int(_transport.InputSequence()).Get());
}

void Connection::Disconnect(int reason, std::string const& text) noexcept {
    _transport.Send(Writer(Packet::SSH_MSG_DISCONNECT)
                        .Int(static_cast<unsigned int>(reason))
                        .String(text)
                        .String("")
                        .Get());
    FlushRest();
}

} // namespace cindral::standard

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <openssl/rand.h>

#include <brantle/cindral/exceptions.h>

#include "standard/transport.h"

namespace cindral::standard {

namespace {

constexpr std::size_t LENGTH_FIELD = 4;
constexpr std::size_t HEADER = LENGTH_FIELD + 1; ///< with the padding length
constexpr std::size_t MIN_PADDING = 4;
constexpr std::size_t MAX_TRAILER = 255 + 64; ///< padding and tag
constexpr unsigned int MAX_PACKET = 0x40000;  ///< largest packet length accepted
constexpr std::size_t INPUT_BUFFER = 0x10000;
constexpr std::size_t MAX_INPUT_BUFFER = 0x80000;

[[noreturn]] void Lost(int error) {
    throw SystemError("connection lost", error, String_t(std::strerror(error)));
}

} // namespace

Transport::Transport() : _sealer(PacketSealer::None()), _in(INPUT_BUFFER), _opener(PacketOpener::None()) {}

Transport::~Transport() { OPENSSL_cleanse(_random, sizeof _random); }

// --- output

void Transport::MakeRoom(std::size_t size) {
    if (_outPos == _outEnd) _outPos = _outEnd = 0;
    if (_out.size() - _outEnd >= size) return;
    if (_outPos > 0) {
        std::memmove(_out.data(), _out.data() + _outPos, PendingOutput());
        _outEnd -= _outPos;
        _outPos = 0;
    }
    if (_out.size() - _outEnd < size) _out.resize(std::max(_outEnd + size, 2 * _out.size()));
}

unsigned char* Transport::Begin(std::size_t size) {
    MakeRoom(HEADER + size + MAX_TRAILER);
    return _out.data() + _outEnd + HEADER;
}

void Transport::End(std::size_t size) {
    if (size == 0) return;
    unsigned char* const packet = _out.data() + _outEnd;
    std::size_t const alignment = _sealer->Alignment();
    std::size_t const aligned = HEADER + size - (_sealer->LengthIsOutside() ? LENGTH_FIELD : 0);
    std::size_t padding = alignment - aligned % alignment;
    if (padding < MIN_PADDING) padding += alignment;
    StoreInt(packet, static_cast<unsigned int>(1 + size + padding));
    packet[LENGTH_FIELD] = static_cast<unsigned char>(padding);
    Pad(packet + HEADER + size, padding);
    std::size_t const length = HEADER + size + padding;
    _sealer->Seal(_outSequence++, packet, length);
    _outEnd += length + _sealer->TagSize();
    _sent.bytes += length;
    ++_sent.packets;
}

void Transport::Send(View message) {
    unsigned char* const room = Begin(message.size());
    std::memcpy(room, message.data(), message.size());
    End(message.size());
}

/// Random bytes are generated for many packets at once: one call for each would be too expensive.
void Transport::Pad(unsigned char* padding, std::size_t size) {
    if (_randomLeft < size) {
        if (RAND_bytes(_random, sizeof _random) != 1) throw OpenSSLError("RAND_bytes");
        _randomLeft = sizeof _random;
    }
    _randomLeft -= size;
    std::memcpy(padding, _random + _randomLeft, size);
}

void Transport::Flush() {
    while (_outPos < _outEnd) {
        ssize_t const sent = send(_fd, _out.data() + _outPos, PendingOutput(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent >= 0) {
            _outPos += static_cast<std::size_t>(sent);
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            return;
        } else if (errno != EINTR) {
            _outPos = _outEnd;
            if (errno != EPIPE && errno != ECONNRESET) Lost(errno);
            _outError = errno;
        }
    }
}

void Transport::FlushAll(Deadline const& deadline) {
    for (Flush(); PendingOutput() > 0; Flush())
        if (!WaitForOutput(deadline)) throw SshProtocolError("the server does not take data");
}

int Transport::SendLine(std::string const& line, Deadline const& deadline) {
    for (std::size_t done = 0; done < line.size();) {
        ssize_t const sent = send(_fd, line.data() + done, line.size() - done, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent >= 0)
            done += static_cast<std::size_t>(sent);
        else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            if (!WaitForOutput(deadline)) return -ETIMEDOUT;
        } else if (errno != EINTR) {
            return -errno;
        }
    }
    return 0;
}

// --- input

bool Transport::ReadLength() {
    if (_packetLength > 0) return true;
    std::size_t const there = _inEnd - _inPos;
    if (there < _opener->LengthBytes()) return false;
    unsigned int const length = _opener->PeekLength(_inSequence, _in.data() + _inPos);
    std::size_t const framed = length + (_opener->LengthIsOutside() ? 0 : LENGTH_FIELD);
    if (length < 1 + MIN_PADDING + 1 || length > MAX_PACKET || framed % _opener->Alignment() != 0)
        throw SshProtocolError("packet length out of bounds", static_cast<int>(length));
    _packetLength = LENGTH_FIELD + length + _opener->TagSize();
    return true;
}

bool Transport::HasPacket() { return ReadLength() && _inEnd - _inPos >= _packetLength; }

bool Transport::Next(View& message) {
    if (!HasPacket()) return false;
    unsigned char* const packet = _in.data() + _inPos;
    std::size_t const length = _packetLength - _opener->TagSize();
    if (!_opener->Open(_inSequence, packet, length)) throw SshProtocolError("invalid mac value");
    std::size_t const padding = packet[LENGTH_FIELD];
    if (padding < MIN_PADDING || HEADER + padding >= length) throw SshProtocolError("padding out of bounds");
    message = View(packet + HEADER, length - HEADER - padding);
    ++_inSequence;
    _inPos += _packetLength;
    _packetLength = 0;
    _received.bytes += length;
    ++_received.packets;
    return true;
}

std::size_t Transport::Fill() {
    if (_inPos == _inEnd) _inPos = _inEnd = 0;
    // A packet may need more room than is left in the buffer.
    std::size_t const wanted = std::max(_packetLength, INPUT_BUFFER / 2);
    if (_inPos > 0 && _in.size() - _inPos < wanted) {
        std::memmove(_in.data(), _in.data() + _inPos, _inEnd - _inPos);
        _inEnd -= _inPos;
        _inPos = 0;
    }
    if (_in.size() - _inPos < wanted) _in.resize(wanted);
    std::size_t const read = Receive(_in.size() - _inEnd);
    // If one read fills the buffer, later ones are larger.
    if (_inEnd == _in.size() && _in.size() < MAX_INPUT_BUFFER) _in.resize(2 * _in.size());
    return read;
}

std::size_t Transport::Receive(std::size_t size) {
    for (;;) {
        ssize_t const count = recv(_fd, _in.data() + _inEnd, size, MSG_DONTWAIT);
        if (count > 0) {
            _inEnd += static_cast<std::size_t>(count);
            return static_cast<std::size_t>(count);
        }
        if (count == 0 && _outError != 0) Lost(_outError);
        if (count == 0) throw SshProtocolError("connection closed by the server");
        if (errno == EAGAIN || errno == EWOULDBLOCK) return 0;
        if (errno != EINTR) Lost(errno);
    }
}

bool Transport::WaitFor(short events, Deadline const& deadline) const {
    if (deadline.Wait(poll, _fd, events) == 0) return true;
    if (errno == ETIMEDOUT) return false;
    throw SystemError("poll", errno, String_t(std::strerror(errno)));
}

bool Transport::NextLine(std::string& line, std::size_t limit) {
    unsigned char const* const begin = _in.data() + _inPos;
    unsigned char const* const end = _in.data() + _inEnd;
    unsigned char const* const stop = std::find(begin, end, '\n');
    if (static_cast<std::size_t>(stop - begin) > limit)
        throw SshProtocolError("identification line too long");
    if (stop == end) return false;
    line.assign(begin, stop);
    _inPos += line.size() + 1;
    return true;
}

// --- keys

void Transport::SetOutputKeys(std::unique_ptr<PacketSealer> sealer, bool reset) {
    _sealer = std::move(sealer);
    _sent = {};
    if (reset) _outSequence = 0;
}

void Transport::SetInputKeys(std::unique_ptr<PacketOpener> opener, bool reset) {
    _opener = std::move(opener);
    _received = {};
    if (reset) _inSequence = 0;
}

unsigned long long Transport::BytesSinceKeys() const { return std::max(_sent.bytes, _received.bytes); }

unsigned long long Transport::PacketsSinceKeys() const { return std::max(_sent.packets, _received.packets); }

} // namespace cindral::standard

#include <brantle/packet/ssh_buffer.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include <brantle/cindral/exceptions.h>

namespace cindral {

namespace {

constexpr unsigned int MAX_MAC_SIZE = 64;

void StartMac(Mac& mac, unsigned int sequence) {
    if (!mac._rep) return;
    mac._rep->Reset();
    mac.UpdateInt(sequence);
}

char const* Chars(unsigned char const* bytes) { return reinterpret_cast<char const*>(bytes); }
char* Chars(unsigned char* bytes) { return reinterpret_cast<char*>(bytes); }
unsigned char* Bytes(char* chars) { return reinterpret_cast<unsigned char*>(chars); }

} // namespace

OSshBuffer::OSshBuffer(CascadableOStreamBuf* next, BlockCipher& cipher, Mac& mac)
    : CascadableOStreamBuffer(next, _plainBuffer, SSH_PLAIN_SIZE), _cipher(cipher), _mac(mac), _plainBytes(0),
      _sequence(0), _cryptBuffer{} {}

OSshBuffer::~OSshBuffer() = default;

void OSshBuffer::StartPacket() { StartMac(_mac, _sequence); }

int OSshBuffer::Flush() {
    auto const length = static_cast<unsigned int>(_pos - _start);
    if (length < 1) return 0;
    int const produced = _cipher._rep->Process(Bytes(_start), length, _cryptBuffer);
    int const cipherError = errno;
    int const sent = _next->put(Chars(_cryptBuffer), Chars(_cryptBuffer) + std::max(produced, 0));
    if (sent < 0) return sent;
    if (_mac._rep) _mac._rep->Update(Bytes(_start), length);
    _pos = _start;
    _plainBytes += length;
    return produced < 0 ? cipherError : 0;
}

int OSshBuffer::FinalizePacket() {
    int const flushed = Flush();
    if (flushed < 0) return flushed;
    if (_mac._rep) {
        _mac._rep->Finish();
        char const* value = Chars(_mac._rep->Value());
        int const sent = _next->put(value, value + _mac._rep->Length());
        if (sent < 0) return sent;
    }
    ++_sequence;
    return 0;
}

ISshBuffer::ISshBuffer(CascadableIStreamBuf* next, BlockCipher& cipher, Mac& mac)
    : CascadableIStreamBuffer(next, _plainBuffer, SSH_PLAIN_SIZE), _cipher(cipher), _mac(mac), _plainBytes(0),
      _sequence(0), _eof(0), _remaining(0), _cryptBuffer{} {}

ISshBuffer::~ISshBuffer() = default;

void ISshBuffer::StartPacket(unsigned int bytes) {
    StartMac(_mac, _sequence);
    _remaining = bytes;
}

void ISshBuffer::ContinuePacket(unsigned int bytes) { _remaining = bytes; }

int ISshBuffer::Fill() {
    int const produced = Receive(_cryptBuffer, SSH_PLAIN_SIZE, Bytes(_start));
    if (produced < 1) return produced;
    _pos = _start;
    _end = _start + produced;
    return produced;
}

int ISshBuffer::get(char* begin, char* end) {
    char* next = begin + TakeBuffered(begin, end);
    if (end - next >= static_cast<std::ptrdiff_t>(SSH_PLAIN_SIZE) && IsExactly<ISshBuffer>(*this)) {
        int const produced = Receive(Bytes(next), static_cast<unsigned int>(end - next), Bytes(next));
        if (produced < 1) return next == begin ? produced : static_cast<int>(next - begin);
        next += produced;
    }
    int const rest = next < end ? CascadableIStreamBuffer::get(next, end) : 0;
    return next == begin ? rest : static_cast<int>(next - begin) + std::max(rest, 0);
}

/// Reads up to `room` bytes of the packet from the layer below into `raw` and decrypts them into `plain`,
/// which may be the same array.
int ISshBuffer::Receive(unsigned char* raw, unsigned int room, unsigned char* plain) {
    if (_eof || _remaining == 0) return 0;
    int const taken = _next->get(Chars(raw), Chars(raw) + std::min(_remaining, room));
    if (taken < 0) return taken;
    if (taken == 0) {
        _eof = 1;
        return 0;
    }
    _remaining -= static_cast<unsigned int>(taken);
    int total = 0;
    // Piece by piece, so that each piece is still in the processor's cache for the MAC.
    for (int done = 0, piece; done < taken; done += piece) {
        piece = std::min(taken - done, static_cast<int>(SSH_PLAIN_SIZE));
        int const produced = Decrypt(raw + done, static_cast<unsigned int>(piece), plain + total);
        if (produced < 0) return total > 0 ? total : produced;
        total += produced;
    }
    return total;
}

int ISshBuffer::Decrypt(unsigned char const* raw, unsigned int length, unsigned char* plain) {
    int const produced = _cipher._rep->Process(raw, length, plain);
    if (produced > 0 && _mac._rep) _mac._rep->Update(plain, static_cast<unsigned int>(produced));
    return produced;
}

int ISshBuffer::FinalizePacket() {
    if (_mac._rep) {
        _mac._rep->Finish();
        unsigned int const length = std::min(_mac._rep->Length(), MAX_MAC_SIZE);
        unsigned char received[MAX_MAC_SIZE];
        int const taken = _next->get(Chars(received), Chars(received) + length);
        if (taken < 0) return taken;
        // Deliberate: only the bytes received are compared (pinned by
        // PacketStream.PacketIsAcceptedWhenTheConnectionEndsBeforeItsMac).
        if (std::memcmp(_mac._rep->Value(), received, static_cast<unsigned int>(taken)) != 0)
            throw SshProtocolError("invalid mac value");
    }
    ++_sequence;
    return 0;
}

} // namespace cindral

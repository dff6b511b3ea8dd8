#include <brantle/packet/ssh_buffer.h>

#include <algorithm>
#include <cerrno>
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
    : CascadableOStreamBuffer(next, SSH_PLAIN_SIZE), _cipher(cipher), _mac(mac), _plainBytes(0), _sequence(0),
      _cryptBuffer{} {}

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
    : CascadableIStreamBuffer(next, SSH_PLAIN_SIZE), _cipher(cipher), _mac(mac), _plainBytes(0), _sequence(0),
      _eof(0), _remaining(0), _cryptBuffer{} {}

ISshBuffer::~ISshBuffer() = default;

void ISshBuffer::StartPacket(unsigned int bytes) {
    StartMac(_mac, _sequence);
    _remaining = bytes;
}

void ISshBuffer::ContinuePacket(unsigned int bytes) { _remaining = bytes; }

int ISshBuffer::Fill() {
    if (_eof || _remaining == 0) return 0;
    unsigned int const wanted = std::min(_remaining, SSH_PLAIN_SIZE);
    int const taken = _next->get(Chars(_cryptBuffer), Chars(_cryptBuffer) + wanted);
    if (taken < 0) return taken;
    if (taken == 0) {
        _eof = 1;
        return 0;
    }
    _remaining -= static_cast<unsigned int>(taken);
    int const produced = _cipher._rep->Process(_cryptBuffer, static_cast<unsigned int>(taken), Bytes(_start));
    if (produced < 0) return produced;
    if (_mac._rep) _mac._rep->Update(Bytes(_start), static_cast<unsigned int>(produced));
    _pos = _start;
    _end = _start + produced;
    return produced;
}

int ISshBuffer::FinalizePacket() {
    if (_mac._rep) {
        _mac._rep->Finish();
        unsigned int const length = std::min(_mac._rep->Length(), MAX_MAC_SIZE);
        unsigned char received[MAX_MAC_SIZE];
        int const taken = _next->get(Chars(received), Chars(received) + length);
        if (taken < 0) return taken;
        if (std::memcmp(_mac._rep->Value(), received, static_cast<unsigned int>(taken)) != 0)
            throw SshProtocolError("invalid mac value");
    }
    ++_sequence;
    return 0;
}

} // namespace cindral

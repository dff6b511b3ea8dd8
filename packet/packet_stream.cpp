#include <brantle/packet/packet_stream.h>

#include <algorithm>
#include <cstring>

#include <brantle/cindral/exceptions.h>
#include <brantle/cindral/random.h>

namespace cindral {

namespace {

constexpr unsigned int TIME_LIMIT = 180;
constexpr unsigned int MIN_PACKET_LENGTH = 2;
constexpr unsigned int MAX_PACKET_LENGTH = 0x40000;
constexpr unsigned int LENGTH_FIELD = 4;

} // namespace

int MessageNumber(ByteString const& packet) { return packet.Length() > 1 ? packet.Data()[1] : 0; }

OSshPacketStream::OSshPacketStream(BlockCipher& cipher, Mac& mac)
    : _sshBuffer(&_socketBuffer, cipher, mac), _adapter(_sshBuffer), _byteCount(0) {
    _socketBuffer._timeout = TIME_LIMIT;
}

unsigned int OSshPacketStream::SizeOf(Packet& packet) {
    unsigned int const payload = packet.Payload(_sshBuffer._cipher).Length();
    return LENGTH_FIELD + 1 + payload + static_cast<unsigned char>(packet._padLen);
}

void OSshPacketStream::WritePacket(Packet& packet, bool more) {
    if (_filter) return _filter->Write(packet, more);
    _sshBuffer.StartPacket();
    ByteString const payload = packet.Payload(_sshBuffer._cipher);
    auto const padding = static_cast<unsigned char>(packet._padLen);
    unsigned int const length = padding + 1u + payload.Length();
    _socketBuffer.SetMoreToCome(more);
    _adapter << length << padding;
    _adapter.Write(reinterpret_cast<char const*>(payload.Data()), static_cast<int>(payload.Length()));
    WritePadChars(padding);
    _adapter.Flush();
    if (_sshBuffer.FinalizePacket() < 0) return;
    _socketBuffer.Flush();
    _byteCount += length + LENGTH_FIELD;
}

void OSshPacketStream::WritePadChars(unsigned int count) {
    if (_sshBuffer._cipher._rep->Kind() == BlockCipher::NONE) {
        _adapter.WriteChars('\0', count);
        return;
    }
    for (; count > 0; --count) _adapter.Put(static_cast<char>(PseudoRand::NextByte()));
}

ISshPacketStream::ISshPacketStream(BlockCipher& cipher, Mac& mac)
    : _sshBuffer(&_socketBuffer, cipher, mac), _adapter(_sshBuffer), _byteCount(0) {
    _socketBuffer._timeout = TIME_LIMIT;
}

/// Reads the length field, and with it the first block.
void ISshPacketStream::StartPacket() {
    if (_isStarted) return;
    _sshBuffer.StartPacket(_sshBuffer._cipher._rep->BlockSize());
    _length = 0;
    _adapter >> _length;
    _isStarted = true;
}

bool ISshPacketStream::HasBufferedPacket() {
    if (_filter) return _filter->HasInput();
    unsigned int const block = _sshBuffer._cipher._rep->BlockSize();
    if (!_isStarted && Buffered() < block) return false;
    StartPacket();
    if (_length < MIN_PACKET_LENGTH || _length > MAX_PACKET_LENGTH) return true; // refused without reading
    unsigned int const size = std::max(_length + LENGTH_FIELD, block);
    unsigned int const macSize = _sshBuffer._mac._rep ? _sshBuffer._mac._rep->Length() : 0;
    return Buffered() >= size - block + macSize;
}

ByteString ISshPacketStream::ReadPacket() {
    if (_filter) return _filter->Read();
    StartPacket();
    _isStarted = false;
    unsigned int const block = _sshBuffer._cipher._rep->BlockSize();
    unsigned int const length = _length;
    if (length < MIN_PACKET_LENGTH) throw SshProtocolError("packet length less than 2");
    if (length > MAX_PACKET_LENGTH)
        throw SshProtocolError("packet length exceeds maximum value", static_cast<int>(length));
    _sshBuffer.ContinuePacket(std::max(length + LENGTH_FIELD, block) - block);
    ByteString packet(length);
    _adapter.Read(reinterpret_cast<char*>(packet.Data()), static_cast<int>(length));
    auto const arrived = static_cast<unsigned int>(_adapter.Gcount());
    std::memset(packet.Data() + arrived, 0, length - arrived);
    if (_sshBuffer.FinalizePacket() < 0) return ByteString();
    _byteCount += length + LENGTH_FIELD;
    return packet;
}

} // namespace cindral

#include <brantle/channel/ssh_data_stream.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

#include <brantle/channel/window_adjust.h>
#include <brantle/packet/channel_messages.h>
#include <brantle/thornel/except.h>

namespace cindral {

OSshDataStream::OSshDataStream(OSshPacketStream& out, unsigned int remoteChannel,
                               unsigned int const& windowSize)
    : _out(out), _remoteChannel(remoteChannel), _windowSize(windowSize) {
    _end = _start + MAX_DATA;
}

OSshDataStream::~OSshDataStream() {
    try {
        OSshDataStream::Flush();
    } catch (Except const&) {
    }
}

int OSshDataStream::Flush() { return SendBuffered(false); }

int OSshDataStream::MakeRoom() { return SendBuffered(true); }

int OSshDataStream::SendBuffered(bool more) {
    auto const n = static_cast<unsigned int>(_pos - _start);
    if (n == 0) return 0;
    PacketChannelData packet(_remoteChannel, _start, n);
    bool const adjusts = IsWindowAdjustDue(_out._byteCount + _out.SizeOf(packet), _windowSize);
    _out.WritePacket(packet, more || adjusts);
    cindral::CheckForWindowAdjust(_out._byteCount, _windowSize, _remoteChannel, _out, more);
    _pos = _start;
    return static_cast<int>(n);
}

void OSshDataStream::CheckForWindowAdjust() {
    cindral::CheckForWindowAdjust(_out._byteCount, _windowSize, _remoteChannel, _out);
}

ISshDataStream::ISshDataStream(ISshPacketStream& in, OSshPacketStream& out, unsigned int remoteChannel,
                               unsigned int const& windowSize)
    : ISockStream(nullptr), _in(in), _out(out), _remoteChannel(remoteChannel), _windowSize(windowSize) {}

ISshDataStream::~ISshDataStream() = default;

int ISshDataStream::Fill() {
    if (!Receive()) return 0;
    unsigned int const n = TakePending(_start, _capacity);
    _pos = _start;
    _end = _start + n;
    return static_cast<int>(n);
}

int ISshDataStream::Fetch(char* begin, char* end) {
    if (end - begin < static_cast<std::ptrdiff_t>(_capacity)) return ISockStream::Fetch(begin, end);
    FlushTied();
    if (!Receive()) return 0;
    return static_cast<int>(TakePending(begin, static_cast<unsigned int>(end - begin)));
}

/// Reads packets until there is data. Returns whether there is.
bool ISshDataStream::Receive() {
    while (_pending._length == 0) {
        if (_out._socketBuffer.HoldsBack() && !_in.HasInput()) _out._socketBuffer.Flush();
        ByteString const packet = _in.ReadPacket();
        if (packet.Length() == 0) return false;
        CheckForWindowAdjust();
        int const number = MessageNumber(packet);
        if (number == Packet::SSH_MSG_CHANNEL_WINDOW_ADJUST || number == Packet::SSH_MSG_CHANNEL_REQUEST)
            continue;
        PacketDecoder decoder(packet);
        PacketDecoder::Slice data;
        PacketChannelData(decoder, data);
        _packet = packet;
        _pending = data;
    }
    return true;
}

unsigned int ISshDataStream::TakePending(char* to, unsigned int room) {
    unsigned int const n = std::min(room, _pending._length);
    // A call into the C library, where a memcpy built for size becomes a copy byte by byte.
    std::memmove(to, _packet.Data() + _pending._start, n);
    _pending._start += n;
    _pending._length -= n;
    return n;
}

void ISshDataStream::CheckForWindowAdjust() {
    cindral::CheckForWindowAdjust(_in._byteCount, _windowSize, _remoteChannel, _out, true);
}

} // namespace cindral

#include <brantle/channel/ssh_data_stream.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstring>

#include <brantle/channel/window_adjust.h>
#include <brantle/packet/channel_messages.h>
#include <brantle/packet/packet_decoder.h>
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

int OSshDataStream::Flush() {
    auto const n = static_cast<unsigned int>(_pos - _start);
    if (n == 0) return 0;
    PacketChannelData packet(_remoteChannel, _start, n);
    _out.WritePacket(packet);
    CheckForWindowAdjust();
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
    while (_pending.Length() == 0) {
        ByteString const packet = _in.ReadPacket();
        if (packet.Length() == 0) return false;
        CheckForWindowAdjust();
        int const number = MessageNumber(packet);
        if (number == Packet::SSH_MSG_CHANNEL_WINDOW_ADJUST || number == Packet::SSH_MSG_CHANNEL_REQUEST)
            continue;
        PacketDecoder decoder(packet);
        _pending = PacketChannelData(decoder)._bytes;
    }
    return true;
}

unsigned int ISshDataStream::TakePending(char* to, unsigned int room) {
    unsigned int const n = std::min(room, _pending.Length());
    // A call into the C library, where a memcpy built for size becomes a copy byte by byte.
    std::memmove(to, _pending.Data(), n);
    _pending = _pending.SubStr(n, UINT_MAX);
    return n;
}

void ISshDataStream::CheckForWindowAdjust() {
    cindral::CheckForWindowAdjust(_in._byteCount, _windowSize, _remoteChannel, _out);
}

} // namespace cindral

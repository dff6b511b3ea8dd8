#include <brantle/channel/ssh_data_stream.h>

#include <algorithm>
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
        // a destructor has no way to report it
    }
}

int OSshDataStream::Flush() {
    bool const more = IsMakingRoom();
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
    FlushTied();
    unsigned int const n = Take(_start, _capacity);
    if (n == 0) return 0;
    _pos = _start;
    _end = _start + n;
    return static_cast<int>(n);
}

int ISshDataStream::Fetch(char* begin, char* end) {
    if (!IsLarge(begin, end) || !IsExactly<ISshDataStream>(*this)) return ISockStream::Fetch(begin, end);
    FlushTied();
    return static_cast<int>(Take(begin, static_cast<unsigned int>(end - begin)));
}

/// Stores data from the last message or, if that is used up, from the next one that has any. Returns the
/// number of bytes, 0 if there is no message.
unsigned int ISshDataStream::Take(char* to, unsigned int room) {
    ByteString bytes = _pending;
    PacketDecoder::View data{0, _pending.Length()};
    while (data._length == 0) {
        bytes = ReceivePacket();
        if (bytes.Length() == 0) return 0;
        int const number = MessageNumber(bytes);
        if (number == Packet::SSH_MSG_CHANNEL_WINDOW_ADJUST || number == Packet::SSH_MSG_CHANNEL_REQUEST)
            continue;
        PacketDecoder decoder(bytes);
        PacketChannelData(decoder, data);
    }
    unsigned int const n = std::min(room, data._length);
    _pending = n < data._length ? bytes.SubStr(data._start + n, data._length - n) : ByteString();
    // A call into the C library: a memcpy compiled for size would be inlined as a byte-by-byte copy.
    std::memmove(to, bytes.Data() + data._start, n);
    return n;
}

ByteString ISshDataStream::ReceivePacket() {
    if (_out._socketBuffer.IsCorked() && !_in.HasInput()) _out._socketBuffer.Flush();
    ByteString const packet = _in.ReadPacket();
    if (packet.Length() > 0) CheckForWindowAdjust();
    return packet;
}

void ISshDataStream::CheckForWindowAdjust() {
    cindral::CheckForWindowAdjust(_in._byteCount, _windowSize, _remoteChannel, _out, true);
}

} // namespace cindral

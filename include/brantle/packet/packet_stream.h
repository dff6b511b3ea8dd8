#ifndef BRANTLE_PACKET_PACKET_STREAM_H
#define BRANTLE_PACKET_PACKET_STREAM_H

#include <brantle/cindral/block_cipher.h>
#include <brantle/cindral/mac.h>
#include <brantle/cindral/sock_stream_adapter.h>
#include <brantle/cindral/socket_buffer.h>
#include <brantle/export.h>
#include <brantle/packet/packet.h>
#include <brantle/packet/packet_filter.h>
#include <brantle/packet/ssh_buffer.h>
#include <brantle/thornel/byte_string.h>

namespace cindral {

/// The message number of a packet as ReadPacket returns it: the byte after the padding length,
/// 0 for a packet too short to have one.
BRANTLE_API int MessageNumber(ByteString const& packet);

/// Writes packets in the binary packet format of RFC 4253, section 6.
///
/// The cipher and the MAC belong to the session, need not be built yet when the stream is, and must
/// outlive it. Bind the descriptor into `_socketBuffer` before the first packet; it stays the
/// caller's. A wait for the peer ends after 180 seconds. No locks: one thread, one packet at a time.
class BRANTLE_API OSshPacketStream {
public:
    OSshPacketStream(BlockCipher& cipher, Mac& mac);
    OSshPacketStream(OSshPacketStream const&) = delete;
    OSshPacketStream& operator=(OSshPacketStream const&) = delete;

    /// Frames, encrypts, authenticates and sends one packet, with a flush of the socket. A failing
    /// layer below shows only in what follows: the packet is not counted, nothing is thrown.
    void WritePacket(Packet& packet) { WritePacket(packet, false); }
    /// The same; with `more`, another packet follows at once and the kernel may hold this one back for it, as
    /// OSocketBuffer::SetMoreToCome has it.
    void WritePacket(Packet& packet, bool more);

    /// The bytes that WritePacket counts for a packet, which this encodes.
    unsigned int SizeOf(Packet& packet);

    /// Writes the padding of the current packet: zero bytes while there is no cipher, random ones
    /// under a cipher.
    void WritePadChars(unsigned int count);

    OSocketBuffer _socketBuffer;
    OSshBuffer _sshBuffer;
    OSockStreamAdapter _adapter;
    unsigned int _byteCount;         ///< bytes of all packets without their MACs; flow control resets it
    PacketFilter* _filter = nullptr; ///< what packets go through instead; not owned
};

/// Reads packets in the binary packet format of RFC 4253, section 6. As OSshPacketStream.
class BRANTLE_API ISshPacketStream {
public:
    ISshPacketStream(BlockCipher& cipher, Mac& mac);
    ISshPacketStream(ISshPacketStream const&) = delete;
    ISshPacketStream& operator=(ISshPacketStream const&) = delete;

    /// Blocks for one packet and returns padding length, payload and padding, the form that
    /// PacketDecoder takes. Empty if the layer below fails while the MAC is read.
    ///
    /// Throws SshProtocolError: "packet length less than 2" (also when the connection has ended),
    /// "packet length exceeds maximum value" beyond 0x40000 bytes, "invalid mac value".
    ByteString ReadPacket();

    /// Whether bytes of a further packet have already been read from the descriptor.
    bool HasBufferedInput() const { return _filter ? _filter->HasInput() : _isStarted || Buffered() > 0; }
    /// Whether all that the next ReadPacket takes has already been read from the descriptor. The length of
    /// the packet stands in its first block, which this decrypts for that ReadPacket.
    ///
    /// REQUIRES: the next packet is under the keys of this moment.
    bool HasBufferedPacket();
    /// Whether ReadPacket would find input without a wait, be it the end of it or a part of a packet.
    bool HasInput() const { return HasBufferedInput() || _socketBuffer.HasInput(); }

    ISocketBuffer _socketBuffer;
    ISshBuffer _sshBuffer;
    ISockStreamAdapter _adapter;
    unsigned int _byteCount; ///< bytes of all packets without their MACs; flow control resets it

private:
    void StartPacket();
    unsigned int Buffered() const {
        return static_cast<unsigned int>(_socketBuffer._end - _socketBuffer._pos);
    }

    bool _isStarted = false;  ///< the first block has been taken
    unsigned int _length = 0; ///< of the packet that has been started

public:
    PacketFilter* _filter = nullptr; ///< what packets come from instead; not owned
};

} // namespace cindral

#endif

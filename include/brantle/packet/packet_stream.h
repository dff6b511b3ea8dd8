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
/// The cipher and the MAC belong to the session, may be constructed after the stream, and must outlive its
/// use. Bind the descriptor to `_socketBuffer` before the first packet; the caller still owns it. A wait for
/// the peer times out after 180 seconds. Not thread-safe: one thread, one packet at a time.
class BRANTLE_API OSshPacketStream {
public:
    OSshPacketStream(BlockCipher& cipher, Mac& mac);
    OSshPacketStream(OSshPacketStream const&) = delete;
    OSshPacketStream& operator=(OSshPacketStream const&) = delete;

    /// Frames, encrypts, authenticates and sends one packet, and flushes the socket buffer. Throws nothing if
    /// a layer below fails; such a packet is only left out of `_byteCount`.
    void WritePacket(Packet& packet) { WritePacket(packet, false); }
    /// The same; with `more`, another packet follows immediately and the kernel may delay this one until
    /// then; see OSocketBuffer::SetMoreToCome.
    void WritePacket(Packet& packet, bool more);

    /// The number of bytes that WritePacket would add to `_byteCount` for a packet. Encodes the packet.
    unsigned int SizeOf(Packet& packet);

    /// Writes the padding of the current packet: zero bytes with the cipher "none", random bytes with any
    /// other.
    void WritePadChars(unsigned int count);

    OSocketBuffer _socketBuffer;
    OSshBuffer _sshBuffer;
    OSockStreamAdapter _adapter;
    unsigned int _byteCount;         ///< bytes of all packets without their MACs; flow control resets it
    PacketFilter* _filter = nullptr; ///< what packets go through instead; not owned
};

/// Reads packets in the binary packet format of RFC 4253, section 6. Ownership and threads as for
/// OSshPacketStream.
class BRANTLE_API ISshPacketStream {
public:
    ISshPacketStream(BlockCipher& cipher, Mac& mac);
    ISshPacketStream(ISshPacketStream const&) = delete;
    ISshPacketStream& operator=(ISshPacketStream const&) = delete;

    /// Blocks until one packet has arrived and returns its padding length, payload and padding, in the form
    /// that PacketDecoder expects. Empty if the layer below fails while the MAC is read.
    ///
    /// Throws SshProtocolError: "packet length less than 2" (also when the connection has ended), "packet
    /// length exceeds maximum value" (above 0x40000 bytes), "invalid mac value".
    ByteString ReadPacket();

    /// Whether bytes of a further packet have already been read from the descriptor.
    bool HasBufferedInput() const { return _filter ? _filter->HasInput() : _isStarted || Buffered() > 0; }
    /// Whether everything that the next ReadPacket needs has already been read from the descriptor. The
    /// packet's length is in its first block, which this function decrypts in advance for that ReadPacket.
    ///
    /// REQUIRES: the next packet is encrypted with the current keys.
    bool HasBufferedPacket();
    /// Whether ReadPacket would find input without waiting, even if only end of file or part of a packet.
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

    bool _isStarted = false;  ///< the first block has been decrypted
    unsigned int _length = 0; ///< of the packet whose first block has been decrypted

public:
    PacketFilter* _filter = nullptr; ///< what packets come from instead; not owned
};

} // namespace cindral

#endif

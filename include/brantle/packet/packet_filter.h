#ifndef BRANTLE_PACKET_PACKET_FILTER_H
#define BRANTLE_PACKET_PACKET_FILTER_H

#include <brantle/export.h>
#include <brantle/packet/packet.h>
#include <brantle/thornel/byte_string.h>

namespace cindral {

/// What may replace the binary packet protocol (RFC 4253, section 6) of a session: both packet streams go
/// through the filter that is set in them, and then frame, encrypt and count nothing themselves. With none
/// set, the default, they work as their own contracts say.
///
/// The streams do not own the filter, which must outlive the last packet. Every operation is called on the
/// session's thread. What an operation throws passes through the stream to the caller of the session: an
/// SshProtocolError for a violation of the protocol or a connection that ends, a SystemError for one that is
/// lost. The session can only be destroyed after that.
class BRANTLE_API PacketFilter {
public:
    PacketFilter() = default;
    PacketFilter(PacketFilter const&) = delete;
    PacketFilter& operator=(PacketFilter const&) = delete;
    virtual ~PacketFilter();

    /// In place of ISshPacketStream::ReadPacket. Returns the next message for the session, in the form that
    /// ReadPacket returns it: a byte with the length of the padding, which may be 0, the payload, and the
    /// padding. Waits for it. Empty if the session channel has ended and no message will follow.
    virtual ByteString Read() = 0;
    /// In place of OSshPacketStream::WritePacket. The packet remains the caller's. With `more`, another
    /// message follows immediately, and this one may be kept until then; without, it is sent, or, while the
    /// loop runs, kept until the socket has room.
    virtual void Write(Packet& packet, bool more) = 0;
    /// In place of ISshPacketStream::HasBufferedInput: whether Read would return a message without blocking.
    virtual bool HasInput() = 0;
};

} // namespace cindral

#endif

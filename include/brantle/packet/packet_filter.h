#ifndef BRANTLE_PACKET_PACKET_FILTER_H
#define BRANTLE_PACKET_PACKET_FILTER_H

#include <brantle/export.h>
#include <brantle/packet/packet.h>
#include <brantle/thornel/byte_string.h>

namespace cindral {

/// Replaces a session's framing: both packet streams go through the filter that is set in them, and then
/// frame, encrypt and count nothing themselves.
class BRANTLE_API PacketFilter {
public:
    PacketFilter() = default;
    PacketFilter(PacketFilter const&) = delete;
    PacketFilter& operator=(PacketFilter const&) = delete;
    virtual ~PacketFilter();

    /// In place of ISshPacketStream::ReadPacket: the next message, in the form that returns it. Empty where
    /// the channel has ended.
    virtual ByteString Read() = 0;
    /// In place of OSshPacketStream::WritePacket. With `more`, another message follows at once.
    virtual void Write(Packet& packet, bool more) = 0;
    /// In place of ISshPacketStream::HasBufferedInput: whether Read would return a message without blocking.
    virtual bool HasInput() = 0;
};

} // namespace cindral

#endif

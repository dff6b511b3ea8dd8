#include <brantle/channel/window_adjust.h>

#include <brantle/packet/channel_messages.h>

namespace cindral {

void CheckForWindowAdjust(unsigned int& byteCount, unsigned int windowSize, unsigned int remoteId,
                          OSshPacketStream& out) {
    if (windowSize - byteCount >= windowSize / 3) return;
    PacketChannelWindowAdjust adjust(remoteId, byteCount);
    out.WritePacket(adjust);
    byteCount = 0;
}

} // namespace cindral

#include <brantle/channel/window_adjust.h>

#include <brantle/packet/channel_messages.h>

namespace cindral {

bool IsWindowAdjustDue(unsigned int byteCount, unsigned int windowSize) {
    return windowSize - byteCount < windowSize / 3;
}

void CheckForWindowAdjust(unsigned int& byteCount, unsigned int windowSize, unsigned int remoteId,
                          OSshPacketStream& out, bool more) {
    if (!IsWindowAdjustDue(byteCount, windowSize)) return;
    PacketChannelWindowAdjust adjust(remoteId, byteCount);
    out.WritePacket(adjust, more);
    byteCount = 0;
}

} // namespace cindral

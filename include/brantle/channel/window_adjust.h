#ifndef BRANTLE_CHANNEL_WINDOW_ADJUST_H
#define BRANTLE_CHANNEL_WINDOW_ADJUST_H

#include <brantle/export.h>
#include <brantle/packet/packet_stream.h>

namespace cindral {

/// The flow rule of the connection, for one of its two byte counts: whether less than a third of `windowSize`
/// is left above `byteCount`. The difference is unsigned, so the result is false if the count exceeds the
/// window.
BRANTLE_API bool IsWindowAdjustDue(unsigned int byteCount, unsigned int windowSize);

/// If an adjustment is due, grants the peer `byteCount` bytes on channel `remoteId` by a WINDOW_ADJUST on
/// `out`, and sets `byteCount` to 0. With `more`, another packet follows immediately, as in WritePacket.
BRANTLE_API void CheckForWindowAdjust(unsigned int& byteCount, unsigned int windowSize, unsigned int remoteId,
                                      OSshPacketStream& out, bool more = false);

} // namespace cindral

#endif

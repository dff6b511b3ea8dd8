#ifndef BRANTLE_CHANNEL_WINDOW_ADJUST_H
#define BRANTLE_CHANNEL_WINDOW_ADJUST_H

#include <brantle/export.h>
#include <brantle/packet/packet_stream.h>

namespace cindral {

/// The flow rule of the connection, for one of its two byte counts: once less than a third of
/// `windowSize` is left above `byteCount`, grants the peer `byteCount` bytes on channel `remoteId`
/// by a WINDOW_ADJUST on `out`, and sets `byteCount` to 0. The difference is unsigned: a count
/// beyond the window never triggers it.
BRANTLE_API void CheckForWindowAdjust(unsigned int& byteCount, unsigned int windowSize, unsigned int remoteId,
                                      OSshPacketStream& out);

} // namespace cindral

#endif

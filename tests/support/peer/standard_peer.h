#ifndef TESTS_SUPPORT_PEER_STANDARD_PEER_H
#define TESTS_SUPPORT_PEER_STANDARD_PEER_H

#include "support/peer/peer_server.h"
#include "support/peer/standard_connection.h"

namespace peer {

/// An SSH server of today that follows a script: what ScriptedPeer is for the reduced dialect.
///
///     StandardPeer server([](StandardConnection& c) {
///         c.WellBehaved(Stage::Opened);
///         c.ReadChannelRequest();
///         c.SendPacket(Writer().U8(CHANNEL_DATA).U32(7).String("out of the blue"));
///         c.ReadToTheEnd();
///     });
using StandardPeer = PeerServer<StandardConnection>;

} // namespace peer

#endif

#ifndef TESTS_SUPPORT_PEER_SCRIPTED_PEER_H
#define TESTS_SUPPORT_PEER_SCRIPTED_PEER_H

#include "support/peer/connection.h"
#include "support/peer/peer_server.h"

namespace peer {

/// An SSH server that follows a script, for tests of clients.
///
/// It listens on an ephemeral port of 127.0.0.1 (::1 if the settings say so) and runs the script once for
/// every connection it accepts, each in a thread of its own. The well-behaved server is one line, and a
/// misbehaving one a few more:
///
///     ScriptedPeer server([](Connection& c) {
///         c.WellBehaved(Stage::NewKeys);              // identification, KEXINIT, group exchange, NEWKEYS
///         c.ExpectPacket(SERVICE_REQUEST);
///         c.SendPacket(Writer().U8(SERVICE_ACCEPT).String("ssh-userauth").U8(0));   // one byte too many
///         c.ExpectClosed();
///     });
///     ... a client connects to server.Port() and does its part, then is destroyed ...
///     server.Finish();                                // throws what went wrong in a script
///     EXPECT_EQ(server.At(0).received[3].sequence, 3u);
///
/// Stages of `WellBehaved`: Identified, KexInitExchanged, NewKeys, Service, Authenticated, Opened. Each is a
/// row of steps that a script can call one by one, leave out or replace:
///   Identify; SendKexInit, ReceiveKexInit; Negotiate, ReceiveGroupRequest, SendGroup, ReceiveGroupInit,
///   SendGroupReply(MakeGroupReply()); SendNewKeys, ReceiveNewKeys; ServiceAccept; Authenticate (or
///   ReadAuthRequest with SendAuthFailure, SendAuthSuccess, SendPkOk, SendInfoRequest, ReadInfoResponse);
///   ConfirmOpen (or ReadChannelOpen with SendOpenConfirmation, SendOpenFailure).
/// After that: ReadChannelRequest, SendData, SendExtendedData, SendEof, SendClose, SendExitStatus,
/// SendExitSignal, SendWindowAdjust, SendDisconnect, SendIgnore, SendDebug.
/// Beneath: SendLine, ReadLine, SendRaw, SendPacket(payload, SendOptions), SendTogether, ReadPacket,
/// ExpectPacket(type) -> Reader, ExpectClosed, ReadUntilClosed.
///
/// `settings` (given to the peer, or changed in the script) pins algorithms
/// (`settings.kexInit.Pin("aes256-ctr", "hmac-sha1")`), the version line, host key, group, key form,
/// accounts and channel numbers. By default the lists hold every algorithm, in an order that is the
/// reverse of the sensible one, so that the client's preference shows.
///
/// SendOptions falsify packet_length and padding_length, set the padding bytes, damage or shorten the MAC.
/// `c.tamper` changes packets as they are sent, ahead of MAC and encryption.
/// `c.Wire().faults` acts on the whole stream: cutAfterSent and cutAfterReceived close after that many
/// bytes (with a reset if wanted), flipSent changes the n-th byte sent, segment and delay slow it down. A
/// cut ends the script without being a failure.
///
/// Everything is kept for comparison: `received` and `sent` (PacketRecord: sequence, lengths, payload,
/// padding, plain bytes, bytes on the wire, MAC), the raw streams `Wire().Received()` and `Wire().Sent()`,
/// and `kex` (versions, KEXINIT payloads, group request, p, g, e, f, K, H, the six keys). For bulk data
/// set `Wire().recording = false`.
///
/// No two peers of a process listen on the same port, as a client remembers the host key of each.
/// `Wire().waitLimit` shortens the waits of one connection.
///
/// When a script ends, well or not, the peer closes its sending side and drops what the client still
/// sends. No wait lasts longer than Link::timeLimit.
using ScriptedPeer = PeerServer<Connection>;

} // namespace peer

#endif

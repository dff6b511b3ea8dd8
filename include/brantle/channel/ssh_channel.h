#ifndef BRANTLE_CHANNEL_SSH_CHANNEL_H
#define BRANTLE_CHANNEL_SSH_CHANNEL_H

#include <brantle/export.h>
#include <brantle/packet/packet_stream.h>
#include <brantle/thornel/sock_stream.h>
#include <brantle/thornel/string_t.h>

namespace cindral {

class SshChannelRef;

/// One channel of the connection protocol (RFC 4254, section 5), attached to up to three descriptors.
///
/// Flow control departs from RFC 4254, section 5.2: it counts all packets of the connection in each
/// direction, grants the peer more window as soon as two thirds of the local window have been used, in either
/// direction, and never waits for window from the peer.
///
/// The packet streams belong to the session and must outlive the channel, which does not close its
/// descriptors. A channel belongs to the thread that runs its session.
class BRANTLE_API SshChannel {
public:
    /// Constructs a channel with no channel numbers, descriptors or streams.
    SshChannel();

    /// `localId` and `remoteId` are the channel's number at this side and at the peer; `windowSize` is in
    /// bytes. Data from `fdIn` goes to the peer; data from the peer goes to `fdOut`.
    SshChannel(unsigned int localId, unsigned int remoteId, String_t const& name, unsigned int windowSize,
               int fdIn, int fdOut, int fdErr, ISshPacketStream* in, OSshPacketStream* out);
    SshChannel(SshChannel const&) = delete;
    SshChannel& operator=(SshChannel const&) = delete;
    virtual ~SshChannel();

    /// Sends `n` bytes to the peer as one CHANNEL_DATA, regardless of its window; blocks until written. Does
    /// nothing on a channel without an output stream.
    virtual void ForwardToSshd(char const* data, unsigned int n);

    /// Buffers `n` bytes received from the peer for `_fdOut` until Flush.
    virtual void Forward(char const* data, unsigned int n);

    /// Writes `n` bytes of extended data from the peer to `_fdErr` immediately.
    virtual void ForwardExtended(char const* data, unsigned int n);

    /// Writes out what Forward has buffered.
    virtual void Flush();

    /// Sends a WINDOW_ADJUST if the bytes read (written) on the connection have used up two thirds
    /// of the window, and restarts the count. If the count exceeds the whole window, nothing is sent.
    void CheckForInWindowAdjust();
    void CheckForOutWindowAdjust();

    unsigned int _localId;
    unsigned int _remoteId; ///< recipient channel of every message sent for it
    String_t _name;
    unsigned int _windowSize;
    int _fdIn;
    int _fdOut;
    int _fdErr;
    int _eofSent; ///< non-zero once CHANNEL_EOF has been sent
    ISshPacketStream* _in;
    OSshPacketStream* _out;
    OSockStream _outStream; ///< on `_fdOut`
    OSockStream _errStream; ///< on `_fdErr`

private:
    friend class SshChannelRef;

    SshChannelRef* _references = nullptr; ///< head of the list of references to this channel
};

} // namespace cindral

#endif

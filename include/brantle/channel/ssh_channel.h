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
/// direction, grants the peer a further window as soon as two thirds of the channel's own have
/// passed, in either direction, and never waits for a window of the peer's.
///
/// The packet streams belong to the session and must outlive the channel; descriptors are not
/// closed. A channel belongs to the thread that runs its session.
class BRANTLE_API SshChannel {
public:
    /// A channel without numbers, descriptors and streams.
    SshChannel();

    /// `localId` and `remoteId` are this side's and the peer's number of the channel, `windowSize`
    /// is in bytes. Data from `fdIn` goes to the peer; data of the peer goes to `fdOut`.
    SshChannel(unsigned int localId, unsigned int remoteId, String_t const& name, unsigned int windowSize,
               int fdIn, int fdOut, int fdErr, ISshPacketStream* in, OSshPacketStream* out);
    SshChannel(SshChannel const&) = delete;
    SshChannel& operator=(SshChannel const&) = delete;
    virtual ~SshChannel();

    /// Sends `n` bytes to the peer as one CHANNEL_DATA, whatever its window; blocks until written.
    /// Does nothing on a channel without an output stream.
    virtual void ForwardToSshd(char const* data, unsigned int n);

    /// Takes `n` bytes of the peer's for `_fdOut`. They are buffered until Flush.
    virtual void Forward(char const* data, unsigned int n);

    /// Writes `n` bytes of the peer's extended data to `_fdErr` at once.
    virtual void ForwardExtended(char const* data, unsigned int n);

    /// Writes out what Forward has buffered.
    virtual void Flush();

    /// Sends a WINDOW_ADJUST if the bytes read (written) on the connection have used up two thirds
    /// of the window, and starts counting again. A count beyond the whole window sends nothing.
    void CheckForInWindowAdjust();
    void CheckForOutWindowAdjust();

    unsigned int _localId;
    unsigned int _remoteId; ///< recipient number of every message for this channel
    String_t _name;
    unsigned int _windowSize;
    int _fdIn;
    int _fdOut;
    int _fdErr;
    int _eofSent; ///< non-zero once CHANNEL_EOF has gone out
    ISshPacketStream* _in;
    OSshPacketStream* _out;
    OSockStream _outStream; ///< on `_fdOut`
    OSockStream _errStream; ///< on `_fdErr`

private:
    friend class SshChannelRef;

    SshChannelRef* _references = nullptr; ///< the first of the list
};

} // namespace cindral

#endif

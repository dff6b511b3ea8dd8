#ifndef BRANTLE_CHANNEL_SSH_DATA_STREAM_H
#define BRANTLE_CHANNEL_SSH_DATA_STREAM_H

#include <brantle/export.h>
#include <brantle/packet/packet_stream.h>
#include <brantle/thornel/byte_string.h>
#include <brantle/thornel/sock_stream.h>

namespace cindral {

// The session channel as a pair of blocking byte streams, for use without the event loop. Neither stream has
// a descriptor: Bind and Unbind are not useful here. The packet streams and the window belong to the session
// and must outlive the data streams, which may be constructed before the channel is open and used once it is.
// Both streams of a session must be used on one thread, because the input stream writes too.

/// Sends what is written in CHANNEL_DATA messages (RFC 4254, section 5.2) of at most MAX_DATA bytes each,
/// once that many are buffered or Flush is called. A request-reply protocol therefore has to flush after each
/// request.
///
/// It never waits for window from the peer. Bytes sent count towards the window that CheckForWindowAdjust
/// grants to the peer.
class BRANTLE_API OSshDataStream : public OSockStream {
public:
    /// Maximum number of data bytes in one message.
    static constexpr unsigned int MAX_DATA = BUFFER_SIZE - 48;

    /// `remoteChannel` is the recipient number of every message; `windowSize`, in bytes, is read again at
    /// each check.
    OSshDataStream(OSshPacketStream& out, unsigned int remoteChannel, unsigned int const& windowSize);
    /// Flushes. An Except thrown by that is ignored.
    ///
    /// By then, a derived class's override of Flush() can no longer be called: such a class has to flush in
    /// its own destructor.
    ~OSshDataStream() override;

    /// Sends what is buffered as one message, and blocks until it is written. Returns the number of bytes. If
    /// WritePacket throws, the exception is passed on and the bytes stay in the buffer.
    ///
    /// In the middle of a Write or Put, the packet is written with `more`: without TCP_NODELAY, the end of a
    /// request would otherwise wait for the acknowledgement of the data before it.
    int Flush() override;

    /// Sends a WINDOW_ADJUST when the bytes written on the connection have used up two thirds of the window,
    /// and starts counting again.
    void CheckForWindowAdjust();

    OSshPacketStream& _out;
    unsigned int _remoteChannel;
    unsigned int const& _windowSize;
};

/// Reads the data of the peer's CHANNEL_DATA messages, regardless of their channel number.
///
/// There is no end of file: the protocol on the channel has to define where its data ends. WINDOW_ADJUST and
/// channel requests, "exit-status" among them, are skipped; on any other message, CHANNEL_EOF and
/// CHANNEL_CLOSE included, the read throws the SshProtocolError of PacketChannelData. Exceptions of
/// ReadPacket are passed on as well. The destructor discards what has not been read.
class BRANTLE_API ISshDataStream : public ISockStream {
public:
    /// As for OSshDataStream; WINDOW_ADJUST messages are sent through `out`. The stream is not tied.
    ISshDataStream(ISshPacketStream& in, OSshPacketStream& out, unsigned int remoteChannel,
                   unsigned int const& windowSize);
    ~ISshDataStream() override;

    /// Refills the buffer, discarding its contents, from the last message or, if that is used up, from the
    /// next one that has data. Returns the number of bytes, or 0 if the packet stream has ended within a
    /// packet's MAC.
    int Fill() override;

    /// As in OSshDataStream, for the bytes read on the connection. The message is sent together with the next
    /// one, or before a read that has to wait.
    void CheckForWindowAdjust();

    ISshPacketStream& _in;
    OSshPacketStream& _out;
    unsigned int _remoteChannel;
    ByteString _pending; ///< rest of the last message
    unsigned int const& _windowSize;

protected:
    /// Copies a range as large as the buffer directly from the message, except in a derived class, where
    /// every byte comes from its Fill().
    int Fetch(char* begin, char* end) override;

private:
    unsigned int Take(char* to, unsigned int room);
    ByteString ReceivePacket();
};

} // namespace cindral

#endif

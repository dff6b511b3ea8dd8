#ifndef BRANTLE_CHANNEL_SSH_DATA_STREAM_H
#define BRANTLE_CHANNEL_SSH_DATA_STREAM_H

#include <brantle/export.h>
#include <brantle/packet/packet_stream.h>
#include <brantle/thornel/byte_string.h>
#include <brantle/thornel/sock_stream.h>

namespace cindral {

// The session channel as a pair of blocking byte streams, for work that runs without the event loop. Neither
// stream has a descriptor: Bind and Unbind are of no use here. The packet streams and the window belong to
// the session and must outlive the data streams, which may be built before the channel is open and used once
// it is. Both streams of a session belong to one thread, as the input stream writes too.

/// Sends what is written as CHANNEL_DATA (RFC 4254, section 5.2), each of at most MAX_DATA bytes, once
/// that many are buffered or Flush is called. So a protocol of requests flushes after each one.
///
/// Windows of the peer's are not waited for; what has been sent is granted to the peer by the rule of
/// CheckForWindowAdjust.
class BRANTLE_API OSshDataStream : public OSockStream {
public:
    /// Most bytes in one message.
    static constexpr unsigned int MAX_DATA = BUFFER_SIZE - 48;

    /// `remoteChannel` is the recipient number of every message, `windowSize` in bytes is looked up again
    /// on each check.
    OSshDataStream(OSshPacketStream& out, unsigned int remoteChannel, unsigned int const& windowSize);
    /// Flushes. What goes wrong with it, as an Except, is dropped.
    ///
    /// A class that overrides Flush() is gone by then: it flushes in its own destructor.
    ~OSshDataStream() override;

    /// Sends what is buffered as one message, and blocks until it is written. Returns the number of bytes.
    /// What WritePacket throws passes through, and the bytes stay.
    ///
    /// In the middle of a Write or Put the message is handed over as a packet that another one follows:
    /// without TCP_NODELAY the end of a request would else wait for the acknowledgement of what went before.
    int Flush() override;

    /// Sends a WINDOW_ADJUST when the bytes written on the connection have used up two thirds of the window,
    /// and starts counting again.
    void CheckForWindowAdjust();

    OSshPacketStream& _out;
    unsigned int _remoteChannel;
    unsigned int const& _windowSize;
};

/// Reads the data of the peer's CHANNEL_DATA messages, whatever channel number they carry.
///
/// There is no end of file: the protocol on the channel says where its data ends. WINDOW_ADJUST and channel
/// requests, "exit-status" among them, are skipped; any other message, CHANNEL_EOF and CHANNEL_CLOSE
/// too, leaves a read as the SshProtocolError of PacketChannelData. What ReadPacket throws passes through as
/// well. The destructor drops what has not been read.
class BRANTLE_API ISshDataStream : public ISockStream {
public:
    /// As for OSshDataStream; `out` takes the window adjustments. The stream is not tied.
    ISshDataStream(ISshPacketStream& in, OSshPacketStream& out, unsigned int remoteChannel,
                   unsigned int const& windowSize);
    ~ISshDataStream() override;

    /// Fills the buffer, whatever it holds, from the last message or else from the next one that has data.
    /// Returns the number of bytes, 0 if the packet stream has ended within a packet's MAC.
    int Fill() override;

    /// As in OSshDataStream, for the bytes read on the connection. The message leaves with the next one, or
    /// before a read that has to wait.
    void CheckForWindowAdjust();

    ISshPacketStream& _in;
    OSshPacketStream& _out;
    unsigned int _remoteChannel;
    ByteString _pending; ///< rest of the last message
    unsigned int const& _windowSize;

protected:
    /// Takes a range as large as the buffer straight from the message, except in a derived class: its Fill()
    /// gives every byte.
    int Fetch(char* begin, char* end) override;

private:
    unsigned int Take(char* to, unsigned int room);
    ByteString ReceivePacket();
};

} // namespace cindral

#endif

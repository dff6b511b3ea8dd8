#ifndef BRANTLE_STANDARD_TRANSPORT_H
#define BRANTLE_STANDARD_TRANSPORT_H

#include <poll.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

#include "foundations/thornel/deadline.h"
#include "standard/bytes.h"
#include "standard/packet_cipher.h"

namespace cindral::standard {

/// The binary packet protocol of RFC 4253, section 6, on a connected socket: framing, padding, sequence
/// numbers, and the buffers of both directions. It does not know the meaning of messages.
///
/// Packets are sealed and opened in place, so that a message's bytes are copied once on their way to the
/// socket and not at all on their way from it. The descriptor stays the caller's.
class Transport {
public:
    /// How long the peer may keep this side waiting.
    static constexpr std::chrono::seconds TIME_LIMIT{180};

    Transport();
    ~Transport();
    Transport(Transport const&) = delete;
    Transport& operator=(Transport const&) = delete;

    void Attach(int fd) { _fd = fd; }
    int Fd() const { return _fd; }

    // --- output

    /// Returns room for a message of at most `size` bytes in the output buffer; the caller fills it in and
    /// calls End().
    unsigned char* Begin(std::size_t size);
    /// Makes a packet of the message, which has `size` bytes, at most as many as requested. A size of 0 drops
    /// it.
    void End(std::size_t size);
    /// Begin() and End() in one call.
    void Send(View message);

    /// Writes what the socket accepts without blocking. If the connection has failed, drops the rest, and
    /// throws SystemError, unless the server has reset it: Fill() does that, after what it has sent before.
    void Flush();
    /// The same, but blocks until all is written. Throws SshProtocolError at the deadline.
    void FlushAll(Deadline const& deadline);
    /// Waits until the socket is writable. False at the deadline.
    bool WaitForOutput(Deadline const& deadline) const { return WaitFor(POLLOUT, deadline); }
    /// Writes the identification line unchanged. Returns 0 or a negated errno value.
    int SendLine(std::string const& line, Deadline const& deadline);
    /// Bytes of packets that have not been written yet.
    std::size_t PendingOutput() const { return _outEnd - _outPos; }

    // --- input

    /// Finds the next message in what has been read. False if there is no whole packet. The view is valid
    /// until the next call of Next() or Fill(). Throws SshProtocolError for a packet that is malformed or
    /// forged.
    bool Next(View& message);
    /// Whether Next() would find a message, or throw.
    bool HasPacket();
    /// Reads what the socket has, in one call and without blocking. Returns the number of bytes, 0 if there
    /// are none now. Throws SshProtocolError at the end of the connection, SystemError if it has failed.
    std::size_t Fill();
    /// Waits until there is input to Fill(). False at the deadline.
    bool WaitForInput(Deadline const& deadline) const { return WaitFor(POLLIN, deadline); }

    /// Waits until there is input, or the socket is writable. False at the deadline.
    bool WaitForEither(Deadline const& deadline) const { return WaitFor(POLLIN | POLLOUT, deadline); }

    /// The next line before the first packet (RFC 4253, section 4.2), without its line feed, if it is
    /// complete. Its bytes are then consumed.
    bool NextLine(std::string& line, std::size_t limit);

    // --- keys

    /// From the next packet on. With `reset`, the direction's sequence number restarts at 0.
    void SetOutputKeys(std::unique_ptr<PacketSealer> sealer, bool reset);
    void SetInputKeys(std::unique_ptr<PacketOpener> opener, bool reset);

    /// The traffic since the last keys were set, in the direction that had more of it.
    unsigned long long BytesSinceKeys() const;
    unsigned long long PacketsSinceKeys() const;
    /// Sequence number of the packet that Next() returned last.
    unsigned int InputSequence() const { return _inSequence - 1; }
    /// Sequence number of the next packet that is sent.
    unsigned int OutputSequence() const { return _outSequence; }

private:
    struct Traffic {
        unsigned long long bytes = 0;
        unsigned long long packets = 0;
    };

    void MakeRoom(std::size_t size);
    bool WaitFor(short events, Deadline const& deadline) const;
    void Pad(unsigned char* padding, std::size_t size);
    std::size_t Receive(std::size_t size);
    bool ReadLength();

    int _fd = -1;

    Bytes _out; ///< [_outPos, _outEnd) is sealed and not yet written
    std::size_t _outPos = 0;
    std::size_t _outEnd = 0;
    int _outError = 0; ///< errno value; the server has reset the connection
    std::unique_ptr<PacketSealer> _sealer;
    unsigned int _outSequence = 0;
    Traffic _sent;
    unsigned char _random[512]; ///< for padding; each byte is used once
    std::size_t _randomLeft = 0;

    Bytes _in; ///< [_inPos, _inEnd) has been read but not consumed
    std::size_t _inPos = 0;
    std::size_t _inEnd = 0;
    std::size_t _packetLength =
        0; ///< of the packet at _inPos, with its length field and tag; 0: not known yet
    std::unique_ptr<PacketOpener> _opener;
    unsigned int _inSequence = 0;
    Traffic _received;
};

} // namespace cindral::standard

#endif

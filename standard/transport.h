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
/// numbers, and the buffers of both directions. It knows nothing of what messages mean.
///
/// Packets are sealed and opened where they lie, so that a message's bytes are written once on their way to
/// the socket and not at all on their way from it. The descriptor stays the caller's.
class Transport {
public:
    /// How long a peer may keep this side waiting.
    static constexpr std::chrono::seconds TIME_LIMIT{180};

    Transport();
    ~Transport();
    Transport(Transport const&) = delete;
    Transport& operator=(Transport const&) = delete;

    void Attach(int fd) { _fd = fd; }
    int Fd() const { return _fd; }

    // --- output

    /// Room for a message of at most `size` bytes in the output buffer, to be filled in and ended by End().
    unsigned char* Begin(std::size_t size);
    /// Makes a packet of the message begun, which has turned out `size` bytes long, possibly fewer than asked
    /// for. A size of 0 drops it.
    void End(std::size_t size);
    /// Both at once.
    void Send(View message);

    /// Writes what the socket takes without a wait. Throws SystemError if the connection has failed.
    void Flush();
    /// The same, waiting until all is written. Throws SshProtocolError when the server takes nothing for
    /// TIME_LIMIT.
    void FlushAll();
    /// Waits until the socket takes bytes again. False at the deadline.
    bool WaitForOutput(Deadline const& deadline) const { return WaitFor(POLLOUT, deadline); }
    /// Writes the line that a connection begins with, as it is. Returns 0 or a negated errno value.
    int SendLine(std::string const& line, Deadline const& deadline);
    /// Bytes of packets that have not been written yet.
    std::size_t PendingOutput() const { return _outEnd - _outPos; }

    // --- input

    /// Finds the next message in what has been read. False if no whole packet is there. The view is good
    /// until the next call of Next() or Fill(). Throws SshProtocolError for a packet that is malformed or
    /// forged.
    bool Next(View& message);
    /// Whether Next() would find a message, or throw.
    bool HasPacket();
    /// Reads what the socket has, in one go and without a wait. Returns the number of bytes, 0 if there is
    /// nothing now. Throws SshProtocolError at the end of the connection, SystemError if it has failed.
    std::size_t Fill();
    /// Waits until there is input to Fill(). False at the deadline.
    bool WaitForInput(Deadline const& deadline) const { return WaitFor(POLLIN, deadline); }

    /// Waits until there is input, or the socket takes output. False at the deadline.
    bool WaitForEither(Deadline const& deadline) const { return WaitFor(POLLIN | POLLOUT, deadline); }

    /// The line that a connection begins with (RFC 4253, section 4.2), up to and without its line feed, if it
    /// is whole. Its bytes are then consumed.
    bool NextLine(std::string& line, std::size_t limit);

    // --- keys

    /// From the next packet on. With `reset` the direction's sequence number begins at 0 again.
    void SetOutputKeys(std::unique_ptr<PacketSealer> sealer, bool reset);
    void SetInputKeys(std::unique_ptr<PacketOpener> opener, bool reset);

    /// What has passed since the last keys were set, in the direction that had more of it.
    unsigned long long BytesSinceKeys() const;
    unsigned long long PacketsSinceKeys() const;
    /// Number of the packet that Next() returned last.
    unsigned int InputSequence() const { return _inSequence - 1; }

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

    Bytes _out; ///< [_outPos, _outEnd) is sealed and waits for the socket
    std::size_t _outPos = 0;
    std::size_t _outEnd = 0;
    std::unique_ptr<PacketSealer> _sealer;
    unsigned int _outSequence = 0;
    Traffic _sent;
    unsigned char _random[512]; ///< for padding; each byte is used once
    std::size_t _randomLeft = 0;

    Bytes _in; ///< [_inPos, _inEnd) has been read and not been taken
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

#ifndef TESTS_SUPPORT_PEER_LINK_H
#define TESTS_SUPPORT_PEER_LINK_H

#include <chrono>
#include <cstddef>
#include <optional>

#include "support/peer/wire.h"

namespace peer {

/// The connection has ended under a read: end of stream, or a reset.
class Closed : public PeerError {
public:
    using PeerError::PeerError;
};

/// A fault asked for has cut the connection; the script ends here, and that is no failure.
class Cut : public PeerError {
public:
    using PeerError::PeerError;
};

/// What may be done to the byte streams of one connection. Positions count from the connection's first byte.
struct Faults {
    std::optional<std::size_t> cutAfterSent;     ///< close once this many bytes have been sent
    std::optional<std::size_t> cutAfterReceived; ///< close once this many bytes have been taken
    bool reset = false;                          ///< cut with a TCP reset instead of an end of stream
    std::optional<std::size_t> flipSent;         ///< index of a byte to be changed on the way out
    std::uint8_t flipMask = 0x01;
    std::size_t segment = 0;            ///< bytes of one write; 0 sends everything at once
    std::chrono::milliseconds delay{0}; ///< pause before each write
};

/// The socket of one connection, with counted and recorded bytes in both directions. Every wait ends after
/// `waitLimit`, or at once when the test gives up (readable `abortFd`).
class Link {
public:
    static constexpr std::chrono::seconds timeLimit{30};

    /// Owns fd; abortFd belongs to the caller.
    Link(int fd, int abortFd);
    ~Link();
    Link(Link const&) = delete;
    Link& operator=(Link const&) = delete;

    Faults faults;
    std::chrono::milliseconds waitLimit = timeLimit;
    bool recording = true; ///< keep the raw streams; to be switched off for bulk data

    /// Performs a cut at position 0, if one is asked for.
    void Begin();
    void Send(Bytes const& bytes);
    /// Exactly count bytes. Throws Closed if the stream ends before.
    Bytes Receive(std::size_t count);
    /// Like Receive, but gives what has come when the stream ends.
    Bytes ReceiveUpTo(std::size_t count);
    /// From now on so many bytes wait to be taken, and little more.
    void LimitReceiving(int bytes);
    /// Waits until a byte can be taken or the stream has ended.
    bool WaitReadable(std::chrono::milliseconds limit);

    /// End of stream towards the client; what the client sends can still be read.
    void ShutdownWrite();
    /// Ends with a TCP reset.
    void Reset();
    /// Reads and drops until the client has closed, or until stopFd is readable.
    void DrainUntil(int stopFd);

    std::size_t SentCount() const { return _sentCount; }
    std::size_t ReceivedCount() const { return _receivedCount; }
    Bytes const& Sent() const { return _sent; }
    Bytes const& Received() const { return _received; }
    /// Bytes that DrainUntil has dropped.
    std::size_t DroppedCount() const { return _droppedCount; }

private:
    void WaitFor(short events, char const* what);
    void SendPiece(Bytes const& piece);
    [[noreturn]] void CutNow();

    int _fd;
    int _abortFd;
    bool _writeShut = false;
    std::size_t _sentCount = 0;
    std::size_t _receivedCount = 0;
    std::size_t _droppedCount = 0;
    Bytes _sent;
    Bytes _received;
};

} // namespace peer

#endif

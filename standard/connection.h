#ifndef BRANTLE_STANDARD_CONNECTION_H
#define BRANTLE_STANDARD_CONNECTION_H

#include <chrono>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "standard/key_exchange.h"
#include "standard/message_port.h"
#include "standard/transport.h"

namespace cindral::standard {

/// When keys are renewed.
struct RekeyLimit {
    unsigned long long bytes = 1ull << 30;
    unsigned int seconds = 3600;             ///< 0: no limit
    unsigned long long packets = 1ull << 31; ///< RFC 4344, section 3.1
};

/// The transport layer of one connection (RFC 4253): identification, key exchanges whenever either side wants
/// one, and the messages that the layers above need not see.
///
/// It works in two ways. Receive() and Send() block on the caller's thread. In a loop, Fill() and Next()
/// return what has arrived, and Post() and Flush() write what the socket accepts; none of these block.
class Connection : public MessagePort {
public:
    /// The references must outlive the object.
    Connection(Offer const& offer, HostKeyCheck& hostKeys, RekeyLimit const& limit);

    /// Takes the connected socket, which stays the caller's, and exchanges identification lines before the
    /// deadline (RFC 4253, section 4.2): lines before the server's are skipped. `client` is the client's line
    /// without its line end. Returns 0 or a negated errno value, with the reason in `reason`.
    int Identify(int fd, Deadline const& deadline, std::string const& client, std::string& server,
                 std::string& reason);
    /// Runs the first key exchange, within Transport::TIME_LIMIT. May also throw Declined.
    void ExchangeKeys();

    void Send(View message) override;
    /// The server has Transport::TIME_LIMIT from the last Send() on, whatever else it sends meanwhile.
    View Receive() override;

    /// Sends a message as soon as a key exchange in progress permits, without blocking. The sequence number
    /// of its packet is then stored in `sequence`, which must exist until then, if it is not null.
    void Post(View message, std::optional<unsigned int>* sequence = nullptr);
    /// Returns room for a message that the caller writes in place; EndPost() completes it.
    /// REQUIRES: MayPost().
    unsigned char* BeginPost(std::size_t size) { return _transport.Begin(size); }
    void EndPost(std::size_t size) { _transport.End(size); }
    /// Whether a message would be sent at once: no key exchange is in progress, and little output is pending.
    bool MayPost() const { return _exchange.MaySend() && _transport.PendingOutput() < MAX_PENDING; }
    /// Writes what the socket accepts. Starts a key exchange when one is due.
    void Flush();
    /// Writes what the socket accepts, when the server is not needed any more. Throws nothing.
    void FlushRest() noexcept;
    bool HasPendingOutput() const { return PendingOutput() > 0; }
    std::size_t PendingOutput() const { return _transport.PendingOutput(); }

    /// Reads what has arrived, unless there are packets for Next().
    void Fill();
    /// The next message for the layers above, from what has been read; false if there is none.
    bool Next(View& message);
    /// Whether there are packets for Next().
    bool HasPacket() { return _transport.HasPacket(); }
    /// Waits until the server has taken some of the pending output, if there is any, or has sent more. Throws
    /// SshProtocolError if it does neither for longer than Transport::TIME_LIMIT.
    void WaitAndFill() { WaitAndFill(Deadline(Transport::TIME_LIMIT)); }
    /// The same with a deadline, which may have passed.
    void WaitAndFill(Deadline const& deadline);

    /// Answers the message that Next() or Receive() returned last with UNIMPLEMENTED (RFC 4253, section
    /// 11.4).
    void PostUnimplemented();
    /// Sends DISCONNECT and writes what the socket accepts. Throws nothing.
    void Disconnect(int reason, std::string const& text) noexcept;

    int Fd() const { return _transport.Fd(); }
    KeyExchange const& Exchange() const { return _exchange; }
    /// The signature algorithms that the server accepts (RFC 8308, section 3.1); empty if it has not sent
    /// them.
    std::string const& ServerSignatureAlgorithms() const { return _serverSigAlgs; }

private:
    using Clock = std::chrono::steady_clock;

    /// A message that waits for the end of a key exchange.
    struct Held {
        Bytes message;
        std::optional<unsigned int>* sequence;
    };

    bool NextOfStep(View& message);
    bool TakeTransportMessage(View message);
    void TakeExchangeMessage(View message);
    void TakeExtensions(View message);
    void SendNow(View message, std::optional<unsigned int>* sequence);
    void PostHeld();
    bool IsRekeyDue() const;

    static constexpr std::size_t MAX_PENDING = 0x40000;

    RekeyLimit const& _limit;
    Transport _transport;
    KeyExchange _exchange;
    Clock::time_point _keysSince;
    unsigned int _exchangesSeen = 0;
    std::vector<Held> _held;
    std::deque<Bytes> _early; ///< messages for Receive() that came while Send() waited
    Bytes _received;          ///< the last one of them
    Deadline _answerBy{Transport::TIME_LIMIT};
    std::string _serverSigAlgs;
};

} // namespace cindral::standard

#endif

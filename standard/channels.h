#ifndef BRANTLE_STANDARD_CHANNELS_H
#define BRANTLE_STANDARD_CHANNELS_H

#include <deque>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "standard/bytes.h"
#include "standard/connection.h"

namespace cindral::standard {

/// One channel as the connection protocol sees it (RFC 4254, section 5): numbers, windows, and which
/// directions are still open. Windows and packet sizes are in bytes.
struct Channel {
    /// A request of the client that the server has not answered yet.
    struct Request {
        std::string name;
        bool isReported; ///< the answer is passed on to the sender of the request
    };

    explicit Channel(unsigned int number) : local(number) {}
    virtual ~Channel() = default;

    bool IsOpen() const { return isConfirmed && !closeSent; }
    /// Whether both sides have closed.
    bool IsOver() const { return closeSent && closeReceived; }
    /// How much may be sent in one message now.
    std::size_t Sendable() const { return IsOpen() && !eofSent ? std::min(remoteWindow, remoteMax) : 0; }

    unsigned int const local;
    unsigned int remote = 0;
    bool isSession = false;
    bool isConfirmed = false;
    bool eofSent = false;
    bool eofReceived = false;
    bool closeSent = false;
    bool closeReceived = false;

    unsigned int remoteWindow = 0; ///< what the client may still send
    unsigned int remoteMax = 0;    ///< in one message
    unsigned int localWindow = 0;  ///< what the server may still send
    unsigned int localMax = 0;     ///< in one message
    unsigned int windowSize = 0;   ///< upper limit of what is granted
    unsigned int consumed = 0;     ///< processed, but not granted again yet

    std::deque<Request> requests;
    int exitStatus = -1;
    std::string exitSignal;
};

/// A CHANNEL_OPEN from the server.
struct OpenRequest {
    View message; ///< whole
    std::string type;
    unsigned int sender;
    unsigned int window;
    unsigned int maxPacket;
    View rest; ///< the fields specific to the type
};

/// Notified of what happens to channels. Views are valid during the call only.
class ChannelEvents {
public:
    virtual ~ChannelEvents() = default;
    virtual void OnOpened(Channel& channel) = 0;
    virtual void OnOpenFailed(Channel& channel, std::string const& reason) = 0;
    /// The bytes count as unread until Channels::Consume().
    virtual void OnData(Channel& channel, View data) = 0;
    virtual void OnErrorData(Channel& channel, View data) = 0;
    virtual void OnEof(Channel& channel) = 0;
    /// Both sides have closed. The channel is gone after the call, unless the result is false: Remove() has
    /// to be called later then.
    virtual bool OnClosed(Channel& channel) = 0;
    /// The server has granted more window.
    virtual void OnWindow(Channel& channel) = 0;
    virtual void OnOpenRequest(OpenRequest const& request) = 0;
    /// A request of the client that the server refused. `isReported`: its sender gets the answer, too.
    virtual void OnRequestRefused(Channel& channel, std::string const& name, bool isReported) = 0;
    /// The server does not listen for a remote forwarding.
    virtual void OnForwardingRefused() = 0;
};

/// The connection protocol (RFC 4254): channels, their windows, and the requests of both sides.
///
/// A violation of the protocol by the server throws SshProtocolError: data beyond a window or a packet size,
/// after EOF, for a channel that is not open, and a window that overflows.
class Channels {
public:
    static constexpr unsigned int MAX_PACKET = 0x8000;
    static constexpr unsigned int MAX_WINDOW = 0x200000;
    /// Number of bytes before the data in a message.
    static constexpr std::size_t DATA_HEADER = 9;

    /// The most data that one message may carry, given the packet size that the server has announced.
    static unsigned int PacketSize(unsigned int announced);

    Channels(Connection& connection, ChannelEvents& events);
    ~Channels();

    /// Adds a channel, which Find() returns from then on.
    Channel& Add(std::unique_ptr<Channel> channel, unsigned int windowSize, unsigned int maxPacket);
    /// Null for a number that is not in use.
    Channel* Find(unsigned int local) const;
    /// A channel that is not over.
    Channel* FindRemote(unsigned int remote) const;
    void Remove(unsigned int local) { _channels.erase(local); }
    std::size_t Count() const { return _channels.size(); }
    std::map<unsigned int, std::unique_ptr<Channel>> const& All() const { return _channels; }

    /// Handles a message from the server. True if it has to be passed on to the caller that waits for a
    /// reply: the replies to CHANNEL_OPEN and to requests that were sent as reported ones. The view is then
    /// what has to be passed on.
    bool Take(View& message);

    /// Records the effect of a message of the client, and posts it. A CHANNEL_OPEN or request that the
    /// session itself has created is sent through here. Throws InvalidArgument for a CHANNEL_OPEN under the
    /// number of a channel that is not over.
    void Submit(View message);

    // Each posts a message and does not block.
    void PostData(Channel& channel, View data);
    /// Returns room for at most `size` bytes of data; EndData() completes the message. REQUIRES:
    /// Connection::MayPost(), and size <= channel.Sendable().
    unsigned char* BeginData(std::size_t size);
    void EndData(Channel& channel, std::size_t size);
    void PostEof(Channel& channel);
    void PostClose(Channel& channel);
    void PostOpen(Channel& channel, char const* type, View fields);
    void PostConfirmation(Channel& channel, OpenRequest const& request);
    void PostRefusal(OpenRequest const& request, int reason, char const* text);
    /// Counts bytes as processed, and sends a WINDOW_ADJUST once there are enough of them.
    void Consume(Channel& channel, std::size_t size);
    void PostKeepalive();

    /// Number of keepalives without a reply.
    unsigned int UnansweredKeepalives() const { return _keepalives; }
    /// The port that the server chose for the last remote forwarding of port 0.
    unsigned int RemotePort() const { return _remotePort; }

private:
    /// A global request of the client that the server has not answered yet.
    struct Global {
        enum Kind { KEEPALIVE, FORWARDING, REPORTED };
        Kind kind;
        std::optional<unsigned int> sequence; ///< of its packet, once that is sent
    };
    using Globals = std::list<Global>;

    Channel& Known(unsigned int local, char const* what) const;
    Channel& Open(unsigned int local, char const* what) const;
    bool TakeConfirmation(View message);
    bool TakeOpenFailure(View message);
    void TakeData(View fields, bool isError);
    void TakeAdjustment(View fields);
    void TakeEof(View fields);
    void TakeClose(View fields);
    void TakeRequest(View fields);
    bool TakeAnswer(View message);
    void TakeGlobalRequest(View fields);
    bool TakeGlobalAnswer(View& message, Globals::iterator request);
    bool TakeUnimplemented(View& message);
    void TakeOpening(View message);
    void TakeExit(Channel& channel, std::string const& name, Reader& fields);
    void SubmitRequest(View message);
    void SubmitGlobalRequest(View message);
    void PostGlobal(Global::Kind kind, View message);
    void SubmitOpening(View message);
    void RemoveIfClosed(Channel& channel);
    bool IsInUse(unsigned int remote) const;
    void EndOpening(unsigned int sender);

    Connection& _connection;
    ChannelEvents& _events;
    std::map<unsigned int, std::unique_ptr<Channel>> _channels; ///< by local number
    unsigned int _numbers = 0;                                  ///< that channels have had: those below
    std::vector<unsigned int> _openings;                        ///< the server's numbers for channels that
                                                                ///< it has asked for and has no answer to
    Globals _globals;                                           ///< replies arrive in their order
    unsigned int _keepalives = 0;
    bool _isAnyPort = false; ///< the last remote forwarding asked for port 0
    unsigned int _remotePort = 0;
};

} // namespace cindral::standard

#endif

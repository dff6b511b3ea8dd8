#ifndef BRANTLE_STANDARD_CHANNEL_LOOP_H
#define BRANTLE_STANDARD_CHANNEL_LOOP_H

#include <functional>
#include <map>
#include <memory>
#include <string>

#include <brantle/channel/ssh_channel_mgr.h>
#include <brantle/event/iomultiplexer.h>
#include <brantle/event/timers.h>
#include <brantle/thornel/file_descriptor.h>

#include "standard/channels.h"
#include "standard/connection.h"
#include "standard/descriptor_sink.h"
#include "standard/socket_connector.h"
#include "standard/x11_setup.h"

namespace cindral::standard {

/// What the loop needs of the session that it serves.
class LoopHost {
public:
    virtual ~LoopHost() = default;
    virtual SshChannelMgr& Table() = 0;
    virtual IOMultiplexer& Mux() = 0;
    /// Creates a channel in the table for a connection, which it takes over, and returns the channel.
    virtual SshChannel& NewTcpChannel(unsigned int remote, char const* type, FileDescriptor& connection) = 0;
    /// Where remote X clients are connected to; null if X11 is not forwarded.
    virtual SocketAddresses const* X11Server() = 0;
    /// The set-up message of a remote X client as the X server wants it; empty if the client must not
    /// connect.
    virtual Bytes X11Setup(View message) = 0;
    /// Where the server's connections to `port` lead; null if that port is not forwarded.
    virtual SocketAddresses const* FindTarget(unsigned int port) = 0;
    /// The session channel has ended, and all its data has been written.
    virtual void OnSessionEnd() = 0;
    virtual void SetLastError(std::string const& text) = 0;
};

/// Moves bytes between the channels and their local descriptors, without ever waiting for one of them: while
/// a descriptor is not ready, its data is kept, up to the size of the channel's window.
class ChannelLoop {
public:
    /// Maximum number of channels at a time. Beyond it, the server's are refused and local connections
    /// closed.
    static constexpr std::size_t MAX_CHANNELS = 1024;

    ChannelLoop(LoopHost& host, Connection& connection, Channels& channels);
    /// Removes everything from the loop.
    ~ChannelLoop();
    ChannelLoop(ChannelLoop const&) = delete;
    ChannelLoop& operator=(ChannelLoop const&) = delete;

    /// Whether the loop has taken over, with the first descriptor registered.
    bool IsRunning() const { return _isRunning; }
    /// From now on `fd` feeds the channel.
    void RegisterInput(int fd, SshChannel const& object);
    /// Handles everything that has arrived on the server's socket.
    void Dispatch();
    /// Accepts the pending connections of a listener, which are forwarded to `port` of `host` at the server's
    /// side.
    void Accept(int listener, std::string const& host, unsigned int port);
    /// Sends data on a channel that the program feeds itself.
    void Send(Channel& channel, View data);
    /// Sends CHANNEL_EOF, or with `closes` CHANNEL_CLOSE, after what Send() has been given.
    void SendEnd(Channel& channel, bool closes);
    void SetKeepalive(unsigned int seconds, unsigned int unanswered);
    /// Writes what has been posted, and updates which descriptors are watched.
    void Settle();

    // As in ChannelEvents.
    void OnOpened(Channel& channel);
    void OnOpenFailed(Channel& channel, std::string const& reason);
    void OnData(Channel& channel, View data, bool isError);
    void OnEof(Channel& channel);
    void OnClosed(Channel& channel);
    void OnWindow(Channel& channel);
    void OnOpenRequest(OpenRequest const& request);

private:
    class Dispatcher;
    class KeepaliveTimer;

    /// The local side of a channel.
    struct Pump {
        int input = -1; ///< -1: none, or at its end
        bool inputIsWatched = false;
        bool inputIsOwned = false; ///< by the channel that it came from, which closes it
        std::unique_ptr<DescriptorSink> output;
        std::unique_ptr<DescriptorSink> errors;
        bool isSession = false;
        bool isClosing = false;    ///< closed by the server
        Bytes unsent;              ///< data that the window had no room for, from unsentPos on
        std::size_t unsentPos = 0; ///< what is before has been sent
        bool eofWaits = false;     ///< to be sent after that
        bool closeWaits = false;   ///< likewise
        bool isConnecting = false; ///< to the X server
        Bytes x11Setup;            ///< what an X client has sent before its connection to the X server exists
    };

    /// A connection that is being established for the server: to the target of a forwarding, or for an open
    /// channel to the X server.
    struct Pending {
        std::unique_ptr<SocketConnector> connector;
        unsigned int x11Channel = 0; ///< 0: none
        unsigned int sender = 0;     ///< this and what follows: from the CHANNEL_OPEN to be answered
        unsigned int window = 0;
        unsigned int maxPacket = 0;
    };

    /// Does a step for the event loop.
    void Explain(std::function<void()> const& step);
    SshChannel* Object(unsigned int local) const;
    Pump* Find(unsigned int local);
    void ServeInput(unsigned int local, int fd);
    void ServeOutput(unsigned int local, bool isError);
    void ServeConnect(unsigned int key);
    void KeepAlive();
    void ReadInput(Channel& channel, Pump& pump);
    void EndInput(Channel& channel, Pump& pump);
    bool MayRead(Channel const* channel, Pump const& pump) const;
    void WatchInput(unsigned int local, Pump& pump, bool watch);
    void DropReplacedInputs();
    void WatchOutput(unsigned int local, DescriptorSink& sink, bool isError, bool wasEmpty);
    void WatchSocket();
    void Deliver(Channel* channel, unsigned int local, Pump& pump, View data, bool isError);
    void DeliverX11(Channel& channel, Pump& pump, View data);
    void AfterOutput(unsigned int local, Pump& pump);
    void Drop(unsigned int local);
    void OpenForwarded(OpenRequest const& request);
    void OpenX11(OpenRequest const& request);
    void StartConnecting(Pending pending, SocketAddresses const& addresses);
    void Connect(unsigned int key, Pending& pending);
    void AttachTarget(Pending const& pending, FileDescriptor& fd);
    void AttachX11(unsigned int local, FileDescriptor& fd);
    static OpenRequest Request(Pending const& pending);
    void PostEnd(Channel& channel, Pump& pump);
    bool PostUnsent();
    void Abandon(unsigned int local, Pump& pump);
    void AcceptOne(int connection, std::string const& host, unsigned int port);

    LoopHost& _host;
    Connection& _connection;
    Channels& _channels;
    bool _isRunning = false;
    bool _isDraining = false;            ///< the session channel is closed: only output is still written
    bool _hasFlushes = false;            ///< a program's own channel has data to flush
    std::map<unsigned int, Pump> _pumps; ///< by the channel's local number
    std::map<unsigned int, Pending> _pending;
    unsigned int _nextPending = 0;
    FileDescriptor _socket; ///< a second descriptor of the connection, watched while output waits
    bool _socketIsWatched = false;
    FileDescriptor _spare; ///< closed for a moment to accept and close a connection when descriptors run out
    unsigned int _keepaliveSeconds = 0;
    unsigned int _keepaliveUnanswered = 0;
    std::unique_ptr<KeepaliveTimer> _keepalive;
};

} // namespace cindral::standard

#endif

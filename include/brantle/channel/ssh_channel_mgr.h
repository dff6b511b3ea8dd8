#ifndef BRANTLE_CHANNEL_SSH_CHANNEL_MGR_H
#define BRANTLE_CHANNEL_SSH_CHANNEL_MGR_H

#include <brantle/channel/ssh_channel.h>
#include <brantle/export.h>
#include <brantle/thornel/file_descriptor.h>
#include <generic/gcmp>
#include <generic/tpmap>

namespace cindral {

class SshSession;

/// Creates a channel of a class defined by the program. The caller of the operator owns the result.
class BRANTLE_API SshChannelMakerBase {
public:
    virtual SshChannel* operator()(unsigned int localId, unsigned int remoteId, String_t const& name,
                                   unsigned int windowSize, ISshPacketStream* in,
                                   OSshPacketStream* out) const = 0;
    virtual ~SshChannelMakerBase();
};

/// The table of a session's channels. It owns them, assigns their local numbers from 0 upwards without ever
/// reusing one, and silently drops everything addressed to an unknown number. Used on the thread that runs
/// the session.
class BRANTLE_API SshChannelMgr {
public:
    /// The session channel: what the peer sends is written to its descriptor immediately and completely.
    class BRANTLE_API TtyChannel : public SshChannel {
    public:
        using SshChannel::SshChannel;
        ~TtyChannel() override;

        /// One write(2) to `_fdOut`. Throws SystemError "write failed" with errno and the detail
        /// "data" if it took fewer than `n` bytes.
        void Forward(char const* data, unsigned int n) override;

        /// The same on `_fdErr`.
        void ForwardExtended(char const* data, unsigned int n) override;
    };

    /// A forwarded connection, which owns its descriptor and closes it.
    class BRANTLE_API FdChannel : public SshChannel {
    public:
        using SshChannel::SshChannel;
        ~FdChannel() override;

        int _fd = -1;
    };

    /// A connection of a remote X client (RFC 4254, section 6.3.2). It has no descriptor until the first
    /// data, the client's connection setup message, has caused a connection to the X server.
    class BRANTLE_API X11Channel : public FdChannel {
    public:
        X11Channel(unsigned int localId, unsigned int remoteId, String_t const& name, unsigned int windowSize,
                   SshSession& session, ISshPacketStream* in, OSshPacketStream* out);
        ~X11Channel() override;

        /// Without a descriptor, has the session connect to the X server; if that fails, sends CHANNEL_EOF
        /// and tries again with the next data. With a descriptor, as SshChannel::Forward.
        void Forward(char const* data, unsigned int n) override;

        SshSession* _session; ///< not owned
    };

    SshChannelMgr();
    SshChannelMgr(SshChannelMgr const&) = delete;
    SshChannelMgr& operator=(SshChannelMgr const&) = delete;
    /// Deletes every channel.
    ~SshChannelMgr();

    /// Each of these adds a new channel under the next local number. The table owns the result.
    SshChannel* NewTtyChannel(unsigned int remoteId, String_t const& name, unsigned int windowSize, int fdIn,
                              int fdOut, int fdErr, ISshPacketStream* in, OSshPacketStream* out);
    /// Takes ownership of the descriptor and sets `fd` to -1.
    SshChannel* NewTcpConnection(unsigned int remoteId, String_t const& name, unsigned int windowSize,
                                 FileDescriptor& fd, ISshPacketStream* in, OSshPacketStream* out);
    /// A channel without descriptors, which has `session` make its connection.
    SshChannel* NewX11Connection(unsigned int remoteId, String_t const& name, unsigned int windowSize,
                                 SshSession& session, ISshPacketStream* in, OSshPacketStream* out);
    SshChannel* NewChannel(unsigned int remoteId, String_t const& name, unsigned int windowSize,
                           ISshPacketStream* in, OSshPacketStream* out, SshChannelMakerBase const& maker);

    /// Replaces channel `id` with a channel made by `maker`, with the same numbers, name and window, and
    /// deletes the old one; the maker chooses the descriptors. Every SshChannelRef to the old channel then
    /// points to the new one. Returns the new channel, null for an unknown number. If the maker throws, the
    /// old channel is deleted nevertheless, and its number is unknown from then on.
    SshChannel* ReplaceChannel(int id, SshChannelMakerBase const& maker);

    /// Deletes channel `id` and returns its `_fdIn`, or -1 for an unknown number. Data not yet flushed is
    /// lost.
    int RemoveChannel(int id);

    /// Number of channels of X clients that have no connection to the X server.
    unsigned int CountUnconnectedX11() const;

    /// The local number that the next channel gets.
    unsigned int NextId() const { return _nextId; }

    /// The channel with that number, null if there is none. The table still owns it.
    SshChannel* Find(int id) const;

    /// Passes data from the peer to the channel's Forward; likewise extended data.
    void Forward(int id, char const* data, unsigned int n);
    void ForwardExtended(int id, char const* data, unsigned int n);

    /// Flushes every channel, in ascending number order. REQUIRES: no Flush adds or removes a channel.
    void FlushAllChannels();

private:
    SshChannel* Enter(SshChannel* channel);

    TPMap<unsigned int, SshChannel, GCmp<unsigned int>> _channels;
    unsigned int _nextId;
};

} // namespace cindral

#endif

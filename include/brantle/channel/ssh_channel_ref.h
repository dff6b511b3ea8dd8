#ifndef BRANTLE_CHANNEL_SSH_CHANNEL_REF_H
#define BRANTLE_CHANNEL_SSH_CHANNEL_REF_H

#include <brantle/export.h>

namespace cindral {

class SshChannel;

/// A pointer to a channel that does not own it and never dangles. It becomes null when the channel is
/// destroyed, no matter which object owns it; when SshChannelMgr::ReplaceChannel puts another channel in its
/// place, it points to that one. Use it on the channel's thread.
class BRANTLE_API SshChannelRef {
public:
    /// `channel` may be null.
    explicit SshChannelRef(SshChannel* channel);
    SshChannelRef(SshChannelRef const& other);
    SshChannelRef& operator=(SshChannelRef const&) = delete;
    ~SshChannelRef();

    SshChannel* Get() const { return _channel; }

    /// Makes all references to `from` point to `to`, which may be null.
    static void Redirect(SshChannel& from, SshChannel* to);

private:
    void Attach(SshChannel* channel);

    SshChannel* _channel;
    SshChannelRef* _next; ///< in the list of all references to the channel
};

} // namespace cindral

#endif

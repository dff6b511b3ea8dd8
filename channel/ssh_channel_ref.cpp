#include <brantle/channel/ssh_channel_ref.h>

#include <brantle/channel/ssh_channel.h>

namespace cindral {

SshChannelRef::SshChannelRef(SshChannel* channel) { Attach(channel); }

SshChannelRef::SshChannelRef(SshChannelRef const& other) : SshChannelRef(other._channel) {}

SshChannelRef::~SshChannelRef() {
    if (!_channel) return;
    SshChannelRef** place = &_channel->_references;
    while (*place != this) place = &(*place)->_next;
    *place = _next;
}

void SshChannelRef::Attach(SshChannel* channel) {
    _channel = channel;
    _next = nullptr;
    if (!channel) return;
    _next = channel->_references;
    channel->_references = this;
}

void SshChannelRef::Redirect(SshChannel& from, SshChannel* to) {
    SshChannelRef* next = from._references;
    from._references = nullptr;
    while (SshChannelRef* const reference = next) {
        next = reference->_next;
        reference->Attach(to);
    }
}

} // namespace cindral

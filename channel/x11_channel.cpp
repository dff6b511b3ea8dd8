#include <unistd.h>

#include <brantle/channel/ssh_channel_mgr.h>
#include <brantle/session/ssh_session.h>

namespace cindral {

SshChannelMgr::X11Channel::X11Channel(unsigned int localId, unsigned int remoteId, String_t const& name,
                                      unsigned int windowSize, SshSession& session, ISshPacketStream* in,
                                      OSshPacketStream* out)
    : FdChannel(localId, remoteId, name, windowSize, -1, -1, -1, in, out), _session(&session) {}

SshChannelMgr::X11Channel::~X11Channel() = default;

void SshChannelMgr::X11Channel::Forward(char const* data, unsigned int n) {
    if (_fdIn >= 0) {
        SshChannel::Forward(data, n);
        return;
    }
    int const fd = _session->InitiateX11Connection(reinterpret_cast<unsigned char const*>(data), n, this);
    if (fd != _fd) {
        if (_fd >= 0) close(_fd);
        _fd = fd;
    }
    _fdIn = _fdOut = _fdErr = fd;
    if (fd < 0) {
        _session->CloseChannel(_localId);
        return;
    }
    _outStream.Bind(fd);
    _errStream.Bind(fd);
}

SshChannel* SshChannelMgr::NewX11Connection(unsigned int remoteId, String_t const& name,
                                            unsigned int windowSize, SshSession& session,
                                            ISshPacketStream* in, OSshPacketStream* out) {
    return Enter(new X11Channel(_nextId, remoteId, name, windowSize, session, in, out));
}

unsigned int SshChannelMgr::CountUnconnectedX11() const {
    class Count : public TPMapAction<unsigned int, SshChannel, GCmp<unsigned int>> {
    public:
        void operator()(unsigned int const&, SshChannel* channel) override {
            if (channel && channel->_fdIn < 0 && dynamic_cast<X11Channel const*>(channel)) ++_channels;
        }
        unsigned int _channels = 0;
    } count;
    ForEach(_channels, count);
    return count._channels;
}

} // namespace cindral

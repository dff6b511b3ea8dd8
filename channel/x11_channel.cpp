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

} // namespace cindral

#include <brantle/channel/ssh_channel_mgr.h>

#include <unistd.h>

#include <cerrno>
#include <memory>

#include <brantle/channel/ssh_channel_ref.h>
#include <brantle/cindral/exceptions.h>

namespace cindral {

namespace {

void WriteAtOnce(int fd, char const* data, unsigned int n) {
    if (write(fd, data, n) != static_cast<ssize_t>(n)) throw SystemError("write failed", errno, "data");
}

class FlushChannel : public TPMapAction<unsigned int, SshChannel, GCmp<unsigned int>> {
public:
    void operator()(unsigned int const&, SshChannel* channel) override {
        if (channel) channel->Flush();
    }
};

} // namespace

SshChannelMakerBase::~SshChannelMakerBase() = default;

SshChannelMgr::TtyChannel::~TtyChannel() = default;

void SshChannelMgr::TtyChannel::Forward(char const* data, unsigned int n) {
    CheckForInWindowAdjust();
    WriteAtOnce(_fdOut, data, n);
}

void SshChannelMgr::TtyChannel::ForwardExtended(char const* data, unsigned int n) {
    CheckForInWindowAdjust();
    WriteAtOnce(_fdErr, data, n);
}

SshChannelMgr::FdChannel::~FdChannel() {
    if (_fd >= 0) close(_fd);
}

SshChannelMgr::SshChannelMgr() : _nextId(0) {}

SshChannelMgr::~SshChannelMgr() { _channels.Destroy(); }

SshChannel* SshChannelMgr::Enter(SshChannel* channel) {
    std::unique_ptr<SshChannel> owned(channel);
    _channels.Insert(_nextId, channel);
    ++_nextId;
    return owned.release();
}

SshChannel* SshChannelMgr::NewTtyChannel(unsigned int remoteId, String_t const& name, unsigned int windowSize,
                                         int fdIn, int fdOut, int fdErr, ISshPacketStream* in,
                                         OSshPacketStream* out) {
    return Enter(new TtyChannel(_nextId, remoteId, name, windowSize, fdIn, fdOut, fdErr, in, out));
}

SshChannel* SshChannelMgr::NewTcpConnection(unsigned int remoteId, String_t const& name,
                                            unsigned int windowSize, FileDescriptor& fd, ISshPacketStream* in,
                                            OSshPacketStream* out) {
    auto* channel = new FdChannel(_nextId, remoteId, name, windowSize, fd._fd, fd._fd, fd._fd, in, out);
    Enter(channel);
    channel->_fd = fd.Release();
    return channel;
}

SshChannel* SshChannelMgr::NewChannel(unsigned int remoteId, String_t const& name, unsigned int windowSize,
                                      ISshPacketStream* in, OSshPacketStream* out,
                                      SshChannelMakerBase const& maker) {
    return Enter(maker(_nextId, remoteId, name, windowSize, in, out));
}

SshChannel* SshChannelMgr::ReplaceChannel(int id, SshChannelMakerBase const& maker) {
    auto const number = static_cast<unsigned int>(id);
    std::unique_ptr<SshChannel> old(_channels.Remove(number));
    if (!old) return nullptr;
    std::unique_ptr<SshChannel> made(
        maker(number, old->_remoteId, old->_name, old->_windowSize, old->_in, old->_out));
    _channels.Insert(number, made.get());
    SshChannelRef::Redirect(*old, made.get());
    return made.release();
}

int SshChannelMgr::RemoveChannel(int id) {
    std::unique_ptr<SshChannel> channel(_channels.Remove(static_cast<unsigned int>(id)));
    return channel ? channel->_fdIn : -1;
}

SshChannel* SshChannelMgr::Find(int id) const { return _channels.Find(static_cast<unsigned int>(id)); }

void SshChannelMgr::Forward(int id, char const* data, unsigned int n) {
    if (SshChannel* channel = Find(id)) channel->Forward(data, n);
}

void SshChannelMgr::ForwardExtended(int id, char const* data, unsigned int n) { Forward(id, data, n); }

void SshChannelMgr::FlushAllChannels() {
    FlushChannel flush;
    ForEach(_channels, flush);
}

} // namespace cindral

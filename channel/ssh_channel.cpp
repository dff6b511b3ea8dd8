#include <brantle/channel/ssh_channel.h>

#include <brantle/channel/ssh_channel_ref.h>
#include <brantle/channel/window_adjust.h>
#include <brantle/packet/channel_messages.h>

namespace cindral {

SshChannel::SshChannel()
    : _localId(0), _remoteId(0), _windowSize(0), _fdIn(-1), _fdOut(-1), _fdErr(-1), _eofSent(0), _in(nullptr),
      _out(nullptr) {}

SshChannel::SshChannel(unsigned int localId, unsigned int remoteId, String_t const& name,
                       unsigned int windowSize, int fdIn, int fdOut, int fdErr, ISshPacketStream* in,
                       OSshPacketStream* out)
    : _localId(localId), _remoteId(remoteId), _name(name), _windowSize(windowSize), _fdIn(fdIn),
      _fdOut(fdOut), _fdErr(fdErr), _eofSent(0), _in(in), _out(out), _outStream(fdOut), _errStream(fdErr) {}

SshChannel::~SshChannel() {
    SshChannelRef::Redirect(*this, nullptr);
    _in = nullptr;
    _out = nullptr;
}

void SshChannel::ForwardToSshd(char const* data, unsigned int n) {
    if (!_out) return;
    PacketChannelData packet(_remoteId, data, n);
    _out->WritePacket(packet);
    CheckForOutWindowAdjust();
}

void SshChannel::Forward(char const* data, unsigned int n) {
    CheckForInWindowAdjust();
    _outStream.Write(data, static_cast<int>(n));
}

void SshChannel::ForwardExtended(char const* data, unsigned int n) {
    CheckForInWindowAdjust();
    _errStream.Write(data, static_cast<int>(n));
    _errStream.Flush();
}

void SshChannel::Flush() { _outStream.Flush(); }

void SshChannel::CheckForInWindowAdjust() {
    if (_in && _out) CheckForWindowAdjust(_in->_byteCount, _windowSize, _remoteId, *_out);
}

void SshChannel::CheckForOutWindowAdjust() {
    if (_out) CheckForWindowAdjust(_out->_byteCount, _windowSize, _remoteId, *_out);
}

} // namespace cindral

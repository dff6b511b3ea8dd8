#include <gtest/gtest.h>

#include <brantle/channel/ssh_channel_mgr.h>
#include <brantle/session/ssh_session.h>

using namespace cindral;

namespace {

class X11Session : public SshSession {
public:
    X11Session() : SshSession(CLIENT, 22, String_t("127.0.0.1")) {}

    using SshSession::_channels;
    using SshSession::_in;
    using SshSession::_out;
};

TEST(X11Channel, HasNoDescriptorsAtFirst) {
    X11Session session;
    SshChannel* const first =
        session._channels.NewX11Connection(77, "x11", 0x200000, session, &session._in, &session._out);
    auto* const channel = dynamic_cast<SshChannelMgr::X11Channel*>(first);
    ASSERT_NE(channel, nullptr);
    EXPECT_EQ(channel->_localId, 0u);
    EXPECT_EQ(channel->_remoteId, 77u);
    EXPECT_STREQ(channel->_name.Text(), "x11");
    EXPECT_EQ(channel->_windowSize, 0x200000u);
    for (int fd : {channel->_fd, channel->_fdIn, channel->_fdOut, channel->_fdErr}) EXPECT_EQ(fd, -1);
    EXPECT_EQ(channel->_eofSent, 0);
    EXPECT_EQ(channel->_session, &session);
    EXPECT_EQ(channel->_in, &session._in);
    EXPECT_EQ(channel->_out, &session._out);
    EXPECT_EQ(session._channels.Find(0), channel);
    EXPECT_EQ(
        session._channels.NewX11Connection(78, "x11", 0, session, &session._in, &session._out)->_localId, 1u);
    EXPECT_EQ(session._channels.RemoveChannel(0), -1);
}

} // namespace

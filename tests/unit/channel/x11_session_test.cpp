// What a session does for X11 forwarding without a peer.

#include <gmock/gmock.h>

#include <brantle/channel/x11_forwarding.h>

#include "support/x11/fake_xauth.h"

using namespace cindral;
using testing::ElementsAre;
using testing::IsEmpty;
using x11::FakeXauth;

namespace {

class X11Session : public SshSession {
public:
    X11Session() : SshSession(CLIENT, 22, String_t("127.0.0.1")) {}

    using SshSession::_x11;
};

TEST(X11Start, NeedsADisplay) {
    FakeXauth const xauth("");
    X11Session session;
    EXPECT_EQ(session.StartX11Forwarding(0, String_t()), -1);
    EXPECT_EQ(session.StartX11Forwarding(0, ""), -1);
    EXPECT_EQ(session._x11.Get(), nullptr);
    EXPECT_THAT(xauth.Calls(), IsEmpty());
}

TEST(X11Start, SecondStartKeepsTheFirstForwarding) {
    FakeXauth const xauth("");
    X11Session session;
    EXPECT_EQ(session.StartX11Forwarding(1, ":5"), 0);
    SshSession::X11Forwarding const* const first = session._x11.Get();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(session.StartX11Forwarding(0, ":6"), -1);
    EXPECT_EQ(session._x11.Get(), first);
    EXPECT_STREQ(first->_display.Text(), ":5");
    EXPECT_EQ(first->_singleConnection, 1);
    EXPECT_THAT(xauth.Calls(), ElementsAre("list|:5"));
}

TEST(X11Start, InitiateNeedsForwarding) {
    X11Session session;
    unsigned char const message[12] = {'l'};
    EXPECT_EQ(session.InitiateX11Connection(message, 12, nullptr), -1);
    FakeXauth const xauth("");
    session.StartX11Forwarding(0, ":0");
    EXPECT_EQ(session.InitiateX11Connection(nullptr, 0, nullptr), -1);
}

} // namespace

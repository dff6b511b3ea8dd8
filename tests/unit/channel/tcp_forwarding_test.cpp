// The records of forwardings.

#include <brantle/channel/tcp_forwarding.h>

#include <fcntl.h>

#include <gtest/gtest.h>

#include "support/descriptor_state.h"

using support::IsOpen;

namespace {

using ForwardingInfo = cindral::SshSession::ForwardingInfo;
using LocalForwardingListener = cindral::SshSession::LocalForwarding;

/// A forwarding that listens, on a port that the system picks.
class Listening : public LocalForwardingListener {
public:
    Listening() : LocalForwardingListener("127.0.0.1", 0, 80, "target") { EXPECT_EQ(_server->Listen(1), 0); }
    int Fd() const { return _server->Fd(); }
};

void ExpectFields(ForwardingInfo const& info, char const* bindAddress, char const* host, unsigned int port) {
    EXPECT_EQ(info._bindAddress, bindAddress);
    EXPECT_EQ(info._host, host);
    EXPECT_EQ(info._port, port);
}

} // namespace

TEST(ForwardingInfo, IsEmptyAtFirst) {
    ForwardingInfo const info;
    EXPECT_EQ(info._bindAddress.Text(), nullptr);
    EXPECT_EQ(info._host.Text(), nullptr);
    EXPECT_EQ(info._port, 0u);
}

TEST(ForwardingInfo, AssignmentCopiesAllFields) {
    ForwardingInfo const source("address", 80, "host");
    ForwardingInfo target;
    target = source;
    ExpectFields(target, "address", "host", 80);
    ExpectFields(source, "address", "host", 80);
}

TEST(LocalForwardingListener, HasNoListenerAtFirst) {
    LocalForwardingListener const forwarding;
    ExpectFields(forwarding, nullptr, nullptr, 0);
    EXPECT_EQ(forwarding._server, nullptr);
}

TEST(LocalForwardingListener, ListenerIsCreatedButNotOpened) {
    LocalForwardingListener const forwarding("127.0.0.1", 8080, 80, "host");
    ExpectFields(forwarding, "127.0.0.1", "host", 80);
    ASSERT_NE(forwarding._server, nullptr);
    EXPECT_LT(forwarding._server->Fd(), 0);
}

TEST(LocalForwardingListener, CopyTakesOwnershipOfTheListener) {
    Listening const source;
    ServerSocketIn const* const server = source._server;
    int const fd = source.Fd();
    {
        LocalForwardingListener const copy(source);
        EXPECT_EQ(copy._server, server);
        EXPECT_EQ(source._server, nullptr);
        ExpectFields(copy, "127.0.0.1", "target", 80);
        ExpectFields(source, "127.0.0.1", "target", 80);
        EXPECT_TRUE(IsOpen(fd));
    }
    EXPECT_FALSE(IsOpen(fd));
}

TEST(LocalForwardingListener, AssignmentClosesTheOldListenerAndTakesTheOther) {
    Listening source;
    Listening target;
    int const taken = source.Fd();
    int const closed = target.Fd();
    static_cast<LocalForwardingListener&>(target) = source;
    EXPECT_EQ(source._server, nullptr);
    EXPECT_EQ(target.Fd(), taken);
    EXPECT_TRUE(IsOpen(taken));
    EXPECT_FALSE(IsOpen(closed));
}

TEST(LocalForwardingListener, AssignmentWithoutAListenerLeavesNone) {
    Listening target;
    int const closed = target.Fd();
    static_cast<LocalForwardingListener&>(target) = LocalForwardingListener();
    EXPECT_EQ(target._server, nullptr);
    EXPECT_FALSE(IsOpen(closed));
}

TEST(LocalForwardingListener, AssignmentToItselfChangesNothing) {
    Listening forwarding;
    int const fd = forwarding.Fd();
    LocalForwardingListener& same = forwarding;
    same = static_cast<LocalForwardingListener const&>(forwarding);
    EXPECT_EQ(forwarding.Fd(), fd);
    EXPECT_TRUE(IsOpen(fd));
}

TEST(LocalForwardingListener, DestructorClosesTheListener) {
    int fd;
    {
        Listening const forwarding;
        fd = forwarding.Fd();
        EXPECT_TRUE(IsOpen(fd));
    }
    EXPECT_FALSE(IsOpen(fd));
}

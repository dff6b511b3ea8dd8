// The TCP side of setting up a session, and its clean-up.

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <future>
#include <memory>
#include <vector>

#include "support/descriptor_state.h"
#include "wire/test_session.h"

using support::IsOpen;
using namespace peer;

namespace {

/// A socket that listens on the loopback interface.
class Listener {
public:
    explicit Listener(int backlog) : fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        auto* const generic = reinterpret_cast<sockaddr*>(&address);
        if (bind(fd, generic, length) != 0 || listen(fd, backlog) != 0 ||
            getsockname(fd, generic, &length) != 0)
            throw PeerError("listen");
        port = ntohs(address.sin_port);
    }
    ~Listener() { close(fd); }
    Listener(Listener const&) = delete;
    Listener& operator=(Listener const&) = delete;

    int fd;
    sockaddr_in address{};
    std::uint16_t port = 0;
};

/// One whose queue is full, so that a further connection gets no answer.
class DeafListener : public Listener {
public:
    DeafListener() : Listener(0) {
        // One connection fits into the queue; the others wait for their answer.
        for (int i = 0; i < 4; ++i) {
            _callers.push_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
            connect(_callers.back(), reinterpret_cast<sockaddr*>(&address), sizeof address);
        }
    }
    ~DeafListener() {
        for (int caller : _callers) close(caller);
    }

private:
    std::vector<int> _callers;
};

void IdentifyOnly(Connection& c) {
    c.Identify();
    c.ExpectClosed();
}

} // namespace

TEST(SessionConnect, NoAnswerWithinTheTimeLimitIsANegatedErrno) {
    DeafListener const listener;
    TestSession session(listener.port);
    auto const start = std::chrono::steady_clock::now();
    EXPECT_EQ(session.Connect(1), -ETIMEDOUT);
    auto const waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(900));
    EXPECT_LT(waited, std::chrono::seconds(10));
    EXPECT_LT(session.Fd(), 0);
}

TEST(SessionConnect, ServerThatSendsNoLineBlocks) {
    std::promise<void> sendLine;
    ScriptedPeer server([&](Connection& c) {
        sendLine.get_future().wait();
        if (c.Wire().WaitReadable(std::chrono::milliseconds(0))) throw PeerError("the client spoke first");
        IdentifyOnly(c);
    });
    {
        TestSession session(server.Port());
        auto connected = std::async(std::launch::async, [&] { return session.Connect(1); });
        EXPECT_EQ(connected.wait_for(std::chrono::milliseconds(1500)), std::future_status::timeout)
            << "the time limit is only for the TCP connection";
        sendLine.set_value();
        EXPECT_EQ(connected.get(), 0);
    }
    server.Finish();
}

TEST(SessionConnect, ResetInsteadOfTheLineFailsTheFirstPacket) {
    ScriptedPeer server([](Connection& c) { c.Wire().Reset(); });
    {
        TestSession session(server.Port());
        int const result = session.Connect(10);
        // The reset may come before connect(2) has returned.
        if (result == 0)
            EXPECT_EQ(Outcome([&] { return session.KeyExchange(); }), closedEarly);
        else
            EXPECT_EQ(result, -ECONNRESET);
    }
    server.Join();
}

TEST(SessionConnect, UnterminatedLineIsTheServersVersion) {
    ScriptedPeer server([](Connection& c) { c.SendLine("rubbish\r"); });
    {
        TestSession session(server.Port());
        EXPECT_EQ(session.Connect(10), 0);
        EXPECT_EQ(Text(session._serverVersion), "rubbish");
        EXPECT_EQ(Outcome([&] { return session.KeyExchange(); }), closedEarly);
    }
    server.Finish();
}

TEST(SessionConnect, Ipv6LiteralWorksInBothForms) {
    ServerSettings settings;
    settings.ipv6 = true;
    settings.group = DhGroup::Modp(1024);
    ScriptedPeer server(
        [](Connection& c) {
            c.WellBehaved(Stage::NewKeys);
            c.ExpectClosed();
        },
        settings);
    for (bool byText : {true, false}) {
        std::string const target = "[::1]:" + std::to_string(server.Port());
        auto const session =
            byText ? std::make_unique<cindral::SshSession>(cindral::SshSession::CLIENT, target.c_str())
                   : std::make_unique<cindral::SshSession>(cindral::SshSession::CLIENT, server.Port(), "::1");
        ASSERT_EQ(session->Connect(10), 0);
        EXPECT_EQ(Text(session->ServerVersion()), "SSH-2.0-ScriptedPeer_1.0");
        EXPECT_EQ(session->KeyExchange(), 0);
    }
    server.Finish(2);
}

TEST(SessionConnect, TargetFromParseUrlWorks) {
    ScriptedPeer server(IdentifyOnly);
    String_t user;
    String_t host;
    ASSERT_EQ(
        cindral::SshSession::ParseUrl(("ann@127.0.0.1:" + std::to_string(server.Port())).c_str(), user, host),
        0);
    {
        cindral::SshSession session(cindral::SshSession::CLIENT, host);
        EXPECT_EQ(session.Connect(10), 0);
    }
    server.Finish();
}

TEST(SessionConnect, HandshakeRunsWithoutNodelay) {
    ScriptedPeer server(IdentifyOnly);
    {
        TestSession session(server.Port());
        ASSERT_EQ(session.Connect(10), 0);
        int value = -1;
        socklen_t length = sizeof value;
        ASSERT_EQ(getsockopt(session.Fd(), IPPROTO_TCP, TCP_NODELAY, &value, &length), 0);
        EXPECT_EQ(value, 0);
    }
    server.Finish();
}

TEST(SessionConnect, FailedSecondConnectClosesTheFirstConnection) {
    auto listener = std::make_unique<Listener>(1);
    TestSession session(listener->port);
    auto connected = std::async(std::launch::async, [&] { return session.Connect(10); });
    int const accepted = accept(listener->fd, nullptr, nullptr);
    ASSERT_EQ(write(accepted, "SSH-2.0-x\n", 10), 10);
    ASSERT_EQ(connected.get(), 0);
    int const first = session.Fd();
    ASSERT_TRUE(IsOpen(first));
    listener.reset();
    EXPECT_EQ(session.Connect(10), -ECONNREFUSED);
    EXPECT_FALSE(IsOpen(first));
    EXPECT_LT(session.Fd(), 0);
    close(accepted);
}

TEST(SessionConnect, SecondConnectionIsUsable) {
    ServerSettings settings;
    settings.group = DhGroup::Modp(1024);
    ScriptedPeer server(
        [](Connection& c) {
            c.WellBehaved(c.index == 0 ? Stage::Identified : Stage::NewKeys);
            c.ExpectClosed();
        },
        settings);
    {
        TestSession session(server.Port());
        ASSERT_EQ(session.Connect(10), 0);
        ASSERT_EQ(session.Connect(10), 0);
        EXPECT_EQ(session.KeyExchange(), 0);
    }
    server.Finish(2);
}

TEST(SessionConnect, DestructionClosesTheDescriptor) {
    ScriptedPeer server(IdentifyOnly);
    int fd = -1;
    {
        TestSession session(server.Port());
        ASSERT_EQ(session.Connect(10), 0);
        fd = session.Fd();
        EXPECT_TRUE(IsOpen(fd));
    }
    EXPECT_FALSE(IsOpen(fd));
    server.Finish();
}

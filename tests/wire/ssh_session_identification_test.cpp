// The exchange of identification lines, RFC 4253 section 4.2, as this client does it.

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "wire/test_session.h"

using namespace peer;

namespace {

std::string const clientLine = "SSH-2.0-libbrantle_0.1\n";

void KeysAndClose(Connection& c) {
    c.WellBehaved(Stage::NewKeys);
    c.ExpectClosed();
}

/// The outcome of a key exchange with a server that introduces itself with this line.
std::string ExchangeAfterLine(std::string const& line, std::string const& expectedVersion) {
    ServerSettings settings;
    settings.versionLine = line;
    ScriptedPeer server(
        [&](Connection& c) {
            c.Identify();
            c.kex.serverVersion = expectedVersion;
            c.SendKexInit();
            c.ReceiveKexInit();
            c.Negotiate();
            c.GroupExchange();
            c.NewKeys();
            c.ExpectClosed();
        },
        settings);
    std::string outcome;
    {
        TestSession session(server.Port());
        EXPECT_EQ(session.Connect(10), 0);
        EXPECT_EQ(Text(session._serverVersion), expectedVersion);
        outcome = Outcome([&] { return session.KeyExchange(); });
    }
    server.Finish();
    return outcome;
}

} // namespace

TEST(Identification, ClientSendsItsLineWithABareLineFeedAndNothingElse) {
    ScriptedPeer server([](Connection& c) {
        c.Identify();
        c.ExpectClosed();
    });
    {
        TestSession session(server.Port());
        ASSERT_EQ(session.Connect(10), 0);
    }
    server.Finish();
    EXPECT_EQ(ToText(server.At(0).Wire().Received()), clientLine);
}

TEST(Identification, FirstPacketDirectlyFollowsTheLine) {
    ScriptedPeer server(KeysAndClose);
    EXPECT_EQ(ExchangeKeys(server.Port()), "0");
    server.Finish();
    EXPECT_EQ(ToText(Slice(server.At(0).Wire().Received(), 0, clientLine.size())), clientLine);
    EXPECT_EQ(server.At(0).received[0].streamOffset, clientLine.size());
}

TEST(Identification, NothingIsSentBeforeTheServersLine) {
    ScriptedPeer server([](Connection& c) {
        c.SendRaw(ToBytes("SSH-2.0-slow"));
        if (c.Wire().WaitReadable(std::chrono::milliseconds(150))) throw PeerError("the client spoke first");
        c.SendLine("\n");
        if (c.ReadLine() != clientLine) throw PeerError("unexpected line");
    });
    {
        TestSession session(server.Port());
        EXPECT_EQ(session.Connect(10), 0);
        EXPECT_EQ(Text(session._serverVersion), "SSH-2.0-slow");
    }
    server.Finish();
}

TEST(Identification, LineEndsAndBlanksAreNotHashed) {
    EXPECT_EQ(ExchangeAfterLine("SSH-2.0-x\r\n", "SSH-2.0-x"), "0");
    EXPECT_EQ(ExchangeAfterLine("SSH-2.0-x\n", "SSH-2.0-x"), "0");
    EXPECT_EQ(ExchangeAfterLine(" \tSSH-2.0-x with a comment \r\n", "SSH-2.0-x with a comment"), "0");
}

TEST(Identification, AnyFirstLineIsTheServersVersion) {
    EXPECT_EQ(ExchangeAfterLine("SSH-1.5-old\n", "SSH-1.5-old"), "0");
    EXPECT_EQ(ExchangeAfterLine("220 another service\r\n", "220 another service"), "0");
    EXPECT_EQ(ExchangeAfterLine("\r\n", ""), "0");
    std::string const longLine = "SSH-2.0-" + std::string(100000, 'x');
    EXPECT_EQ(ExchangeAfterLine(longLine + "\r\n", longLine), "0");
}

TEST(Identification, LinesBeforeTheVersionAreNotSkipped) {
    ScriptedPeer server([](Connection& c) {
        c.SendLine("Welcome\r\nSSH-2.0-x\r\n");
        c.ReadUntilClosed();
    });
    {
        TestSession session(server.Port());
        ASSERT_EQ(session.Connect(10), 0);
        EXPECT_EQ(Text(session._serverVersion), "Welcome");
        EXPECT_EQ(Outcome([&] { return session.KeyExchange(); }),
                  "SshProtocolError: packet length exceeds maximum value: " + std::to_string(0x5353482d));
    }
    server.Finish();
}

TEST(Identification, CloseBeforeTheLineFailsTheFirstPacket) {
    ScriptedPeer server([](Connection& c) { c.Wire().ShutdownWrite(); });
    EXPECT_EQ(ExchangeKeys(server.Port()), closedEarly);
    server.Finish();
}

TEST(Identification, CloseAfterTheLineFailsTheFirstPacket) {
    ScriptedPeer server([](Connection& c) { c.Identify(); });
    EXPECT_EQ(ExchangeKeys(server.Port()), closedEarly);
    server.Finish();
}

TEST(Identification, KexInitInTheSegmentOfTheLineIsNotLost) {
    ServerSettings settings;
    settings.kexInitWithVersion = true;
    ScriptedPeer server(KeysAndClose, settings);
    EXPECT_EQ(ExchangeKeys(server.Port()), "0");
    server.Finish();
}

TEST(Identification, SingleByteSegmentsMakeNoDifference) {
    ServerSettings settings;
    settings.kexInitWithVersion = true;
    ScriptedPeer server(
        [](Connection& c) {
            c.Wire().faults.segment = 1;
            KeysAndClose(c);
        },
        settings);
    EXPECT_EQ(ExchangeKeys(server.Port()), "0");
    server.Finish();
}

TEST(Identification, RefusedConnectionIsANegatedErrno) {
    // A port that is bound, so that no other process gets it, but not listened on.
    int const taken = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(bind(taken, reinterpret_cast<sockaddr*>(&address), length), 0);
    ASSERT_EQ(getsockname(taken, reinterpret_cast<sockaddr*>(&address), &length), 0);
    TestSession session(ntohs(address.sin_port));
    EXPECT_EQ(session.Connect(10), -ECONNREFUSED);
    EXPECT_LT(session._fd, 0);
    close(taken);
}

TEST(Identification, SecondConnectClosesTheFirstConnection) {
    ScriptedPeer server([](Connection& c) {
        c.Identify();
        c.ExpectClosed();
    });
    {
        TestSession session(server.Port());
        ASSERT_EQ(session.Connect(10), 0);
        int const first = session._fd;
        ASSERT_EQ(session.Connect(10), 0);
        EXPECT_NE(session._fd, first);
    }
    server.Finish(2);
    EXPECT_EQ(ToText(server.At(0).Wire().Received()), clientLine);
    EXPECT_EQ(ToText(server.At(1).Wire().Received()), clientLine);
}

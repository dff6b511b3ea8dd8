// The example that forwards ports, in the reduced dialect.

#include <csignal>

#include "examples/execute_against.h"
#include "wire/tcp_end.h"

using namespace execute;
using namespace peer;
using testing::HasSubstr;

namespace {

/// Runs the program with its process number written to ~/pid first.
char const* const withNumber = "sh -c 'echo $$ >$HOME/pid; exec \"$0\" \"$@\"' " FORWARD;

int ProcessNumber() { return std::stoi(TakeFile(std::string(std::getenv("HOME")) + "/pid")); }

/// "-L" and a forwarding from this port to "target" 8000.
std::string FromPort(std::uint16_t port) { return "-L 127.0.0.1:" + std::to_string(port) + ":target:8000"; }

/// Connects to a forwarded port, with an echo for the server's part, and ends that channel, 1 at the client.
void UseForwarding(Connection& c, std::uint16_t port) {
    tcp::End const local = tcp::End::To(port);
    ChannelOpen const open = c.ReadChannelOpen();
    EXPECT_EQ(open.type, "direct-tcpip");
    Reader rest(open.rest);
    EXPECT_EQ(rest.String(), "target");
    EXPECT_EQ(rest.U32(), 8000u);
    c.SendPacket(Writer().U8(CHANNEL_OPEN_CONFIRMATION).U32(open.sender).U32(77).U32(0x10000).U32(0x4000));
    local.Send("through the tunnel");
    Reader data = c.ExpectPacket(CHANNEL_DATA);
    EXPECT_EQ(data.U32(), 77u);
    c.SendData(data.String(), open.sender);
    EXPECT_EQ(local.Receive(18), "through the tunnel");
    local.EndSending();
    c.ExpectPacket(CHANNEL_EOF);
    c.SendEof(open.sender);
    c.ExpectPacket(CHANNEL_CLOSE);
    c.SendClose(open.sender);
    EXPECT_EQ(local.ReceiveAll(), "");
}

std::string Requested(Connection& c) { return c.ReadChannelRequest().type; }

} // namespace

TEST(Forward, ConnectionsAreCarriedDuringACommand) {
    std::uint16_t const port = tcp::FreePort();
    Ran const ran = ExecuteAgainst(
        [&](Connection& c) {
            c.WellBehaved(Stage::Opened);
            EXPECT_EQ(ToText(c.ReadChannelRequest().rest).substr(4), "sleep 100");
            c.ExpectPacket(CHANNEL_EOF); // of the empty input
            UseForwarding(c, port);
            c.SendData("woken");
            c.SendExitStatus(0);
        },
        FORWARD, FromPort(port) + " sleep 100");
    EXPECT_EQ(ran.status, 0) << ran;
    EXPECT_EQ(ran.output, "woken");
    EXPECT_EQ(ran.errors, "");
}

TEST(Forward, ConnectionsAreCarriedDuringAShell) {
    std::uint16_t const port = tcp::FreePort();
    Ran const ran = ExecuteAgainst(
        [&](Connection& c) {
            c.WellBehaved(Stage::Opened);
            EXPECT_EQ(Requested(c), "pty-req");
            EXPECT_EQ(Requested(c), "shell");
            c.ExpectPacket(CHANNEL_EOF);
            UseForwarding(c, port);
            c.SendExitStatus(0);
        },
        FORWARD, FromPort(port) + " -s");
    EXPECT_EQ(ran.status, 0) << ran;
    EXPECT_EQ(ran.output, "Connection to 127.0.0.1 closed.\n");
}

TEST(Forward, WithoutACommandItForwardsUntilInterrupted) {
    for (int const number : {SIGINT, SIGTERM}) {
        std::uint16_t const port = tcp::FreePort();
        Ran const ran = ExecuteAgainst(
            [&](Connection& c) {
                c.WellBehaved(Stage::Opened);
                UseForwarding(c, port);
                kill(ProcessNumber(), number);
                Reader message = c.ExpectPacket(DISCONNECT);
                EXPECT_EQ(message.U32(), 11u);
                EXPECT_EQ(message.String(), "interrupted");
            },
            withNumber, FromPort(port));
        EXPECT_EQ(ran.status, 0) << ran;
        EXPECT_EQ(ran.errors, "");
    }
}

TEST(Forward, ForwardingsAreStartedInOrder) {
    std::uint16_t const first = tcp::FreePort();
    std::uint16_t const second = tcp::FreePort();
    tcp::Service const service;
    Ran const ran = ExecuteAgainst(
        [&](Connection& c) {
            c.WellBehaved(Stage::Authenticated);
            for (std::uint32_t port : {9000u, 9001u}) {
                Reader request = c.ExpectPacket(GLOBAL_REQUEST);
                EXPECT_EQ(request.String(), "tcpip-forward");
                EXPECT_TRUE(request.Bool());
                EXPECT_EQ(request.String(), port == 9000 ? "localhost" : "::1");
                EXPECT_EQ(request.U32(), port);
                c.SendPacket(Writer().U8(REQUEST_SUCCESS));
            }
            c.ConfirmOpen();
            c.ReadChannelRequest();
            c.ExpectPacket(CHANNEL_EOF);
            UseForwarding(c, first);
            UseForwarding(c, second);
            c.SendPacket(Writer()
                             .U8(CHANNEL_OPEN)
                             .String("forwarded-tcpip")
                             .U32(500)
                             .U32(0x10000)
                             .U32(0x4000)
                             .String("::1")
                             .U32(9001));
            Reader confirmation = c.ExpectPacket(CHANNEL_OPEN_CONFIRMATION);
            EXPECT_EQ(confirmation.U32(), 500u);
            c.SendData("from afar", confirmation.U32());
            EXPECT_EQ(service.Accept().Receive(9), "from afar");
            c.SendExitStatus(0);
        },
        FORWARD,
        FromPort(first) + " -R 9000:nowhere:1 " + FromPort(second) +
            " -R [::1]]9001:127.0.0.1:" + std::to_string(service.Port()) + " true");
    EXPECT_EQ(ran.status, 0) << ran;
    EXPECT_EQ(ran.errors, "");
}

TEST(Forward, WrongArgumentsPrintTheUsage) {
    for (char const* arguments :
         {"", "host", "host true", "host -L", "host -L 8080:80:80", "host -R 1:a:2 -L", "host -X 1:a:2"}) {
        Ran const ran = Execute(FORWARD, arguments);
        EXPECT_EQ(ran.status, 2) << arguments;
        EXPECT_THAT(ran.errors,
                    HasSubstr("usage: forward [--reduced] [-i IDENTITY] [USER@]HOST[:PORT] FORWARDING..."));
    }
}

TEST(Forward, FailedForwardingIsNamed) {
    tcp::Service const taken;
    std::string const spec = "127.0.0.1:" + std::to_string(taken.Port()) + ":target:8000";
    EXPECT_THAT(ExecuteAgainst(
                    [](Connection& c) {
                        c.WellBehaved(Stage::Authenticated);
                        c.ExpectClosed();
                    },
                    FORWARD, "-L " + spec),
                Fails(13, spec + ": Address already in use"));
    EXPECT_THAT(ExecuteAgainst(
                    [](Connection& c) {
                        c.WellBehaved(Stage::Authenticated);
                        c.ExpectPacket(GLOBAL_REQUEST);
                        c.SendPacket(Writer().U8(REQUEST_FAILURE));
                    },
                    FORWARD, "-R 9000:here:80 -s"),
                Fails(13, "9000:here:80: refused, or forwarded already"));
}

TEST(Forward, RefusedChannelIsReported) {
    EXPECT_THAT(ExecuteAgainst(
                    [](Connection& c) {
                        c.WellBehaved(Stage::Authenticated);
                        c.ReadChannelOpen();
                        c.SendOpenFailure(1, "");
                    },
                    FORWARD, FromPort(tcp::FreePort())),
                Fails(7, "the server refused the channel"));
}

// X clients on the servers' side at a real X server on this side.

#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "real/server_kinds.h"
#include "support/client/session_client.h"
#include "support/servers/openssh_server.h"
#include "support/servers/python_servers.h"
#include "support/servers/x_server.h"
#include "support/x11/fake_xauth.h"
#include "support/x11/scripted_x_server.h"

using client::Report;
using client::SessionClient;
using testing::HasSubstr;
using x11::ScriptedXServer;
using x11::Transport;

using namespace kinds;

namespace {

/// What xdpyinfo prints after the line that names the display.
std::string AfterName(std::string const& output) {
    std::size_t const name = output.find("name of display:");
    if (name == std::string::npos) return "no description: " + output;
    return output.substr(output.find('\n', name) + 1);
}

/// A server that grants the forwarding, and an X server, for all cases of a suite.
template <class Kind>
class X11 : public testing::Test {
protected:
    static void SetUpTestSuite() {
        _server = std::make_unique<typename Kind::Server>();
        _display = std::make_unique<servers::XServer>();
    }
    static void TearDownTestSuite() {
        _server.reset();
        _display.reset();
    }
    void SetUp() override { ASSERT_TRUE(_server && _display) << "a server did not start"; }

    /// The outcome of a command with that display forwarded. It waits a moment at its end, as some servers
    /// report the end of a command before its last output.
    static Report Run(std::string const& display, std::string const& command) {
        return SessionClient(*_server)
            .WithKey("user_rsa")
            .ReadingUnsolicited(Kind::UNSOLICITED)
            .WithVariable("XAUTHORITY=" + _display->Authority())
            .WithDisplay(display)
            .Run(command + "; sleep 1");
    }
    /// What xdpyinfo prints of the X server without any forwarding.
    static std::string Description() {
        return AfterName(servers::RunOrThrow({"xdpyinfo", "-display", _display->Display()}, {},
                                             {"XAUTHORITY=" + _display->Authority()}));
    }
    /// A command for the server: xdpyinfo that knows no cookie but one of zeros.
    static std::string WithWrongCookie() {
        return "export XAUTHORITY=$(mktemp); "
               "xauth -q add $DISPLAY MIT-MAGIC-COOKIE-1 00000000000000000000000000000000; "
               "xdpyinfo; rm $XAUTHORITY";
    }

    static inline std::unique_ptr<typename Kind::Server> _server;
    static inline std::unique_ptr<servers::XServer> _display;
};

using Kinds = testing::Types<Asyncssh, Openssh>;
TYPED_TEST_SUITE(X11, Kinds, Names);

TYPED_TEST(X11, ShowsTheDisplayOverTheUnixSocket) {
    Report const report = this->Run(this->_display->Display(), "xdpyinfo");
    EXPECT_EQ(report["x11"], "0") << report;
    EXPECT_EQ(report["run"], "-1") << report;
    EXPECT_EQ(AfterName(report.output), this->Description());
    EXPECT_EQ(report.status, 0) << report;
}

TYPED_TEST(X11, ShowsTheDisplayOverTcp) {
    Report const report = this->Run(this->_display->DisplayOverTcp() + ".0", "xdpyinfo");
    EXPECT_EQ(report["run"], "-1") << report;
    EXPECT_EQ(AfterName(report.output), this->Description());
    EXPECT_EQ(report.status, 0) << report;
}

TYPED_TEST(X11, ServesSeveralClientsAtOnce) {
    Report const report =
        this->Run(this->_display->Display(),
                  "for i in 1 2 3 4 5 6 7 8; do xdpyinfo >/dev/null && echo shown & done; wait");
    EXPECT_EQ(report.output, "shown\nshown\nshown\nshown\nshown\nshown\nshown\nshown\n") << report;
    EXPECT_EQ(report.status, 0) << report;
}

TYPED_TEST(X11, WrongCookieIsRefused) {
    Report const report = this->Run(this->_display->Display(), this->WithWrongCookie());
    EXPECT_THAT(report.output, HasSubstr("unable to open display")) << report;
    EXPECT_EQ(report["run"], "-1") << report;
    EXPECT_EQ(report.status, 0) << report;
}

TYPED_TEST(X11, WrongCookieNeverReachesTheXServer) {
    for (Transport transport : {Transport::Unix, Transport::Tcp}) {
        ScriptedXServer const display(transport);
        Report const report = this->Run(display.Display(), this->WithWrongCookie());
        EXPECT_THAT(report.output, HasSubstr("unable to open display")) << report;
        EXPECT_EQ(report["run"], "-1") << report;
        EXPECT_FALSE(display.HasVisitor());
    }
}

TYPED_TEST(X11, MissingXServerIsRefused) {
    ScriptedXServer display(Transport::Unix);
    display.StopListening();
    Report const report = this->Run(display.Display(), "xdpyinfo");
    EXPECT_THAT(report.output, HasSubstr("unable to open display")) << report;
    EXPECT_EQ(report["run"], "-1") << report;
}

TYPED_TEST(X11, RemoteSideKnowsOnlyTheFakeCookie) {
    Report const report = this->Run(this->_display->Display(), "xauth list");
    EXPECT_THAT(report.output, HasSubstr("MIT-MAGIC-COOKIE-1")) << report;
    EXPECT_THAT(report.output, testing::Not(HasSubstr(this->_display->Cookie())));
}

} // namespace

TEST(X11Paramiko, RefusedRequestDoesNotEndTheSession) {
    x11::FakeXauth const xauth("");
    servers::ParamikoServer const server;
    ScriptedXServer const display(Transport::Unix);
    Report const report = SessionClient(server)
                              .As(server.OpenUser())
                              .WithDisplay(display.Display())
                              .Run("echo \"display <$DISPLAY>\"; cat", "input");
    EXPECT_EQ(report["x11"], "0") << report;
    EXPECT_EQ(report["run"], "-1") << report;
    EXPECT_EQ(report.output, "display <>\ninput");
    EXPECT_EQ(report.errors, "");
    EXPECT_EQ(report.status, 0);
    EXPECT_FALSE(display.HasVisitor());
}

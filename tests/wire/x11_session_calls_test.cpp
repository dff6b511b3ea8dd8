// System calls that fail while an X client is connected.

#include <chrono>
#include <future>

#include "wire/x11_calls.h"
#include "wire/x11_fixture.h"

using namespace peer;
using x11::ScriptedXServer;
using x11::Transport;

namespace {

class X11FailingCalls : public X11Test {
protected:
    ~X11FailingCalls() override {
        X11Calls::waitResult = nullptr;
        X11Calls::nodelayFails = false;
    }

    static void ExpectNoDescriptors(X11Session& session) {
        auto const* channel = session.X11Channel(1);
        ASSERT_NE(channel, nullptr);
        for (int fd : {channel->_fd, channel->_fdIn, channel->_fdOut, channel->_fdErr}) EXPECT_LT(fd, 0);
    }
};

} // namespace

TEST_F(X11FailingCalls, ConnectionThatTakesNoDataWithin60MillisecondsIsClosed) {
    for (int const result : {0, -1}) {
        ScriptedXServer display(Transport::Unix);
        std::string received = "?";
        X11Calls::waits = 0;
        EXPECT_EQ(Run(
                      display.Display(),
                      [&](Connection&, X11Peer& x) {
                          x.Send(x.Setup(), x.Open());
                          x.ExpectEof();
                          received = display.Accept().ReadToTheEnd();
                          x.EndSession();
                      },
                      [&](X11Session&) { X11Calls::waitResult = &result; }, ExpectNoDescriptors),
                  "-1");
        EXPECT_EQ(X11Calls::waits, 1);
        EXPECT_EQ(received, "");
        EXPECT_EQ(messages, "");
        X11Calls::waitResult = nullptr;
    }
}

TEST_F(X11FailingCalls, FailedNodelayEndsRunAndClosesTheConnection) {
    ScriptedXServer display(Transport::Tcp);
    std::string received = "?";
    std::promise<void> displayIsDone; // and has closed its own end
    std::set<int> before;
    std::string const outcome = Run(
        display.Display(),
        [&](Connection& c, X11Peer& x) {
            x.Send(x.Setup(), x.Open());
            received = display.Accept().ReadToTheEnd();
            displayIsDone.set_value();
            c.ExpectClosed();
        },
        [&](X11Session&) {
            X11Calls::nodelayFails = true;
            before = OpenDescriptors();
        },
        [&](X11Session& session) {
            ExpectNoDescriptors(session);
            displayIsDone.get_future().wait_for(std::chrono::seconds(10));
            EXPECT_EQ(OpenDescriptors(), before);
        });
    EXPECT_THAT(outcome, testing::MatchesRegex("SystemError: setsockopt: [0-9]+"));
    EXPECT_EQ(received, "");
}

TEST_F(X11FailingCalls, NodelayIsSetOnceOverTcpAndNeverOverTheUnixSocket) {
    for (Transport transport : {Transport::Tcp, Transport::Unix}) {
        ScriptedXServer display(transport);
        EXPECT_EQ(Run(
                      display.Display(),
                      [&](Connection&, X11Peer& x) {
                          x.Send(x.Setup(), x.Open());
                          display.Accept().Read(48);
                          x.ExpectEof();
                          x.EndSession();
                      },
                      [](X11Session&) { X11Calls::waits = X11Calls::nodelays = 0; }),
                  "-1");
        EXPECT_EQ(X11Calls::nodelays, transport == Transport::Tcp);
        EXPECT_EQ(X11Calls::waits, 1);
    }
}

TEST_F(X11FailingCalls, ConnectionToTheXServerMayTake60Seconds) {
    ScriptedXServer display(Transport::Unix);
    X11Calls::connectLimit = 0;
    EXPECT_EQ(Run(display.Display(),
                  [&](Connection&, X11Peer& x) {
                      x.Send(x.Setup(), x.Open());
                      display.Accept().Read(48);
                      x.ExpectEof();
                      x.EndSession();
                  }),
              "-1");
    EXPECT_GT(X11Calls::connectLimit, 50000);
    EXPECT_LE(X11Calls::connectLimit, 60000);
}

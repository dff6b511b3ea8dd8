// An X client's connection with the SSH connection, or that to the X server, cut after each byte in turn: the
// session ends in a result or exception that reports it, and nothing stays open.

#include "wire/x11_fixture.h"

using namespace peer;
using x11::ScriptedXServer;
using x11::Transport;
using x11::XConnection;

namespace {

constexpr std::size_t SETUP_SIZE = 12 + 20 + 16;

class X11Sweep : public X11Test {
protected:
    X11Sweep() { joinOnly = true; }
    ~X11Sweep() override {
        server.reset();
        EXPECT_EQ(OpenDescriptors(), descriptors);
    }

    /// A client's whole life: opening, set-up, data both ways, end. The server suffers what `change` asks for
    /// from its answer to the request of the forwarding on.
    std::string Exchange(std::function<void(Connection&)> const& change) {
        return RunWith(display.Display(), [&](Connection& c) {
            X11Peer x(c);
            x.TakeRequest();
            sentBefore = c.Wire().SentCount();
            receivedBefore = c.Wire().ReceivedCount();
            change(c);
            c.Wire().Begin();
            try {
                c.SendChannelMessage(CHANNEL_SUCCESS);
                c.ReadChannelRequest();
                x.Send(x.Setup(), x.Open());
                XConnection client = display.Accept();
                client.Read(SETUP_SIZE);
                c.SendData("request", 1);
                client.Read(7);
                client.Write("event");
                x.TakeData();
                client.Close();
                x.ExpectEof();
                c.SendTogether({Eof(1), Close(1)});
                c.ExpectPacket(CHANNEL_CLOSE);
                x.EndSession();
            } catch (...) {
                DismissVisitor();
                throw;
            }
        });
    }

    /// The client may have connected to the X server before the cut.
    void DismissVisitor() {
        if (display.HasVisitor()) display.Accept();
    }

    static bool IsFailure(std::string const& outcome) {
        return outcome.find("SshProtocolError: ") == 0 || outcome.find("BadInput: ") == 0 ||
               outcome.find("SystemError: ") == 0;
    }

    ScriptedXServer display{Transport::Unix};
    std::set<int> const descriptors = OpenDescriptors();
    std::size_t sentBefore = 0;
    std::size_t receivedBefore = 0;
};

} // namespace

TEST_F(X11Sweep, CutAfterEachByteOfTheServer) {
    ASSERT_EQ(Exchange([](Connection&) {}), "-1");
    std::size_t const lastBegins = server->At(0).sent.back().streamOffset - sentBefore;
    std::size_t const length = server->At(0).Wire().SentCount() - sentBefore;
    for (std::size_t n = 0; n < length; ++n) {
        std::string const outcome =
            Exchange([n](Connection& c) { c.Wire().faults.cutAfterSent = c.Wire().SentCount() + n; });
        EXPECT_TRUE(IsFailure(outcome) || (n > lastBegins && outcome == "-1")) << n << ": " << outcome;
        DismissVisitor();
    }
}

TEST_F(X11Sweep, CutAfterEachByteOfTheClient) {
    ASSERT_EQ(Exchange([](Connection&) {}), "-1");
    std::size_t const length = server->At(0).Wire().ReceivedCount() - receivedBefore;
    for (std::size_t n = 0; n < length; ++n) {
        for (bool reset : {false, true}) {
            std::string const outcome = Exchange([&](Connection& c) {
                c.Wire().faults.cutAfterReceived = c.Wire().ReceivedCount() + n;
                c.Wire().faults.reset = reset;
            });
            EXPECT_TRUE(IsFailure(outcome)) << n << ": " << outcome;
            DismissVisitor();
        }
    }
}

TEST_F(X11Sweep, XServerClosesAfterEachByteOfTheSetUpMessage) {
    for (std::size_t n = 0; n <= SETUP_SIZE; ++n) {
        EXPECT_EQ(Run(display.Display(),
                      [&](Connection& c, X11Peer& x) {
                          x.Send(x.Setup(), x.Open());
                          XConnection client = display.Accept();
                          client.Read(n);
                          client.Close();
                          // A connection closed with bytes unread is reset: a read error, then the end.
                          x.ExpectEof();
                          c.SendTogether({Data("lost", 1), Eof(1), Close(1), Data("kept")});
                          c.ExpectPacket(CHANNEL_CLOSE);
                          x.EndSession();
                      }),
                  "-1")
            << n;
        EXPECT_EQ(output.Text(), "kept") << n;
        output.Clear();
    }
}

TEST_F(X11Sweep, XServerClosesAfterEachByteOfItsAnswer) {
    std::string const answer = "welcome to this display";
    for (std::size_t n = 0; n <= answer.size(); ++n) {
        EXPECT_EQ(Run(display.Display(),
                      [&](Connection&, X11Peer& x) {
                          x.Send(x.Setup(), x.Open());
                          XConnection client = display.Accept();
                          client.Read(SETUP_SIZE);
                          client.Write(answer.substr(0, n));
                          client.Close();
                          if (n > 0 && x.TakeData() != answer.substr(0, n)) throw PeerError("other data");
                          x.ExpectEof();
                          x.EndSession();
                      }),
                  "-1")
            << n;
    }
}

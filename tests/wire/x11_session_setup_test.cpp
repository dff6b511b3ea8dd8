// The connection set-up message of an X client: what is let through to the X server, and how.

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

#include "support/descriptor_state.h"
#include "wire/x11_fixture.h"

using support::IsSet;
using namespace peer;
using namespace std::string_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using x11::ScriptedXServer;
using x11::SetupMessage;
using x11::Transport;
using x11::XConnection;

namespace {

constexpr std::size_t SETUP_SIZE = 12 + 20 + 16;
constexpr std::uint32_t TWO_THIRDS = 1398102; // of the window 0x200000, by integer division

class X11Setup : public X11Test {
protected:
    explicit X11Setup(Transport transport = Transport::Unix) : display(transport) {}

    /// Runs a session whose channel gets that first data, which must not reach the X server.
    void ExpectRefused(std::function<std::string(X11Peer const&)> const& data) {
        bool visited = true;
        EXPECT_EQ(Run(
                      display.Display(),
                      [&](Connection& c, X11Peer& x) {
                          c.SendData(data(x), x.Open());
                          x.ExpectEof();
                          visited = display.HasVisitor();
                          x.EndSession();
                      },
                      {}, ExpectNoDescriptors),
                  "-1");
        EXPECT_FALSE(visited);
        EXPECT_EQ(SentOnTheWay().size(), 2u); // the confirmation and the EOF
        EXPECT_EQ(messages, "");
    }
    void ExpectRefused(std::function<void(SetupMessage&)> const& change) {
        for (char order : {'l', 'B'})
            ExpectRefused([&](X11Peer const& x) {
                SetupMessage message = x.Setup(order);
                change(message);
                return message.Text();
            });
    }
    static void ExpectNoDescriptors(X11Session& session) {
        auto const* channel = session.X11Channel(1);
        ASSERT_NE(channel, nullptr);
        for (int fd : {channel->_fd, channel->_fdIn, channel->_fdOut, channel->_fdErr}) EXPECT_LT(fd, 0);
        EXPECT_NE(channel->_eofSent, 0);
    }

    /// What the X server gets when a client sends that message; `answer` comes back to the client.
    std::string Received(std::function<SetupMessage(X11Peer const&)> const& message,
                         Inspection const& prepare = {}, Inspection const& inspect = {}) {
        std::string received;
        std::string answer;
        EXPECT_EQ(Run(
                      display.Display(),
                      [&](Connection&, X11Peer& x) {
                          fakeCookie = x.cookie;
                          SetupMessage const sent = message(x);
                          x.Send(sent, x.Open());
                          XConnection client = display.Accept();
                          received = client.Read(sent.Text().size());
                          client.Write("welcome");
                          answer = x.TakeData();
                          x.EndSession();
                      },
                      prepare, inspect),
                  "-1");
        EXPECT_EQ(answer, "welcome");
        return received;
    }
    std::string Received(char order = 'l') {
        return Received([order](X11Peer const& x) { return x.Setup(order); });
    }

    ScriptedXServer display;
    std::string fakeCookie;
};

class X11SetupOverTcp : public X11Setup {
protected:
    X11SetupOverTcp() : X11Setup(Transport::Tcp) {}
};

} // namespace

// --- what is let through

TEST_F(X11Setup, CookieIsReplacedInBothByteOrders) {
    for (char order : {'l', 'B'}) {
        SetupMessage expected;
        expected.order = order;
        expected.data = RealCookie();
        EXPECT_EQ(Received(order), expected.Text()) << order;
        EXPECT_NE(fakeCookie, RealCookie());
    }
}

TEST_F(X11Setup, UnusedBytesMinorVersionAndPaddingPassUnchanged) {
    SetupMessage expected;
    expected.minor = 0x1234;
    expected.data = RealCookie();
    EXPECT_EQ(Received([](X11Peer const& x) {
                  SetupMessage message = x.Setup();
                  message.minor = 0x1234;
                  return message;
              }),
              expected.Text());
    EXPECT_EQ(expected.Text()[1], '\x5a');
    EXPECT_EQ(expected.Text().substr(30, 2), "\xa1\xa2");
}

TEST_F(X11Setup, FakeCookieIsSentWithoutARealOne) {
    for (char const* list : {"", "host\n", "host  MIT-MAGIC-COOKIE-1  nothing\n"}) {
        List(list);
        std::string const received = Received();
        SetupMessage expected;
        expected.data = fakeCookie;
        EXPECT_EQ(received, expected.Text());
    }
}

TEST_F(X11Setup, FakeCookieSentToTheXServerMayHaveAnyLength) {
    List("");
    SetupMessage message;
    message.data = "eighteen bytes now";
    EXPECT_EQ(Received([&](X11Peer const&) { return message; },
                       [&](X11Session& session) {
                           session._x11->_fakeCookie = ByteString(message.data.data(), 18);
                       }),
              message.Text());
}

TEST_F(X11Setup, MethodIsThatOfXauthAndLengthsAreUnchanged) {
    List(Entry(REAL_COOKIE_TEXT, "SHORT"));
    std::string received;
    EXPECT_EQ(Run(display.Display(),
                  [&](Connection&, X11Peer& x) {
                      x.Send(x.Setup(), x.Open());
                      XConnection client = display.Accept();
                      received = client.Read(12 + 5 + 2 + 16);
                      client.Write("x");
                      x.TakeData();
                      x.EndSession();
                  }),
              "-1");
    SetupMessage whole;
    whole.data = RealCookie();
    EXPECT_EQ(received, whole.Text().substr(0, 12) + "SHORT\xa1\xa2" + RealCookie());
}

TEST_F(X11Setup, ConnectionOverTheUnixSocketClosesOnExec) {
    std::string const received =
        Received([](X11Peer const& x) { return x.Setup(); }, {},
                 [](X11Session& session) {
                     auto const* channel = session.X11Channel(1);
                     ASSERT_NE(channel, nullptr);
                     ASSERT_GE(channel->_fd, 0);
                     for (int fd : {channel->_fdIn, channel->_fdOut, channel->_fdErr,
                                    channel->_outStream.Fd(), channel->_errStream.Fd()})
                         EXPECT_EQ(fd, channel->_fd);
                     EXPECT_TRUE(session.IsRegistered(channel->_fd));
                     EXPECT_NE(fcntl(channel->_fd, F_GETFD) & FD_CLOEXEC, 0);
                     EXPECT_FALSE(IsSet(channel->_fd, IPPROTO_TCP, TCP_NODELAY));
                     EXPECT_EQ(session._x11->_unixSocket, 1);
                 });
    EXPECT_EQ(received.size(), SETUP_SIZE);
}

TEST_F(X11SetupOverTcp, ConnectionHasNodelayAndClosesOnExec) {
    std::string const received = Received([](X11Peer const& x) { return x.Setup('B'); }, {},
                                          [](X11Session& session) {
                                              auto const* channel = session.X11Channel(1);
                                              ASSERT_NE(channel, nullptr);
                                              ASSERT_GE(channel->_fd, 0);
                                              EXPECT_TRUE(IsSet(channel->_fd, IPPROTO_TCP, TCP_NODELAY));
                                              EXPECT_NE(fcntl(channel->_fd, F_GETFD) & FD_CLOEXEC, 0);
                                              EXPECT_EQ(session._x11->_unixSocket, 0);
                                          });
    SetupMessage expected;
    expected.order = 'B';
    expected.data = RealCookie();
    EXPECT_EQ(received, expected.Text());
}

TEST_F(X11Setup, DisplayWithHostUnixUsesTheUnixSocket) {
    std::string received;
    EXPECT_EQ(Run("unix:" + std::to_string(display.Number()) + ".1",
                  [&](Connection&, X11Peer& x) {
                      x.Send(x.Setup(), x.Open());
                      received = display.Accept().Read(SETUP_SIZE);
                      x.ExpectEof();
                      x.EndSession();
                  }),
              "-1");
    EXPECT_EQ(received.size(), SETUP_SIZE);
}

TEST_F(X11Setup, WindowIsNotCheckedForTheSetUpMessage) {
    EXPECT_EQ(Run(
                  display.Display(),
                  [&](Connection&, X11Peer& x) {
                      x.Send(x.Setup(), x.Open());
                      XConnection client = display.Accept();
                      client.Read(SETUP_SIZE);
                      client.Write("a");
                      x.TakeData();
                      x.EndSession();
                  },
                  [](X11Session& session) { session._in._byteCount = TWO_THIRDS + 1000; }),
              "-1");
    EXPECT_THAT(SentOnTheWay(), ElementsAre(testing::_, Data("a", 500)));
}

TEST_F(X11Setup, WindowIsCheckedForTheDataAfterIt) {
    EXPECT_EQ(Run(
                  display.Display(),
                  [&](Connection& c, X11Peer& x) {
                      x.Send(x.Setup(), x.Open());
                      XConnection client = display.Accept();
                      client.Read(SETUP_SIZE);
                      c.SendData("more", 1);
                      EXPECT_EQ(client.Read(4), "more");
                      EXPECT_EQ(c.ExpectPacket(CHANNEL_WINDOW_ADJUST).U32(), 500u);
                      x.EndSession();
                  },
                  [](X11Session& session) { session._in._byteCount = TWO_THIRDS + 1000; }),
              "-1");
}

TEST_F(X11Setup, ExtendedDataMayBeTheSetUpMessage) {
    EXPECT_EQ(Run(display.Display(),
                  [&](Connection& c, X11Peer& x) {
                      c.SendExtendedData(x.Setup().Text(), 1, x.Open());
                      EXPECT_EQ(display.Accept().Read(SETUP_SIZE).size(), SETUP_SIZE);
                      x.ExpectEof();
                      x.EndSession();
                  }),
              "-1");
}

// --- what is not

TEST_F(X11Setup, MessageOf11BytesFails) {
    for (char order : {'l', 'B'})
        ExpectRefused([&](X11Peer const& x) { return x.Setup(order).Text().substr(0, 11); });
}

TEST_F(X11Setup, EachShorterMessageFails) {
    bool visited = true;
    EXPECT_EQ(Run(
                  display.Display(),
                  [&](Connection& c, X11Peer& x) {
                      x.Open();
                      for (char order : {'l', 'B'})
                          for (std::size_t size = 0; size < SETUP_SIZE; ++size) {
                              c.SendData(x.Setup(order).Text().substr(0, size), 1);
                              x.ExpectEof();
                          }
                      visited = display.HasVisitor();
                      x.EndSession();
                  },
                  {}, ExpectNoDescriptors),
              "-1");
    EXPECT_FALSE(visited);
}

TEST_F(X11Setup, MessageWithBytesAfterItFails) {
    ExpectRefused([](X11Peer const& x) { return x.Setup().Text() + "x"; });
    ExpectRefused([](X11Peer const& x) { return x.Setup('B').Text() + std::string(1000, 'x'); });
}

TEST_F(X11Setup, MessageInTwoPartsFailsTwice) {
    EXPECT_EQ(Run(display.Display(),
                  [&](Connection& c, X11Peer& x) {
                      x.Open();
                      c.SendTogether(
                          {Data(x.Setup().Text().substr(0, 20), 1), Data(x.Setup().Text().substr(20), 1)});
                      x.ExpectEof();
                      x.ExpectEof();
                      EXPECT_FALSE(display.HasVisitor());
                      x.EndSession();
                  }),
              "-1");
}

TEST_F(X11Setup, UnknownByteOrderFails) {
    for (char order : {'b', 'L', '\0', '\xff'})
        ExpectRefused([&](X11Peer const& x) {
            std::string text = x.Setup(order).Text();
            text[0] = order;
            return text;
        });
}

TEST_F(X11Setup, OtherVersionsFail) {
    for (unsigned int major : {0u, 10u, 12u, 0x0b00u, 0x0b0bu, 0xffffu})
        ExpectRefused([&](SetupMessage& message) { message.major = major; });
}

TEST_F(X11Setup, WrongCookieFailsBeforeAnyConnection) {
    ExpectRefused([](SetupMessage& message) { message.data[0] ^= 1; });
    ExpectRefused([](SetupMessage& message) { message.data[15] ^= '\x80'; });
    ExpectRefused([](SetupMessage& message) { message.data = RealCookie(); });
    ExpectRefused([](SetupMessage& message) { message.data = std::string(16, '\0'); });
}

TEST_F(X11Setup, NullChannelIsRefusedBeforeAnyConnection) {
    int result = 0;
    bool visited = true;
    EXPECT_EQ(Run(
                  display.Display(), [](Connection&, X11Peer& x) { x.EndSession(); },
                  [&](X11Session& session) {
                      x11::SetupMessage message;
                      ByteString const& cookie = session._x11->_fakeCookie;
                      message.data.assign(cookie.Data(), cookie.Data() + cookie.Length());
                      std::string const text = message.Text();
                      result =
                          session.InitiateX11Connection(reinterpret_cast<unsigned char const*>(text.data()),
                                                        static_cast<unsigned int>(text.size()), nullptr);
                      visited = display.HasVisitor();
                  }),
              "-1");
    EXPECT_EQ(result, -1);
    EXPECT_FALSE(visited);
}

TEST_F(X11Setup, CookiesOfOtherLengthsFail) {
    ExpectRefused([](SetupMessage& message) { message.data = ""; });
    ExpectRefused([](SetupMessage& message) { message.data.pop_back(); });
    ExpectRefused([](SetupMessage& message) { message.data += '\0'; });
    ExpectRefused([](SetupMessage& message) { message.data += message.data; });
}

TEST_F(X11Setup, OtherNamesFail) {
    ExpectRefused([](SetupMessage& message) { message.name = ""; });
    ExpectRefused([](SetupMessage& message) { message.name = "MIT-MAGIC-COOKIE-"; });
    ExpectRefused([](SetupMessage& message) { message.name = "MIT-MAGIC-COOKIE-1\0"s; });
    ExpectRefused([](SetupMessage& message) { message.name = "MIT-MAGIC-COOKIE-2"; });
    ExpectRefused([](SetupMessage& message) { message.name = "XDM-AUTHORIZATION-1"; });
}

TEST_F(X11Setup, MethodNameOfXauthIsNotAccepted) {
    List(Entry(REAL_COOKIE_TEXT, "XDM-AUTHORIZATION-1"));
    ExpectRefused([](SetupMessage& message) { message.name = "XDM-AUTHORIZATION-1"; });
}

TEST_F(X11Setup, NameOf256BytesFailsComparisonAndOf257LengthCheck) {
    for (std::size_t length : {256u, 257u})
        ExpectRefused([&](SetupMessage& message) { message.name = std::string(length, 'n'); });
}

TEST_F(X11Setup, CookieOf256BytesFailsComparisonAndOf257LengthCheck) {
    for (std::size_t length : {256u, 257u})
        ExpectRefused([&](SetupMessage& message) { message.data = std::string(length, 'd'); });
}

TEST_F(X11Setup, LengthsBeyondTheMessageFail) {
    for (unsigned int length : {17u, 256u, 257u, 0xfffcu, 0xffffu}) {
        ExpectRefused([&](SetupMessage& message) { message.nameLength = length; });
        ExpectRefused([&](SetupMessage& message) { message.dataLength = length; });
        ExpectRefused([&](SetupMessage& message) { message.nameLength = message.dataLength = length; });
    }
}

// --- after the check

TEST_F(X11Setup, RealCookieOf8BytesClosesTheConnectionAgain) {
    List(Entry("0011223344556677"));
    std::string received = "?";
    EXPECT_EQ(Run(
                  display.Display(),
                  [&](Connection&, X11Peer& x) {
                      x.Send(x.Setup(), x.Open());
                      x.ExpectEof();
                      received = display.Accept().ReadToTheEnd();
                      x.EndSession();
                  },
                  {}, ExpectNoDescriptors),
              "-1");
    EXPECT_EQ(received, "");
}

TEST_F(X11Setup, RealCookieOf17BytesClosesTheConnectionAgain) {
    List(Entry(std::string(34, 'a')));
    EXPECT_EQ(Run(
                  display.Display(),
                  [&](Connection&, X11Peer& x) {
                      x.Send(x.Setup(), x.Open());
                      x.ExpectEof();
                      EXPECT_EQ(display.Accept().ReadToTheEnd(), "");
                      x.EndSession();
                  },
                  {}, ExpectNoDescriptors),
              "-1");
}

TEST_F(X11Setup, MissingXServerFails) {
    display.StopListening();
    EXPECT_EQ(Run(
                  display.Display(),
                  [&](Connection&, X11Peer& x) {
                      x.Send(x.Setup(), x.Open());
                      x.ExpectEof();
                      x.EndSession();
                  },
                  {}, ExpectNoDescriptors),
              "-1");
    EXPECT_EQ(messages, "");
}

TEST_F(X11SetupOverTcp, MissingXServerFails) {
    display.StopListening();
    EXPECT_EQ(Run(
                  display.Display(),
                  [&](Connection&, X11Peer& x) {
                      x.Send(x.Setup(), x.Open());
                      x.ExpectEof();
                      x.EndSession();
                  },
                  {}, ExpectNoDescriptors),
              "-1");
    EXPECT_EQ(messages, "");
}

TEST_F(X11Setup, DisplayNumberWithoutAPortFails) {
    EXPECT_EQ(Run(
                  "localhost:1000",
                  [&](Connection&, X11Peer& x) {
                      x.Send(x.Setup(), x.Open());
                      x.ExpectEof();
                      x.EndSession();
                  },
                  {}, ExpectNoDescriptors),
              "-1");
}

TEST_F(X11Setup, DataAfterAFailureIsParsedAsASetUpMessageAgain) {
    std::string received;
    std::string answer;
    EXPECT_EQ(Run(display.Display(),
                  [&](Connection& c, X11Peer& x) {
                      SetupMessage wrong = x.Setup();
                      wrong.data[7] ^= 1;
                      x.Open();
                      c.SendTogether({Data(wrong.Text(), 1), Data("and more", 1), Data(x.Setup().Text(), 1)});
                      x.ExpectEof();
                      x.ExpectEof();
                      XConnection client = display.Accept();
                      received = client.Read(SETUP_SIZE);
                      client.Write("late");
                      answer = x.TakeData();
                      x.EndSession();
                  }),
              "-1");
    SetupMessage expected;
    expected.data = RealCookie();
    EXPECT_EQ(received, expected.Text());
    EXPECT_EQ(answer, "late");
}

TEST_F(X11Setup, FailureOfOneChannelDoesNotAffectOthers) {
    std::string received;
    EXPECT_EQ(Run(display.Display(),
                  [&](Connection& c, X11Peer& x) {
                      std::uint32_t const good = x.Open(500);
                      std::uint32_t const bad = x.Open(501);
                      x.Send(x.Setup(), good);
                      XConnection client = display.Accept();
                      client.Read(SETUP_SIZE);
                      c.SendData("nonsense", bad);
                      x.ExpectEof(501);
                      c.SendData("request", good);
                      received = client.Read(7);
                      c.SendData("output");
                      x.EndSession();
                  }),
              "-1");
    EXPECT_EQ(received, "request");
    EXPECT_EQ(output.Text(), "output");
}

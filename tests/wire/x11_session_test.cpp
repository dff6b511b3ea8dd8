// The request for X11 forwarding within Open, and the channels that the server opens for it.

#include "wire/x11_fixture.h"

using namespace peer;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

namespace {

class X11Request : public X11Test {
protected:
    /// The request whose answer is that payload; the rest of the session is one command.
    std::string Answer(Bytes const& payload) {
        return RunWith(":0", [&](Connection& c) {
            c.ReadChannelRequest();
            c.SendPacket(payload);
            c.ReadChannelRequest();
            c.SendData("output");
            c.SendExitStatus(0);
        });
    }
};

Bytes Answered(unsigned number, std::uint32_t recipient = 0) { return Writer().U8(number).U32(recipient); }

constexpr std::uint32_t RESOURCE_SHORTAGE = 4; // RFC 4254, section 5.1

Bytes Refused(std::uint32_t sender, std::uint32_t reason = 1) {
    return Writer().U8(CHANNEL_OPEN_FAILURE).U32(sender).U32(reason).String("open failed").String("");
}

Bytes Confirmed(std::uint32_t sender, std::uint32_t number, std::uint32_t maxPacket) {
    return Writer().U8(CHANNEL_OPEN_CONFIRMATION).U32(sender).U32(number).U32(0x200000).U32(maxPacket);
}

} // namespace

TEST_F(X11Request, IsExact) {
    for (int single : {0, 1}) {
        singleConnection = single;
        EXPECT_EQ(Run(
                      "localhost:10.3", [](Connection&, X11Peer& x) { x.EndSession(); }, {},
                      [](X11Session& session) { ASSERT_NE(session._x11.Get(), nullptr); }),
                  "-1");
        Reader request(Sent().at(0));
        EXPECT_EQ(request.U8(), CHANNEL_REQUEST);
        EXPECT_EQ(request.U32(), 42u);
        EXPECT_EQ(request.String(), "x11-req");
        EXPECT_EQ(request.U8(), 1);
        EXPECT_EQ(request.U8(), single);
        EXPECT_EQ(request.String(), "MIT-MAGIC-COOKIE-1");
        EXPECT_THAT(request.String(), MatchesRegex("[0-9a-f]{32}"));
        EXPECT_EQ(request.U32(), 3u);
        request.End();
        EXPECT_EQ(opened, 0);
        EXPECT_TRUE(granted);
    }
}

TEST_F(X11Request, HasTheFakeCookieAndTheDefaultMethodWhateverXauthLists) {
    List(Entry(REAL_COOKIE_TEXT, "XDM-AUTHORIZATION-1"));
    std::string fake;
    std::string shown;
    EXPECT_EQ(Run(
                  ":0",
                  [&](Connection&, X11Peer& x) {
                      shown = x.cookie;
                      x.EndSession();
                  },
                  [&](X11Session& session) { fake = ToText(ToPeer(session._x11->_fakeCookie)); }),
              "-1");
    EXPECT_EQ(shown, fake);
    EXPECT_EQ(shown.size(), 16u);
    EXPECT_NE(shown, RealCookie());
    Reader request(Sent().at(0));
    request.Raw(16 + 2);
    EXPECT_EQ(request.String(), "MIT-MAGIC-COOKIE-1");
}

TEST_F(X11Request, IsNotSentWithoutForwarding) {
    EXPECT_EQ(RunWith("",
                      [](Connection& c) {
                          EXPECT_EQ(c.ReadChannelRequest().type, "exec");
                          c.SendExitStatus(0);
                      }),
              "-1");
    EXPECT_EQ(Sent().size(), 1u);
    EXPECT_THAT(xauth->Calls(), IsEmpty());
}

TEST_F(X11Request, FailureDisablesForwardingButNotOpen) {
    EXPECT_EQ(RunWith(":0",
                      [](Connection& c) {
                          c.ReadChannelRequest();
                          c.SendChannelMessage(CHANNEL_FAILURE);
                          c.ReadChannelRequest();
                          c.SendPacket(X11Peer::Opening(7));
                          c.ExpectPacket(CHANNEL_OPEN_FAILURE);
                          c.SendData("output");
                          c.SendExitStatus(0);
                      }),
              "-1");
    EXPECT_EQ(opened, 0);
    EXPECT_FALSE(granted);
    EXPECT_EQ(output.Text(), "output");
    EXPECT_THAT(SentOnTheWay(), ElementsAre(Refused(7)));
}

TEST_F(X11Request, AnyMessageButSuccessIsARefusal) {
    for (unsigned number : {0u, 1u, 80u, 82u, 91u, 93u, 98u, 100u, 255u}) {
        EXPECT_EQ(Answer(Answered(number)), "-1") << number;
        EXPECT_EQ(opened, 0);
        EXPECT_FALSE(granted) << number;
        EXPECT_EQ(output.Text(), "output");
        output.Clear();
    }
}

TEST_F(X11Request, RecipientOfTheSuccessIsNotCompared) {
    EXPECT_EQ(Answer(Answered(CHANNEL_SUCCESS, 9)), "-1");
    EXPECT_TRUE(granted);
}

TEST_F(X11Request, TooLongAnswerIsAViolation) {
    joinOnly = true;
    EXPECT_EQ(Answer(Concat({Answered(CHANNEL_SUCCESS), Bytes{0}})),
              "SshProtocolError: additional characters in packet after padding: SSH_MSG_CHANNEL_SUCCESS");
}

TEST_F(X11Request, CloseInsteadOfTheAnswerIsAViolation) {
    EXPECT_EQ(RunWith(":0",
                      [](Connection& c) {
                          c.ReadChannelRequest();
                          c.Wire().ShutdownWrite();
                      }),
              closedEarly);
}

TEST_F(X11Request, ForwardingStartedAfterOpenIsNotRequested) {
    EXPECT_EQ(RunWith(
                  "",
                  [](Connection& c) {
                      c.ReadChannelRequest();
                      c.SendExitStatus(0);
                  },
                  [](X11Session& session) { EXPECT_EQ(session.StartX11Forwarding(0, ":0"), 0); }),
              "-1");
    EXPECT_EQ(Sent().size(), 1u);
}

// --- channels

TEST_F(X11Request, ChannelIsConfirmedWithTheLocalWindowAndThePeersPacketSize) {
    EXPECT_EQ(Run(":0",
                  [](Connection& c, X11Peer& x) {
                      c.SendTogether({X11Peer::Opening(500, 0x4000), X11Peer::Opening(0xfffffffe, 1)});
                      c.ExpectPacket(CHANNEL_OPEN_CONFIRMATION);
                      c.ExpectPacket(CHANNEL_OPEN_CONFIRMATION);
                      x.EndSession();
                  }),
              "-1");
    EXPECT_THAT(SentOnTheWay(), ElementsAre(Confirmed(500, 1, 0x4000), Confirmed(0xfffffffe, 2, 1)));
}

TEST_F(X11Request, OpenedChannelHasNoDescriptorAndNoConnection) {
    x11::ScriptedXServer const display(x11::Transport::Unix);
    bool visited = true;
    std::set<int> before, after{-1};
    EXPECT_EQ(Run(
                  display.Display(),
                  [&](Connection& c, X11Peer& x) {
                      before = OpenDescriptors();
                      x.Open();
                      after = OpenDescriptors();
                      visited = display.HasVisitor();
                      c.SendData("still there");
                      x.EndSession();
                  },
                  {},
                  [](X11Session& session) {
                      auto const* channel = session.X11Channel(1);
                      ASSERT_NE(channel, nullptr);
                      EXPECT_EQ(channel->_remoteId, 500u);
                      EXPECT_STREQ(channel->_name.Text(), "x11");
                      EXPECT_EQ(channel->_windowSize, 0x200000u);
                      for (int fd : {channel->_fd, channel->_fdIn, channel->_fdOut, channel->_fdErr})
                          EXPECT_EQ(fd, -1);
                  }),
              "-1");
    EXPECT_FALSE(visited);
    EXPECT_EQ(before, after);
    EXPECT_EQ(output.Text(), "still there");
}

TEST_F(X11Request, ChannelsWithoutAConnectionAreLimited) {
    constexpr std::uint32_t asked = 1100;
    constexpr std::uint32_t most = 1024;
    unsigned int waiting = 0;
    EXPECT_EQ(Run(
                  ":0",
                  [](Connection& c, X11Peer& x) {
                      for (std::uint32_t i = 0; i < asked; ++i) {
                          c.SendPacket(X11Peer::Opening(500 + i));
                          c.ReadPacket();
                      }
                      c.SendPacket(Close(7)); // makes room for one
                      c.SendTogether({X11Peer::Opening(8000), X11Peer::Opening(8001)});
                      c.ReadPacket();
                      c.ReadPacket();
                      c.SendData("still there");
                      x.EndSession();
                  },
                  {}, [&](X11Session& session) { waiting = session._channels.CountUnconnectedX11(); }),
              "-1");
    std::vector<Bytes> const sent = SentOnTheWay();
    ASSERT_EQ(sent.size(), asked + 2);
    for (std::uint32_t i = 0; i < asked; ++i)
        EXPECT_EQ(sent[i],
                  i < most ? Confirmed(500 + i, 1 + i, 0x4000) : Refused(500 + i, RESOURCE_SHORTAGE));
    EXPECT_EQ(sent[asked], Confirmed(8000, 1 + most, 0x4000));
    EXPECT_EQ(sent[asked + 1], Refused(8001, RESOURCE_SHORTAGE));
    EXPECT_EQ(waiting, most);
    EXPECT_EQ(output.Text(), "still there");
    EXPECT_EQ(messages, "");
}

TEST_F(X11Request, OriginatorIsIgnored) {
    EXPECT_EQ(
        Run(":0",
            [](Connection& c, X11Peer& x) {
                c.SendPacket(
                    Writer().U8(CHANNEL_OPEN).String("x11").U32(9).U32(0).U32(0).String("").U32(0xffffffff));
                c.ExpectPacket(CHANNEL_OPEN_CONFIRMATION);
                x.EndSession();
            }),
        "-1");
    EXPECT_THAT(SentOnTheWay(), ElementsAre(Confirmed(9, 1, 0)));
}

TEST_F(X11Request, ChannelWithoutForwardingIsRefused) {
    EXPECT_EQ(RunWith("",
                      [](Connection& c) {
                          c.ReadChannelRequest();
                          c.SendPacket(X11Peer::Opening(7));
                          c.ExpectPacket(CHANNEL_OPEN_FAILURE);
                          c.SendExitStatus(0);
                      }),
              "-1");
    EXPECT_EQ(Sent().at(1), Refused(7));
}

TEST_F(X11Request, ChannelsOfOtherTypesAreRefused) {
    EXPECT_EQ(Run(":0",
                  [](Connection& c, X11Peer& x) {
                      for (char const* type : {"X11", "x11-", "session"}) {
                          c.SendPacket(Writer()
                                           .U8(CHANNEL_OPEN)
                                           .String(type)
                                           .U32(8)
                                           .U32(0)
                                           .U32(0)
                                           .String("127.0.0.1")
                                           .U32(1));
                          c.ExpectPacket(CHANNEL_OPEN_FAILURE);
                      }
                      x.EndSession();
                  }),
              "-1");
    EXPECT_THAT(SentOnTheWay(), ElementsAre(Refused(8), Refused(8), Refused(8)));
}

TEST_F(X11Request, OpeningWithMoreThanTheOriginatorIsAViolation) {
    EXPECT_EQ(Run(":0",
                  [](Connection& c, X11Peer&) {
                      c.SendPacket(Concat({X11Peer::Opening(7), Bytes{0}}));
                      c.ExpectClosed();
                  }),
              "SshProtocolError: additional characters in packet after padding: SSH_MSG_CHANNEL_OPEN");
}

// Established connections of X clients: data in both directions, and their ends.

#include <unistd.h>

#include <thread>

#include "support/pattern.h"
#include "wire/x11_fixture.h"

using support::Pattern;
using namespace peer;
using testing::ElementsAre;
using x11::ScriptedXServer;
using x11::Transport;
using x11::XConnection;

namespace {

constexpr std::size_t SETUP_SIZE = 12 + 20 + 16;

class X11Flow : public X11Test, public testing::WithParamInterface<Transport> {
protected:
    /// Opens a channel and connects it to the X server.
    XConnection Connect(X11Peer& x, std::uint32_t sender = 500) {
        x.Send(x.Setup(), x.Open(sender));
        XConnection client = display.Accept();
        client.Read(SETUP_SIZE);
        return client;
    }
    std::string Run(Script const& script, Inspection const& inspect = {}) {
        return X11Test::Run(display.Display(), script, {}, inspect);
    }

    ScriptedXServer display{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(Transports, X11Flow, testing::Values(Transport::Unix, Transport::Tcp),
                         [](auto const& param) { return param.param == Transport::Unix ? "Unix" : "Tcp"; });

} // namespace

TEST_P(X11Flow, DataPassesUnchangedInBothDirections) {
    std::string const request("\0request\xff", 9), event("event\0\n\r", 8);
    EXPECT_EQ(Run([&](Connection& c, X11Peer& x) {
                  XConnection client = Connect(x);
                  for (int i = 0; i < 3; ++i) {
                      c.SendData(request, 1);
                      EXPECT_EQ(client.Read(request.size()), request);
                      client.Write(event);
                      EXPECT_EQ(x.TakeData(), event);
                  }
                  x.EndSession();
              }),
              "-1");
    EXPECT_EQ(messages, "");
}

TEST_P(X11Flow, DataAfterTheSetUpMessageInOneSegmentPasses) {
    EXPECT_EQ(Run([&](Connection& c, X11Peer& x) {
                  x.Open();
                  c.SendTogether({Data(x.Setup().Text(), 1), Data("first", 1), Data("second", 1)});
                  EXPECT_EQ(display.Accept().Read(SETUP_SIZE + 11).substr(SETUP_SIZE), "firstsecond");
                  x.ExpectEof();
                  x.EndSession();
              }),
              "-1");
}

TEST_P(X11Flow, MegabytesPassInBothDirections) {
    std::string const up = Pattern(1 << 20, 3), down = Pattern(1 << 20, 5);
    std::string upThere, downThere;
    EXPECT_EQ(Run([&](Connection& c, X11Peer& x) {
                  XConnection client = Connect(x);
                  for (std::size_t at = 0; at < up.size(); at += 0x4000) {
                      c.SendData(up.substr(at, 0x4000), 1);
                      upThere += client.Read(0x4000);
                  }
                  std::thread writer([&] { client.Write(down); });
                  while (downThere.size() < down.size()) {
                      Reader packet(c.ReadPacket());
                      if (packet.U8() != CHANNEL_DATA) continue; // a grant of window
                      packet.U32();
                      downThere += packet.String();
                  }
                  writer.join();
                  x.EndSession();
              }),
              "-1");
    EXPECT_TRUE(upThere == up);
    EXPECT_TRUE(downThere == down);
}

TEST_P(X11Flow, SeveralClientsAreServedSideBySide) {
    EXPECT_EQ(Run([&](Connection& c, X11Peer& x) {
                  std::vector<XConnection> clients;
                  for (std::uint32_t i = 0; i < 5; ++i) clients.push_back(Connect(x, 500 + i));
                  for (int round = 0; round < 3; ++round)
                      for (std::uint32_t i = 0; i < 5; ++i) {
                          std::string const text = "to " + std::to_string(i);
                          c.SendData(text, 1 + i);
                          EXPECT_EQ(clients[i].Read(text.size()), text);
                          clients[i].Write("from " + std::to_string(i));
                          EXPECT_EQ(x.TakeData(500 + i), "from " + std::to_string(i));
                      }
                  x.EndSession();
              }),
              "-1");
}

// --- ends

TEST_P(X11Flow, XServerThatClosesSendsEofOnce) {
    int fd = -1;
    EXPECT_EQ(Run(
                  [&](Connection& c, X11Peer& x) {
                      XConnection client = Connect(x);
                      client.Write("last");
                      client.Close();
                      EXPECT_EQ(x.TakeData(), "last");
                      x.ExpectEof();
                      c.SendEof(1);
                      c.ExpectPacket(CHANNEL_CLOSE);
                      x.EndSession();
                  },
                  [&](X11Session& session) {
                      fd = session.X11Channel(1)->_fd;
                      EXPECT_FALSE(session.IsRegistered(fd));
                  }),
              "-1");
    EXPECT_GE(fd, 0);
    EXPECT_THAT(SentOnTheWay(), ElementsAre(testing::_, Data("last", 500), Eof(500), Close(500)));
}

TEST_P(X11Flow, XServerThatEndsItsSideStillGetsData) {
    EXPECT_EQ(Run([&](Connection& c, X11Peer& x) {
                  XConnection client = Connect(x);
                  client.ShutdownWrite();
                  x.ExpectEof();
                  c.SendData("more", 1);
                  EXPECT_EQ(client.Read(4), "more");
                  x.EndSession();
              }),
              "-1");
}

TEST_P(X11Flow, ClientThatClosesClosesTheConnectionAfterItsData) {
    std::string received;
    std::set<int> before, after{-1};
    EXPECT_EQ(Run(
                  [&](Connection& c, X11Peer& x) {
                      before = OpenDescriptors();
                      XConnection client = Connect(x);
                      c.SendTogether({Data("last words", 1), Eof(1), Close(1)});
                      x.ExpectEof();
                      c.ExpectPacket(CHANNEL_CLOSE);
                      received = client.ReadToTheEnd();
                      client.Close();
                      after = OpenDescriptors();
                      x.EndSession();
                  },
                  [](X11Session& session) { EXPECT_EQ(session.X11Channel(1), nullptr); }),
              "-1");
    EXPECT_EQ(received, "last words");
    EXPECT_EQ(before, after);
}

TEST_P(X11Flow, CloseOfAChannelWithoutAConnectionIsAccepted) {
    EXPECT_EQ(Run([](Connection& c, X11Peer& x) {
                  x.Open();
                  c.SendTogether({Eof(1), Close(1), Data("late", 1)});
                  x.ExpectEof();
                  c.ExpectPacket(CHANNEL_CLOSE);
                  c.SendData("still there");
                  x.EndSession();
              }),
              "-1");
    EXPECT_EQ(output.Text(), "still there");
    EXPECT_THAT(SentOnTheWay(), ElementsAre(testing::_, Eof(500), Close(500)));
}

TEST_P(X11Flow, DataForAClosedXServerIsDropped) {
    EXPECT_EQ(Run([&](Connection& c, X11Peer& x) {
                  Connect(x).Close();
                  x.ExpectEof();
                  for (int i = 0; i < 5; ++i) c.SendData("lost", 1);
                  c.SendData("kept");
                  x.EndSession();
              }),
              "-1");
    EXPECT_EQ(output.Text(), "kept");
}

TEST_P(X11Flow, EndOfTheSessionClosesConnections) {
    std::set<int> const before = OpenDescriptors();
    std::unique_ptr<XConnection> client;
    EXPECT_EQ(Run([&](Connection&, X11Peer& x) {
                  client = std::make_unique<XConnection>(Connect(x));
                  x.EndSession();
              }),
              "-1");
    EXPECT_EQ(client->ReadToTheEnd(), "");
    client.reset();
    server.reset();
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST_P(X11Flow, DispatcherOfARemovedChannelDoesNothing) {
    std::string left;
    EXPECT_EQ(Run(
                  [&](Connection&, X11Peer& x) {
                      XConnection client = Connect(x);
                      client.Write("x");
                      x.TakeData();
                      x.EndSession();
                  },
                  [&](X11Session& session) {
                      int const fd = session.X11Channel(1)->_fd;
                      session._channels.RemoveChannel(1); // closes the descriptor, which stays registered
                      ASSERT_TRUE(session.IsRegistered(fd));
                      InputPipe other;
                      other.Write("of another");
                      ASSERT_EQ(dup2(other.Fd(), fd), fd); // the number is another file's now
                      EXPECT_EQ(session._mux.Dispatch(fd), 0);
                      char bytes[10];
                      left.assign(bytes, static_cast<std::size_t>(read(fd, bytes, sizeof bytes)));
                      close(fd);
                  }),
              "-1");
    EXPECT_EQ(left, "of another");
    EXPECT_THAT(SentOnTheWay(), ElementsAre(testing::_, Data("x", 500)));
}

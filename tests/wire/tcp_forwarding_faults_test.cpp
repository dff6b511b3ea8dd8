// Forwarded connections that end badly: the session and its other channels go on where they can, and nothing
// stays open.

#include <atomic>
#include <thread>

#include "support/pattern.h"
#include "wire/forwarding_fixture.h"

using support::Pattern;
using namespace peer;
using testing::AnyOf;
using testing::HasSubstr;

namespace {

/// Sends bytes through a connection on another thread, as long as they are accepted.
class Sender {
public:
    Sender(tcp::End const& end, std::string bytes)
        : _thread([&end, bytes = std::move(bytes)] {
              try {
                  end.Send(bytes);
              } catch (std::runtime_error const&) {
              }
          }) {}
    ~Sender() { _thread.join(); }

private:
    std::thread _thread;
};

class ForwardingFaults : public ForwardingTest {
protected:
    /// Opens another connection through the forwarding, when all that was sent has been handled, and uses it
    /// in both directions.
    void ExpectWorking(Connection& c) const {
        c.SendEof();
        while (c.ReadPacket() != Close(42)) continue;
        tcp::End const local = Connect();
        std::uint32_t const number = c.ReadChannelOpen().sender;
        c.SendPacket(Confirmation(number, 900));
        local.Send("request");
        EXPECT_EQ(c.ReadPacket(), Data("request", 900));
        c.SendData("reply", number);
        EXPECT_EQ(local.Receive(5), "reply");
    }
};

/// One connection of each kind, used in both directions and closed.
class ForwardedExchange : public ForwardingTest, public testing::WithParamInterface<std::size_t> {
protected:
    static constexpr std::size_t SHARDS = 4;

    void Exchange(Connection& c, tcp::Service const& service) const {
        GrantForwarding(c);
        tcp::End const local = ConnectThrough(c);
        local.Send("request");
        c.ExpectPacket(CHANNEL_DATA);
        c.SendPacket(ShortOpening(500, 9000));
        c.ExpectPacket(CHANNEL_OPEN_CONFIRMATION);
        tcp::End const target = service.Accept();
        c.SendTogether({Data("reply", 1), Data("hello", 2)});
        target.EndSending();
        c.ExpectPacket(CHANNEL_EOF);
        c.SendTogether({Eof(1), Eof(2)});
        for (int i = 0; i < 3; ++i) c.ReadPacket();
        c.SendTogether({Close(1), Close(2), ExitStatus(0)});
    }

    /// The outcome of a session with these faults, the positions of which count from the exchange on.
    std::string RunWith(Faults faults) {
        std::set<int> const before = OpenDescriptors();
        auto service = std::make_unique<tcp::Service>();
        std::string const outcome = Run(
            [&](Connection& c) {
                _sentBefore = c.Wire().SentCount();
                _receivedBefore = c.Wire().ReceivedCount();
                if (faults.cutAfterSent) *faults.cutAfterSent += _sentBefore;
                if (faults.cutAfterReceived) *faults.cutAfterReceived += _receivedBefore;
                c.Wire().faults = faults;
                c.Wire().Begin();
                Exchange(c, *service);
            },
            [&](LoopSession& session) {
                Outcome([&] {
                    return session.StartRemoteForwarding(service->Port(), "127.0.0.1", 9000, "bound");
                });
                Listen(session);
            });
        _sent = server->At(0).Wire().SentCount() - _sentBefore;
        _received = server->At(0).Wire().ReceivedCount() - _receivedBefore;
        PacketRecord const& last = server->At(0).sent.back();
        _lastBlock = last.streamOffset + last.blockSize - _sentBefore;
        server.reset();
        service.reset();
        EXPECT_EQ(OpenDescriptors(), before);
        return outcome;
    }

    static bool IsException(std::string const& outcome) {
        return outcome.find("SshProtocolError: ") == 0 || outcome.find("BadInput: ") == 0;
    }

    std::size_t _sentBefore = 0;
    std::size_t _receivedBefore = 0;
    std::size_t _sent = 0; ///< bytes of the exchange, in each direction
    std::size_t _received = 0;
    std::size_t _lastBlock = 0; ///< where the first block of the server's last packet ends
};

} // namespace

// --- the connection to the server is cut

TEST_P(ForwardedExchange, CutAfterEachByteOfTheServer) {
    ASSERT_EQ(RunWith({}), "-1");
    std::size_t const end = _sent;
    std::size_t const lastBlock = _lastBlock;
    for (std::size_t n = GetParam(); n < end; n += SHARDS) {
        Faults faults;
        faults.cutAfterSent = n;
        std::string const outcome = RunWith(faults);
        // The missing part of the last packet reads as zeros, and so does a status of zero.
        EXPECT_TRUE(IsException(outcome) || (n >= lastBlock && outcome == "-1")) << n << ": " << outcome;
    }
}

TEST_P(ForwardedExchange, CutAfterEachByteOfTheClient) {
    ASSERT_EQ(RunWith({}), "-1");
    std::size_t const end = _received;
    for (std::size_t n = GetParam(); n < end; n += SHARDS) {
        Faults faults;
        faults.cutAfterReceived = n;
        faults.reset = n % 2 == 0;
        std::string const outcome = RunWith(faults);
        EXPECT_TRUE(IsException(outcome)) << n << ": " << outcome;
    }
}

INSTANTIATE_TEST_SUITE_P(Positions, ForwardedExchange, testing::Range(std::size_t{0}, std::size_t{4}));

// --- the server answers anything

TEST_F(ForwardingFaults, AnyMessageAsAnswerIsSurvived) {
    for (unsigned number = 0; number < 256; ++number) {
        std::string const outcome = Run(
            [&](Connection& c) {
                tcp::End const local = Connect();
                c.ReadChannelOpen();
                c.SendPacket(Writer().U8(number).U32(1));
                EXPECT_TRUE(local.IsClosedByPeer()) << number;
                c.SendExitStatus(0);
            },
            Listening());
        EXPECT_THAT(outcome, AnyOf("-1", HasSubstr("Error: "), HasSubstr("BadInput: "))) << number;
    }
}

TEST_F(ForwardingFaults, TruncatedConfirmationIsSurvived) {
    for (std::size_t size = 1; size < 17; ++size) {
        std::string const outcome = Run(
            [&](Connection& c) {
                tcp::End const local = Connect();
                c.ReadChannelOpen();
                c.SendPacket(Slice(Confirmation(1, 77), 0, size));
                c.SendExitStatus(0);
            },
            Listening());
        // Fields that reach into the padding are read from there.
        EXPECT_THAT(outcome, AnyOf("-1", HasSubstr("SshProtocolError: "), HasSubstr("BadInput: "))) << size;
    }
}

// --- one end of a channel is closed in the middle

TEST_F(ForwardingFaults, LocalEndClosesWhileDataIsInFlight) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      tcp::End local = ConnectThrough(c);
                      std::string const piece = Pattern(32768, 1);
                      for (int i = 0; i < 10; ++i) c.SendData(piece, 1);
                      EXPECT_EQ(local.Receive(1000), piece.substr(0, 1000));
                      local.Close();
                      for (int i = 0; i < 100; ++i) c.SendData(piece, 1);
                      ExpectWorking(c);
                      c.SendTogether({Eof(1), Close(1), ExitStatus(0)});
                  },
                  Listening(), [](LoopSession& session) { EXPECT_EQ(session._channels.Find(1), nullptr); }),
              "-1");
    EXPECT_THAT(Sent(), testing::Contains(Eof(77)).Times(1));
}

TEST_F(ForwardingFaults, LocalEndClosesWhileItStallsTheSession) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      tcp::End local = ConnectThrough(c);
                      // More than fits the buffers on the way: the session waits for the local end.
                      std::atomic<int> sent{0};
                      std::thread closer([&] {
                          for (int before = -1; before != sent;) {
                              before = sent;
                              std::this_thread::sleep_for(std::chrono::milliseconds(100));
                          }
                          local.Close();
                      });
                      std::string const piece = Pattern(32768, 2);
                      for (; sent < 1000; ++sent) c.SendData(piece, 1);
                      closer.join();
                      ExpectWorking(c);
                      c.SendTogether({Eof(1), Close(1), ExitStatus(0)});
                  },
                  Listening()),
              "-1");
}

TEST_F(ForwardingFaults, LocalEndIsReset) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      tcp::End local = ConnectThrough(c);
                      local.Reset();
                      c.ExpectPacket(CHANNEL_EOF);
                      c.SendTogether({Data("lost", 1), Eof(1)});
                      c.ExpectPacket(CHANNEL_CLOSE);
                      c.SendClose(1);
                      ExpectWorking(c);
                      c.SendExitStatus(0);
                  },
                  Listening()),
              "-1");
    EXPECT_THAT(messages, testing::MatchesRegex("error on [0-9]+ Connection reset by peer\r\n"));
}

TEST_F(ForwardingFaults, LocalEndIsGoneBeforeTheAnswer) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      tcp::End local = Connect();
                      c.ReadChannelOpen();
                      local.Close();
                      c.SendPacket(Confirmation(1, 77));
                      c.ExpectPacket(CHANNEL_EOF);
                      c.SendEof(1);
                      c.ExpectPacket(CHANNEL_CLOSE);
                      c.SendClose(1);
                      ExpectWorking(c);
                      c.SendExitStatus(0);
                  },
                  Listening()),
              "-1");
}

TEST_F(ForwardingFaults, LocalEndIsResetBeforeTheAnswer) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      tcp::End local = Connect();
                      c.ReadChannelOpen();
                      local.Reset();
                      c.SendPacket(Confirmation(1, 77));
                      c.ExpectPacket(CHANNEL_EOF);
                      c.SendTogether({Eof(1), Close(1)});
                      c.ExpectPacket(CHANNEL_CLOSE);
                      ExpectWorking(c);
                      c.SendExitStatus(0);
                  },
                  Listening()),
              "-1");
}

TEST_F(ForwardingFaults, ServerClosesTheChannelInTheMiddle) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      tcp::End const local = ConnectThrough(c);
                      {
                          Sender const sender(local, Pattern(8 << 20, 3));
                          c.ExpectPacket(CHANNEL_DATA);
                          c.SendTogether({Data("for nobody", 1), Close(1), Data("too late", 1)});
                          ExpectWorking(c);
                      }
                      c.SendExitStatus(0);
                  },
                  Listening(), [](LoopSession& session) { EXPECT_EQ(session._channels.Find(1), nullptr); }),
              "-1");
    EXPECT_THAT(Sent(), testing::Not(testing::Contains(Close(77))));
}

TEST_F(ForwardingFaults, ServerEndsItsDataInTheMiddle) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      tcp::End const local = ConnectThrough(c);
                      {
                          Sender const sender(local, Pattern(8 << 20, 4));
                          c.ExpectPacket(CHANNEL_DATA);
                          c.SendEof(1);
                          while (c.ReadPacket() != Close(77)) continue;
                          ExpectWorking(c);
                          c.SendClose(1);
                      }
                      c.SendExitStatus(0);
                  },
                  Listening()),
              "-1");
    auto const sent = Sent();
    auto const eof = std::find(sent.begin(), sent.end(), Eof(77));
    ASSERT_NE(eof, sent.end());
    EXPECT_EQ(*(eof + 1), Close(77)); // at once, with no data in between
}

TEST_F(ForwardingFaults, TargetIsResetInTheMiddle) {
    tcp::Service const service;
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      GrantForwarding(c);
                      AwaitRun();
                      c.SendPacket(ShortOpening(500, 9000));
                      EXPECT_EQ(c.ReadPacket(), Accepted(500, 1));
                      tcp::End target = service.Accept();
                      c.SendData("request", 1);
                      EXPECT_EQ(target.Receive(7), "request");
                      target.Reset();
                      EXPECT_EQ(c.ReadPacket(), Eof(500));
                      c.SendTogether({Data("lost", 1), Close(1)});
                      ExpectWorking(c);
                      c.SendExitStatus(0);
                  },
                  [&](LoopSession& session) {
                      EXPECT_EQ(session.StartRemoteForwarding(service.Port(), "127.0.0.1", 9000, "bound"), 0);
                      Listen(session);
                  }),
              "-1");
}

// --- many at once

TEST_F(ForwardingFaults, IdleConnectionsAreAllUsedAtOnce) {
    constexpr std::uint32_t COUNT = 20;
    constexpr std::size_t SIZE = 100000;
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      std::vector<tcp::End> ends;
                      for (std::uint32_t i = 0; i < COUNT; ++i) ends.push_back(ConnectThrough(c, i));
                      std::vector<std::string> arrived(COUNT);
                      {
                          std::vector<std::unique_ptr<Sender>> senders;
                          for (std::uint32_t i = 0; i < COUNT; ++i)
                              senders.push_back(std::make_unique<Sender>(ends[i], Pattern(SIZE, i)));
                          for (std::size_t left = COUNT * SIZE; left > 0;) {
                              Reader message(c.ReadPacket());
                              if (message.U8() != CHANNEL_DATA) continue;
                              std::uint32_t const sender = message.U32();
                              std::string const bytes = message.String();
                              arrived.at(sender) += bytes;
                              left -= bytes.size();
                          }
                      }
                      for (std::uint32_t i = 0; i < COUNT; ++i) {
                          EXPECT_TRUE(arrived[i] == Pattern(SIZE, i)) << i;
                          for (std::size_t at = 0; at < SIZE; at += 10000)
                              c.SendData(arrived[i].substr(at, 10000), i + 1);
                          c.SendTogether({Eof(i + 1), Close(i + 1)});
                          EXPECT_TRUE(ends[i].ReceiveAll() == arrived[i]) << i;
                      }
                      c.SendExitStatus(0);
                  },
                  Listening(),
                  [&](LoopSession& session) {
                      EXPECT_EQ(session._channels.NextId(), COUNT + 1);
                      for (int i = 1; i <= static_cast<int>(COUNT); ++i)
                          EXPECT_EQ(session._channels.Find(i), nullptr);
                  }),
              "-1");
}

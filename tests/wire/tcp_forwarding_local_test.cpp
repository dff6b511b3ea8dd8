// Local forwardings: the listener, and the wait for the server's answer to each connection.

#include <netinet/tcp.h>
#include <poll.h>

#include "support/descriptor_state.h"
#include "wire/failing_calls.h"
#include "wire/forwarding_fixture.h"

using support::IsSet;
using namespace peer;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

Bytes Opening(std::uint32_t local, std::uint16_t originatorPort) {
    return Writer()
        .U8(CHANNEL_OPEN)
        .String("direct-tcpip")
        .U32(local)
        .U32(0x200000)
        .U32(0x8000)
        .String("target")
        .U32(8000)
        .String("127.0.0.1")
        .U32(originatorPort);
}

class LocalForwarding : public ForwardingTest {
protected:
    /// Expects that the connection is attached to the server's channel 77, and ends the run.
    static void ExpectAttached(Connection& c, tcp::End& local) {
        local.Send("request");
        EXPECT_EQ(c.ReadPacket(), Data("request", 77));
        EndTheRun(c, local);
    }

    /// A run that does nothing but `prepare`.
    std::string Prepare(Client const& prepare) { return Receive({ExitStatus(0)}, prepare); }
};

using ForwardedConnection = ForwardingTest;

} // namespace

// --- starting and cancelling

TEST_F(LocalForwarding, IsKeptUnderItsListeningPort) {
    EXPECT_EQ(Prepare([](LoopSession& session) {
                  EXPECT_EQ(session.StartLocalForwarding(8000, "target", 0, "127.0.0.1"), 0);
                  auto const* entry = session._localForwardings.Find(0);
                  ASSERT_NE(entry, nullptr);
                  EXPECT_EQ(entry->_bindAddress, "127.0.0.1");
                  EXPECT_EQ(entry->_host, "target");
                  EXPECT_EQ(entry->_port, 8000u);
                  EXPECT_TRUE(session.IsRegistered(entry->_server->Fd()));
                  EXPECT_TRUE(tcp::End::Accepts(tcp::PortOf(entry->_server->Fd())));
              }),
              "-1");
}

TEST_F(LocalForwarding, IsStartedFromItsTextForm) {
    EXPECT_EQ(Prepare([](LoopSession& session) {
                  EXPECT_EQ(session.StartLocalForwarding("127.0.0.1:0:target:8000"), 0);
                  auto const* entry = session._localForwardings.Find(0);
                  ASSERT_NE(entry, nullptr);
                  EXPECT_EQ(entry->_bindAddress, "127.0.0.1");
                  EXPECT_EQ(entry->_host, "target");
                  EXPECT_EQ(entry->_port, 8000u);
              }),
              "-1");
}

TEST_F(LocalForwarding, BadTextIsRefused) {
    EXPECT_EQ(Prepare([](LoopSession& session) {
                  EXPECT_EQ(session.StartLocalForwarding("8080:80:80"), -22);
                  EXPECT_EQ(session.StartLocalForwarding(String_t()), -22);
                  EXPECT_EQ(session._localForwardings.Root(), nullptr);
              }),
              "-1");
}

TEST_F(LocalForwarding, SecondStartForThePortIsRefusedAndLeavesTheFirstAlone) {
    EXPECT_EQ(Prepare([](LoopSession& session) {
                  EXPECT_EQ(session.StartLocalForwarding(8000, "target", 0, "127.0.0.1"), 0);
                  std::set<int> const open = OpenDescriptors();
                  auto const* entry = session._localForwardings.Find(0);
                  int const fd = entry->_server->Fd();
                  EXPECT_EQ(session.StartLocalForwarding(9, "other", 0, "127.0.0.2"), -1);
                  EXPECT_EQ(OpenDescriptors(), open);
                  EXPECT_EQ(session._localForwardings.Find(0), entry);
                  EXPECT_EQ(entry->_server->Fd(), fd);
                  EXPECT_EQ(entry->_host, "target");
                  EXPECT_TRUE(tcp::End::Accepts(tcp::PortOf(fd)));
              }),
              "-1");
}

TEST_F(LocalForwarding, PortInUseReturnsANegatedErrnoAndKeepsNothing) {
    EXPECT_EQ(Prepare([](LoopSession& session) {
                  tcp::Service service;
                  unsigned int const port = service.Port();
                  EXPECT_EQ(session.StartLocalForwarding(8000, "target", port, "127.0.0.1"), -EADDRINUSE);
                  EXPECT_EQ(session._localForwardings.Root(), nullptr);
                  service.Stop();
                  EXPECT_EQ(session.StartLocalForwarding(8000, "target", port, "127.0.0.1"), 0);
              }),
              "-1");
}

TEST_F(LocalForwarding, AddressThatCannotBeListenedOnReturnsANegatedErrno) {
    EXPECT_EQ(Prepare([](LoopSession& session) {
                  EXPECT_EQ(session.StartLocalForwarding(8000, "target", 65536, "127.0.0.1"), -EINVAL);
                  EXPECT_EQ(session.StartLocalForwarding(8000, "target", 0xffffffff, "127.0.0.1"), -EINVAL);
                  EXPECT_EQ(session.StartLocalForwarding(8000, "target", 0, "192.0.2.1"), -EADDRNOTAVAIL);
                  EXPECT_EQ(session._localForwardings.Root(), nullptr);
              }),
              "-1");
}

TEST_F(LocalForwarding, CancelClosesTheListenerAndKeepsItsRegistration) {
    EXPECT_EQ(Prepare([&](LoopSession& session) {
                  Listen(session);
                  int const fd = Forwarding(session)->_server->Fd();
                  EXPECT_EQ(session.CancelLocalForwarding(0), 0);
                  EXPECT_FALSE(tcp::End::Accepts(Listener()));
                  EXPECT_TRUE(session.IsRegistered(fd));
              }),
              "-1");
    EXPECT_THAT(Sent(), IsEmpty());
}

TEST_F(LocalForwarding, CancelOfAnUnknownPortIsRefused) {
    EXPECT_EQ(Prepare([&](LoopSession& session) {
                  EXPECT_EQ(session.CancelLocalForwarding(0), -1);
                  Listen(session);
                  EXPECT_EQ(session.CancelLocalForwarding(Listener()), -1);
                  EXPECT_EQ(session.CancelLocalForwarding(0), 0);
                  EXPECT_EQ(session.CancelLocalForwarding(0), -1);
              }),
              "-1");
}

TEST_F(LocalForwarding, ConnectionsOutliveTheirForwarding) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      tcp::End const local = ConnectThrough(c);
                      c.SendData("still here", 1);
                      EXPECT_EQ(local.Receive(10), "still here");
                      local.EndSending();
                      c.ExpectPacket(CHANNEL_EOF);
                      c.SendTogether({Eof(1), Close(1), ExitStatus(0)});
                  },
                  [&](LoopSession& session) {
                      Listen(session);
                      EXPECT_EQ(session._mux.Dispatch(Forwarding(session)->_server->Fd()), 1);
                      EXPECT_EQ(session.CancelLocalForwarding(0), 0);
                  }),
              "-1");
}

TEST_F(LocalForwarding, ListenerStaysInTheLoopWhileNoDescriptorIsLeft) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      tcp::End local = ConnectThrough(c);
                      ExpectAttached(c, local);
                  },
                  [&](LoopSession& session) {
                      Listen(session);
                      int const fd = Forwarding(session)->_server->Fd();
                      pollfd ready{fd, POLLIN, 0};
                      ASSERT_EQ(poll(&ready, 1, 10000), 1);
                      NoDescriptorLeft const none;
                      for (int cycle = 0; cycle < 3; ++cycle) {
                          EXPECT_EQ(session._mux.Dispatch(fd), 1);
                          EXPECT_EQ(poll(&ready, 1, 0), 1) << "the connection is still to be accepted";
                      }
                  }),
              "-1");
}

// --- what a cancelled forwarding leaves

TEST_F(LocalForwarding, DescriptorOfAClosedListenerMayBeReusedForAFile) {
    InputPipe other;
    other.Write("not for the session");
    int fd = -1;
    EXPECT_EQ(Prepare([&](LoopSession& session) {
                  Listen(session);
                  fd = Forwarding(session)->_server->Fd();
                  session.CancelLocalForwarding(0);
                  dup2(other.Fd(), fd);
                  EXPECT_EQ(session._mux.Dispatch(fd), 0);
              }),
              "-1");
    char text[32];
    EXPECT_EQ(read(fd, text, sizeof text), 19);
    close(fd);
    EXPECT_THAT(Sent(), IsEmpty());
}

TEST_F(LocalForwarding, DescriptorOfAClosedListenerIsNotThatOfTheNextListener) {
    InputPipe other;
    other.Write("not for the session");
    int fd = -1;
    EXPECT_EQ(Prepare([&](LoopSession& session) {
                  EXPECT_EQ(session.StartLocalForwarding(8000, "target", 0, "127.0.0.1"), 0);
                  fd = Forwarding(session)->_server->Fd();
                  session.CancelLocalForwarding(0);
                  dup2(other.Fd(), fd);
                  EXPECT_EQ(session.StartLocalForwarding(8000, "target", 0, "127.0.0.1"), 0);
                  EXPECT_NE(Forwarding(session)->_server->Fd(), fd);
                  EXPECT_EQ(session._mux.Dispatch(fd), 0);
              }),
              "-1");
    close(fd);
}

TEST_F(LocalForwarding, DescriptorOfAClosedListenerMayBeReusedForAConnection) {
    std::promise<tcp::End> connected;
    int closed = -1;
    int attached = -2;
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      c.SendPacket(Confirmation(c.ReadChannelOpen().sender, 77));
                      tcp::End const local = connected.get_future().get();
                      local.Send("request");
                      c.ExpectPacket(CHANNEL_DATA);
                      c.SendData("reply", 1);
                      EXPECT_EQ(local.Receive(5), "reply");
                      c.SendExitStatus(0);
                  },
                  [&](LoopSession& session) {
                      unsigned int const port = tcp::FreePort();
                      EXPECT_EQ(session.StartLocalForwarding(1, "other", port, "127.0.0.1"), 0);
                      closed = session._localForwardings.Find(port)->_server->Fd();
                      Listen(session);
                      connected.set_value(Connect());
                      session.CancelLocalForwarding(port);
                      session._mux.Dispatch(Forwarding(session)->_server->Fd());
                      attached = session._channels.Find(1)->_fdIn;
                  }),
              "-1");
    EXPECT_EQ(attached, closed);
}

TEST_F(ForwardedConnection, DescriptorOfARemovedChannelMayBeReusedForAFile) {
    InputPipe other;
    other.Write("not for the session");
    int fd = -1;
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      tcp::End const local = ConnectThrough(c);
                      EXPECT_EQ(local.ReceiveAll(), "");
                      c.SendExitStatus(0);
                  },
                  [&](LoopSession& session) {
                      Listen(session);
                      EXPECT_EQ(session._mux.Dispatch(Forwarding(session)->_server->Fd()), 1);
                      fd = session._channels.RemoveChannel(1);
                      EXPECT_TRUE(session.IsRegistered(fd));
                      dup2(other.Fd(), fd);
                      EXPECT_EQ(session._mux.Dispatch(fd), 0);
                  }),
              "-1");
    char text[32];
    EXPECT_EQ(read(fd, text, sizeof text), 19);
    close(fd);
}

// --- the wait for the answer

TEST_F(LocalForwarding, OpenRequestNamesTheTargetAndTheOriginator) {
    std::uint16_t caller = 0;
    EXPECT_EQ(Accept([&](Connection& c, tcp::End& local) {
                  caller = local.Port();
                  c.SendPacket(Confirmation(1, 77));
              }),
              "0, Run -1");
    EXPECT_THAT(Sent(), ElementsAre(Opening(1, caller)));
}

TEST_F(LocalForwarding, ConfirmationAttachesTheConnectionToItsChannel) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      tcp::End const local = ConnectThrough(c);
                      local.Send("request");
                      c.ExpectPacket(CHANNEL_DATA);
                      c.SendData("reply", 1);
                      EXPECT_EQ(local.Receive(5), "reply");
                      EndTheRun(c, local);
                  },
                  Listening(),
                  [&](LoopSession& session) {
                      cindral::SshChannel const* channel = session._channels.Find(1);
                      ASSERT_NE(channel, nullptr);
                      EXPECT_EQ(channel->_localId, 1u);
                      EXPECT_EQ(channel->_remoteId, 77u);
                      EXPECT_EQ(channel->_name, "direct-tcpip");
                      EXPECT_EQ(channel->_windowSize, 0x200000u);
                      EXPECT_EQ(channel->_fdOut, channel->_fdIn);
                      EXPECT_EQ(channel->_fdErr, channel->_fdIn);
                      EXPECT_TRUE(session.IsRegistered(channel->_fdIn));
                      EXPECT_TRUE(IsSet(channel->_fdIn, IPPROTO_TCP, TCP_NODELAY));
                      EXPECT_TRUE(fcntl(channel->_fdIn, F_GETFD) & FD_CLOEXEC);
                  }),
              "-1");
    EXPECT_EQ(Sent().at(1), Data("request", 77));
}

TEST_F(LocalForwarding, EachConnectionHasItsOwnChannelNumber) {
    std::vector<std::uint32_t> announced;
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      std::vector<tcp::End> ends;
                      for (std::uint32_t sender = 500; sender < 505; ++sender) {
                          ends.push_back(Connect());
                          announced.push_back(c.ReadChannelOpen().sender);
                          c.SendPacket(Confirmation(announced.back(), sender));
                      }
                      for (std::uint32_t i = 0; i < 5; ++i) c.SendData(std::to_string(i), announced[i]);
                      for (std::uint32_t i = 0; i < 5; ++i) {
                          EXPECT_EQ(ends[i].Receive(1), std::to_string(i));
                          ends[i].Send("answer");
                          Reader data = c.ExpectPacket(CHANNEL_DATA);
                          EXPECT_EQ(data.U32(), 500 + i);
                      }
                      c.SendExitStatus(0);
                  },
                  Listening()),
              "-1");
    EXPECT_THAT(announced, ElementsAre(1, 2, 3, 4, 5));
}

TEST_F(LocalForwarding, RecipientOfTheConfirmationIsNotCompared) {
    EXPECT_EQ(Accept([](Connection& c, tcp::End&) { c.SendPacket(Confirmation(999, 77)); },
                     [](Connection& c, tcp::End& local) {
                         c.SendData("greeting", 1);
                         EXPECT_EQ(local.Receive(8), "greeting");
                         c.SendExitStatus(0);
                     }),
              "0, Run -1");
}

TEST_F(LocalForwarding, ChannelFailureCountsAsARefusal) {
    EXPECT_EQ(Accept([](Connection& c, tcp::End& local) {
                  c.SendPacket(ChannelFailure(1));
                  EXPECT_TRUE(local.IsClosedByPeer());
              }),
              "-1, Run -1");
    EXPECT_EQ(messages, "");
}

TEST_F(LocalForwarding, ChannelFailureIsNotDecoded) {
    EXPECT_EQ(Accept([](Connection& c, tcp::End&) { c.SendPacket(Writer().U8(CHANNEL_FAILURE)); }),
              "-1, Run -1");
}

TEST_F(LocalForwarding, OpenFailureClosesTheConnectionSilently) {
    EXPECT_EQ(Accept([](Connection& c, tcp::End& local) {
                  c.SendPacket(OpenFailure(1));
                  EXPECT_TRUE(local.IsClosedByPeer());
              }),
              "0, Run -1");
    EXPECT_EQ(messages, "");
    EXPECT_EQ(Sent().size(), 1u);
}

TEST_F(LocalForwarding, RefusalsLeaveTheListenerInTheLoop) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      for (Bytes const& refusal : {ChannelFailure(1), OpenFailure(1), Ignore()}) {
                          tcp::End const refused = Connect();
                          EXPECT_EQ(c.ReadChannelOpen().sender, 1u);
                          c.SendPacket(refusal);
                          EXPECT_TRUE(refused.IsClosedByPeer());
                      }
                      tcp::End const local = ConnectThrough(c);
                      c.SendData("at last", 1);
                      EXPECT_EQ(local.Receive(7), "at last");
                      c.SendExitStatus(0);
                  },
                  Listening()),
              "-1");
}

TEST_F(LocalForwarding, MessagesBeforeTheReplyAreHandled) {
    EXPECT_EQ(Accept(
                  [](Connection& c, tcp::End&) {
                      c.SendTogether({Ignore(), Data("output"), WindowAdjust(0, 1), Confirmation(1, 77)});
                  },
                  ExpectAttached),
              "0, Run -1");
    EXPECT_EQ(output.Text(), "output");
}

TEST_F(LocalForwarding, UnknownMessagesBeforeTheReplyAreDroppedSilently) {
    EXPECT_EQ(Accept(
                  [](Connection& c, tcp::End&) {
                      c.SendTogether({Debug(), OpenFailure(1), Writer().U8(255), Confirmation(1, 77)});
                  },
                  ExpectAttached),
              "0, Run -1");
    EXPECT_EQ(messages, "");
}

TEST_F(LocalForwarding, ConnectionIsDroppedWhenTheReplyArrivesInALaterRead) {
    EXPECT_EQ(Accept(
                  [](Connection& c, tcp::End& local) {
                      c.SendIgnore();
                      EXPECT_TRUE(local.IsClosedByPeer());
                  },
                  [](Connection& c, tcp::End&) {
                      c.SendTogether({Confirmation(1, 77), Data("lost", 1), Eof(1), Close(1), ExitStatus(0)});
                  }),
              "0, Run -1");
    EXPECT_EQ(messages, "ignore packet SSH_MSG_CHANNEL_OPEN_CONFIRMATION\n");
    EXPECT_EQ(Sent().size(), 1u);
}

TEST_F(LocalForwarding, LateReplyIsTakenForTheNextConnection) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      tcp::End const dropped = Connect();
                      c.ReadChannelOpen();
                      c.SendIgnore();
                      EXPECT_TRUE(dropped.IsClosedByPeer());
                      tcp::End const local = Connect();
                      EXPECT_EQ(c.ReadChannelOpen().sender, 1u);
                      c.SendPacket(Confirmation(1, 77));
                      local.Send("request");
                      Reader data = c.ExpectPacket(CHANNEL_DATA);
                      EXPECT_EQ(data.U32(), 77u);
                      c.SendTogether({Confirmation(1, 78), ExitStatus(0)});
                  },
                  Listening()),
              "-1");
    EXPECT_EQ(messages, "ignore packet SSH_MSG_CHANNEL_OPEN_CONFIRMATION\n");
}

TEST_F(LocalForwarding, RestOfAPartialReplyIsWaitedFor) {
    EXPECT_EQ(Accept(
                  [](Connection& c, tcp::End&) {
                      Bytes const ignored = c.Encode(Ignore());
                      Bytes const answer = c.Encode(Confirmation(1, 77));
                      c.SendRaw(Concat({ignored, Slice(answer, 0, 5)}));
                      c.Wire().faults.delay = std::chrono::milliseconds(20);
                      c.SendRaw(Slice(answer, 5, answer.size() - 5));
                      c.Wire().faults.delay = std::chrono::milliseconds(0);
                  },
                  ExpectAttached),
              "0, Run -1");
}

TEST_F(LocalForwarding, HandlerThatEndsTheDispatchEndsTheWait) {
    EXPECT_EQ(Accept(
                  [](Connection& c, tcp::End& local) {
                      c.SendTogether({ExitStatus(0), Confirmation(1, 77)});
                      EXPECT_TRUE(local.IsClosedByPeer());
                  },
                  [](Connection&, tcp::End&) {}),
              "0, Run -1");
    EXPECT_EQ(terminations, 1);
    EXPECT_EQ(dispatches, 0);
}

TEST_F(LocalForwarding, HandlerThatEndsTheDispatchEndsTheRun) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      tcp::End const local = Connect();
                      c.ReadChannelOpen();
                      c.SendTogether({ExitStatus(0), Data("late"), Confirmation(1, 77)});
                      EXPECT_TRUE(local.IsClosedByPeer());
                  },
                  Listening()),
              "-1");
    EXPECT_EQ(output.Text(), "");
    EXPECT_EQ(terminations, 1);
    EXPECT_EQ(dispatches, 0);
    EXPECT_TRUE(socketStays);
}

TEST_F(LocalForwarding, PacketsAfterTheReplyAreHandledWithIt) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      tcp::End const local = Connect();
                      c.ReadChannelOpen();
                      c.SendTogether({Confirmation(1, 77), Data("greeting", 1), Eof(1), Close(1)});
                      EXPECT_EQ(local.ReceiveAll(), "greeting");
                      c.SendExitStatus(0);
                  },
                  Listening()),
              "-1");
    EXPECT_EQ(Sent().size(), 3u);
}

TEST_F(LocalForwarding, ExitStatusAfterTheReplyEndsTheRun) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      tcp::End const local = Connect();
                      c.ReadChannelOpen();
                      c.SendTogether({Confirmation(1, 77), ExitStatus(0)});
                      EXPECT_TRUE(local.IsClosedByPeer());
                  },
                  Listening()),
              "-1");
    EXPECT_EQ(dispatches, 0);
    EXPECT_FALSE(socketStays);
}

TEST_F(LocalForwarding, PartialPacketAfterTheReplyBlocksNothing) {
    for (char const* cipher : {"aes128-ctr", "3des-cbc"}) {
        settings.kexInit.Pin(cipher, "hmac-sha1");
        for (std::size_t const part : {1u, 8u, 15u, 16u, 17u, 40u, 51u}) {
            EXPECT_EQ(Run(
                          [&](Connection& c) {
                              c.Wire().waitLimit = std::chrono::seconds(5);
                              tcp::End const local = Connect();
                              c.ReadChannelOpen();
                              Bytes const answer = c.Encode(Confirmation(1, 77));
                              Bytes const next = c.Encode(Data("greeting", 1));
                              ASSERT_LT(part, next.size());
                              c.SendRaw(Concat({answer, Slice(next, 0, part)}));
                              local.Send("request");
                              EXPECT_EQ(c.ReadPacket(), Data("request", 77));
                              c.SendRaw(Slice(next, part, next.size() - part));
                              EXPECT_EQ(local.Receive(8), "greeting");
                              EndTheRun(c, local);
                          },
                          Listening()),
                      "-1")
                << cipher << ' ' << part;
        }
    }
}

TEST_F(LocalForwarding, WholePacketsBeforeAPartialOneAreHandled) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      c.Wire().waitLimit = std::chrono::seconds(5);
                      tcp::End const local = Connect();
                      c.ReadChannelOpen();
                      Bytes const answer = c.Encode(Confirmation(1, 77));
                      Bytes const whole = c.Encode(Data("first ", 1));
                      Bytes const next = c.Encode(Data("second", 1));
                      c.SendRaw(Concat({answer, whole, Slice(next, 0, next.size() - 1)}));
                      EXPECT_EQ(local.Receive(6), "first ");
                      c.SendRaw(Slice(next, next.size() - 1, 1));
                      EXPECT_EQ(local.Receive(6), "second");
                      EndTheRun(c, local);
                  },
                  Listening()),
              "-1");
}

TEST_F(LocalForwarding, PacketWithABadLengthAfterTheReplyEndsTheRun) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      tcp::End const local = Connect();
                      c.ReadChannelOpen();
                      SendOptions options;
                      options.packetLength = 0x40001;
                      Bytes const answer = c.Encode(Confirmation(1, 77));
                      c.SendRaw(Concat({answer, Slice(c.Encode(Ignore(), options), 0, 16)}));
                      EXPECT_TRUE(local.IsClosedByPeer());
                  },
                  Listening()),
              "SshProtocolError: packet length exceeds maximum value: 262145");
}

TEST_F(LocalForwarding, DataForOtherChannelsBeforeTheReplyIsFlushed) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      tcp::End const first = ConnectThrough(c);
                      tcp::End const second = Connect();
                      EXPECT_EQ(c.ReadChannelOpen().sender, 2u);
                      c.SendTogether({Data("for the first", 1), Confirmation(2, 78)});
                      EXPECT_EQ(first.Receive(13), "for the first");
                      c.SendData("for the second", 2);
                      EXPECT_EQ(second.Receive(14), "for the second");
                      c.SendExitStatus(0);
                  },
                  Listening()),
              "-1");
}

TEST_F(LocalForwarding, ConnectionAcceptedWhileAnotherIsBusyIsDroppedCleanly) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      tcp::End const first = ConnectThrough(c);
                      tcp::End const dropped = Connect();
                      EXPECT_EQ(c.ReadChannelOpen().sender, 2u);
                      c.SendData("busy", 1);
                      EXPECT_EQ(first.Receive(4), "busy"); // flushed, although no answer came
                      EXPECT_TRUE(dropped.IsClosedByPeer());
                      c.SendTogether({Confirmation(2, 78), Data("for nobody", 2), Data("on", 1)});
                      EXPECT_EQ(first.Receive(2), "on");
                      first.Send("and on");
                      Reader data = c.ExpectPacket(CHANNEL_DATA);
                      EXPECT_EQ(data.U32(), 77u);
                      EXPECT_EQ(data.String(), "and on");
                      c.SendData("output");
                      c.SendExitStatus(0);
                  },
                  Listening(),
                  [](LoopSession& session) {
                      EXPECT_EQ(session._channels.NextId(), 2u);
                      EXPECT_EQ(session._channels.Find(2), nullptr);
                  }),
              "-1");
    EXPECT_EQ(output.Text(), "output");
    EXPECT_EQ(messages, "ignore packet SSH_MSG_CHANNEL_OPEN_CONFIRMATION\n");
}

TEST_F(LocalForwarding, ChannelOpenedDuringTheWaitGetsTheAnnouncedNumber) {
    tcp::Service const service;
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      GrantForwarding(c);
                      tcp::End const local = Connect();
                      EXPECT_EQ(c.ReadChannelOpen().sender, 1u);
                      c.SendTogether({ShortOpening(500, 9000), Confirmation(1, 77)});
                      EXPECT_EQ(c.ReadPacket(), Accepted(500, 1));
                      tcp::End const target = service.Accept();
                      c.SendTogether({Data("to the target", 1), Data("to the caller", 2)});
                      EXPECT_EQ(target.Receive(13), "to the target");
                      EXPECT_EQ(local.Receive(13), "to the caller");
                      c.SendExitStatus(0);
                  },
                  [&](LoopSession& session) {
                      EXPECT_EQ(session.StartRemoteForwarding(service.Port(), "127.0.0.1", 9000, "bound"), 0);
                      Listen(session);
                  }),
              "-1");
}

TEST_F(LocalForwarding, EndOfTheStreamDuringTheWaitThrows) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      tcp::End const local = Connect();
                      c.ReadChannelOpen();
                      c.Wire().ShutdownWrite();
                      EXPECT_TRUE(local.IsClosedByPeer());
                  },
                  Listening()),
              closedEarly);
}

TEST_F(LocalForwarding, MalformedReplyThrows) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      tcp::End const local = Connect();
                      c.ReadChannelOpen();
                      c.SendPacket(Concat({Confirmation(1, 77), {0}}));
                      EXPECT_TRUE(local.IsClosedByPeer());
                  },
                  Listening()),
              "SshProtocolError: additional characters in packet after padding: "
              "SSH_MSG_CHANNEL_OPEN_CONFIRMATION");
}

TEST_F(LocalForwarding, AcceptWaitsSixtySeconds) {
    EXPECT_EQ(Prepare([&](LoopSession& session) {
                  Listen(session);
                  FailingWait const wait(POLLIN);
                  EXPECT_EQ(session.AcceptLocalFwdConnection(Forwarding(session)), -1);
                  EXPECT_GT(wait.Limit(), 59000);
                  EXPECT_LE(wait.Limit(), 60000);
              }),
              "-1");
    EXPECT_THAT(Sent(), IsEmpty());
}

TEST_F(LocalForwarding, OriginatorIsNotLookedUpByName) {
    String_t name, address;
    unsigned short port = 0;
    sockaddr_in const caller = tcp::Loopback(1);
    NameLookUps const lookUps;
    EXPECT_EQ(ServerSocketIn::DecodeCaller(caller, name, address, port), 0);
    ASSERT_EQ(lookUps.Count(), 1) << "this count sees the library's calls";
    EXPECT_EQ(Accept([](Connection& c, tcp::End&) { c.SendPacket(Confirmation(1, 77)); }), "0, Run -1");
    EXPECT_EQ(lookUps.Count(), 1);
}

TEST_F(LocalForwarding, PeerWithoutAnAddressIsDropped) {
    EXPECT_EQ(Prepare([&](LoopSession& session) {
                  Listen(session);
                  tcp::End const local = Connect();
                  {
                      FailingAddressText const failing;
                      EXPECT_LT(session.AcceptLocalFwdConnection(Forwarding(session)), 0);
                  }
                  EXPECT_TRUE(local.IsClosedByPeer());
              }),
              "-1");
    EXPECT_THAT(Sent(), IsEmpty());
}

TEST_F(LocalForwarding, AcceptWithoutAListenerFails) {
    EXPECT_EQ(Prepare([](LoopSession& session) {
                  cindral::SshSession::LocalForwarding none;
                  EXPECT_EQ(session.AcceptLocalFwdConnection(&none), -1);
              }),
              "-1");
}

TEST_F(LocalForwarding, EndOfTheSessionClosesListenersAndConnections) {
    std::unique_ptr<tcp::End> local;
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      local = std::make_unique<tcp::End>(ConnectThrough(c));
                      c.SendExitStatus(0);
                  },
                  Listening()),
              "-1");
    EXPECT_EQ(local->ReceiveAll(), "");
    EXPECT_FALSE(tcp::End::Accepts(Listener()));
}

// --- closing, in every order

TEST_F(ForwardedConnection, LocalEndClosesFirst) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      tcp::End const local = ConnectThrough(c);
                      local.EndSending();
                      c.ExpectPacket(CHANNEL_EOF);
                      c.SendTogether({Data("still ", 1), Data("here", 1), Eof(1)});
                      c.ExpectPacket(CHANNEL_CLOSE);
                      c.SendClose(1);
                      EXPECT_EQ(local.ReceiveAll(), "still here");
                      c.SendExitStatus(0);
                  },
                  Listening(), [](LoopSession& session) { EXPECT_EQ(session._channels.Find(1), nullptr); }),
              "-1");
    auto const sent = Sent();
    EXPECT_THAT((std::vector<Bytes>(sent.begin() + 1, sent.end())), ElementsAre(Eof(77), Close(77)));
}

TEST_F(ForwardedConnection, ServerEndsItsDataFirst) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      tcp::End const local = ConnectThrough(c);
                      c.SendTogether({Data("last words", 1), Eof(1)});
                      c.ExpectPacket(CHANNEL_EOF);
                      c.ExpectPacket(CHANNEL_CLOSE);
                      EXPECT_EQ(local.Receive(10), "last words");
                      local.Send("not read any more");
                      c.SendClose(1);
                      EXPECT_TRUE(local.IsClosedByPeer());
                      c.SendExitStatus(0);
                  },
                  Listening(), [](LoopSession& session) { EXPECT_EQ(session._channels.Find(1), nullptr); }),
              "-1");
    auto const sent = Sent();
    EXPECT_THAT((std::vector<Bytes>(sent.begin() + 1, sent.end())), ElementsAre(Eof(77), Close(77)));
}

TEST_F(ForwardedConnection, BothEndTheirDataAtOnce) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      tcp::End const local = ConnectThrough(c);
                      c.SendEof(1);
                      local.EndSending();
                      c.ExpectPacket(CHANNEL_EOF);
                      c.ExpectPacket(CHANNEL_CLOSE);
                      c.SendClose(1);
                      EXPECT_EQ(local.ReceiveAll(), "");
                      c.SendExitStatus(0);
                  },
                  Listening()),
              "-1");
    EXPECT_EQ(Sent().size(), 3u);
}

TEST_F(ForwardedConnection, ServerEndsAndClosesInOneSegment) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      tcp::End const local = ConnectThrough(c);
                      c.SendTogether({Data("all of it", 1), Eof(1), Close(1)});
                      EXPECT_EQ(local.ReceiveAll(), "all of it");
                      c.SendExitStatus(0);
                  },
                  Listening()),
              "-1");
    auto const sent = Sent();
    EXPECT_THAT((std::vector<Bytes>(sent.begin() + 1, sent.end())), ElementsAre(Eof(77), Close(77)));
}

TEST_F(ForwardedConnection, CloseWithoutEofIsNotAnswered) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      tcp::End const local = ConnectThrough(c);
                      c.SendTogether({Data("all of it", 1), Close(1)});
                      EXPECT_EQ(local.ReceiveAll(), "all of it");
                      c.SendExitStatus(0);
                  },
                  Listening()),
              "-1");
    EXPECT_EQ(Sent().size(), 1u);
}

TEST_F(ForwardedConnection, CloseAfterTheLocalEofIsNotAnswered) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      tcp::End const local = ConnectThrough(c);
                      local.EndSending();
                      c.ExpectPacket(CHANNEL_EOF);
                      c.SendClose(1);
                      EXPECT_EQ(local.ReceiveAll(), "");
                      c.SendExitStatus(0);
                  },
                  Listening()),
              "-1");
    EXPECT_EQ(Sent().size(), 2u);
}

TEST_F(ForwardedConnection, LocalEofIsRemembered) {
    std::unique_ptr<tcp::End> local;
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      local = std::make_unique<tcp::End>(ConnectThrough(c));
                      local->EndSending();
                      c.ExpectPacket(CHANNEL_EOF);
                      c.SendExitStatus(0);
                  },
                  Listening(),
                  [](LoopSession& session) {
                      cindral::SshChannel const* channel = session._channels.Find(1);
                      ASSERT_NE(channel, nullptr);
                      EXPECT_NE(channel->_eofSent, 0);
                      EXPECT_FALSE(session.IsRegistered(channel->_fdIn));
                  }),
              "-1");
}

TEST_F(ForwardedConnection, EofFromTheServerIsNotTakenForTheLocalOne) {
    std::unique_ptr<tcp::End> local;
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      local = std::make_unique<tcp::End>(ConnectThrough(c));
                      c.SendTogether({Eof(1), Eof(1), ExitStatus(0)});
                  },
                  Listening(),
                  [](LoopSession& session) {
                      cindral::SshChannel const* channel = session._channels.Find(1);
                      ASSERT_NE(channel, nullptr);
                      EXPECT_EQ(channel->_eofSent, 0);
                      EXPECT_FALSE(session.IsRegistered(channel->_fdIn));
                  }),
              "-1");
    auto const sent = Sent();
    EXPECT_THAT((std::vector<Bytes>(sent.begin() + 1, sent.end())),
                ElementsAre(Eof(77), Close(77), Eof(77), Close(77)));
}

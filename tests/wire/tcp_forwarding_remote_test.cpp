// Remote forwardings: the request, and the channels that the server opens for it.

#include <poll.h>

#include "wire/failing_calls.h"
#include "wire/forwarding_fixture.h"

using namespace peer;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// A forwarding from port 9000 of the server's address "bound" to a service here.
class RemoteForwarding : public ForwardingTest {
protected:
    int Start(LoopSession& session) const {
        return session.StartRemoteForwarding(service.Port(), "127.0.0.1", 9000, "bound");
    }
    Client Started() const {
        return [this](LoopSession& session) { EXPECT_EQ(Start(session), 0); };
    }
    /// The server's part of it, and the beginning of the run.
    void Grant(Connection& c) {
        GrantForwarding(c);
        AwaitRun();
    }

    /// The outcome of starting the forwarding with this answer.
    std::string StartAnsweredBy(Bytes const& answer) {
        std::string outcome;
        EXPECT_EQ(Run(
                      [&](Connection& c) {
                          c.ExpectPacket(GLOBAL_REQUEST);
                          c.SendPacket(answer);
                          AwaitRun();
                          c.SendExitStatus(0);
                      },
                      [&](LoopSession& session) {
                          outcome = Outcome([&] { return Start(session); });
                          isKept = session._remoteForwardings.Find(9000) != nullptr;
                      }),
                  "-1");
        return outcome;
    }

    /// A run in which the server opens a channel by this message and goes on by the script.
    std::string Open(Bytes const& opening, Script const& script, Client const& inspect = {}) {
        return Run(
            [&](Connection& c) {
                Grant(c);
                c.SendPacket(opening);
                script(c);
            },
            Started(), inspect);
    }

    static void EndsRefused(Connection& c) {
        EXPECT_EQ(c.ReadPacket(), Refused(500));
        c.SendExitStatus(0);
    }

    tcp::Service service;
    bool isKept = false;
};

void StartTowards(LoopSession& session, char const* host, unsigned int port) {
    EXPECT_EQ(session.StartRemoteForwarding(port, host, 9000, "bound"), 0);
}

} // namespace

// --- the request

TEST_F(RemoteForwarding, RequestNamesTheListeningAddress) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      Grant(c);
                      c.SendExitStatus(0);
                  },
                  [&](LoopSession& session) {
                      EXPECT_EQ(Start(session), 0);
                      auto const* entry = session._remoteForwardings.Find(9000);
                      ASSERT_NE(entry, nullptr);
                      EXPECT_EQ(entry->_bindAddress, "bound");
                      EXPECT_EQ(entry->_host, "127.0.0.1");
                      EXPECT_EQ(entry->_port, service.Port());
                  }),
              "-1");
    EXPECT_THAT(Sent(), ElementsAre(GlobalRequest("tcpip-forward", true, "bound", 9000)));
}

TEST_F(RemoteForwarding, IsStartedFromItsTextForm) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      GrantForwarding(c);
                      Grant(c);
                      c.SendExitStatus(0);
                  },
                  [](LoopSession& session) {
                      EXPECT_EQ(session.StartRemoteForwarding("9000:here:80"), 0);
                      EXPECT_EQ(session.StartRemoteForwarding("[::]]9001:here:81"), 0);
                      EXPECT_EQ(session._remoteForwardings.Find(9001)->_host, "here");
                      EXPECT_EQ(session._remoteForwardings.Find(9001)->_port, 81u);
                  }),
              "-1");
    EXPECT_THAT(Sent(), ElementsAre(GlobalRequest("tcpip-forward", true, "localhost", 9000),
                                    GlobalRequest("tcpip-forward", true, "::", 9001)));
}

TEST_F(RemoteForwarding, BadTextIsRefusedAndSendsNothing) {
    EXPECT_EQ(Receive({ExitStatus(0)},
                      [](LoopSession& session) {
                          EXPECT_EQ(session.StartRemoteForwarding("9000:80:80"), -22);
                          EXPECT_EQ(session.StartRemoteForwarding(String_t()), -22);
                      }),
              "-1");
    EXPECT_THAT(Sent(), IsEmpty());
}

TEST_F(RemoteForwarding, SuccessKeepsTheForwarding) {
    EXPECT_EQ(StartAnsweredBy(Writer().U8(REQUEST_SUCCESS)), "0");
    EXPECT_TRUE(isKept);
}

TEST_F(RemoteForwarding, FailureKeepsNothing) {
    EXPECT_EQ(StartAnsweredBy(Writer().U8(REQUEST_FAILURE)), "-1");
    EXPECT_FALSE(isKept);
}

TEST_F(RemoteForwarding, OtherMessageIsARefusal) {
    EXPECT_EQ(StartAnsweredBy(Writer().U8(IGNORE)), "-1");
    EXPECT_FALSE(isKept);
}

TEST_F(RemoteForwarding, AnswerWithFieldsIsRefused) {
    EXPECT_EQ(StartAnsweredBy(Ignore("x")),
              "SshProtocolError: additional characters in packet after padding: SSH_MSG_IGNORE");
    EXPECT_FALSE(isKept);
}

TEST_F(RemoteForwarding, SuccessWithAPortIsRefused) {
    EXPECT_EQ(StartAnsweredBy(Writer().U8(REQUEST_SUCCESS).U32(9000)),
              "SshProtocolError: additional characters in packet after padding: SSH_MSG_REQUEST_SUCCESS");
    EXPECT_FALSE(isKept);
}

TEST_F(RemoteForwarding, SecondStartForThePortIsRefusedAndSendsNothing) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      Grant(c);
                      c.SendExitStatus(0);
                  },
                  [&](LoopSession& session) {
                      EXPECT_EQ(Start(session), 0);
                      EXPECT_EQ(session.StartRemoteForwarding(1, "other", 9000, "elsewhere"), -1);
                      EXPECT_EQ(session._remoteForwardings.Find(9000)->_host, "127.0.0.1");
                  }),
              "-1");
    EXPECT_EQ(Sent().size(), 1u);
}

TEST_F(RemoteForwarding, CancelIsSentWithoutExpectingAReply) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      GrantForwarding(c);
                      c.ExpectPacket(GLOBAL_REQUEST);
                      AwaitRun();
                      c.SendPacket(ShortOpening(500, 9000));
                      EXPECT_EQ(c.ReadPacket(), Refused(500));
                      c.SendExitStatus(0);
                  },
                  [&](LoopSession& session) {
                      EXPECT_EQ(Start(session), 0);
                      EXPECT_EQ(session.CancelRemoteForwarding(9000), 0);
                      EXPECT_EQ(session._remoteForwardings.Root(), nullptr);
                  }),
              "-1");
    EXPECT_EQ(Sent().at(1), GlobalRequest("cancel-tcpip-forward", false, "bound", 9000));
}

TEST_F(RemoteForwarding, CancelOfAnUnknownPortIsRefusedAndSendsNothing) {
    EXPECT_EQ(Receive({ExitStatus(0)},
                      [](LoopSession& session) { EXPECT_EQ(session.CancelRemoteForwarding(9000), -1); }),
              "-1");
    EXPECT_THAT(Sent(), IsEmpty());
}

TEST_F(RemoteForwarding, CancelledPortMayBeRestarted) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      GrantForwarding(c);
                      c.ExpectPacket(GLOBAL_REQUEST);
                      Grant(c);
                      c.SendExitStatus(0);
                  },
                  [&](LoopSession& session) {
                      EXPECT_EQ(Start(session), 0);
                      EXPECT_EQ(session.CancelRemoteForwarding(9000), 0);
                      EXPECT_EQ(session.CancelRemoteForwarding(9000), -1);
                      EXPECT_EQ(Start(session), 0);
                  }),
              "-1");
}

// --- channels opened by the server

TEST_F(RemoteForwarding, OpeningWithoutOriginatorIsConnectedToTheTarget) {
    EXPECT_EQ(Open(
                  ShortOpening(500, 9000),
                  [&](Connection& c) {
                      EXPECT_EQ(c.ReadPacket(), Accepted(500, 1));
                      tcp::End const target = service.Accept();
                      c.SendData("request", 1);
                      EXPECT_EQ(target.Receive(7), "request");
                      target.Send("reply");
                      EXPECT_EQ(c.ReadPacket(), Data("reply", 500));
                      EndTheRun(c, target);
                  },
                  [](LoopSession& session) {
                      cindral::SshChannel const* channel = session._channels.Find(1);
                      ASSERT_NE(channel, nullptr);
                      EXPECT_EQ(channel->_remoteId, 500u);
                      EXPECT_EQ(channel->_name, "forwarded-tcpip");
                      EXPECT_EQ(channel->_windowSize, 0x200000u);
                      EXPECT_TRUE(session.IsRegistered(channel->_fdIn));
                      EXPECT_TRUE(fcntl(channel->_fdIn, F_GETFD) & FD_CLOEXEC);
                  }),
              "-1");
}

TEST_F(RemoteForwarding, OpeningWithTheOriginatorsAddressEndsTheRun) {
    EXPECT_EQ(Open(ShortOpening(500, 9000).String("10.0.0.1").U32(54321), [](Connection&) {}),
              "SshProtocolError: additional characters in packet after padding: SSH_MSG_CHANNEL_OPEN");
    EXPECT_EQ(Sent().size(), 1u);
}

TEST_F(RemoteForwarding, OpeningWithoutAnyAddressEndsTheRun) {
    EXPECT_EQ(
        Run(
            [&](Connection& c) {
                Grant(c);
                SendOptions options;
                options.padding = Bytes(19, 0xff);
                c.SendPacket(
                    Writer().U8(CHANNEL_OPEN).String("forwarded-tcpip").U32(500).U32(0x10000).U32(0x4000),
                    options);
                c.ExpectClosed();
            },
            [&](LoopSession& session) { EXPECT_EQ(Start(session), 0); }),
        "SshProtocolError: string length exceeds packet length");
    EXPECT_EQ(Sent().size(), 1u);
}

TEST_F(RemoteForwarding, OpeningForAnotherPortIsRefused) {
    EXPECT_EQ(Open(ShortOpening(500, 9001), EndsRefused), "-1");
}

TEST_F(RemoteForwarding, OpeningWithoutAnyForwardingIsRefused) {
    EXPECT_EQ(Run([](Connection& c) {
                  c.SendPacket(ShortOpening(500, 9000));
                  EndsRefused(c);
              }),
              "-1");
}

TEST_F(RemoteForwarding, PortChosenByTheServerIsNotLearnt) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      Grant(c);
                      c.SendPacket(ShortOpening(500, 34567));
                      EXPECT_EQ(c.ReadPacket(), Refused(500));
                      c.SendPacket(ShortOpening(501, 0));
                      EXPECT_EQ(c.ReadPacket(), Accepted(501, 1));
                      c.SendExitStatus(0);
                  },
                  [&](LoopSession& session) {
                      EXPECT_EQ(session.StartRemoteForwarding(service.Port(), "127.0.0.1", 0, ""), 0);
                  }),
              "-1");
    EXPECT_EQ(Sent().at(0), GlobalRequest("tcpip-forward", true, "", 0));
}

TEST_F(RemoteForwarding, RefusingTargetRefusesTheChannel) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      Grant(c);
                      c.SendPacket(ShortOpening(500, 9000));
                      EndsRefused(c);
                  },
                  [&](LoopSession& session) { StartTowards(session, "127.0.0.1", tcp::FreePort()); },
                  [](LoopSession& session) { EXPECT_EQ(session._channels.NextId(), 1u); }),
              "-1");
    EXPECT_EQ(messages, "");
}

TEST_F(RemoteForwarding, InvalidTargetRefusesTheChannel) {
    for (char const* host : {"", "[127.0.0.1", "127.0.0.1]x"}) {
        EXPECT_EQ(Run(
                      [&](Connection& c) {
                          Grant(c);
                          c.SendPacket(ShortOpening(500, 9000));
                          EndsRefused(c);
                      },
                      [&](LoopSession& session) { StartTowards(session, host, 80); }),
                  "-1")
            << host;
    }
}

TEST_F(RemoteForwarding, ConnectWaitsSixtySeconds) {
    int const full = Checked(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    sockaddr_in const address = tcp::Loopback(0);
    Checked(bind(full, reinterpret_cast<sockaddr const*>(&address), sizeof address), "bind");
    Checked(listen(full, 0), "listen");
    tcp::End const first = tcp::End::To(tcp::PortOf(full)); // there is no room for another
    std::unique_ptr<FailingWait> wait;
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      Grant(c);
                      c.SendPacket(ShortOpening(500, 9000));
                      EndsRefused(c);
                  },
                  [&](LoopSession& session) {
                      StartTowards(session, "127.0.0.1", tcp::PortOf(full));
                      wait = std::make_unique<FailingWait>(POLLOUT);
                  }),
              "-1");
    EXPECT_GT(wait->Limit(), 59000);
    EXPECT_LE(wait->Limit(), 60000);
    close(full);
}

TEST_F(RemoteForwarding, ConnectionNotWritableWithin60MillisecondsIsRefusedAndKept) {
    std::unique_ptr<FailingWait> wait;
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      Grant(c);
                      c.SendPacket(ShortOpening(500, 9000));
                      EndsRefused(c);
                  },
                  [&](LoopSession& session) {
                      EXPECT_EQ(Start(session), 0);
                      wait = std::make_unique<FailingWait>(POLLOUT, 1000);
                  },
                  [](LoopSession& session) {
                      cindral::SshChannel const* channel = session._channels.Find(1);
                      ASSERT_NE(channel, nullptr);
                      EXPECT_GE(fcntl(channel->_fdIn, F_GETFD), 0);
                      EXPECT_FALSE(session.IsRegistered(channel->_fdIn));
                  }),
              "-1");
    EXPECT_EQ(wait->Limit(), 60);
}

TEST_F(RemoteForwarding, EachChannelHasItsOwnConnection) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      Grant(c);
                      c.SendTogether({ShortOpening(500, 9000), ShortOpening(501, 9000)});
                      EXPECT_EQ(c.ReadPacket(), Accepted(500, 1));
                      EXPECT_EQ(c.ReadPacket(), Accepted(501, 2));
                      tcp::End const first = service.Accept();
                      tcp::End const second = service.Accept();
                      c.SendTogether({Data("second", 2), Data("first", 1)});
                      EXPECT_EQ(first.Receive(5), "first");
                      EXPECT_EQ(second.Receive(6), "second");
                      c.SendExitStatus(0);
                  },
                  Started()),
              "-1");
}

TEST_F(RemoteForwarding, TargetClosesFirst) {
    EXPECT_EQ(Open(
                  ShortOpening(500, 9000),
                  [&](Connection& c) {
                      EXPECT_EQ(c.ReadPacket(), Accepted(500, 1));
                      tcp::End const target = service.Accept();
                      target.Send("greeting");
                      target.EndSending();
                      EXPECT_EQ(c.ReadPacket(), Data("greeting", 500));
                      EXPECT_EQ(c.ReadPacket(), Eof(500));
                      c.SendTogether({Data("answer", 1), Eof(1)});
                      EXPECT_EQ(c.ReadPacket(), Close(500));
                      c.SendClose(1);
                      EXPECT_EQ(target.ReceiveAll(), "answer");
                      c.SendExitStatus(0);
                  },
                  [](LoopSession& session) { EXPECT_EQ(session._channels.Find(1), nullptr); }),
              "-1");
}

TEST_F(RemoteForwarding, ServerClosesFirst) {
    EXPECT_EQ(Open(
                  ShortOpening(500, 9000),
                  [&](Connection& c) {
                      EXPECT_EQ(c.ReadPacket(), Accepted(500, 1));
                      tcp::End const target = service.Accept();
                      c.SendTogether({Data("all of it", 1), Eof(1)});
                      EXPECT_EQ(c.ReadPacket(), Eof(500));
                      EXPECT_EQ(c.ReadPacket(), Close(500));
                      c.SendClose(1);
                      EXPECT_EQ(target.ReceiveAll(), "all of it");
                      c.SendExitStatus(0);
                  },
                  [](LoopSession& session) { EXPECT_EQ(session._channels.Find(1), nullptr); }),
              "-1");
}

TEST_F(RemoteForwarding, ConnectionsOutliveTheirForwarding) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      GrantForwarding(c);
                      c.SendPacket(ShortOpening(500, 9000));
                      EXPECT_EQ(c.ReadPacket(), Accepted(500, 1));
                      tcp::End const target = service.Accept();
                      c.ExpectPacket(GLOBAL_REQUEST);
                      c.SendData("still here", 1);
                      EXPECT_EQ(target.Receive(10), "still here");
                      c.SendExitStatus(0);
                  },
                  [&](LoopSession& session) {
                      EXPECT_EQ(Start(session), 0);
                      EXPECT_EQ(session.Dispatch(session.Fd()), 1);
                      EXPECT_EQ(session.CancelRemoteForwarding(9000), 0);
                  }),
              "-1");
}

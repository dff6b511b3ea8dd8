// The session channel: its opening, the requests that start something on it, and DISCONNECT.

#include <memory>

#include <gmock/gmock.h>

#include "wire/test_session.h"

using namespace peer;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

char const violation[] =
    "SshProtocolError: expected either CHANNEL_OPEN_CONFIRMATION or CHANNEL_OPEN_FAILURE packet";

/// Sessions that are logged in.
class SessionChannel : public testing::Test {
protected:
    SessionChannel() {
        settings.group = DhGroup::Modp(1024);
        settings.noneAccepted = true;
    }

    /// The outcome of the client's call. The server goes on with the script and then expects the client to
    /// close.
    std::string Run(ScriptedPeer::Script const& script, std::function<int(TestSession&)> const& client) {
        server = std::make_unique<ScriptedPeer>(
            [&](Connection& c) {
                c.WellBehaved(Stage::Authenticated);
                script(c);
                c.ExpectClosed();
            },
            settings);
        std::string outcome;
        {
            TestSession session(server->Port());
            cindral::EnterPassword enter(0, "");
            cindral::KbdCopyCallback callback("");
            EXPECT_EQ(session.Connect(10), 0);
            EXPECT_EQ(session.KeyExchange(), 0);
            EXPECT_EQ(session.Authenticate("", "tester", "", enter, callback), 0);
            outcome = Outcome([&] { return client(session); });
            remoteChannel = session._remoteChannel;
            windowSize = session._windowSize;
        }
        server->Finish();
        return outcome;
    }
    std::string Open(ScriptedPeer::Script const& script) {
        return Run(script, [](TestSession& session) { return session.Open(); });
    }

    /// Payloads of the client after its login.
    std::vector<Bytes> Sent() const { return server->At(0).ReceivedAfter(USERAUTH_REQUEST); }

    static Bytes ChannelOpenPayload() {
        return Writer().U8(CHANNEL_OPEN).String("session").U32(0).U32(0x200000).U32(0x8000);
    }

    ServerSettings settings;
    std::unique_ptr<ScriptedPeer> server;
    unsigned int remoteChannel = 0;
    unsigned int windowSize = 0;
};

/// A confirmation whose recipient, sender, window and packet size are these.
Bytes Confirmation(std::uint32_t recipient, std::uint32_t sender, std::uint32_t window,
                   std::uint32_t maxPacket) {
    return Writer().U8(CHANNEL_OPEN_CONFIRMATION).U32(recipient).U32(sender).U32(window).U32(maxPacket);
}

ScriptedPeer::Script Answer(Bytes const& payload) {
    return [payload](Connection& c) {
        c.ReadChannelOpen();
        c.SendPacket(payload);
    };
}

} // namespace

TEST_F(SessionChannel, OpenIsExactAndKeepsTheServersNumber) {
    EXPECT_EQ(Open(Answer(Confirmation(0, 42, 0x200000, 0x8000))), "0");
    EXPECT_THAT(Sent(), ElementsAre(ChannelOpenPayload()));
    EXPECT_EQ(remoteChannel, 42u);
    EXPECT_EQ(windowSize, 0x200000u);
}

TEST_F(SessionChannel, WindowIsTheLocalOneWhateverWasConfirmed) {
    for (std::uint32_t window : {0u, 1u, 0x1fffffu, 0xffffffffu}) {
        EXPECT_EQ(Open(Answer(Confirmation(0, 0xfffffffe, window, 0))), "0");
        EXPECT_EQ(windowSize, 0x200000u);
        EXPECT_EQ(remoteChannel, 0xfffffffeu);
    }
}

TEST_F(SessionChannel, RecipientOfTheConfirmationIsNotCompared) {
    EXPECT_EQ(Open(Answer(Confirmation(9, 3, 0, 0))), "0");
    EXPECT_EQ(remoteChannel, 3u);
}

TEST_F(SessionChannel, RefusalKeepsNumberAndWindowAtZero) {
    EXPECT_EQ(Open([](Connection& c) {
                  c.ReadChannelOpen();
                  c.SendOpenFailure(1, "no sessions here");
              }),
              "-1");
    EXPECT_EQ(remoteChannel, 0u);
    EXPECT_EQ(windowSize, 0u);
    EXPECT_THAT(Sent(), ElementsAre(ChannelOpenPayload()));
}

TEST_F(SessionChannel, RefusalIsNotDecoded) { EXPECT_EQ(Open(Answer(Bytes{CHANNEL_OPEN_FAILURE})), "-1"); }

TEST_F(SessionChannel, AnyOtherReplyIsAViolation) {
    std::vector<Bytes> const replies{
        Writer().U8(IGNORE).String(""),
        Writer().U8(DEBUG).U8(0).String("").String(""),
        Writer().U8(GLOBAL_REQUEST).String("hostkeys-00@openssh.com").U8(0),
        Writer().U8(USERAUTH_BANNER).String("").String(""),
        Writer().U8(CHANNEL_WINDOW_ADJUST).U32(0).U32(1),
        Writer().U8(DISCONNECT).U32(11).String("").String(""),
    };
    for (Bytes const& reply : replies) {
        EXPECT_EQ(Open(Answer(reply)), violation) << Hex(reply);
        EXPECT_EQ(remoteChannel, 0u);
        EXPECT_EQ(windowSize, 0u);
    }
}

TEST_F(SessionChannel, CloseAfterTheOpeningIsAViolation) {
    EXPECT_EQ(Open([](Connection& c) {
                  c.ReadChannelOpen();
                  c.Wire().ShutdownWrite();
              }),
              closedEarly);
}

TEST_F(SessionChannel, TooLongConfirmationIsRefused) {
    EXPECT_EQ(
        Open(Answer(Concat({Confirmation(0, 42, 0, 0), Bytes{1}}))),
        "SshProtocolError: additional characters in packet after padding: SSH_MSG_CHANNEL_OPEN_CONFIRMATION");
    EXPECT_EQ(windowSize, 0u);
}

TEST_F(SessionChannel, StartRequestsAreExactAndAskForNoReply) {
    auto const take = [](Connection& c) {
        c.ConfirmOpen();
        for (int i = 0; i < 4; ++i) c.ReadChannelRequest();
    };
    EXPECT_EQ(Run(take,
                  [](TestSession& session) {
                      EXPECT_EQ(session.Open(), 0);
                      session.StartShell();
                      session.StartCommand("uname -a");
                      session.StartCommand("");
                      session.StartSubsystem("sftp");
                      return 0;
                  }),
              "0");
    auto const request = [](char const* type) {
        return Writer().U8(CHANNEL_REQUEST).U32(42).String(type).U8(0);
    };
    EXPECT_THAT(Sent(),
                ElementsAre(ChannelOpenPayload(), request("shell").Data(),
                            request("exec").String("uname -a").Data(), request("exec").String("").Data(),
                            request("subsystem").String("sftp").Data()));
}

TEST_F(SessionChannel, RefusedStartRequestsAreIgnored) {
    auto const refuse = [](Connection& c) {
        c.ConfirmOpen();
        for (int i = 0; i < 3; ++i) {
            c.ReadChannelRequest();
            c.SendChannelMessage(CHANNEL_FAILURE);
        }
    };
    EXPECT_EQ(Run(refuse,
                  [](TestSession& session) {
                      EXPECT_EQ(session.Open(), 0);
                      session.StartShell();
                      session.StartCommand("true");
                      session.StartSubsystem("sftp");
                      for (int i = 0; i < 3; ++i)
                          EXPECT_EQ(cindral::MessageNumber(session._in.ReadPacket()), CHANNEL_FAILURE);
                      return 0;
                  }),
              "0");
    EXPECT_EQ(remoteChannel, 42u);
}

TEST_F(SessionChannel, DisconnectSendsOneMessageAndClosesNothing) {
    bool stillOpen = false;
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      c.ExpectPacket(DISCONNECT);
                      c.SendOpenConfirmation();
                      c.ReadChannelOpen();
                      stillOpen = true;
                  },
                  [](TestSession& session) {
                      session.Disconnect(cindral::Packet::SSH_DISCONNECT_BY_APPLICATION, "good bye");
                      EXPECT_GE(session.Fd(), 0);
                      EXPECT_EQ(session._authenticated, 1);
                      return session.Open();
                  }),
              "0");
    EXPECT_TRUE(stillOpen);
    EXPECT_THAT(Sent(), ElementsAre(Writer().U8(DISCONNECT).U32(11).String("good bye").String("").Data(),
                                    ChannelOpenPayload()));
}

TEST_F(SessionChannel, DestructionSendsNothing) {
    EXPECT_EQ(Run([](Connection&) {}, [](TestSession&) { return 0; }), "0");
    EXPECT_THAT(Sent(), IsEmpty());
}

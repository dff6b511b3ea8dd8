// Messages of a server that the standard dialect answers, ignores or reports, wherever they come.

#include "wire/standard_fixture.h"

using namespace peer;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

Bytes Unimplemented() { return Writer().U8(UNIMPLEMENTED).U32(0); }
Bytes Extensions() {
    return Writer().U8(EXT_INFO).U32(2).String("unknown").String("x").String("").String("");
}
Bytes GlobalRequest(char const* name, bool wantsReply) {
    return Writer().U8(GLOBAL_REQUEST).String(name).Bool(wantsReply);
}
Bytes ChannelRequestOf(char const* name, bool wantsReply) {
    return Writer().U8(CHANNEL_REQUEST).U32(0).String(name).Bool(wantsReply);
}

/// What a session waits for when a message comes.
enum class Phase { Service, Authentication, Opening, Command, Running };
Phase const phases[] = {Phase::Service, Phase::Authentication, Phase::Opening, Phase::Command,
                        Phase::Running};

class StandardMessages : public StandardTest {
protected:
    using Step = std::function<void(StandardConnection&)>;

    /// A session to the end, with a step of the server's own in one phase.
    StandardResult RunWith(Phase phase, Step const& step) {
        return RunFrom([=](StandardConnection& c) {
            auto const at = [&](Phase here) {
                if (here == phase) step(c);
            };
            c.WellBehaved(Stage::NewKeys);
            c.ExpectPacket(SERVICE_REQUEST);
            at(Phase::Service);
            c.SendPacket(Writer().U8(SERVICE_ACCEPT).String("ssh-userauth"));
            c.ReadAuthRequest();
            at(Phase::Authentication);
            c.SendPacket({USERAUTH_SUCCESS});
            c.ExpectPacket(CHANNEL_OPEN);
            at(Phase::Opening);
            c.SendPacket(Writer().U8(CHANNEL_OPEN_CONFIRMATION).U32(0).U32(42).U32(1 << 20).U32(1 << 15));
            c.ExpectPacket(CHANNEL_REQUEST);
            at(Phase::Command);
            c.SendPacket(Writer().U8(CHANNEL_SUCCESS).U32(0));
            c.SendPacket(Data("one "));
            at(Phase::Running);
            c.SendPacket(Data("two"));
            c.SendTogether(Ending(3));
            c.ReadToTheEnd();
        });
    }
    /// The same, which the step must not disturb.
    void ExpectComplete(Phase phase, Step const& step) {
        SCOPED_TRACE("phase " + std::to_string(static_cast<int>(phase)));
        StandardResult const result = RunWith(phase, step);
        EXPECT_EQ(server->Error(), "");
        EXPECT_EQ(result.outcome, RUN_ENDED);
        EXPECT_EQ(result.output.substr(result.output.size() - 7), "one two");
        EXPECT_EQ(result.exitStatus, 3);
    }
};

TEST_F(StandardMessages, IgnoreDebugUnimplementedAndExtInfoAreIgnoredAnywhere) {
    for (Phase phase : phases)
        ExpectComplete(phase, [](StandardConnection& c) {
            c.SendTogether({Ignore("x"), Debug("shown \x1b[2J"), Unimplemented(), Extensions(), {IGNORE}});
        });
}

TEST_F(StandardMessages, UnknownNumberIsAnsweredByUnimplementedWithItsSequenceNumber) {
    for (Phase phase : phases)
        ExpectComplete(phase, [](StandardConnection& c) {
            c.SendPacket(Ignore());
            for (unsigned const number : {0u, 8u, 19u, 63u, 79u, 83u, 101u, 127u, 128u, 192u, 255u}) {
                std::uint32_t const sequence = c.SendSequence();
                c.SendPacket({static_cast<std::uint8_t>(number)});
                Reader answer = c.ExpectPacket(UNIMPLEMENTED);
                EXPECT_EQ(answer.U32(), sequence) << number;
                answer.End();
            }
        });
}

TEST_F(StandardMessages, UnknownNumberWithinARekeyingIsAnsweredAfterIt) {
    ExpectComplete(Phase::Running, [](StandardConnection& c) {
        c.kex = StandardKex();
        c.SendKexInit();
        std::uint32_t const sequence = c.SendSequence();
        c.SendPacket(Writer().U8(192).String("text"));
        c.ReceiveKexInit();
        c.FinishExchange();
        EXPECT_EQ(c.ExpectPacket(UNIMPLEMENTED).U32(), sequence);
    });
}

TEST_F(StandardMessages, MessageOfTheConnectionBeforeTheLoginEndsTheSession) {
    for (Phase phase : {Phase::Service, Phase::Authentication})
        for (Bytes const& message : {GlobalRequest("x", true), Data("x"), Eof()}) {
            StandardResult const result =
                RunWith(phase, [&](StandardConnection& c) { c.SendPacket(message); });
            EXPECT_THAT(result.outcome, StartsWith("Authenticate SshProtocolError: "));
            EXPECT_FALSE(result.isAuthenticated);
        }
}

// --- requests

TEST_F(StandardMessages, GlobalRequestThatWantsAReplyGetsOne) {
    for (Phase phase : {Phase::Opening, Phase::Command, Phase::Running})
        for (char const* name : {"hostkeys-00@openssh.com", "keepalive@openssh.com", "unknown", ""})
            ExpectComplete(phase, [&](StandardConnection& c) {
                c.SendPacket(GlobalRequest(name, false));
                c.SendPacket(GlobalRequest(name, true));
                c.ExpectPacket(REQUEST_FAILURE).End();
            });
}

TEST_F(StandardMessages, ChannelRequestThatWantsAReplyGetsOne) {
    for (Phase phase : {Phase::Command, Phase::Running})
        for (char const* name : {"keepalive@openssh.com", "eow@openssh.com", "unknown"})
            ExpectComplete(phase, [&](StandardConnection& c) {
                c.SendPacket(ChannelRequestOf(name, false));
                c.SendPacket(ChannelRequestOf(name, true));
                EXPECT_EQ(c.ExpectPacket(CHANNEL_FAILURE).U32(), 42u);
            });
}

TEST_F(StandardMessages, ExitStatusThatWantsAReplyGetsOne) {
    ExpectComplete(Phase::Running, [](StandardConnection& c) {
        c.SendPacket(ExitStatus(9, true));
        EXPECT_EQ(c.ExpectPacket(CHANNEL_SUCCESS).U32(), 42u);
    });
}

TEST_F(StandardMessages, FloodOfRequestsIsAnsweredWhole) {
    ExpectComplete(Phase::Running, [](StandardConnection& c) {
        for (int i = 0; i < 2000; ++i) c.SendPacket(GlobalRequest("keepalive@openssh.com", true));
        for (int i = 0; i < 2000; ++i) c.ExpectPacket(REQUEST_FAILURE);
    });
}

TEST_F(StandardMessages, RequestsOfAServerThatReadsNoAnswersEndTheSession) {
    StandardResult const result = RunFrom([](StandardConnection& c) {
        c.WellBehaved(Stage::Opened);
        c.ReadChannelRequest();
        c.Wire().recording = false;
        std::vector<Bytes> const many(1000, GlobalRequest("keepalive@openssh.com", true));
        for (int i = 0; i < 1000; ++i) c.SendTogether(many);
    });
    EXPECT_EQ(result.outcome, "Run SshProtocolError: the server does not take data");
    EXPECT_FALSE(server->RanToItsEnd());
}

// --- DISCONNECT

TEST_F(StandardMessages, WordsOfADisconnectAreTheLastErrorWithoutControlCharacters) {
    for (Phase phase : phases) {
        StandardResult const result = RunWith(phase, [](StandardConnection& c) {
            c.SendPacket(Disconnect("too\x1b[2J many\nsessions"));
            c.ReadToTheEnd();
        });
        EXPECT_THAT(result.outcome, HasSubstr("SshProtocolError: disconnected by the server"));
        EXPECT_THAT(result.lastError, AllOf(HasSubstr("too"), HasSubstr("sessions")));
        EXPECT_THAT(result.lastError, AllOf(Not(HasSubstr("\x1b")), Not(HasSubstr("\n"))));
        EXPECT_EQ(result.exitStatus, -1);
    }
}

TEST_F(StandardMessages, DisconnectEndsAKeyExchange) {
    StandardResult const result = RunFrom([](StandardConnection& c) {
        c.WellBehaved(Stage::KexInitExchanged);
        c.SendPacket(Disconnect("go away"));
        c.ReadToTheEnd();
    });
    EXPECT_THAT(result.outcome, StartsWith("KeyExchange SshProtocolError: disconnected by the server"));
    EXPECT_THAT(result.lastError, HasSubstr("go away"));
}

TEST_F(StandardMessages, ConnectionThatIsLostIsTheLastError) {
    for (Phase phase : phases) {
        StandardResult const result = RunWith(phase, [](StandardConnection& c) {
            c.Wire().ShutdownWrite();
            c.ReadToTheEnd();
        });
        EXPECT_THAT(result.outcome, HasSubstr("SshProtocolError: connection closed by the server"));
        EXPECT_THAT(result.lastError, HasSubstr("connection closed by the server"));
    }
}

// --- messages that end early

/// A message, and how many of its first bytes may stand alone.
struct Whole {
    Phase phase;
    Bytes message;
    std::size_t enough = 0; ///< 0: nothing less than all
};

TEST_F(StandardMessages, MessageThatEndsEarlyEndsTheSession) {
    Bytes const open = Writer().U8(CHANNEL_OPEN).String("unknown").U32(77).U32(1).U32(1);
    std::vector<Whole> const messages = {
        {Phase::Service, Disconnect("text"), Disconnect("text").size() - 4},
        {Phase::Service, Extensions()},
        {Phase::Service, Writer().U8(SERVICE_ACCEPT).String("ssh-userauth"), 1},
        {Phase::Authentication, Writer().U8(USERAUTH_FAILURE).String("password").Bool(false)},
        {Phase::Authentication, Writer().U8(USERAUTH_BANNER).String("text").String("en")},
        {Phase::Opening, GlobalRequest("name", true)},
        {Phase::Opening, Writer().U8(CHANNEL_OPEN_CONFIRMATION).U32(0).U32(42).U32(1).U32(1)},
        {Phase::Opening, Writer().U8(CHANNEL_OPEN_FAILURE).U32(0).U32(1).String("text")},
        {Phase::Running, open},
        {Phase::Running, WindowAdjust(0, 1)},
        {Phase::Running, Data("text")},
        {Phase::Running, ExtendedData("text", 1)},
        {Phase::Running, Eof()},
        {Phase::Running, Close()},
        {Phase::Running, ExitStatus(0)},
        {Phase::Running,
         Writer().U8(CHANNEL_REQUEST).U32(0).String("exit-signal").Bool(false).String("TERM")},
        {Phase::Running, ChannelRequestOf("name", true)},
    };
    for (Whole const& whole : messages) {
        for (std::size_t size = 1; size < whole.message.size(); ++size) {
            SCOPED_TRACE("message " + std::to_string(whole.message[0]) + " of " + std::to_string(size));
            if (size == whole.enough) continue;
            StandardResult const result = RunWith(whole.phase, [&](StandardConnection& c) {
                c.SendPacket(Slice(whole.message, 0, size));
                c.ReadToTheEnd();
            });
            EXPECT_THAT(result.outcome, HasSubstr(" SshProtocolError: "));
            EXPECT_EQ(result.exitStatus, -1);
        }
    }
}

TEST_F(StandardMessages, MessageWithBytesAfterItsEndEndsTheSession) {
    std::vector<std::pair<Phase, Bytes>> const messages = {
        {Phase::Service, Writer().U8(SERVICE_ACCEPT).String("ssh-userauth")},
        {Phase::Authentication, {USERAUTH_SUCCESS}},
        {Phase::Authentication, Writer().U8(USERAUTH_FAILURE).String("password").Bool(false)},
        {Phase::Running, WindowAdjust(0, 1)},
        {Phase::Running, Data("text")},
        {Phase::Running, Eof()},
        {Phase::Running, Close()},
        {Phase::Running, ExitStatus(0)},
        {Phase::Running, Extensions()},
    };
    for (auto const& [phase, message] : messages) {
        SCOPED_TRACE("message " + std::to_string(message[0]));
        Bytes const longer = Concat({message, {0}});
        StandardResult const result = RunWith(phase, [&](StandardConnection& c) {
            c.SendPacket(longer);
            c.ReadToTheEnd();
        });
        EXPECT_THAT(result.outcome, HasSubstr(" SshProtocolError: "));
        EXPECT_EQ(result.exitStatus, -1);
    }
}

TEST_F(StandardMessages, CountThatPromisesTooMuchEndsTheSession) {
    StandardResult const result = RunWith(Phase::Service, [](StandardConnection& c) {
        c.SendPacket(Writer().U8(EXT_INFO).U32(0xffffffff).String("a").String("b"));
        c.ReadToTheEnd();
    });
    EXPECT_THAT(result.outcome, StartsWith("Authenticate SshProtocolError: EXT_INFO message "));
}

// --- keepalives

TEST_F(StandardMessages, UnansweredKeepalivesEndTheSession) {
    StandardResult const result = Run([](StandardConnection& c) { c.ReadToTheEnd(); },
                                      [](StandardClient& client) { client.dialect.SetKeepalive(1, 1); });
    EXPECT_EQ(result.outcome, "Run SshProtocolError: the server does not answer keepalives");
    EXPECT_EQ(result.lastError, "the server does not answer keepalives");
    EXPECT_EQ(result.exitStatus, -1);
    EXPECT_EQ(Seen().CountReceived(GLOBAL_REQUEST), 1u);
}

TEST_F(StandardMessages, AnsweredKeepalivesDoNot) {
    StandardResult const result = Run(
        [](StandardConnection& c) {
            for (std::uint8_t const answer : {REQUEST_FAILURE, REQUEST_SUCCESS}) {
                EXPECT_EQ(c.ExpectPacket(GLOBAL_REQUEST).String(), "keepalive@openssh.com");
                c.SendPacket({answer});
            }
            c.SendTogether(Ending(3));
        },
        [](StandardClient& client) { client.dialect.SetKeepalive(1, 1); });
    EXPECT_EQ(result.outcome, RUN_ENDED);
    EXPECT_EQ(result.exitStatus, 3);
}

// --- UNIMPLEMENTED in place of an answer (RFC 4253, section 11.4)

TEST_F(StandardMessages, UnimplementedAnswersTheKeepaliveWithItsSequenceNumberAlone) {
    StandardResult const result = Run(
        [](StandardConnection& c) {
            c.ExpectPacket(GLOBAL_REQUEST);
            c.SendPacket(Writer().U8(UNIMPLEMENTED).U32(c.received.back().sequence));
            c.ExpectPacket(GLOBAL_REQUEST); // the first one has been answered
            c.SendPacket(Writer().U8(UNIMPLEMENTED).U32(c.received.back().sequence - 1));
            c.SendPacket({REQUEST_FAILURE});
            c.SendTogether(Ending(3));
        },
        [](StandardClient& client) { client.dialect.SetKeepalive(1, 1); });
    EXPECT_EQ(result.outcome, RUN_ENDED);
    EXPECT_EQ(result.exitStatus, 3);
}

TEST_F(StandardMessages, UnimplementedForAnotherPacketDoesNotAnswerAKeepalive) {
    StandardResult const result = Run(
        [](StandardConnection& c) {
            c.ExpectPacket(GLOBAL_REQUEST);
            c.SendPacket(Writer().U8(UNIMPLEMENTED).U32(c.received.back().sequence + 2));
            c.ReadToTheEnd();
        },
        [](StandardClient& client) { client.dialect.SetKeepalive(1, 1); });
    EXPECT_EQ(result.outcome, "Run SshProtocolError: the server does not answer keepalives");
    EXPECT_EQ(Seen().CountReceived(GLOBAL_REQUEST), 1u);
}

TEST_F(StandardMessages, UnimplementedWithTheNumberAfterThatOfTheForwardingRefusesIt) {
    int started = 0;
    StandardResult const result = RunFrom(
        [](StandardConnection& c) {
            c.WellBehaved(Stage::Opened);
            c.ReadChannelRequest();
            c.ExpectPacket(GLOBAL_REQUEST);
            c.SendPacket(Writer().U8(UNIMPLEMENTED).U32(c.received.back().sequence + 1));
            c.SendTogether(Ending(3));
            c.ReadToTheEnd();
        },
        [&](StandardClient& client) {
            client.beforeRun = [&] { started = client.session.StartRemoteForwarding("8000:localhost:80"); };
        });
    EXPECT_EQ(started, -1);
    EXPECT_EQ(result.exitStatus, 3);
}

TEST_F(StandardMessages, UnimplementedRefusesTheForwardingWithItsSequenceNumberAlone) {
    for (bool isRefused : {false, true}) {
        int started = 0;
        StandardResult const result = RunFrom(
            [&](StandardConnection& c) {
                c.WellBehaved(Stage::Opened);
                c.ReadChannelRequest();
                c.ExpectPacket(GLOBAL_REQUEST);
                std::uint32_t const sequence = c.received.back().sequence;
                c.SendPacket(Writer().U8(UNIMPLEMENTED).U32(isRefused ? sequence : sequence - 1));
                if (!isRefused) c.SendPacket({REQUEST_SUCCESS});
                c.SendTogether(Ending(3));
                c.ReadToTheEnd();
            },
            [&](StandardClient& client) {
                client.beforeRun = [&] {
                    started = client.session.StartRemoteForwarding("8000:localhost:80");
                };
            });
        EXPECT_EQ(started, isRefused ? -1 : 0);
        EXPECT_EQ(result.lastError, isRefused ? "the server refused the remote forwarding" : "");
        EXPECT_EQ(result.outcome, RUN_ENDED);
        EXPECT_EQ(result.exitStatus, 3);
    }
}

} // namespace

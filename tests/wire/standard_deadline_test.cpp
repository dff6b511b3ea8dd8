// Servers that keep a client of the standard dialect waiting, on a clock that the server's script moves on.

#include <time.h>

#include <atomic>
#include <thread>

#include "support/next_symbol.h"
#include "wire/standard_fixture.h"

using namespace peer;

namespace {

std::atomic<long> ahead{0}; ///< seconds that the clock of this program is ahead

void Wait(int seconds) {
    ahead += seconds;
    std::this_thread::sleep_for(std::chrono::milliseconds(2)); // so that the client notices
}

char const noAnswer[] = "SshProtocolError: the server does not answer";

class StandardDeadline : public StandardTest {
protected:
    /// The outcome at a server that goes on from there.
    std::string After(Stage stage, Script const& script) {
        StandardResult const result = RunFrom([=](StandardConnection& c) {
            c.WellBehaved(stage);
            script(c);
            c.ReadToTheEnd();
        });
        EXPECT_FALSE(result.isAuthenticated);
        return result.outcome;
    }
};

TEST_F(StandardDeadline, KeyExchangeInDripsIsGivenUp) {
    EXPECT_EQ(After(Stage::KexInitExchanged,
                    [](StandardConnection& c) {
                        c.ReceiveKexMessage();
                        for (std::uint8_t const byte : c.Encode(c.MakeReply().Payload())) {
                            c.SendRaw({byte});
                            Wait(10);
                        }
                        c.SendNewKeys();
                        c.ReceiveNewKeys();
                    }),
              std::string("KeyExchange ") + noAnswer);
}

TEST_F(StandardDeadline, LoginAmongIgnoredMessagesIsGivenUp) {
    EXPECT_EQ(After(Stage::NewKeys,
                    [](StandardConnection& c) {
                        c.ExpectPacket(SERVICE_REQUEST);
                        for (int i = 0; i < 50; ++i) {
                            c.SendPacket(Ignore());
                            Wait(10);
                        }
                        c.SendPacket(Writer().U8(SERVICE_ACCEPT).String("ssh-userauth"));
                    }),
              std::string("Authenticate ") + noAnswer);
}

TEST_F(StandardDeadline, LoginAmongBannersIsGivenUp) {
    EXPECT_EQ(After(Stage::Service,
                    [](StandardConnection& c) {
                        c.ReadAuthRequest();
                        for (int i = 0; i < 50; ++i) {
                            c.SendPacket(Writer().U8(USERAUTH_BANNER).String("wait\n").String(""));
                            Wait(10);
                        }
                        c.SendPacket({USERAUTH_SUCCESS});
                    }),
              std::string("Authenticate ") + noAnswer);
}

TEST_F(StandardDeadline, ServerThatTakesItsTimeForEachAnswerIsWaitedFor) {
    settings.noneAccepted = false;
    StandardResult const result = RunFrom([](StandardConnection& c) {
        c.WellBehaved(Stage::KexInitExchanged);
        Wait(150);
        c.FinishExchange();
        c.ExpectPacket(SERVICE_REQUEST);
        Wait(150);
        c.SendPacket(Writer().U8(SERVICE_ACCEPT).String("ssh-userauth"));
        c.ReadAuthRequest();
        Wait(150);
        c.SendAuthFailure("password");
        c.ReadAuthRequest();
        Wait(150);
        c.SendPacket({USERAUTH_SUCCESS});
        c.ConfirmOpen();
        c.ReadChannelRequest();
        c.SendTogether(Ending(3));
        c.ReadToTheEnd();
    });
    EXPECT_EQ(result.outcome, RUN_ENDED);
    EXPECT_EQ(result.exitStatus, 3);
}

TEST_F(StandardDeadline, ForwardingThatIsNotAnsweredWithinTheLoopIsGivenUp) {
    std::unique_ptr<AtOnce> timer;
    StandardResult const result = RunFrom(
        [](StandardConnection& c) {
            c.WellBehaved(Stage::Opened);
            c.ReadChannelRequest();
            c.SkipTo(GLOBAL_REQUEST);
            for (int i = 0; i < 50; ++i) {
                c.SendPacket(Data("x"));
                Wait(10);
            }
            c.SendPacket({REQUEST_SUCCESS});
            c.SendTogether(Ending());
            c.ReadToTheEnd();
        },
        [&](StandardClient& client) {
            timer = std::make_unique<AtOnce>([&] { client.session.StartRemoteForwarding("7:127.0.0.1:1"); });
            client.beforeRun = [&] { client.session.Multiplexer().Insert(timer.get()); };
        });
    EXPECT_EQ(result.outcome, std::string("Run ") + noAnswer);
}

} // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
    static auto* const next = support::NextSymbol(&clock_gettime, "clock_gettime");
    int const result = next(clock, now);
    if (clock == CLOCK_MONOTONIC) now->tv_sec += ahead;
    return result;
}

// Servers that keep a client of the standard dialect waiting, on a clock that the server's script moves on.

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <thread>
#include <utility>

#include <brantle/apps/scp_session.h>
#include <brantle/sftp/sftp_client_session.h>

#include "support/next_symbol.h"
#include "support/temporary_directory.h"
#include "wire/standard_fixture.h"
#include "wire/standard_sftp_server.h"

using namespace peer;

namespace {

std::atomic<long> ahead{0}; ///< seconds that the clock of this program is ahead

void Wait(int seconds) {
    ahead += seconds;
    std::this_thread::sleep_for(std::chrono::milliseconds(2)); // so that the client notices
}

/// If not null, this thread is stopped after its next recv(2), until there is more to be received.
thread_local std::promise<void>* stopNext = nullptr;

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

/// What a server sends that keeps the client waiting.
std::vector<Bytes> Idle() {
    return {Ignore(), Writer().U8(CHANNEL_REQUEST).U32(0).String("keepalive@openssh.com").Bool(true)};
}

void KeepWaiting(StandardConnection& c) {
    for (int i = 0; i < 2000; ++i) { // until the client has closed
        c.SendTogether(Idle());
        Wait(10);
    }
}

TEST_F(StandardDeadline, WindowOfZeroWithinACopyOverScpIsGivenUp) {
    settings.window = 30;
    Serve([](StandardConnection& c) {
        c.WellBehaved(Stage::Opened);
        c.ReadChannelRequest();
        c.SendPacket(Data(std::string(2, '\0')));
        KeepWaiting(c);
    });
    support::TemporaryDirectory const directory;
    std::ofstream(directory.Path() / "file") << std::string(1000, 'x');
    cindral::ScpSession session(server->Port(), "127.0.0.1");
    cindral::StandardDialect dialect(session);
    Login(session);
    EXPECT_EQ(Outcome([&] { return session.SendFile(directory.Path().c_str(), "target", "file"); }),
              noAnswer);
    EXPECT_EQ(Text(dialect.LastError()), "the server does not answer");
}

TEST_F(StandardDeadline, CopyOverSftpWhoseServerAnswersNothingIsGivenUp) {
    constexpr unsigned READ = 5, WRITE = 6;
    for (bool toServer : {false, true}) {
        Serve([](StandardConnection& c) {
            c.WellBehaved(Stage::Opened);
            SftpServer sftp(c);
            sftp.content = std::string(100000, 'x');
            sftp.instead = [&](unsigned type, std::uint32_t, Reader&) {
                if (type == READ || type == WRITE) KeepWaiting(c);
                return false;
            };
            sftp.Serve();
        });
        support::TemporaryDirectory const directory;
        std::string const file = directory.Path() / "file";
        std::ofstream(file) << std::string(100000, 'x');
        cindral::SftpClientSession session(server->Port(), "127.0.0.1");
        cindral::StandardDialect dialect(session);
        Login(session);
        ASSERT_EQ(session.Start(), 0);
        cindral::SftpStatus status;
        EXPECT_EQ(Outcome([&] {
                      return toServer ? session.Put(status, file.c_str(), "remote")
                                      : session.Get(status, "remote", file.c_str());
                  }),
                  noAnswer);
    }
}

TEST_F(StandardDeadline, CopyThatGoesOnSlowlyIsWaitedFor) {
    settings.window = 200;
    std::size_t received = 0;
    Serve([&](StandardConnection& c) {
        c.WellBehaved(Stage::Opened);
        c.ReadChannelRequest();
        c.SendPacket(Data(std::string(2, '\0')));
        constexpr std::size_t all = 16 + 1000 + 1; // head line, file, and its end
        for (std::size_t granted = settings.window; received < all; granted += settings.window) {
            while (received < std::min(granted, all)) {
                Reader message = c.SkipTo(CHANNEL_DATA);
                message.U32();
                received += message.Blob().size();
            }
            Wait(150);
            c.SendPacket(WindowAdjust(0, settings.window));
        }
        c.SendPacket(Data(std::string(1, '\0')));
        c.ReadToTheEnd();
    });
    support::TemporaryDirectory const directory;
    std::ofstream(directory.Path() / "file") << std::string(1000, 'x');
    {
        cindral::ScpSession session(server->Port(), "127.0.0.1");
        cindral::StandardDialect dialect(session);
        Login(session);
        EXPECT_EQ(session.SendFile(directory.Path().c_str(), "target", "file"), 0);
    }
    server->Finish();
}

TEST_F(StandardDeadline, AnswerThatComesWhileTheProcessIsStoppedIsRead) {
    constexpr unsigned STAT = 17;
    std::promise<void> stopped;
    Serve([&](StandardConnection& c) {
        c.WellBehaved(Stage::Opened);
        SftpServer sftp(c);
        sftp.beforeAnswer = [&](unsigned type) {
            if (type != STAT) return;
            c.SendPacket(Ignore());
            stopped.get_future().wait();
        };
        try {
            sftp.Serve();
        } catch (Closed const&) {
        }
    });
    {
        cindral::SftpClientSession session(server->Port(), "127.0.0.1");
        cindral::StandardDialect dialect(session);
        Login(session);
        ASSERT_EQ(session.Start(), 0);
        stopNext = &stopped;
        cindral::SftpStatus status;
        cindral::SftpFileAttr attrs;
        EXPECT_EQ(Outcome([&] { return session.Stat(status, "file", attrs); }), "-8"); // as the server says
    }
    server->Finish();
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

// --- servers that have the client write answers

/// Messages that the client answers with UNIMPLEMENTED.
std::vector<Bytes> Unknown(std::size_t count) { return std::vector<Bytes>(count, Bytes{200}); }

/// As much as the sockets do not hold, before that message.
void Flood(StandardConnection& c, Bytes const& last, std::size_t count = 20000) {
    std::vector<Bytes> messages = Unknown(count);
    messages.push_back(last);
    c.SendTogether(messages);
}

/// Reads some of the client's messages.
void ReadSome(StandardConnection& c, std::size_t count = 4000) {
    for (; count > 0; --count) c.ReadPacket();
}

class StandardFloodDeadline : public StandardDeadline {
protected:
    static constexpr int ROUNDS = 50;
    static constexpr int BUFFER = 0x10000;

    /// Has the server take answers and ask for as many, from its first flood on.
    void GoOn(StandardConnection& c) {
        for (rounds = 0; rounds < ROUNDS; ++rounds) {
            c.SendTogether(Unknown(4000));
            ReadSome(c);
            Wait(20);
        }
    }
    /// The outcome of a command whose connection holds little, at a server that follows the script.
    std::string RunWithLittleRoom(Script const& script) {
        Serve([=](StandardConnection& c) {
            c.Wire().recording = false;
            c.Wire().LimitReceiving(BUFFER);
            script(c);
            c.ReadToTheEnd();
        });
        StandardClient client(server->Port());
        auto const limit = [&] {
            return setsockopt(client.session.Fd(), SOL_SOCKET, SO_SNDBUF, &BUFFER, sizeof BUFFER);
        };
        return client.Follow({client.Connecting(),
                              {"Limit ", limit},
                              client.ExchangingKeys(),
                              client.Authenticating(),
                              {"Open ", [&] { return client.session.Open(); }},
                              {"Start ", [&] {
                                   client.session.StartCommand("command");
                                   roundsAtStart = rounds;
                                   return 0;
                               }}});
    }

    std::atomic<int> rounds{0};
    int roundsAtStart = 0; ///< when the command had been requested
};

TEST_F(StandardFloodDeadline, LoginWhoseRequestIsTakenInDripsIsGivenUp) {
    settings.noneAccepted = false;
    std::string const outcome = RunWithLittleRoom([](StandardConnection& c) {
        c.WellBehaved(Stage::Service);
        c.ReadAuthRequest();
        Flood(c, Writer().U8(USERAUTH_FAILURE).String("password").Bool(false), 40000);
        for (int i = 0; i < 10; ++i) {
            Wait(50);
            ReadSome(c);
        }
        c.SkipTo(USERAUTH_REQUEST);
        c.SendPacket({USERAUTH_SUCCESS});
        c.ConfirmOpen();
    });
    EXPECT_EQ(outcome, "Authenticate SshProtocolError: the server does not take data");
}

TEST_F(StandardFloodDeadline, OpeningAmongMessagesToAnswerIsGivenUp) {
    std::string const outcome = RunWithLittleRoom([this](StandardConnection& c) {
        c.WellBehaved(Stage::Service);
        c.ReadAuthRequest();
        Flood(c, {USERAUTH_SUCCESS});
        GoOn(c);
    });
    EXPECT_EQ(outcome, std::string("Open ") + noAnswer);
    EXPECT_LT(rounds, ROUNDS);
}

TEST_F(StandardFloodDeadline, RequestIsNotHeldUpByMessagesToAnswer) {
    std::string const outcome = RunWithLittleRoom([this](StandardConnection& c) {
        c.WellBehaved(Stage::Authenticated);
        c.ExpectPacket(CHANNEL_OPEN);
        Flood(c, Writer().U8(CHANNEL_OPEN_CONFIRMATION).U32(0).U32(settings.channel).U32(1).U32(1));
        GoOn(c);
    });
    EXPECT_EQ(outcome, "");
    EXPECT_LT(roundsAtStart, ROUNDS);
}

/// A key agent that begins an answer of 4,096 bytes and goes on with one every 10 seconds.
class DrippingAgent {
public:
    explicit DrippingAgent(std::string const& path)
        : _listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        if (bind(_listener, reinterpret_cast<sockaddr const*>(&address), sizeof(address)) != 0 ||
            listen(_listener, 1) != 0)
            throw std::runtime_error("agent's socket");
        _thread = std::thread([this] { Answer(); });
    }
    ~DrippingAgent() {
        shutdown(_listener, SHUT_RDWR);
        _thread.join();
        close(_listener);
    }
    DrippingAgent(DrippingAgent const&) = delete;
    DrippingAgent& operator=(DrippingAgent const&) = delete;

private:
    void Answer() const {
        int const connection = accept4(_listener, nullptr, nullptr, SOCK_CLOEXEC);
        char request[5];
        if (recv(connection, request, sizeof(request), MSG_WAITALL) > 0) {
            send(connection, "\0\0\x10", 4, MSG_NOSIGNAL);
            for (int i = 0; i < 50; ++i) {
                send(connection, "\x0c", 1, MSG_NOSIGNAL);
                Wait(10);
            }
        }
        close(connection);
    }

    int _listener;
    std::thread _thread;
};

TEST_F(StandardDeadline, AgentThatAnswersInDripsIsGivenUp) {
    support::TemporaryDirectory const directory;
    std::string const path = directory.Path() / "agent";
    DrippingAgent const agent(path);
    setenv("SSH_AUTH_SOCK", path.c_str(), 1);
    settings.noneAccepted = false;
    std::string reason, lastError;
    Serve([](StandardConnection& c) {
        c.WellBehaved(Stage::Service);
        c.ReadAuthRequest();
        c.SendAuthFailure("publickey");
        c.ReadToTheEnd();
    });
    {
        StandardClient client(server->Port());
        reason = client.LogIn();
        lastError = Text(client.dialect.LastError());
    }
    server->Finish();
    unsetenv("SSH_AUTH_SOCK");
    EXPECT_EQ(reason, "Authenticate -1");
    EXPECT_THAT(lastError, testing::HasSubstr("agent: the agent does not answer"));
}

} // namespace

extern "C" ssize_t recv(int fd, void* to, std::size_t size, int flags) {
    static auto* const next = support::NextSymbol(&recv, "recv");
    ssize_t const result = next(fd, to, size, flags);
    if (std::promise<void>* const stopped = std::exchange(stopNext, nullptr)) {
        stopped->set_value();
        pollfd more{fd, POLLIN, 0};
        poll(&more, 1, 10000);
        ahead += 200;
    }
    return result;
}

extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
    static auto* const next = support::NextSymbol(&clock_gettime, "clock_gettime");
    int const result = next(clock, now);
    if (clock == CLOCK_MONOTONIC) now->tv_sec += ahead;
    return result;
}

// Channels of the standard dialect at servers that break the rules of RFC 4254.

#include <poll.h>

#include <ctime>
#include <future>
#include <thread>

#include <brantle/channel/ssh_data_stream.h>
#include <brantle/channel/tcp_forwarding.h>
#include <brantle/packet/channel_messages.h>

#include "wire/standard_fixture.h"
#include "wire/tcp_end.h"

using namespace peer;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr std::uint32_t WINDOW = 0x200000;   ///< what the client grants
constexpr std::uint32_t MAX_PACKET = 0x8000; ///< likewise
constexpr std::uint32_t ALL = 0xffffffff;

/// Messages for the channel of that number, whose fields are right.
std::vector<Bytes> MessagesFor(std::uint32_t channel) {
    return {
        Writer().U8(CHANNEL_OPEN_CONFIRMATION).U32(channel).U32(1).U32(0).U32(MAX_PACKET),
        Writer().U8(CHANNEL_OPEN_FAILURE).U32(channel).U32(1).String("text").String(""),
        WindowAdjust(channel, 1),
        Data("text", channel),
        ExtendedData("text", 1, channel),
        Eof(channel),
        Close(channel),
        ExitStatus(0, false, channel),
        Writer().U8(CHANNEL_SUCCESS).U32(channel),
        Writer().U8(CHANNEL_FAILURE).U32(channel),
    };
}

class StandardChannel : public StandardTest {
protected:
    /// The outcome of a command whose server sends these messages at once in place of anything else.
    StandardResult Receive(std::vector<Bytes> const& messages) {
        return Run([messages](StandardConnection& c) { c.SendTogether(messages); });
    }
    /// The same, which must break the command off.
    void ExpectViolation(std::vector<Bytes> const& messages, char const* text = "") {
        StandardResult const result = Receive(messages);
        EXPECT_THAT(result.outcome, AllOf(StartsWith("Run SshProtocolError: "), HasSubstr(text)));
    }
    /// Bytes of the client's data and errors on the session channel, message by message.
    std::vector<std::string> DataOfTheClient() const {
        std::vector<std::string> data;
        for (Bytes const& payload : Seen().ReceivedAfter(CHANNEL_REQUEST)) {
            Reader reader(payload);
            if (reader.U8() != CHANNEL_DATA) continue;
            EXPECT_EQ(reader.U32(), settings.channel);
            data.push_back(reader.String());
        }
        return data;
    }
};

// --- numbers

TEST_F(StandardChannel, MessageForAChannelThatDoesNotExistEndsTheSession) {
    for (Bytes const& message : MessagesFor(7)) {
        SCOPED_TRACE("message " + std::to_string(message[0]));
        ExpectViolation({message}, "channel that does not exist");
    }
}

TEST_F(StandardChannel, MessageForAChannelBeforeItIsConfirmedEndsTheSession) {
    for (Bytes const& message : MessagesFor(0)) {
        if (message[0] == CHANNEL_OPEN_CONFIRMATION || message[0] == CHANNEL_OPEN_FAILURE) continue;
        SCOPED_TRACE("message " + std::to_string(message[0]));
        StandardResult const result = RunFrom([message](StandardConnection& c) {
            c.WellBehaved(Stage::Authenticated);
            c.ExpectPacket(CHANNEL_OPEN);
            c.SendPacket(message);
            c.ReadToTheEnd();
        });
        EXPECT_THAT(result.outcome, StartsWith("Open SshProtocolError: "));
    }
}

TEST_F(StandardChannel, SecondConfirmationEndsTheSession) {
    ExpectViolation({MessagesFor(0)[0]}, "confirmed twice");
}

TEST_F(StandardChannel, RefusalOfAnOpenChannelEndsTheSession) { ExpectViolation({MessagesFor(0)[1]}); }

TEST_F(StandardChannel, AnswerThatNobodyAskedForEndsTheSession) {
    for (std::uint8_t const number : {CHANNEL_SUCCESS, CHANNEL_FAILURE})
        ExpectViolation({Writer().U8(number).U32(0)}, "answer to no channel request");
    for (std::uint8_t const number : {REQUEST_SUCCESS, REQUEST_FAILURE})
        ExpectViolation({{number}}, "answer to no global request");
}

TEST_F(StandardChannel, ConfirmationOfAnotherChannelEndsTheSession) {
    StandardResult const result = RunFrom([](StandardConnection& c) {
        c.WellBehaved(Stage::Authenticated);
        c.ExpectPacket(CHANNEL_OPEN);
        c.SendPacket(MessagesFor(1)[0]);
        c.ReadToTheEnd();
    });
    EXPECT_THAT(result.outcome, StartsWith("Open SshProtocolError: "));
}

TEST_F(StandardChannel, RefusedChannelGivesTheServersWords) {
    StandardResult const result = RunFrom([](StandardConnection& c) {
        c.WellBehaved(Stage::Authenticated);
        c.ExpectPacket(CHANNEL_OPEN);
        c.SendPacket(Writer().U8(CHANNEL_OPEN_FAILURE).U32(0).U32(4).String("no \x1b[31mroom").String(""));
        c.ReadToTheEnd();
    });
    EXPECT_THAT(result.outcome, StartsWith("Open -"));
    EXPECT_THAT(result.lastError, HasSubstr("no "));
    EXPECT_THAT(result.lastError, testing::Not(HasSubstr("\x1b")));
}

TEST_F(StandardChannel, RefusedCommandEndsTheSession) {
    StandardResult const result = RunFrom([](StandardConnection& c) {
        c.WellBehaved(Stage::Opened);
        c.ReadChannelRequest(false);
        c.ReadToTheEnd();
    });
    EXPECT_THAT(result.outcome, StartsWith("Run SshProtocolError: "));
    EXPECT_THAT(result.lastError, HasSubstr("exec"));
    EXPECT_EQ(result.exitStatus, -1);
}

TEST_F(StandardChannel, OpeningsByTheServerAreRefused) {
    StandardResult const result = Run([](StandardConnection& c) {
        for (char const* type : {"session", "forwarded-tcpip", "x11", "auth-agent@openssh.com", "unknown"}) {
            Writer rest;
            if (type == std::string("forwarded-tcpip")) rest.String("localhost").U32(1);
            rest.String("127.0.0.1").U32(2);
            c.SendPacket(
                Writer().U8(CHANNEL_OPEN).String(type).U32(77).U32(WINDOW).U32(MAX_PACKET).Raw(rest.Data()));
            Reader refusal = c.SkipTo(CHANNEL_OPEN_FAILURE);
            EXPECT_EQ(refusal.U32(), 77u);
        }
        c.SendTogether(Ending());
    });
    EXPECT_EQ(result.exitStatus, 0);
}

TEST_F(StandardChannel, OpeningUnderANumberInUseEndsTheSession) {
    ExpectViolation({Writer().U8(CHANNEL_OPEN).String("session").U32(42).U32(WINDOW).U32(MAX_PACKET)},
                    "channel number twice");
}

// --- windows

TEST_F(StandardChannel, DataBeyondTheWindowGrantedEndTheSession) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0); // which nobody reads, so that hardly anything is granted again
    std::string const piece(MAX_PACKET, 'x');
    StandardResult const result = Run(
        [&](StandardConnection& c) {
            c.Wire().recording = false;
            for (std::uint32_t sent = 0; sent < WINDOW; sent += MAX_PACKET) c.SendPacket(Data(piece));
            c.SendPacket(Data("x"));
        },
        [&](StandardClient&) { dup2(ends[1], 1); });
    close(ends[0]);
    close(ends[1]);
    EXPECT_THAT(result.outcome, AllOf(StartsWith("Run SshProtocolError: "), HasSubstr("beyond the window")));
}

TEST_F(StandardChannel, DataOfTheWholeWindowAreNotLost) {
    std::string const piece(MAX_PACKET, 'x');
    StandardResult const result = Run([&](StandardConnection& c) {
        for (std::uint32_t sent = 0; sent < WINDOW; sent += MAX_PACKET) c.SendPacket(Data(piece));
        c.SendTogether(Ending());
    });
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.output.size(), WINDOW);
}

TEST_F(StandardChannel, DataBeyondTheMaximumPacketEndTheSession) {
    std::string const piece(MAX_PACKET + 1, 'x');
    ExpectViolation({Data(piece)}, "beyond the packet size");
    ExpectViolation({ExtendedData(piece, 1)}, "beyond the packet size");
}

TEST_F(StandardChannel, AdjustmentThatOverflowsEndsTheSession) {
    ExpectViolation({WindowAdjust(0, ALL - WINDOW + 1)}, "window of a channel overflows");
    ExpectViolation({WindowAdjust(0, 1), WindowAdjust(0, ALL)}, "window of a channel overflows");
}

TEST_F(StandardChannel, AdjustmentToTheLargestWindowIsAccepted) {
    EXPECT_EQ(Receive({WindowAdjust(0, ALL - WINDOW), Eof(), ExitStatus(0), Close()}).exitStatus, 0);
}

TEST_F(StandardChannel, AdjustmentOfNothingIsAccepted) {
    EXPECT_EQ(Receive({WindowAdjust(0, 0), Eof(), ExitStatus(0), Close()}).exitStatus, 0);
}

TEST_F(StandardChannel, InputStaysWithinTheWindowAndTheMaximumPacket) {
    settings.window = 7;
    settings.maxPacket = 5;
    input.Write("0123456789abcdef");
    input.End();
    StandardResult const result = Run([](StandardConnection& c) {
        c.SkipTo(CHANNEL_DATA);
        c.SkipTo(CHANNEL_DATA);
        c.SendPacket(WindowAdjust(0, 3));
        c.SkipTo(CHANNEL_DATA);
        c.SendPacket(WindowAdjust(0, 1000));
        c.SkipTo(CHANNEL_EOF);
        c.SendTogether(Ending());
    });
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_THAT(DataOfTheClient(), testing::ElementsAre("01234", "56", "789", "abcde", "f"));
}

TEST_F(StandardChannel, HugeMaximumPacketIsNotUsed) {
    settings.window = settings.maxPacket = ALL;
    MemoryFile const large(std::string(200000, 'x'));
    StandardResult const result = Run(
        [](StandardConnection& c) {
            c.SkipTo(CHANNEL_EOF);
            c.SendTogether(Ending());
        },
        [&](StandardClient&) { dup2(large.Fd(), 0); });
    EXPECT_EQ(result.exitStatus, 0);
    std::size_t sum = 0;
    for (std::string const& data : DataOfTheClient()) {
        EXPECT_LE(data.size(), MAX_PACKET);
        sum += data.size();
    }
    EXPECT_EQ(sum, 200000u);
}

TEST_F(StandardChannel, MaximumPacketOfZeroIsRefused) {
    settings.maxPacket = 0;
    StandardResult const result = RunFrom([](StandardConnection& c) {
        c.WellBehaved(Stage::Opened);
        c.ReadToTheEnd();
    });
    EXPECT_THAT(result.outcome, StartsWith("Open SshProtocolError: "));
}

TEST_F(StandardChannel, LoopGoesOnWhileTheWindowIsZero) {
    settings.window = 0;
    input.Write("input");
    std::vector<std::unique_ptr<AtOnce>> timers;
    StandardResult const result =
        Run([](StandardConnection& c) { c.ReadToTheEnd(); },
            [&](StandardClient& client) {
                timers.push_back(std::make_unique<AtOnce>([&client] { client.session.Terminate(); }));
                client.beforeRun = [&] { client.session.Multiplexer().Insert(timers[0].get()); };
            });
    EXPECT_EQ(result.outcome, RUN_ENDED);
    EXPECT_EQ(result.exitStatus, -1);
    EXPECT_TRUE(DataOfTheClient().empty());
}

TEST_F(StandardChannel, OutputComesWhileTheWindowIsZero) {
    settings.window = 0;
    input.Write("input");
    StandardResult const result = Receive({Data("output"), Eof(), ExitStatus(4), Close()});
    EXPECT_EQ(result.output, "output");
    EXPECT_EQ(result.exitStatus, 4);
    EXPECT_TRUE(DataOfTheClient().empty());
}

// --- ends

TEST_F(StandardChannel, DataAfterEofEndTheSession) {
    ExpectViolation({Eof(), Data("x")}, "data after CHANNEL_EOF");
    ExpectViolation({Eof(), ExtendedData("x", 1)}, "data after CHANNEL_EOF");
}

TEST_F(StandardChannel, SecondEofIsIgnored) {
    EXPECT_EQ(Receive({Eof(), Eof(), ExitStatus(6), Close()}).exitStatus, 6);
}

TEST_F(StandardChannel, CloseWithoutAStatusGivesNone) {
    StandardResult const result = Receive({Data("output"), Close()});
    EXPECT_EQ(result.outcome, RUN_ENDED);
    EXPECT_EQ(result.output, "output");
    EXPECT_EQ(result.exitStatus, -1);
    EXPECT_EQ(result.exitSignal, "");
}

TEST_F(StandardChannel, SignalGivesNoStatus) {
    StandardResult const result = Receive({ExitSignal("KI\nLL"), Close()});
    EXPECT_EQ(result.exitStatus, -1);
    EXPECT_THAT(result.exitSignal, StartsWith("KI"));
    EXPECT_THAT(result.exitSignal, testing::Not(HasSubstr("\n")));
}

TEST_F(StandardChannel, StatusBeyondAnIntIsNoneOfThoseBelowZero) {
    EXPECT_GE(Receive({ExitStatus(ALL), Close()}).exitStatus, 0);
}

TEST_F(StandardChannel, StatusWithoutACloseGivesNone) {
    StandardResult const result = RunFrom([](StandardConnection& c) {
        c.WellBehaved(Stage::Opened);
        c.ReadChannelRequest();
        c.SendTogether({Data("output"), ExitStatus(0), Eof()});
    });
    EXPECT_THAT(result.outcome, StartsWith("Run SshProtocolError: connection closed by the server"));
    EXPECT_EQ(result.exitStatus, -1);
}

TEST_F(StandardChannel, MessagesAfterCloseAreRefused) {
    for (Bytes const& message : {Data("x"), Eof(), Close(), ExitStatus(0)}) {
        SCOPED_TRACE("message " + std::to_string(message[0]));
        ExpectViolation({Close(), message});
    }
}

TEST_F(StandardChannel, AdjustmentAfterCloseIsIgnored) {
    EXPECT_EQ(Receive({ExitStatus(5), Close(), WindowAdjust(0, 1)}).exitStatus, 5);
}

TEST_F(StandardChannel, CloseIsAnsweredOnce) {
    Receive(Ending());
    EXPECT_EQ(Seen().CountReceived(CHANNEL_CLOSE), 1u);
}

TEST_F(StandardChannel, CloseBeforeTheAnswerToTheCommandEndsTheSession) {
    StandardResult const result = RunFrom([](StandardConnection& c) {
        c.WellBehaved(Stage::Opened);
        c.ExpectPacket(CHANNEL_REQUEST);
        c.SendTogether({Data("output"), ExitStatus(0), Close()});
        c.ReadToTheEnd();
    });
    EXPECT_EQ(result.outcome, RUN_ENDED);
    EXPECT_EQ(result.output, "output");
}

// --- the loop and the local side

TEST_F(StandardChannel, TimersActDuringAFloodAndWithinAPacket) {
    std::vector<Script> const servers = {
        [](StandardConnection& c) {
            c.Wire().recording = false;
            std::vector<Bytes> const many(100, Ignore(std::string(1000, 'x')));
            for (;;) c.SendTogether(many);
        },
        [](StandardConnection& c) {
            c.SendRaw(Slice(c.Encode(Data("text")), 0, 10));
            c.ReadToTheEnd();
        },
    };
    for (Script const& script : servers) {
        std::unique_ptr<AtOnce> timer;
        StandardResult const result = RunFrom(
            [&](StandardConnection& c) {
                c.WellBehaved(Stage::Opened);
                c.ReadChannelRequest();
                script(c);
            },
            [&](StandardClient& client) {
                timer = std::make_unique<AtOnce>([&client] { client.session.Terminate(); });
                client.beforeRun = [&] { client.session.Multiplexer().Insert(timer.get()); };
            });
        EXPECT_EQ(result.outcome, RUN_ENDED);
        EXPECT_EQ(result.exitStatus, -1);
    }
}

TEST_F(StandardChannel, OutputIsWholeThoughItsReaderIsSlowAndTheServerHasGone) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    std::string const piece(MAX_PACKET, 'x');
    std::string text;
    std::thread reader;
    StandardResult const result = RunFrom(
        [&](StandardConnection& c) {
            c.WellBehaved(Stage::Opened);
            c.ReadChannelRequest();
            for (int i = 0; i < 20; ++i) c.SendPacket(Data(piece));
            c.SendTogether(Ending(3));
            c.SkipTo(CHANNEL_CLOSE);
        },
        [&](StandardClient&) {
            dup2(ends[1], 1);
            close(ends[1]);
            reader = std::thread([&] {
                std::this_thread::sleep_for(std::chrono::milliseconds(300)); // the server is gone by then
                char buffer[0x10000];
                for (ssize_t n; (n = read(ends[0], buffer, sizeof buffer)) > 0;)
                    text.append(buffer, static_cast<std::size_t>(n));
            });
        });
    reader.join();
    close(ends[0]);
    EXPECT_EQ(result.outcome, RUN_ENDED);
    EXPECT_EQ(result.exitStatus, 3);
    EXPECT_EQ(text.size(), 20 * piece.size());
}

// --- before the loop

TEST_F(StandardChannel, OutputAndEndBeforeTheLoopAreNotLost) {
    input.Write("input");
    int forwarded = 4711;
    int terminations = 0;
    StandardResult const result = Run(
        [](StandardConnection& c) {
            c.SendTogether(
                {Data("out"), ExtendedData("\033err", 1), Data("put"), ExitStatus(3), Eof(), Close()});
            c.SkipTo(GLOBAL_REQUEST);
            c.SendPacket({REQUEST_SUCCESS});
        },
        [&](StandardClient& client) {
            client.beforeLoop = [&] { forwarded = client.session.StartRemoteForwarding("7:127.0.0.1:1"); };
            client.beforeRun = [&] { terminations -= client.session.terminations; };
            client.afterRun = [&] { terminations += client.session.terminations; };
        });
    EXPECT_EQ(forwarded, 0);
    EXPECT_EQ(result.outcome, RUN_ENDED);
    EXPECT_EQ(result.output, "output");
    EXPECT_EQ(result.errors, "\033err") << "a command's, as it is";
    EXPECT_EQ(result.exitStatus, 3);
    EXPECT_EQ(terminations, 1) << "in Run";
}

TEST_F(StandardChannel, OutputBeforeTheLoopIsNotLostThoughTheServerHasGone) {
    StandardResult const result = RunFrom(
        [](StandardConnection& c) {
            c.WellBehaved(Stage::Opened);
            c.ReadChannelRequest();
            c.SendTogether({Data("output"), ExitStatus(3), Close()});
            c.SkipTo(GLOBAL_REQUEST);
            c.SendPacket({REQUEST_SUCCESS});
        },
        [&](StandardClient& client) {
            client.beforeLoop = [&] {
                EXPECT_EQ(client.session.StartRemoteForwarding("7:127.0.0.1:1"), 0);
                pollfd end{client.session.Fd(), POLLRDHUP, 0};
                EXPECT_EQ(poll(&end, 1, 30000), 1);
            };
        });
    EXPECT_EQ(result.outcome, RUN_ENDED);
    EXPECT_EQ(result.output, "output");
    EXPECT_EQ(result.exitStatus, 3);
}

TEST_F(StandardChannel, ChannelClosedInPlaceOfAnAnswerEndsTheSession) {
    StandardResult const result = RunFrom(
        [](StandardConnection& c) {
            c.WellBehaved(Stage::Opened);
            c.ExpectPacket(CHANNEL_REQUEST);
            c.SendTogether({ExitStatus(3), Close()});
            c.ReadToTheEnd();
        },
        [](StandardClient& client) {
            client.beforeOpen = [&] { client.session.StartX11Forwarding(0, ":0"); };
        });
    EXPECT_EQ(result.outcome, RUN_ENDED);
    EXPECT_EQ(result.exitStatus, 3);
}

TEST_F(StandardChannel, SecondOpenIsRefusedWhileTheChannelIsOpen) {
    std::string second;
    StandardResult const result =
        Run([](StandardConnection& c) { c.SendTogether(Ending(3)); },
            [&](StandardClient& client) {
                client.beforeLoop = [&] { second = Outcome([&] { return client.session.Open(); }); };
            });
    EXPECT_THAT(second, StartsWith("InvalidArgument: SshSession::Open"));
    EXPECT_EQ(result.exitStatus, 3);
    EXPECT_EQ(Seen().CountReceived(CHANNEL_OPEN), 1u);
}

TEST_F(StandardChannel, BytesThatComeSinglyAreKeptTogether) {
    constexpr unsigned BYTES = 1000;
    settings.window = 0;
    unsigned first = 0;
    Run(
        [](StandardConnection& c) {
            c.SendTogether(std::vector<Bytes>(BYTES, Data("x")));
            c.SendPacket(WindowAdjust(0, 5));
            c.SkipTo(CHANNEL_DATA);
            c.SendTogether(Ending());
        },
        [&](StandardClient& client) {
            client.beforeLoop = [&] {
                cindral::OSshDataStream out(client.session._out, 0, client.session._windowSize);
                out.Write("input", 5);
                out.Flush(); // waits for the window
                first = client.session._in.ReadPacket().Length();
            };
        });
    EXPECT_GE(first, BYTES);
}

TEST_F(StandardChannel, OpeningsUnderOneNumberBeforeTheLoopEndTheSession) {
    Bytes const opening = Writer()
                              .U8(CHANNEL_OPEN)
                              .String("forwarded-tcpip")
                              .U32(77)
                              .U32(WINDOW)
                              .U32(MAX_PACKET)
                              .Raw(Writer().String("localhost").U32(7).String("127.0.0.1").U32(2).Data());
    tcp::Service const target;
    StandardResult const result = Run(
        [&](StandardConnection& c) {
            c.SkipTo(GLOBAL_REQUEST);
            c.SendTogether({{REQUEST_SUCCESS}, opening, opening});
        },
        [&](StandardClient& client) {
            client.beforeLoop = [&] {
                client.session.StartRemoteForwarding(target.Port(), "127.0.0.1", 7, "localhost");
            };
        });
    EXPECT_THAT(result.outcome, AllOf(StartsWith("Run SshProtocolError: "), HasSubstr("number twice")));
}

// --- what a program does in the loop

TEST_F(StandardChannel, EofOfAProgramComesAfterItsData) {
    settings.window = 5;
    std::unique_ptr<AtOnce> timer;
    StandardResult const result = Run(
        [](StandardConnection& c) {
            c.SkipTo(CHANNEL_DATA);
            c.SendPacket(WindowAdjust(0, 5));
            c.SkipTo(CHANNEL_EOF);
            c.SendTogether(Ending());
        },
        [&](StandardClient& client) {
            timer = std::make_unique<AtOnce>([&client] {
                client.session._channels.Find(0)->ForwardToSshd("0123456789", 10);
                client.session.CloseChannel(0);
            });
            client.beforeRun = [&] { client.session.Multiplexer().Insert(timer.get()); };
        });
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_THAT(DataOfTheClient(), testing::ElementsAre("01234", "56789"));
}

TEST_F(StandardChannel, WindowInSmallPartsDoesNotSlowDownDataOfAProgram) {
    constexpr std::size_t SIZE = 64 << 20;
    constexpr std::size_t PARTS = 20000;
    settings.window = 0;
    std::unique_ptr<AtOnce> timer;
    std::clock_t used = 0; // by all threads: the server needs little
    StandardResult const result = Run(
        [&](StandardConnection& c) {
            c.Wire().recording = false;
            std::clock_t const before = std::clock();
            c.SendTogether(std::vector<Bytes>(PARTS, WindowAdjust(0, 1)));
            for (std::size_t i = 0; i < PARTS; ++i) c.SkipTo(CHANNEL_DATA);
            used = std::clock() - before;
            c.SendTogether(Ending(3));
        },
        [&](StandardClient& client) {
            timer = std::make_unique<AtOnce>([&client] {
                client.session._channels.Find(0)->ForwardToSshd(std::string(SIZE, 'x').data(), SIZE);
            });
            client.beforeRun = [&] { client.session.Multiplexer().Insert(timer.get()); };
        });
    EXPECT_EQ(result.exitStatus, 3);
    EXPECT_LT(used, 20 * CLOCKS_PER_SEC);
}

TEST_F(StandardChannel, DataOfAProgramLeaveWithoutFurtherEvents) {
    constexpr std::size_t SIZE = 1 << 20;
    settings.window = 2 * SIZE;
    std::unique_ptr<AtOnce> timer;
    std::string const data(SIZE, 'x');
    StandardResult const result = Run(
        [](StandardConnection& c) {
            std::size_t received = 0;
            while (received < SIZE) {
                Reader message = c.SkipTo(CHANNEL_DATA);
                message.U32();
                received += message.String().size();
            }
            c.SendTogether(Ending());
        },
        [&](StandardClient& client) {
            timer = std::make_unique<AtOnce>(
                [&] { client.session._channels.Find(0)->ForwardToSshd(data.data(), SIZE); });
            client.beforeRun = [&] { client.session.Multiplexer().Insert(timer.get()); };
        });
    EXPECT_EQ(result.exitStatus, 0);
}

/// A channel of a program's own class, which passes its data to a function.
class OwnChannel : public cindral::SshChannel {
public:
    using Received = std::function<void(OwnChannel&)>;

    class Maker : public cindral::SshChannelMakerBase {
    public:
        explicit Maker(Received received) : _received(std::move(received)) {}
        cindral::SshChannel* operator()(unsigned int localId, unsigned int remoteId, String_t const& name,
                                        unsigned int windowSize, cindral::ISshPacketStream* in,
                                        cindral::OSshPacketStream* out) const override {
            return new OwnChannel(_received, localId, remoteId, name, windowSize, in, out);
        }

    private:
        Received _received;
    };

    ~OwnChannel() override { *isGone = true; }
    void Forward(char const* bytes, unsigned int n) override {
        data = {bytes, n};
        _received(*this);
    }
    void ForwardExtended(char const* bytes, unsigned int n) override { Forward(bytes, n); }
    void Flush() override {
        if (auto const flush = std::exchange(onFlush, {})) flush();
    }

    std::string_view data; ///< what the function is called for
    std::function<void()> onFlush;
    std::shared_ptr<bool> const isGone = std::make_shared<bool>(false);

private:
    OwnChannel(Received received, unsigned int localId, unsigned int remoteId, String_t const& name,
               unsigned int windowSize, cindral::ISshPacketStream* in, cindral::OSshPacketStream* out)
        : SshChannel(localId, remoteId, name, windowSize, -1, -1, -1, in, out),
          _received(std::move(received)) {}

    Received _received;
};

/// Sessions with a forwarded connection whose channel, 1 here and 500 at the server, is the program's own.
class StandardOwnChannel : public StandardChannel {
protected:
    StandardResult RunWithOwn(std::function<void(StandardClient&, OwnChannel&)> const& received,
                              Script const& script) {
        return Run(
            [&](StandardConnection& c) {
                c.SkipTo(GLOBAL_REQUEST);
                c.SendPacket({REQUEST_SUCCESS});
                c.SendPacket(Writer()
                                 .U8(CHANNEL_OPEN)
                                 .String("forwarded-tcpip")
                                 .U32(500)
                                 .U32(WINDOW)
                                 .U32(MAX_PACKET)
                                 .String("localhost")
                                 .U32(7)
                                 .String("127.0.0.1")
                                 .U32(2));
                c.SkipTo(CHANNEL_OPEN_CONFIRMATION);
                c.SendPacket(Data("now"));
                c.SendPacket(Writer().U8(GLOBAL_REQUEST).String("unknown").Bool(true));
                c.SkipTo(REQUEST_FAILURE); // the channel has been replaced
                script(c);
            },
            [&](StandardClient& client) {
                client.beforeLoop = [&] {
                    client.session.StartRemoteForwarding(_target.Port(), "127.0.0.1", 7, "localhost");
                };
                client.beforeRun = [&] {
                    client.session.ReplaceChannel(
                        0, OwnChannel::Maker([&](OwnChannel&) {
                            client.session.ReplaceChannel(
                                1, OwnChannel::Maker([&](OwnChannel& own) { received(client, own); }));
                        }));
                };
            });
    }

private:
    tcp::Service _target;
};

TEST_F(StandardOwnChannel, ClosedWithinItsOwnOperationItIsKeptUntilThatHasReturned) {
    int forwarded = 4711;
    bool wasGone = true, isGone = false;
    std::shared_ptr<bool> flag;
    StandardResult const result = RunWithOwn(
        [&](StandardClient& client, OwnChannel& own) {
            flag = own.isGone;
            forwarded = client.session.StartRemoteForwarding("8:127.0.0.1:1");
            wasGone = *flag;
        },
        [&](StandardConnection& c) {
            c.SendPacket(Data("text", 1));
            c.SkipTo(GLOBAL_REQUEST);
            c.SendTogether({Close(1), {REQUEST_SUCCESS}});
            EXPECT_EQ(c.SkipTo(CHANNEL_CLOSE).U32(), 500u);
            c.SendTogether(Ending(3));
            c.SkipTo(CHANNEL_CLOSE);
            isGone = *flag;
        });
    EXPECT_EQ(result.exitStatus, 3);
    EXPECT_EQ(forwarded, 0);
    EXPECT_FALSE(wasGone);
    EXPECT_TRUE(isGone);
}

TEST_F(StandardOwnChannel, DataAreKeptUntilItsOperationHasReturned) {
    std::string const sent(100, 'x');
    std::vector<std::string> received;
    StandardResult const result = RunWithOwn(
        [&](StandardClient& client, OwnChannel& own) {
            client.session.StartRemoteForwarding(received.empty() ? "8:127.0.0.1:1" : "9:127.0.0.1:1");
            received.emplace_back(own.data);
        },
        [&](StandardConnection& c) {
            for (Bytes const& message : {Data(sent, 1), ExtendedData(sent, 1, 1)}) {
                c.SendPacket(message);
                c.SkipTo(GLOBAL_REQUEST);
                c.SendTogether({Ignore(std::string(MAX_PACKET, 'i')), {REQUEST_SUCCESS}});
            }
            c.SendTogether(Ending(3));
        });
    EXPECT_EQ(result.exitStatus, 3);
    EXPECT_THAT(received, testing::ElementsAre(sent, sent));
}

TEST_F(StandardOwnChannel, RefusalOfAnotherChannelWaitsUntilItsOperationHasReturned) {
    std::promise<std::uint16_t> port;
    int forwarded = 4711;
    bool isThere = false;
    StandardResult const result = Run(
        [&](StandardConnection& c) {
            std::uint16_t const listener = port.get_future().get();
            tcp::End const ends[] = {tcp::End::To(listener), tcp::End::To(listener)};
            for (std::uint32_t number : {1u, 2u}) EXPECT_EQ(c.ReadChannelOpen().sender, number);
            c.SendPacket(Data("now"));
            c.SkipTo(GLOBAL_REQUEST);
            c.SendTogether({MessagesFor(1)[1], {REQUEST_SUCCESS}});
            EXPECT_TRUE(ends[0].IsClosedByPeer());
            c.SendTogether(Ending(3));
        },
        [&](StandardClient& client) {
            client.beforeRun = [&] {
                auto& session = client.session;
                session.StartLocalForwarding(8000, "target", 0, "127.0.0.1");
                port.set_value(tcp::PortOf(session._localForwardings.Find(0)->_server->Fd()));
                session.ReplaceChannel(0, OwnChannel::Maker([&](OwnChannel& own) {
                                           own.onFlush = [&] {
                                               forwarded = session.StartRemoteForwarding("8:127.0.0.1:1");
                                               isThere = session._channels.Find(1) != nullptr;
                                           };
                                       }));
            };
        });
    EXPECT_EQ(result.exitStatus, 3);
    EXPECT_EQ(forwarded, 0);
    EXPECT_TRUE(isThere);
}

TEST_F(StandardOwnChannel, ConnectionUnderTheNumberOfAReplacedOneIsRead) {
    std::promise<std::uint16_t> port;
    std::string received;
    StandardResult const result = Run(
        [&](StandardConnection& c) {
            std::uint16_t const listener = port.get_future().get();
            tcp::End const ends[] = {tcp::End(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)),
                                     tcp::End(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))};
            auto const open = [&](std::uint32_t number) {
                sockaddr_in const address = tcp::Loopback(listener);
                connect(ends[number - 1].Fd(), reinterpret_cast<sockaddr const*>(&address), sizeof address);
                EXPECT_EQ(c.ReadChannelOpen().sender, number);
                c.SendPacket(Writer()
                                 .U8(CHANNEL_OPEN_CONFIRMATION)
                                 .U32(number)
                                 .U32(500 + number)
                                 .U32(WINDOW)
                                 .U32(MAX_PACKET));
            };
            open(1);
            c.SendPacket(Data("now"));
            EXPECT_TRUE(ends[0].IsClosedByPeer());
            open(2);
            c.SendPacket(Close(1));
            c.SkipTo(CHANNEL_CLOSE);
            ends[1].Send("text");
            Reader data = c.SkipTo(CHANNEL_DATA);
            EXPECT_EQ(data.U32(), 502u);
            received = data.String();
            c.SendTogether(Ending(3));
        },
        [&](StandardClient& client) {
            client.beforeRun = [&] {
                auto& session = client.session;
                session.StartLocalForwarding(8000, "target", 0, "127.0.0.1");
                port.set_value(tcp::PortOf(session._localForwardings.Find(0)->_server->Fd()));
                session.ReplaceChannel(0, OwnChannel::Maker([&](OwnChannel&) {
                                           session.ReplaceChannel(1, OwnChannel::Maker([](OwnChannel&) {}));
                                       }));
            };
        });
    EXPECT_EQ(result.exitStatus, 3);
    EXPECT_EQ(received, "text");
}

TEST_F(StandardOwnChannel, EndedByItsOwnOperationItIsClosedOnce) {
    std::shared_ptr<bool> flag;
    StandardResult const result = RunWithOwn(
        [&](StandardClient& client, OwnChannel& own) {
            cindral::PacketChannelClose close(own._remoteId);
            client.session.CloseChannel(own._localId);
            client.session._out.WritePacket(close);
        },
        [&](StandardConnection& c) {
            c.SendPacket(Data("text", 1));
            EXPECT_EQ(c.SkipTo(CHANNEL_EOF).U32(), 500u);
            EXPECT_EQ(c.SkipTo(CHANNEL_CLOSE).U32(), 500u);
            c.SendTogether({Data("more", 1), Close(1), Data("end"), ExitStatus(3), Close()});
        });
    EXPECT_EQ(result.exitStatus, 3);
    EXPECT_EQ(Seen().CountReceived(CHANNEL_CLOSE), 2u); // with that of the session
}

TEST_F(StandardOwnChannel, TakenOutOfTheTableByItsOwnOperationItIsClosed) {
    StandardResult const result =
        RunWithOwn([&](StandardClient& client, OwnChannel&) { client.session._channels.RemoveChannel(1); },
                   [&](StandardConnection& c) {
                       c.SendPacket(Data("text", 1));
                       EXPECT_EQ(c.SkipTo(CHANNEL_CLOSE).U32(), 500u);
                       c.SendTogether({Data("more", 1), Close(1), ExitStatus(3), Close()});
                   });
    EXPECT_EQ(result.exitStatus, 3);
}

} // namespace

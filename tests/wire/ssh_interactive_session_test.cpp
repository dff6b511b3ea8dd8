// The interactive shell, on a real terminal and without one.

#include <brantle/apps/ssh_interactive_session.h>

#include <cstdlib>
#include <map>
#include <thread>

#include <brantle/cindral/tty_modes.h>

#include "support/terminal.h"
#include "wire/apps_fixture.h"

using support::Terminal;
using namespace peer;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::Pair;

namespace {

char const closingLine[] = "Connection to 127.0.0.1 closed.";

class Interactive : public AppTest {
protected:
    using Step = std::function<void(cindral::SshInteractiveSession&)>;

    Interactive() { setenv("TERM", "vt220", 1); }

    /// The outcome of Run, after a login, on these descriptors; the server's script begins at the opening of
    /// the channel. The steps are called before the login, before Run, and after it.
    std::string RunOn(int in, int out, Script const& script, Step const& beforeLogin = {},
                      Step const& before = {}, Step const& after = {}) {
        Serve([script](Connection& c) {
            c.WellBehaved(Stage::Authenticated);
            script(c);
        });
        std::string outcome;
        {
            ProcessDescriptors const redirected(in, out, out);
            Captured const errors(std::cerr);
            cindral::SshInteractiveSession session(server->Port(), "127.0.0.1");
            if (beforeLogin) beforeLogin(session);
            Login(session);
            if (before) before(session);
            outcome = Outcome([&] { return session.Run(); });
            if (after) after(session);
            messages = errors.Text();
        }
        server->Finish();
        return outcome;
    }

    /// The same on the terminal.
    std::string Run(Script const& script, Step const& before = {}, Step const& after = {}) {
        return RunOn(terminal.Fd(), terminal.Fd(), script, {}, before, after);
    }

    /// Work for the first cycle of the loop.
    Step InTheLoop(std::function<void()> const& work) {
        timer = std::make_unique<AtOnce>(work);
        return [this](cindral::SshInteractiveSession& session) { session.Multiplexer().Insert(timer.get()); };
    }

    Terminal terminal;
    termios const usual = terminal.Settings();
    std::unique_ptr<AtOnce> timer;
    std::string messages;
};

/// Confirms the channel and takes both requests.
void StartShell(Connection& c) {
    c.ConfirmOpen();
    c.ReadChannelRequest();
    c.ReadChannelRequest();
}

void StartAndExit(Connection& c) {
    StartShell(c);
    c.SendExitStatus(0);
}

Bytes PtyRequest(std::string const& term, std::uint32_t columns, std::uint32_t rows, std::uint32_t width,
                 std::uint32_t height, termios const& settings) {
    return Writer()
        .U8(CHANNEL_REQUEST)
        .U32(42)
        .String("pty-req")
        .U8(0)
        .String(term)
        .U32(columns)
        .U32(rows)
        .U32(width)
        .U32(height)
        .String(ToPeer(cindral::TtyMakeModes(settings)));
}

/// The terminal modes of a pty request by their opcodes; opcode 0 is the end.
std::map<unsigned, std::uint32_t> Modes(Bytes const& ptyRequest) {
    Reader reader(ptyRequest);
    reader.Raw(5);
    reader.String();
    reader.U8();
    reader.String();
    reader.Raw(16);
    Reader modes(reader.Blob());
    reader.End();
    std::map<unsigned, std::uint32_t> found;
    while (unsigned const opcode = modes.U8()) found[opcode] = modes.U32();
    modes.End();
    return found;
}

} // namespace

// --- what goes to the server

TEST_F(Interactive, RequestsAreExactAndInOrder) {
    terminal.Resize(132, 43, 1056, 688);
    EXPECT_EQ(Run(StartAndExit), "-1");
    EXPECT_THAT(Sent(), ElementsAre(OpenRequest(), PtyRequest("vt220", 132, 43, 1056, 688, usual),
                                    Request("shell").Data()));
}

TEST_F(Interactive, TerminalTypeIsEmptyWithoutTerm) {
    unsetenv("TERM");
    EXPECT_EQ(Run(StartAndExit), "-1");
    EXPECT_EQ(Sent().at(1), PtyRequest("", 0, 0, 0, 0, usual));
    setenv("TERM", "", 1);
    EXPECT_EQ(Run(StartAndExit), "-1");
    EXPECT_EQ(Sent().at(1), PtyRequest("", 0, 0, 0, 0, usual));
}

TEST_F(Interactive, ModesAreThoseAtTheConstructionOfTheSession) {
    termios own = usual;
    own.c_cc[VINTR] = 0x18;
    own.c_lflag &= ~static_cast<tcflag_t>(ECHOK);
    terminal.Change(own);
    EXPECT_EQ(RunOn(terminal.Fd(), terminal.Fd(), StartAndExit,
                    [&](cindral::SshInteractiveSession&) { terminal.Change(usual); }),
              "-1");
    EXPECT_EQ(Sent().at(1), PtyRequest("vt220", 0, 0, 0, 0, own));
    EXPECT_THAT(Modes(Sent().at(1)), IsSupersetOf({Pair(1, 0x18u), Pair(3, 127u), Pair(51, 1u), Pair(53, 1u),
                                                   Pair(55, 0u), Pair(70, 1u), Pair(72, 1u), Pair(91, 1u),
                                                   Pair(128, 38400u), Pair(129, 38400u)}));
    EXPECT_TRUE(terminal.Has(own)); // put back as it was when the session was made
}

TEST_F(Interactive, WithoutATerminalSizesAreZeroAndNoModeChanges) {
    InputPipe input;
    MemoryFile output;
    EXPECT_EQ(RunOn(input.Fd(), output.Fd(),
                    [&](Connection& c) {
                        StartShell(c);
                        input.Write("typed\r");
                        c.ExpectPacket(CHANNEL_DATA);
                        c.SendData("shown\r\n");
                        c.SendExitStatus(0);
                    }),
              "-1");
    EXPECT_THAT(Sent(), ElementsAre(OpenRequest(), PtyRequest("vt220", 0, 0, 0, 0, termios{}),
                                    Request("shell").Data(), Data("typed\r", 42)));
    EXPECT_EQ(output.Text(), std::string("shown\r\n") + closingLine + "\n");
}

TEST_F(Interactive, RefusedRequestsAreNotWaitedFor) {
    EXPECT_EQ(Run([](Connection& c) {
                  StartShell(c);
                  c.SendChannelMessage(CHANNEL_FAILURE);
                  c.SendChannelMessage(CHANNEL_FAILURE);
                  c.SendExitStatus(0);
              }),
              "-1");
    EXPECT_EQ(messages, "ignore packet SSH_MSG_CHANNEL_FAILURE\nignore packet SSH_MSG_CHANNEL_FAILURE\n");
}

TEST_F(Interactive, WindowChangeIsNotReported) {
    terminal.Resize(80, 24, 0, 0);
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      StartShell(c);
                      c.ExpectPacket(CHANNEL_DATA);
                      c.SendExitStatus(0);
                  },
                  InTheLoop([&] {
                      terminal.Resize(100, 50, 0, 0);
                      raise(SIGWINCH);
                      terminal.Type("x");
                  })),
              "-1");
    EXPECT_THAT(Sent(), ElementsAre(OpenRequest(), PtyRequest("vt220", 80, 24, 0, 0, usual),
                                    Request("shell").Data(), Data("x", 42)));
}

TEST_F(Interactive, EveryTypedByteIsSentUnchanged) {
    std::string const keys = "~.\x03\x1a\x1c\x04\x11\x13\x16\x7f\x15\r\n";
    std::string arrived;
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      StartShell(c);
                      while (arrived.size() < keys.size()) {
                          Reader data = c.ExpectPacket(CHANNEL_DATA);
                          data.U32();
                          arrived += data.String();
                      }
                      c.SendExitStatus(0);
                  },
                  InTheLoop([&] { terminal.Type(keys); })),
              "-1");
    EXPECT_EQ(arrived, keys);
    EXPECT_EQ(terminal.WholeScreen(), std::string(closingLine) + "\r\n"); // and no echo
}

// --- the terminal's mode

TEST_F(Interactive, TerminalIsRawOnlyInTheLoop) {
    settings.banner = "banner\n";
    bool rawBeforeRun = true;
    bool rawAtOpening = true;
    bool rawInLoop = false;
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      c.ReadChannelOpen();
                      rawAtOpening = terminal.IsRaw(); // the client waits for the answer
                      c.SendOpenConfirmation();
                      c.ReadChannelRequest();
                      c.ReadChannelRequest();
                      c.SendData("one\ntwo\n");
                      c.SendExitStatus(0);
                  },
                  [&](cindral::SshInteractiveSession& session) {
                      rawBeforeRun = terminal.IsRaw();
                      InTheLoop([&] { rawInLoop = terminal.IsRaw(); })(session);
                  }),
              "-1");
    EXPECT_FALSE(rawBeforeRun);
    EXPECT_FALSE(rawAtOpening);
    EXPECT_TRUE(rawInLoop);
    // The usual mode adds a carriage return to each line end, raw mode doesn't.
    EXPECT_EQ(terminal.WholeScreen(), std::string("banner\r\none\ntwo\n") + closingLine + "\r\n");
}

TEST_F(Interactive, ExitMessageRestoresTheTerminalBeforeTheClosingLine) {
    for (Bytes const& exit : {ExitStatus(1), ExitSignal("HUP"), ExitStatus(0, true, 9)}) {
        class Watched : public std::stringbuf {
        public:
            explicit Watched(Terminal const& watched) : _terminal(watched) {}
            std::string trace;

        protected:
            std::streamsize xsputn(char const* text, std::streamsize n) override {
                trace += _terminal.IsRaw() ? "raw " : "usual ";
                return std::stringbuf::xsputn(text, n);
            }
            int sync() override {
                trace += "flush ";
                return 0;
            }

        private:
            Terminal const& _terminal;
        } watched(terminal);
        bool restored = false;
        std::streambuf* real = nullptr;
        EXPECT_EQ(Run(
                      [&](Connection& c) {
                          StartShell(c);
                          c.SendPacket(exit);
                      },
                      [&](cindral::SshInteractiveSession&) { real = std::cout.rdbuf(&watched); },
                      [&](cindral::SshInteractiveSession&) {
                          std::cout.rdbuf(real);
                          restored = terminal.Has(usual);
                      }),
                  "-1");
        EXPECT_TRUE(restored); // by the time of Run's return, not of the session's end
        EXPECT_EQ(watched.str(), std::string(closingLine) + "\n");
        EXPECT_EQ(watched.trace.find("raw"), std::string::npos) << watched.trace;
        EXPECT_EQ(watched.trace.substr(0, 6), "usual ");
        EXPECT_EQ(watched.trace.substr(watched.trace.size() - 6), "flush ");
    }
}

TEST_F(Interactive, DisconnectLeavesTheTerminalRawUntilDestruction) {
    bool raw = false;
    EXPECT_EQ(Run(
                  [](Connection& c) {
                      StartShell(c);
                      c.SendDisconnect(11, "shutting down");
                  },
                  {}, [&](cindral::SshInteractiveSession&) { raw = terminal.IsRaw(); }),
              "-1");
    EXPECT_TRUE(raw);
    EXPECT_TRUE(terminal.Has(usual));
    EXPECT_EQ(messages, "connection closed by peer, shutting down\r\n");
    EXPECT_EQ(terminal.WholeScreen(), ""); // no closing line
}

TEST_F(Interactive, ExceptionLeavesTheTerminalRawUntilDestruction) {
    bool raw = false;
    EXPECT_EQ(Run(
                  [](Connection& c) {
                      StartShell(c);
                      c.Wire().ShutdownWrite();
                  },
                  {}, [&](cindral::SshInteractiveSession&) { raw = terminal.IsRaw(); }),
              closedEarly);
    EXPECT_TRUE(raw);
    EXPECT_TRUE(terminal.Has(usual));
    EXPECT_EQ(terminal.WholeScreen(), "");
}

TEST_F(Interactive, TerminateRestoresTheTerminalAndWritesTheClosingLine) {
    bool restored = false;
    EXPECT_EQ(Run(StartShell,
                  [&](cindral::SshInteractiveSession& session) {
                      InTheLoop([&] {
                          session.Terminate();
                          restored = terminal.Has(usual);
                      })(session);
                  }),
              "-1");
    EXPECT_TRUE(restored);
    EXPECT_EQ(terminal.WholeScreen(), std::string(closingLine) + "\r\n");
}

TEST_F(Interactive, SecondTerminateWritesTheClosingLineAgain) {
    int stopped = 0;
    EXPECT_EQ(Run(StartAndExit, {},
                  [&](cindral::SshInteractiveSession& session) { stopped = session.Terminate(); }),
              "-1");
    EXPECT_NE(stopped, 0);
    EXPECT_EQ(terminal.WholeScreen(), std::string(closingLine) + "\r\n" + closingLine + "\r\n");
}

TEST_F(Interactive, TerminateByAnotherThreadTakesEffectWhenPollReturns) {
    std::thread other;
    EXPECT_EQ(Run(StartShell,
                  [&](cindral::SshInteractiveSession& session) {
                      InTheLoop([&] {
                          other = std::thread([&] { session.Terminate(); });
                          other.join();
                      })(session);
                  }),
              "-1");
    EXPECT_TRUE(terminal.Has(usual));
    EXPECT_EQ(terminal.WholeScreen(), std::string(closingLine) + "\r\n");
}

TEST_F(Interactive, ClosingLineNamesTheHostOfATargetTextWithoutItsPort) {
    Serve([](Connection& c) {
        c.WellBehaved(Stage::Authenticated);
        StartAndExit(c);
    });
    {
        ProcessDescriptors const redirected(terminal.Fd(), terminal.Fd(), terminal.Fd());
        std::string const target = "localhost:" + std::to_string(server->Port());
        cindral::SshInteractiveSession session(target.c_str());
        Login(session);
        session.Run();
    }
    server->Finish();
    EXPECT_EQ(terminal.WholeScreen(), "Connection to localhost closed.\r\n");
}

// --- results

TEST_F(Interactive, RunBeforeTheLoginReturnsMinusOneAndSendsNothing) {
    Serve([](Connection& c) { c.WellBehaved(Stage::NewKeys); });
    int unconnected = 0;
    int result = 0;
    bool raw = true;
    {
        ProcessDescriptors const redirected(terminal.Fd(), terminal.Fd(), terminal.Fd());
        cindral::SshInteractiveSession session(server->Port(), "127.0.0.1");
        unconnected = session.Run();
        if (session.Connect(10) != 0 || session.KeyExchange() != 0) throw std::runtime_error("no connection");
        result = session.Run();
        raw = terminal.IsRaw();
    }
    server->Finish();
    EXPECT_EQ(unconnected, -1);
    EXPECT_EQ(result, -1);
    EXPECT_FALSE(raw);
    EXPECT_EQ(server->At(0).received.size(), 4u); // the last one is NEWKEYS
    EXPECT_EQ(terminal.WholeScreen(), "");
}

TEST_F(Interactive, RefusedChannelMakesRunReturnOneInCookedMode) {
    bool raw = true;
    EXPECT_EQ(Run(
                  [](Connection& c) {
                      c.ReadChannelOpen();
                      c.SendOpenFailure(4, "no more");
                  },
                  {}, [&](cindral::SshInteractiveSession&) { raw = terminal.IsRaw(); }),
              "1");
    EXPECT_FALSE(raw);
    EXPECT_THAT(Sent(), ElementsAre(OpenRequest()));
    EXPECT_EQ(terminal.WholeScreen(), "");
}

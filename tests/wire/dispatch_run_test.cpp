// The ways in which Run ends.

#include <future>
#include <thread>

#include "unit/event/pipes.h"
#include "wire/loop_fixture.h"

using namespace peer;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using RunLoop = LoopTest;

} // namespace

TEST_F(RunLoop, DisconnectIsReportedAndEndsTheRun) {
    EXPECT_EQ(Receive({Disconnect("too many failures")}), "-1");
    EXPECT_EQ(messages, "connection closed by peer, too many failures\r\n");
    EXPECT_EQ(terminations, 0);
    EXPECT_TRUE(socketStays);
    EXPECT_THAT(Sent(), IsEmpty());
}

TEST_F(RunLoop, ControlCharactersOfADisconnectArePrintedAsReceived) {
    EXPECT_EQ(Receive({Disconnect("\x1b[2J\a\rPassword: \n")}), "-1");
    EXPECT_EQ(messages, "connection closed by peer, \x1b[2J\a\rPassword: \n\r\n");
}

TEST_F(RunLoop, DisconnectWithoutATextIsReported) {
    EXPECT_EQ(Receive({Disconnect("")}), "-1");
    EXPECT_EQ(messages, "connection closed by peer, \r\n");
}

TEST_F(RunLoop, ArrivedPacketsAfterADisconnectAreHandled) {
    EXPECT_EQ(Receive({Disconnect("bye"), Data("late"), Debug(), Eof()}), "-1");
    EXPECT_EQ(messages, "connection closed by peer, bye\r\nignore packet SSH_MSG_DEBUG\n");
    EXPECT_EQ(output.Text(), "late");
    EXPECT_THAT(Sent(), ElementsAre(Eof(42), Close(42)));
    EXPECT_EQ(dispatches, 1);
}

TEST_F(RunLoop, LaterPacketsAfterADisconnectAreNotRead) {
    EXPECT_EQ(Run([](Connection& c) {
                  c.SendDisconnect(2, "bye");
                  c.ExpectClosed();
                  c.SendData("late");
              }),
              "-1");
    EXPECT_EQ(dispatches, 1);
}

TEST_F(RunLoop, TerminateEndsTheRun) {
    std::unique_ptr<AtOnce> timer;
    EXPECT_EQ(Run([](Connection&) {},
                  [&](LoopSession& session) {
                      timer = std::make_unique<AtOnce>([&] { session.Terminate(); });
                      session.Multiplexer().Insert(timer.get());
                  }),
              "-1");
    EXPECT_EQ(dispatches, 0);
    EXPECT_TRUE(socketStays);
    EXPECT_TRUE(inputStays);
}

TEST_F(RunLoop, TerminateBeforeRunEndsEveryRunImmediately) {
    int first = -1;
    int second = -1;
    EXPECT_EQ(Receive(
                  {Data("unread")},
                  [&](LoopSession& session) {
                      first = session.Terminate();
                      second = session.Terminate();
                  },
                  [](LoopSession& session) {
                      if (session.Run() != -1) throw std::runtime_error("ran again");
                  }),
              "-1");
    EXPECT_EQ(first, 0);
    EXPECT_NE(second, 0);
    EXPECT_EQ(output.Text(), "");
}

TEST_F(RunLoop, TerminateByAnotherThreadTakesEffectWhenPollReturns) {
    Pipe own;
    std::promise<void> loopPasses;
    std::promise<void> terminated;
    std::thread other;
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      terminated.get_future().wait();
                      c.SendData("wakes"); // served still, since the loop sleeps after its look at the flag
                  },
                  [&](LoopSession& session) {
                      other = std::thread([&] {
                          loopPasses.get_future().wait();
                          session.Terminate();
                          terminated.set_value();
                      });
                      // Asked for input between the last look at the flag and poll(2).
                      bool first = true;
                      session.Multiplexer().Register(own.Reader(),
                                                     TestDispatcher().WithInput([&, first]() mutable {
                                                         if (first) {
                                                             loopPasses.set_value();
                                                             other.join();
                                                         }
                                                         first = false;
                                                         return 0;
                                                     }));
                  }),
              "-1");
    EXPECT_EQ(output.Text(), "wakes");
    EXPECT_EQ(dispatches, 1);
}

TEST_F(RunLoop, FailedPollReturnsItsErrno) {
    FailingPoll failing;
    EXPECT_EQ(Run([](Connection&) {}, [&](LoopSession& session) { failing.Prepare(session.Multiplexer()); }),
              "22");
    EXPECT_EQ(dispatches, 0);
}

TEST_F(RunLoop, EndOfTheStreamIsAnException) {
    EXPECT_EQ(Run([](Connection& c) { c.Wire().ShutdownWrite(); }), closedEarly);
    EXPECT_THAT(Sent(), IsEmpty());
    EXPECT_EQ(messages, "");
}

TEST_F(RunLoop, EndOfTheStreamInsideAPacketIsAnException) {
    EXPECT_EQ(Run([](Connection& c) {
                  Bytes const packet = c.Encode(Ignore("x"));
                  c.SendRaw(Slice(packet, 0, 3));
                  c.Wire().ShutdownWrite();
              }),
              closedEarly);
}

TEST_F(RunLoop, WrongMacIsAnException) {
    SendOptions options;
    options.flipMacByte = 0;
    EXPECT_EQ(Run([&](Connection& c) { c.SendPacket(Data("forged"), options); }),
              "SshProtocolError: invalid mac value");
    EXPECT_EQ(output.Text(), "");
    EXPECT_THAT(Sent(), IsEmpty());
}

TEST_F(RunLoop, TooLongPacketIsAnException) {
    SendOptions options;
    options.packetLength = 0x40001;
    EXPECT_EQ(Run([&](Connection& c) { c.SendPacket(Data("x"), options); }),
              "SshProtocolError: packet length exceeds maximum value: 262145");
}

TEST_F(RunLoop, PacketWithUnreadableMacCountsAsMessageZero) {
    EXPECT_EQ(Run([](Connection& c) {
                  Bytes const eof = c.Encode(Eof());
                  Bytes const data = c.Encode(Data("x"));
                  std::size_t const macSize = c.sent.back().mac.size();
                  c.SendRaw(Concat({eof, Slice(data, 0, data.size() - macSize)}));
                  c.ExpectPacket(CHANNEL_EOF);
                  c.ExpectPacket(CHANNEL_CLOSE);
                  c.Wire().Reset();
              }),
              closedEarly);
    EXPECT_EQ(messages, "ignore packet ");
    EXPECT_TRUE(messagesFailed);
    EXPECT_EQ(output.Text(), "");
}

TEST_F(RunLoop, RunMayBeCalledAgainAfterAnException) {
    EXPECT_EQ(Receive({Writer().U8(CHANNEL_EOF).U32(0).U8(0), Data("next"), ExitStatus(0)}, {},
                      [](LoopSession& session) {
                          // What was read with the violation is buffered: it waits for the socket's next
                          // turn.
                          if (session.Dispatch(session.Fd()) != 0) throw std::runtime_error("not ended");
                          if (session.Run() != -1) throw std::runtime_error("not stopped");
                      }),
              "SshProtocolError: additional characters in packet after padding: SSH_MSG_CHANNEL_EOF");
    EXPECT_EQ(output.Text(), "next");
}

TEST_F(RunLoop, SequenceFromCommandToExitStatusIsExact) {
    std::string const typed = "input of the command\n";
    MemoryFile const input(typed);
    EXPECT_EQ(RunFrom(input.Fd(),
                      [](Connection& c) {
                          c.ExpectPacket(CHANNEL_DATA);
                          c.ExpectPacket(CHANNEL_EOF);
                          c.SendWindowAdjust(100);
                          c.SendData("output\n");
                          c.SendExtendedData("complaint\n");
                          c.SendEof();
                          c.ExpectPacket(CHANNEL_CLOSE);
                          c.SendExitStatus(7);
                      }),
              "-1");
    EXPECT_THAT(Sent(), ElementsAre(Data(typed, 42), Eof(42), Close(42)));
    EXPECT_EQ(output.Text(), "output\ncomplaint\n");
    EXPECT_EQ(errorOutput.Text(), "");
    EXPECT_EQ(messages, "");
}

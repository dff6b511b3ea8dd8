// One remote command, attached to descriptors 0, 1 and 2.

#include <brantle/apps/ssh_cmd_session.h>

#include "wire/apps_fixture.h"

using namespace peer;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class Command : public AppTest {
protected:
    /// The outcome of Run, after a login; the server's script begins at the opening of the channel.
    std::string Run(Script const& script, std::string const& command = "true") {
        Serve([script](Connection& c) {
            c.WellBehaved(Stage::Authenticated);
            script(c);
        });
        std::string outcome;
        {
            ProcessDescriptors const redirected(input.Fd(), output.Fd(), errorOutput.Fd());
            Captured const errors(std::cerr);
            cindral::SshCmdSession session(server->Port(), "127.0.0.1", command.c_str());
            Login(session);
            outcome = Outcome([&] { return session.Run(); });
            messages = errors.Text();
        }
        server->Finish();
        return outcome;
    }

    InputPipe input;
    MemoryFile output;
    MemoryFile errorOutput;
    std::string messages;
};

void ConfirmAndTakeCommand(Connection& c) {
    c.ConfirmOpen();
    c.ReadChannelRequest();
}

} // namespace

TEST_F(Command, SequenceToTheExitStatusIsExact) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      ConfirmAndTakeCommand(c);
                      input.Write("input\n");
                      c.ExpectPacket(CHANNEL_DATA);
                      input.End();
                      c.ExpectPacket(CHANNEL_EOF);
                      c.SendData("output\n");
                      c.SendExtendedData("complaint\n");
                      c.SendEof();
                      c.ExpectPacket(CHANNEL_CLOSE);
                      c.SendExitStatus(5);
                      c.SendClose();
                  },
                  "uname -a; echo \"it's\""),
              "-1");
    EXPECT_THAT(Sent(), ElementsAre(OpenRequest(), Request("exec").String("uname -a; echo \"it's\"").Data(),
                                    Data("input\n", 42), Eof(42), Close(42)));
    EXPECT_EQ(output.Text(), "output\ncomplaint\n");
    EXPECT_EQ(errorOutput.Text(), "");
    EXPECT_EQ(messages, "");
}

TEST_F(Command, CommandMayBeEmptyOrLong) {
    for (std::string const& command : {std::string(), std::string(9000, 'c')}) {
        EXPECT_EQ(Run(
                      [](Connection& c) {
                          ConfirmAndTakeCommand(c);
                          c.SendExitStatus(0);
                      },
                      command),
                  "-1");
        EXPECT_THAT(Sent(), ElementsAre(OpenRequest(), Request("exec").String(command).Data()));
    }
}

TEST_F(Command, TargetMayBeOneText) {
    Serve([](Connection& c) {
        c.WellBehaved(Stage::Opened);
        c.ReadChannelRequest();
        c.SendExitStatus(0);
    });
    std::string outcome;
    {
        ProcessDescriptors const redirected(input.Fd(), output.Fd(), errorOutput.Fd());
        std::string const target = "127.0.0.1:" + std::to_string(server->Port());
        cindral::SshCmdSession session(target.c_str(), "by text");
        Login(session);
        outcome = Outcome([&] { return session.Run(); });
    }
    server->Finish();
    EXPECT_EQ(outcome, "-1");
    EXPECT_THAT(Sent(), ElementsAre(OpenRequest(), Request("exec").String("by text").Data()));
}

TEST_F(Command, RunWithoutAConnectionReturnsMinusOne) {
    Serve([](Connection&) {});
    cindral::SshCmdSession session(server->Port(), "127.0.0.1", "true");
    EXPECT_EQ(session.Run(), -1);
}

TEST_F(Command, RunBeforeTheLoginReturnsMinusOneAndSendsNothing) {
    Serve([](Connection& c) { c.WellBehaved(Stage::NewKeys); });
    {
        cindral::SshCmdSession session(server->Port(), "127.0.0.1", "true");
        EXPECT_EQ(session.Connect(10), 0);
        EXPECT_EQ(session.KeyExchange(), 0);
        EXPECT_EQ(session.Run(), -1);
    }
    server->Finish();
    EXPECT_EQ(server->At(0).received.size(), 4u); // the last one is NEWKEYS
}

TEST_F(Command, RunAfterAFailedLoginReturnsMinusOneAndSendsNothing) {
    Serve([](Connection& c) {
        c.WellBehaved(Stage::Service);
        c.ReadAuthRequest();
        c.SendAuthFailure("hostbased");
    });
    {
        cindral::SshCmdSession session(server->Port(), "127.0.0.1", "true");
        EXPECT_THROW(Login(session), std::runtime_error);
        EXPECT_EQ(session.Run(), -1);
    }
    server->Finish();
    EXPECT_THAT(Sent(), IsEmpty());
}

TEST_F(Command, RefusedChannelMakesRunReturnOne) {
    EXPECT_EQ(Run([](Connection& c) {
                  c.ReadChannelOpen();
                  c.SendOpenFailure(1, "no sessions here");
              }),
              "1");
    EXPECT_THAT(Sent(), ElementsAre(OpenRequest()));
    EXPECT_EQ(messages, "");
}

TEST_F(Command, UnexpectedAnswerToTheOpeningIsAnException) {
    EXPECT_EQ(Run([](Connection& c) {
                  c.ReadChannelOpen();
                  c.SendDebug("");
              }),
              "SshProtocolError: expected either CHANNEL_OPEN_CONFIRMATION or CHANNEL_OPEN_FAILURE packet");
    EXPECT_THAT(Sent(), ElementsAre(OpenRequest()));
}

TEST_F(Command, ExitSignalEndsTheRunLikeAnExitStatus) {
    EXPECT_EQ(Run([](Connection& c) {
                  ConfirmAndTakeCommand(c);
                  c.SendExitSignal("KILL", true);
              }),
              "-1");
    EXPECT_EQ(Sent().size(), 2u);
}

TEST_F(Command, RefusedCommandIsNotReported) {
    EXPECT_EQ(Run([](Connection& c) {
                  ConfirmAndTakeCommand(c);
                  c.SendChannelMessage(CHANNEL_FAILURE);
                  c.SendDisconnect(11, "nothing to do");
              }),
              "-1");
    EXPECT_EQ(messages,
              "ignore packet SSH_MSG_CHANNEL_FAILURE\nconnection closed by peer, nothing to do\r\n");
}

TEST_F(Command, DisconnectMakesRunReturnMinusOne) {
    EXPECT_EQ(Run([](Connection& c) {
                  ConfirmAndTakeCommand(c);
                  c.SendDisconnect(2, "bye");
              }),
              "-1");
    EXPECT_EQ(messages, "connection closed by peer, bye\r\n");
    EXPECT_EQ(output.Text(), ""); // and no closing line
}

TEST_F(Command, LostConnectionIsAnException) {
    EXPECT_EQ(Run([](Connection& c) {
                  ConfirmAndTakeCommand(c);
                  c.SendData("some");
                  c.Wire().ShutdownWrite();
              }),
              closedEarly);
    EXPECT_EQ(output.Text(), "some");
}

TEST_F(Command, FailedPollReturnsItsErrno) {
    Serve([](Connection& c) {
        c.WellBehaved(Stage::Opened);
        c.ReadChannelRequest();
    });
    std::string outcome;
    {
        ProcessDescriptors const redirected(input.Fd(), output.Fd(), errorOutput.Fd());
        FailingPoll failing;
        cindral::SshCmdSession session(server->Port(), "127.0.0.1", "true");
        Login(session);
        failing.Prepare(session.Multiplexer());
        outcome = Outcome([&] { return session.Run(); });
    }
    server->Finish();
    EXPECT_EQ(outcome, "22");
}

TEST_F(Command, RunOnAStoppedSessionOpensAChannelAndEnds) {
    Serve([](Connection& c) {
        c.WellBehaved(Stage::Opened);
        c.ReadChannelRequest();
        c.SendExitStatus(0);
        c.ConfirmOpen();
    });
    std::string outcome;
    {
        ProcessDescriptors const redirected(input.Fd(), output.Fd(), errorOutput.Fd());
        cindral::SshCmdSession session(server->Port(), "127.0.0.1", "again");
        Login(session);
        outcome = Outcome([&] { return session.Run(); }) + Outcome([&] { return session.Run(); });
    }
    server->Finish();
    EXPECT_EQ(outcome, "-1-1");
    EXPECT_THAT(Sent(), ElementsAre(OpenRequest(), Request("exec").String("again").Data(), OpenRequest(),
                                    Request("exec").String("again").Data()));
}

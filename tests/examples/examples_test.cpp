// The example programs as a user runs them in the reduced dialect: what they print and what they exit with.

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "examples/execute_against.h"
#include "support/x11/fake_xauth.h"

using namespace execute;
using namespace peer;
using testing::HasSubstr;

TEST(Examples, CommandPassesInputAndOutput) {
    ServerSettings settings;
    settings.group = DhGroup::Modp(1024);
    settings.noneAccepted = true;
    ScriptedPeer server(
        [](Connection& c) {
            c.WellBehaved(Stage::Opened);
            Reader request(c.ReadPacket());
            request.U8();
            request.U32();
            EXPECT_EQ(request.String(), "exec");
            request.U8();
            EXPECT_EQ(request.String(), "wc -c two words");
            Reader data = c.ExpectPacket(CHANNEL_DATA);
            data.U32();
            EXPECT_EQ(data.String(), "typed");
            c.ExpectPacket(CHANNEL_EOF);
            c.SendData("5\n");
            c.SendExitStatus(0);
        },
        settings);
    Ran const ran = Execute("printf typed | VERBOSE=1 " RUN_COMMAND " --reduced tester@127.0.0.1:" +
                            std::to_string(server.Port()) + " wc -c 'two words'");
    server.Finish();
    EXPECT_EQ(ran.status, 0);
    EXPECT_EQ(ran.output, "5\n");
    EXPECT_THAT(ran.errors,
                HasSubstr("server SSH-2.0-ScriptedPeer_1.0; group exchange with SHA-1; to the server "
                          "aes128-ctr and hmac-sha1; from it aes128-ctr and hmac-sha1\n"));
}

TEST(Examples, ShellEndsWithTheClosingLine) {
    Ran const ran = ExecuteAgainst(
        [](Connection& c) {
            c.WellBehaved(Stage::Opened);
            c.ReadChannelRequest();
            c.ReadChannelRequest();
            c.SendData("$ ");
            c.SendExitStatus(0);
        },
        SHELL, "");
    EXPECT_EQ(ran.status, 0) << ran;
    EXPECT_EQ(ran.output, "$ Connection to 127.0.0.1 closed.\n");
    EXPECT_EQ(ran.errors, "");
}

TEST(Examples, CommandForwardsTheUsersOwnDisplay) {
    x11::FakeXauth const xauth("");
    std::vector<ChannelRequest> requests;
    Ran const ran = ExecuteAgainst(
        [&](Connection& c) {
            c.WellBehaved(Stage::Opened);
            requests.push_back(c.ReadChannelRequest());
            c.SendChannelMessage(CHANNEL_SUCCESS);
            requests.push_back(c.ReadChannelRequest());
            c.SendExitStatus(0);
        },
        "env DISPLAY=:7.1 " RUN_COMMAND " -X");
    EXPECT_EQ(ran.status, 0) << ran;
    EXPECT_EQ(ran.errors, "");
    EXPECT_THAT(xauth.Calls(), testing::ElementsAre("list|:7.1"));
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].type, "x11-req");
    EXPECT_EQ(requests[0].rest.back(), 1); // the screen
    EXPECT_EQ(requests[1].type, "exec");
    EXPECT_THAT(Execute(RUN_COMMAND, "-X host true"), Fails(2, "-X needs a DISPLAY in the environment"));
}

TEST(Examples, ScpCopyPutsFiles) {
    std::string const home = std::getenv("HOME");
    std::ofstream(home + "/first") << "1";
    std::ofstream(home + "/second") << "22";
    std::vector<std::string> sent;
    Ran const ran = ExecuteAgainst(
        [&](Connection& c) {
            c.WellBehaved(Stage::Opened);
            sent.push_back(ToText(c.ReadChannelRequest().rest).substr(4));
            c.SendData(std::string(1, '\0'));
            for (int i = 0; i < 5; ++i) {
                Reader data = c.ExpectPacket(CHANNEL_DATA);
                data.U32();
                sent.push_back(data.String());
                if (i < 4) c.SendData(std::string(1, '\0'));
            }
        },
        SCP_COPY, "put " + home + "/first " + home + "/second target");
    EXPECT_EQ(ran.status, 0) << ran;
    EXPECT_EQ(ran.errors, "");
    std::string const end(1, '\0');
    ASSERT_EQ(sent.size(), 6u);
    EXPECT_EQ(sent[0], "scp -t target");
    EXPECT_THAT(sent[1], testing::MatchesRegex("C0... 1 first\n"));
    EXPECT_EQ(sent[2], "1" + end);
    EXPECT_THAT(sent[3], testing::MatchesRegex("C0... 2 second\n"));
    EXPECT_EQ(sent[4], "22" + end);
    EXPECT_EQ(sent[5], "E\n");
}

TEST(Examples, ScpCopyGetsFilesIntoADirectory) {
    std::string const home = std::getenv("HOME");
    std::string command;
    Ran const ran = ExecuteAgainst(
        [&](Connection& c) {
            c.WellBehaved(Stage::Opened);
            command = ToText(c.ReadChannelRequest().rest).substr(4);
            c.SendData("C0644 3 ../elsewhere\nabc" + std::string(1, '\0'));
            c.SendData("C0644 0 b\n" + std::string(1, '\0'));
        },
        SCP_COPY, "get /dir/got other " + home);
    EXPECT_EQ(ran.status, 0) << ran;
    EXPECT_EQ(ran.errors, "");
    EXPECT_EQ(command, "scp -f /dir/got other");
    EXPECT_EQ(TakeFile(home + "/got"), "abc");
    EXPECT_EQ(TakeFile(home + "/other"), "");
}

TEST(Examples, ScpCopyReportsFailures) {
    auto const answering = [](std::string const& answer) {
        return [answer](Connection& c) {
            c.WellBehaved(Stage::Opened);
            c.ReadChannelRequest();
            c.SendData(answer);
        };
    };
    EXPECT_THAT(
        ExecuteAgainst(answering("\1scp: x: No such file or directory\n"), SCP_COPY, "put /dev/null x"),
        Fails(10, "scp terminated with error: scp: x: No such file or directory"));
    EXPECT_THAT(ExecuteAgainst(answering(std::string(1, '\0')), SCP_COPY, "put /missing x"),
                Fails(10, "/missing: No such file or directory"));
    EXPECT_THAT(ExecuteAgainst(answering("C0644 2 full\nab"), SCP_COPY, "get full /dev"),
                Fails(10, "write failed: data, No space left on device"));
    EXPECT_THAT(ExecuteAgainst(answering("C0644 2 x\nab"), SCP_COPY, "get x /missing"),
                Fails(10, "x: No such file or directory"));
    EXPECT_THAT(ExecuteAgainst(
                    [](Connection& c) {
                        c.WellBehaved(Stage::Authenticated);
                        c.ReadChannelOpen();
                        c.SendOpenFailure(1, "");
                    },
                    SCP_COPY, "put /dev/null x"),
                Fails(7, "the server refused the channel"));
}

TEST(Examples, MessagesBetweenLoginAndChannelAreRead) {
    Ran const ran = ExecuteAgainst([](Connection& c) {
        c.WellBehaved(Stage::Service);
        c.ReadAuthRequest();
        Bytes const debug = Writer().U8(DEBUG).Bool(false).String("text").String("");
        c.SendTogether({Writer().U8(USERAUTH_SUCCESS),
                        Writer().U8(GLOBAL_REQUEST).String("hostkeys-00@openssh.com").Bool(false), debug,
                        debug});
        c.ConfirmOpen();
        c.ReadChannelRequest();
        c.SendExitStatus(0);
    });
    EXPECT_EQ(ran.status, 0) << ran;
    EXPECT_EQ(ran.errors, "");
}

TEST(Examples, ScpCopyTakesNoModeFromTheServer) {
    std::string const home = std::getenv("HOME");
    mode_t const before = umask(027);
    Ran const ran = ExecuteAgainst(
        [&](Connection& c) {
            c.WellBehaved(Stage::Opened);
            c.ReadChannelRequest();
            c.SendData("C4777 3 got\nabc" + std::string(1, '\0'));
        },
        SCP_COPY, "get got " + home);
    umask(before);
    EXPECT_EQ(ran.status, 0) << ran;
    struct stat file;
    ASSERT_EQ(stat((home + "/got").c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 07777, 0640u);
    EXPECT_EQ(TakeFile(home + "/got"), "abc");
}

TEST(Examples, ScpCopyLeavesNoFileThatItDidNotGet) {
    std::string const home = std::getenv("HOME");
    EXPECT_THAT(ExecuteAgainst(
                    [](Connection& c) {
                        c.WellBehaved(Stage::Opened);
                        c.ReadChannelRequest();
                        c.SendData("\1scp: no such file\n");
                    },
                    SCP_COPY, "get missing " + home),
                Fails(10, "scp terminated with error"));
    EXPECT_NE(access((home + "/missing").c_str(), F_OK), 0);
}

TEST(Examples, BannerAndFarewellDoNotSteerTheTerminal) {
    Ran const ran = ExecuteAgainst([](Connection& c) {
        c.WellBehaved(Stage::Service);
        c.ReadAuthRequest();
        c.SendBanner("\033[2JWelcome\r\n\tto \302\233 caf\303\251\rPassword: ");
        c.SendAuthSuccess();
        c.ConfirmOpen();
        c.ReadChannelRequest();
        c.SendDisconnect(2, "\033]0;gone\a");
    });
    EXPECT_EQ(ran.output, "?[2JWelcome\r\n\tto ? caf\303\251?Password: ");
    EXPECT_EQ(ran.errors, "connection closed by peer, ?]0;gone?\r\n");
}

TEST(Examples, QuestionsShowWhoAsks) {
    ServerSettings settings;
    settings.group = DhGroup::Modp(1024);
    std::vector<std::string> answers;
    ScriptedPeer server(
        [&](Connection& c) {
            c.WellBehaved(Stage::Service);
            c.ReadAuthRequest();
            c.SendAuthFailure("keyboard-interactive");
            c.ReadAuthRequest();
            c.SendInfoRequest("", "be\033careful", {{"Enter passphrase for id_rsa\b: ", true}});
            answers = c.ReadInfoResponse();
            c.SendAuthFailure("");
        },
        settings);
    std::string const host = "127.0.0.1:" + std::to_string(server.Port());
    Ran const ran = Execute("echo typed | " RUN_COMMAND " --reduced tester@" + host + " true");
    server.Finish();
    EXPECT_EQ(ran.output, "(" + host + ") be?careful\n(" + host + ") Enter passphrase for id_rsa?: ");
    EXPECT_THAT(answers, testing::ElementsAre("typed"));
}

TEST(Examples, ErrorsOfTheServerDoNotSteerTheTerminal) {
    EXPECT_THAT(ExecuteAgainst(
                    [](Connection& c) {
                        c.WellBehaved(Stage::Opened);
                        c.ReadChannelRequest();
                        c.SendData("\1\033[2Jno\n");
                    },
                    SCP_COPY, "put /dev/null x"),
                Fails(10, "scp terminated with error: ?[2Jno"));
    EXPECT_THAT(ExecuteAgainst(
                    [](Connection& c) {
                        c.WellBehaved(Stage::Opened);
                        c.ReadChannelRequest();
                        c.SendData("C\033[2J\n");
                    },
                    SCP_COPY, "get x /tmp"),
                Fails(10, "invalid head line returned from scp: ?[2J"));
}

TEST(Examples, FailureIsReportedAfterAMessageWithoutAName) {
    Ran const ran = ExecuteAgainst([](Connection& c) {
        c.WellBehaved(Stage::Opened);
        c.ReadChannelRequest();
        c.SendPacket(Writer().U8(7).U32(0));
    });
    EXPECT_EQ(ran.status, 8) << ran;
    EXPECT_THAT(ran.errors, testing::EndsWith("connection failed: packet length less than 2\n"));
}

TEST(Examples, WrongArgumentsPrintTheUsage) {
    std::string const command =
        "usage: run_command [-X] [--reduced] [-i IDENTITY] [USER@]HOST[:PORT] COMMAND...";
    for (char const* arguments : {"", "-i", "-i key", "host", "-i key -X", "--reduced", "-i key --reduced"})
        EXPECT_THAT(Execute(RUN_COMMAND, arguments), Fails(2, command)) << arguments;
    for (char const* arguments : {"", "-i", "-i key", "host surplus"})
        EXPECT_THAT(Execute(SHELL, arguments),
                    Fails(2, "usage: shell [--reduced] [-i IDENTITY] [USER@]HOST[:PORT]"))
            << arguments;
    for (char const* arguments :
         {"", "host", "host put", "host put file", "host get file", "host move a b"}) {
        Ran const ran = Execute(SCP_COPY, arguments);
        EXPECT_EQ(ran.status, 2) << arguments;
        EXPECT_THAT(ran.errors,
                    HasSubstr("usage: scp_copy [--reduced] [-i IDENTITY] [USER@]HOST[:PORT] put FILE..."));
    }
}

TEST(Examples, EachFailureHasALineAndAStatus) {
    EXPECT_THAT(Execute(RUN_COMMAND, "me@[::1 true"),
                Fails(3, "invalid target: an address in brackets needs its \"]\""));
    EXPECT_THAT(Execute(RUN_COMMAND, "--reduced me@127.0.0.1: true"),
                Fails(9, "unknown host, or invalid port: 127.0.0.1:"));
    EXPECT_THAT(Execute(SHELL, "--reduced me@127.0.0.1:65536"),
                Fails(9, "unknown host, or invalid port: 127.0.0.1:65536"));
    EXPECT_THAT(Execute(RUN_COMMAND, "--reduced me@127.0.0.1:1 true"),
                Fails(4, "can't connect: Connection refused"));
    auto const refuseChannel = [](Connection& c) {
        c.WellBehaved(Stage::Authenticated);
        c.ReadChannelOpen();
        c.SendOpenFailure(1, "");
    };
    EXPECT_THAT(ExecuteAgainst(refuseChannel), Fails(7, "the server refused the channel"));
    EXPECT_THAT(ExecuteAgainst(refuseChannel, SHELL, ""), Fails(7, "the server refused the channel"));
    EXPECT_THAT(ExecuteAgainst([](Connection& c) {
                    c.WellBehaved(Stage::Service);
                    c.ReadAuthRequest();
                    c.SendAuthFailure("hostbased");
                }),
                Fails(6, "login failed: no method that the server accepts succeeded"));
    EXPECT_THAT(ExecuteAgainst([](Connection& c) { c.WellBehaved(Stage::NewKeys); }),
                Fails(8, "connection failed: packet length less than 2"));
}

TEST(Examples, KeyExchangeDistinguishesARefusalFromAnotherProtocol) {
    ServerSettings settings;
    settings.kexInit.kex = "curve25519-sha256";
    auto const lists = [](Connection& c) { c.WellBehaved(Stage::KexInitExchanged); };
    EXPECT_THAT(ExecuteAgainst(lists, RUN_COMMAND, "true", settings),
                Fails(5, "key exchange failed: no common algorithm, or the host key is not trusted "
                         "(does it differ from the one in ~/.ssh/known_hosts?)"));
    settings.kexInit.kex = "diffie-hellman-group14-sha1";
    EXPECT_THAT(ExecuteAgainst(lists, RUN_COMMAND, "true", settings),
                Fails(5,
                      "key exchange failed: the server has no group exchange with SHA-1, or its group is too "
                      "small"));
}

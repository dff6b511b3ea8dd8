// Files to the server, through the remote scp -t.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "wire/scp_fixture.h"

using namespace peer;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

bool fstatFails = false;

} // namespace

/// Replaces the function of the C library, which only the library under test calls.
extern "C" int fstat64(int fd, struct stat64* status) noexcept {
    if (!fstatFails) return fstatat64(fd, "", status, AT_EMPTY_PATH);
    errno = EIO;
    return -1;
}

namespace {

char const terminated[] = "SshProtocolError: scp terminated with error";
std::string const nothing(1, '\0');

class ScpSend : public ScpTest {
protected:
    /// The outcome of sending the file when the remote program has started.
    std::string Send(std::string const& name, std::function<void(RemoteScp&)> const& script) {
        return Run(
            [script](RemoteScp& remote) {
                remote.TakeCommand();
                remote.Acknowledge();
                script(remote);
            },
            [&](ScpClient& session) {
                EXPECT_EQ(session.StartSend("target"), 0);
                return session.SendFile(Directory(), name.c_str());
            });
    }
    /// What the client sends for a file after the command.
    std::vector<Bytes> SentForFile() const {
        auto sent = Sent();
        sent.erase(sent.begin(), sent.begin() + 2);
        return sent;
    }
};

} // namespace

TEST_F(ScpSend, WholeTransferIsExact) {
    directory.Store("name", "hello", 0644);
    EXPECT_EQ(Run(
                  [](RemoteScp& remote) {
                      EXPECT_EQ(remote.TakeCommand(), "scp -t some dir/it's");
                      remote.Acknowledge();
                      EXPECT_EQ(remote.ReadLine(), "C0644 5 name\n");
                      remote.Acknowledge();
                      EXPECT_EQ(remote.Read(6), "hello" + nothing);
                      remote.Acknowledge();
                      EXPECT_EQ(remote.ReadLine(), "E\n");
                  },
                  [&](ScpClient& session) { return session.SendFile(Directory(), "some dir/it's", "name"); }),
              "0");
    EXPECT_THAT(Sent(), ElementsAre(OpenRequest(), Exec("scp -t some dir/it's"), Data("C0644 5 name\n"),
                                    Data("hello" + nothing), Data("E\n")));
}

TEST_F(ScpSend, TargetMayBeEmpty) {
    EXPECT_EQ(Run(
                  [](RemoteScp& remote) {
                      EXPECT_EQ(remote.TakeCommand(), "scp -t ");
                      remote.Acknowledge();
                  },
                  [](ScpClient& session) { return session.StartSend(String_t()); }),
              "0");
}

TEST_F(ScpSend, ModeIsThreeOctalDigitsOfPermissions) {
    std::vector<std::pair<mode_t, std::string>> const cases = {
        {04755, "C0755"}, {07777, "C0777"}, {0600, "C0600"}, {0407, "C0407"}, {0400, "C0400"}};
    for (auto const& [mode, head] : cases) {
        std::filesystem::remove(directory / "name");
        directory.Store("name", "x", mode);
        EXPECT_EQ(Send("name", [](RemoteScp& remote) { remote.TakeFile(1); }), "0");
        EXPECT_THAT(SentForFile(), ElementsAre(Data(head + " 1 name\n"), Data("x" + nothing)));
    }
}

TEST_F(ScpSend, ModeBelow0100KeepsItsLeadingZeros) {
    for (auto const& [mode, head] : {std::pair(mode_t{044}, "C0044"), std::pair(mode_t{0}, "C0000")}) {
        std::filesystem::remove(directory / "name");
        directory.Store("name", "x", mode);
        if (geteuid() != 0) { // its owner can't read such a file
            EXPECT_EQ(Send("name", [](RemoteScp&) {}), std::to_string(-EACCES));
            continue;
        }
        EXPECT_EQ(Send("name", [](RemoteScp& remote) { remote.TakeFile(1); }), "0");
        EXPECT_THAT(SentForFile(), ElementsAre(Data(std::string(head) + " 1 name\n"), Data("x" + nothing)));
    }
}

TEST_F(ScpSend, EmptyFileIsItsHeaderAndItsEnd) {
    directory.Store("name", "");
    EXPECT_EQ(Send("name", [](RemoteScp& remote) { remote.TakeFile(0); }), "0");
    EXPECT_THAT(SentForFile(), ElementsAre(Data("C0644 0 name\n"), Null()));
}

TEST_F(ScpSend, BodyIsSentInFullMessages) {
    for (std::size_t size : {8143u, 8144u, 8145u, 32543u, 32563u, 32785u, 32786u, 32787u, 100000u}) {
        std::string const text = Pattern(size);
        directory.Store("name", text);
        EXPECT_EQ(Send("name", [size](RemoteScp& remote) { remote.TakeFile(size); }), "0");
        std::vector<Bytes> expected{Data("C0644 " + std::to_string(size) + " name\n")};
        std::string const body = text + nothing;
        for (std::size_t at = 0; at < body.size(); at += 8144)
            expected.push_back(Data(body.substr(at, 8144)));
        EXPECT_EQ(SentForFile(), expected) << size;
    }
}

TEST_F(ScpSend, LargeFileArrives) {
    std::string const text = Pattern(1 << 20);
    directory.Store("name", text);
    std::string arrived;
    EXPECT_EQ(Send("name",
                   [&](RemoteScp& remote) {
                       EXPECT_EQ(remote.ReadLine(), "C0644 1048576 name\n");
                       remote.Acknowledge();
                       arrived = remote.Read(1 << 20);
                       remote.ExpectAcknowledgement();
                       remote.Acknowledge();
                   }),
              "0");
    EXPECT_EQ(arrived, text);
}

TEST_F(ScpSend, FilesAreSentInOrderAndCounted) {
    directory.Store("a", "1", 0600);
    directory.Store("b", "22", 0640);
    directory.Store("c", "");
    EXPECT_EQ(
        Run(
            [](RemoteScp& remote) {
                remote.TakeCommand();
                remote.Acknowledge();
                for (std::size_t size : {1u, 2u, 0u}) remote.TakeFile(size);
            },
            [&](ScpClient& session) { return session.SendFiles(Directory(), "t", List({"a", "b", "c"})); }),
        "3");
    EXPECT_THAT(SentForFile(), ElementsAre(Data("C0600 1 a\n"), Data("1" + nothing), Data("C0640 2 b\n"),
                                           Data("22" + nothing), Data("C0644 0 c\n"), Null(), Data("E\n")));
}

TEST_F(ScpSend, ListMayBeEmpty) {
    EXPECT_EQ(Run(
                  [](RemoteScp& remote) {
                      remote.TakeCommand();
                      remote.Acknowledge();
                  },
                  [&](ScpClient& session) {
                      EXPECT_EQ(session.StartSend("t"), 0);
                      EXPECT_EQ(session.SendFiles(Directory(), List({})), 0);
                      return session.TerminateSend();
                  }),
              "2");
    EXPECT_THAT(SentForFile(), ElementsAre(Data("E\n")));
    EXPECT_EQ(Run(
                  [](RemoteScp& remote) {
                      remote.TakeCommand();
                      remote.Acknowledge();
                  },
                  [&](ScpClient& session) { return session.SendFiles(Directory(), "t", List({})); }),
              "0");
    EXPECT_THAT(SentForFile(), ElementsAre(Data("E\n")));
}

TEST_F(ScpSend, FileThatCannotBeOpenedIsTheNegatedErrnoAndEndsTheList) {
    directory.Store("a", "1");
    EXPECT_EQ(Run(
                  [](RemoteScp& remote) {
                      remote.TakeCommand();
                      remote.Acknowledge();
                      remote.TakeFile(1);
                  },
                  [&](ScpClient& session) {
                      return session.SendFiles(Directory(), "t", List({"a", "missing", "a"}));
                  }),
              std::to_string(-ENOENT));
    EXPECT_THAT(SentForFile(), ElementsAre(Data("C0644 1 a\n"), Data("1" + nothing), Data("E\n")));
    EXPECT_EQ(Run(
                  [](RemoteScp& remote) {
                      remote.TakeCommand();
                      remote.Acknowledge();
                  },
                  [](ScpClient& session) { return session.SendFile(String_t(), "t", String_t()); }),
              std::to_string(-ENOENT));
    EXPECT_THAT(SentForFile(), ElementsAre(Data("E\n")));
}

TEST_F(ScpSend, UnreadableFileIsShorterThanAnnounced) {
    std::filesystem::create_directory(directory / "sub");
    chmod((directory / "sub").c_str(), 0755);
    struct stat status{};
    ASSERT_EQ(stat((directory / "sub").c_str(), &status), 0);
    std::string const size = std::to_string(status.st_size);
    EXPECT_EQ(Send("sub", [](RemoteScp& remote) { remote.TakeFile(0); }), "0");
    EXPECT_THAT(SentForFile(), ElementsAre(Data("C0755 " + size + " sub\n"), Null()));
}

TEST_F(ScpSend, FailedFstatIsReturned) {
    directory.Store("name", "x");
    fstatFails = true;
    EXPECT_EQ(Send("name", [](RemoteScp&) {}), "-1");
    fstatFails = false;
    EXPECT_THAT(SentForFile(), IsEmpty());
}

TEST_F(ScpSend, FileThatGrowsMeanwhileIsSentWhole) {
    directory.Store("name", "hello");
    EXPECT_EQ(Send("name",
                   [&](RemoteScp& remote) {
                       EXPECT_EQ(remote.ReadLine(), "C0644 5 name\n");
                       std::ofstream(directory / "name", std::ios::app) << nothing << "C0755 4 more\nevil";
                       remote.Acknowledge();
                       remote.Read(5);
                       remote.ExpectAcknowledgement();
                       EXPECT_EQ(remote.ReadLine(), "C0755 4 more\n");
                       EXPECT_EQ(remote.Read(4), "evil");
                       remote.ExpectAcknowledgement();
                       remote.Acknowledge();
                   }),
              "0");
}

TEST_F(ScpSend, LineFeedInANameIsSentUnchanged) {
    directory.Store("a\nC0755 1 b", "x");
    EXPECT_EQ(Send("a\nC0755 1 b",
                   [](RemoteScp& remote) {
                       EXPECT_EQ(remote.ReadLine(), "C0644 1 a\n");
                       EXPECT_EQ(remote.ReadLine(), "C0755 1 b\n");
                       remote.Acknowledge();
                       remote.Read(1);
                       remote.ExpectAcknowledgement();
                       remote.Acknowledge();
                   }),
              "0");
}

TEST_F(ScpSend, FileIsOpenedWithCloseOnExec) {
    directory.Store("name", "hello");
    EXPECT_EQ(Send("name",
                   [&](RemoteScp& remote) {
                       remote.ReadLine();
                       EXPECT_EQ(support::FlagsOf(support::OpenDescriptorsBelow(directory.Path())),
                                 std::vector<int>{FD_CLOEXEC});
                       remote.Acknowledge();
                       remote.Read(5);
                       remote.ExpectAcknowledgement();
                       remote.Acknowledge();
                   }),
              "0");
}

TEST_F(ScpSend, NameIsAnnouncedUnchanged) {
    std::filesystem::create_directory(directory / "sub");
    directory.Store("sub/a b", "x");
    EXPECT_EQ(Send("sub/a b", [](RemoteScp& remote) { remote.TakeFile(1); }), "0");
    EXPECT_THAT(SentForFile(), ElementsAre(Data("C0644 1 sub/a b\n"), Data("x" + nothing)));
    std::string const whole = directory / "sub/a b";
    EXPECT_EQ(Run(
                  [](RemoteScp& remote) {
                      remote.TakeCommand();
                      remote.Acknowledge();
                      remote.TakeFile(1);
                  },
                  [&](ScpClient& session) {
                      EXPECT_EQ(session.StartSend("t"), 0);
                      return session.SendFile("", whole.c_str());
                  }),
              "0");
    EXPECT_EQ(SentForFile()[0], Data("C0644 1 " + whole + "\n"));
}

TEST_F(ScpSend, StartBeforeTheLoginReturnsMinusOneAndSendsNothing) {
    Serve([](Connection& c) { c.WellBehaved(Stage::NewKeys); });
    {
        ScpClient session(server->Port());
        EXPECT_EQ(session.Connect(10), 0);
        EXPECT_EQ(session.KeyExchange(), 0);
        EXPECT_EQ(session.StartSend("t"), -1);
        EXPECT_EQ(session.SendFile(Directory(), "t", "name"), -1);
        EXPECT_EQ(session.SendFiles(Directory(), "t", List({"name"})), -1);
    }
    server->Finish();
    EXPECT_EQ(server->At(0).received.size(), 4u); // the last one is NEWKEYS
}

TEST_F(ScpSend, RefusedChannelMakesTheStartReturnOne) {
    EXPECT_EQ(RunWith(
                  [](Connection& c) {
                      c.ReadChannelOpen();
                      c.SendOpenFailure(1, "no sessions here");
                  },
                  [](ScpClient& session) { return session.StartSend("t"); }),
              "1");
    EXPECT_THAT(Sent(), ElementsAre(OpenRequest()));
}

TEST_F(ScpSend, RefusedChannelDoesNotStopAWholeTransfer) {
    directory.Store("name", "x");
    EXPECT_EQ(RunWith(
                  [](Connection& c) {
                      c.ReadChannelOpen();
                      c.SendOpenFailure(1, "no sessions here");
                      c.ExpectPacket(CHANNEL_DATA);
                      c.Wire().ShutdownWrite();
                  },
                  [&](ScpClient& session) { return session.SendFile(Directory(), "t", "name"); }),
              closedEarly);
    EXPECT_THAT(Sent(), ElementsAre(OpenRequest(), Data("C0644 1 name\n")));
}

TEST_F(ScpSend, ErrorsOfTheRemoteProgramAreThrownAtEveryStep) {
    directory.Store("name", "x");
    std::vector<std::pair<std::string, std::string>> const answers = {
        {"\1scp: t: No such file or directory\n",
         std::string(terminated) + ": scp: t: No such file or directory"},
        {"\1 \t indented \r\n", std::string(terminated) + ": indented"},
        {"\1\n", terminated},
        {"\2", terminated},
        {"\7", "SshProtocolError: scp returned illegal error code"}};
    for (auto const& [answer, outcome] : answers) {
        EXPECT_EQ(Run(
                      [answer = answer](RemoteScp& remote) {
                          remote.TakeCommand();
                          remote.Send(answer);
                      },
                      [&](ScpClient& session) { return session.SendFile(Directory(), "t", "name"); }),
                  outcome);
        EXPECT_THAT(SentForFile(), IsEmpty());
        EXPECT_EQ(Send("name",
                       [answer = answer](RemoteScp& remote) {
                           remote.ReadLine();
                           remote.Send(answer);
                       }),
                  outcome);
        EXPECT_THAT(SentForFile(), ElementsAre(Data("C0644 1 name\n")));
        EXPECT_EQ(Send("name",
                       [answer = answer](RemoteScp& remote) {
                           remote.ReadLine();
                           remote.Acknowledge();
                           remote.Read(2);
                           remote.Send(answer);
                       }),
                  outcome);
        EXPECT_THAT(SentForFile(), ElementsAre(Data("C0644 1 name\n"), Data("x" + nothing)));
    }
}

TEST_F(ScpSend, OtherAnswersAreIllegal) {
    directory.Store("name", "x");
    EXPECT_EQ(Run(
                  [](RemoteScp& remote) {
                      remote.TakeCommand();
                      std::string all;
                      for (int code = 3; code < 256; ++code) all += static_cast<char>(code);
                      remote.Send(nothing + all);
                  },
                  [&](ScpClient& session) {
                      EXPECT_EQ(session.StartSend("t"), 0);
                      int refused = 0;
                      for (int code = 3; code < 256; ++code)
                          refused += Outcome([&] { return session.SendFile(Directory(), "name"); }) ==
                                     "SshProtocolError: scp returned illegal error code";
                      return refused;
                  }),
              "253");
}

TEST_F(ScpSend, ErrorCarriesItsTextAsDetail) {
    Run(
        [](RemoteScp& remote) {
            remote.TakeCommand();
            remote.Send("\1scp: ");
            remote.Send("disk full\n");
        },
        [](ScpClient& session) {
            try {
                session.StartSend("t");
                ADD_FAILURE() << "no exception";
            } catch (cindral::SshProtocolError const& error) {
                EXPECT_EQ(Text(error.Text()), "scp terminated with error");
                EXPECT_EQ(Text(error.Detail()), "scp: disk full");
            }
            return 0;
        });
}

TEST_F(ScpSend, ChannelThatEndsBeforeAnAnswerReturnsMinusOne) {
    directory.Store("name", "x");
    EXPECT_EQ(Run(
                  [](RemoteScp& remote) {
                      remote.TakeCommand();
                      remote.Break();
                  },
                  [&](ScpClient& session) { return session.SendFile(Directory(), "t", "name"); }),
              "-1");
    EXPECT_EQ(Send("name",
                   [](RemoteScp& remote) {
                       remote.ReadLine();
                       remote.Break();
                   }),
              "-1");
    EXPECT_EQ(Send("name",
                   [](RemoteScp& remote) {
                       remote.ReadLine();
                       remote.Acknowledge();
                       remote.Read(2);
                       remote.Break();
                   }),
              "-1");
}

TEST_F(ScpSend, EndOfTheRemoteProgramIsAnException) {
    directory.Store("name", "x");
    EXPECT_EQ(RunWith(
                  [](Connection& c) {
                      RemoteScp(c).TakeCommand();
                      c.SendExtendedData("sh: scp: not found\n");
                  },
                  [&](ScpClient& session) { return session.SendFile(Directory(), "t", "name"); }),
              "SshProtocolError: expected CHANNEL_DATA package, received: 95");
    EXPECT_EQ(RunWith(
                  [](Connection& c) {
                      RemoteScp(c).TakeCommand();
                      c.SendExitStatus(127);
                      c.SendEof();
                  },
                  [&](ScpClient& session) { return session.SendFile(Directory(), "t", "name"); }),
              "SshProtocolError: expected CHANNEL_DATA package, received: 96");
}

TEST_F(ScpSend, SessionTargetMayBeOneText) {
    Serve([](Connection& c) {
        c.WellBehaved(Stage::Authenticated);
        RemoteScp remote(c);
        remote.TakeCommand();
        remote.Acknowledge();
    });
    {
        cindral::ScpSession session(String_t(("127.0.0.1:" + std::to_string(server->Port())).c_str()));
        Login(session);
        EXPECT_EQ(session.StartSend("t"), 0);
    }
    server->Finish();
    EXPECT_THAT(Sent(), ElementsAre(OpenRequest(), Exec("scp -t t")));
}

// Files from the server, through the remote scp -f.

#include <poll.h>

#include <cerrno>
#include <chrono>

#include "wire/scp_fixture.h"

using namespace peer;
using testing::ElementsAre;

namespace {

char const terminated[] = "SshProtocolError: scp terminated with error";

class ScpReceive : public ScpTest {
protected:
    /// The outcome of receiving "name", when the remote program has started.
    std::string Receive(std::function<void(RemoteScp&)> const& script) {
        return Run(
            [script](RemoteScp& remote) {
                remote.TakeCommand();
                script(remote);
            },
            [&](ScpClient& session) {
                EXPECT_EQ(session.StartReceive("dir", List({"name"})), 0);
                return session.ReceiveFile(Directory(), "name");
            });
    }
    /// The same with these bytes for the first line or lines, and no more of the file.
    std::string ReceiveHead(std::string const& head) {
        return Receive([head](RemoteScp& remote) {
            remote.ExpectAcknowledgement();
            remote.Send(head);
        });
    }

    /// The command that the client starts.
    std::string Command(String_t const& dir, TOList<String_t> const& names) {
        std::string command;
        EXPECT_EQ(Run([&](RemoteScp& remote) { command = remote.TakeCommand(); },
                      [&](ScpClient& session) { return session.StartReceive(dir, names); }),
                  "0");
        return command;
    }
};

} // namespace

TEST_F(ScpReceive, WholeTransferIsExact) {
    EXPECT_EQ(Run(
                  [](RemoteScp& remote) {
                      EXPECT_EQ(remote.TakeCommand(), "scp -f dir/name");
                      remote.GiveFile("C0640 5 name\n", "hello");
                      remote.ExpectAcknowledgement();
                  },
                  [&](ScpClient& session) {
                      EXPECT_EQ(session.ReceiveFile("dir", Directory(), "name"), 0);
                      return 0;
                  }),
              "0");
    // The last acknowledgement leaves with the session.
    EXPECT_THAT(Sent(), ElementsAre(OpenRequest(), Exec("scp -f dir/name"), Null(), Null(), Null()));
    EXPECT_EQ(directory.Stored("name"), "hello");
    EXPECT_EQ(directory.ModeOf("name"), 0640u);
}

TEST_F(ScpReceive, StartSendsTheCommandAndItsFirstOctetWithTheNextRead) {
    EXPECT_EQ(RunWith(
                  [](Connection& c) {
                      RemoteScp remote(c);
                      remote.TakeCommand();
                      EXPECT_FALSE(c.Wire().WaitReadable(std::chrono::milliseconds(50)));
                      remote.Send("C0644 0 name\n");
                      remote.Acknowledge();
                  },
                  [&](ScpClient& session) {
                      int const started = session.StartReceive("", List({"name"}));
                      pollfd answered{session.Fd(), POLLIN, 0};
                      EXPECT_EQ(poll(&answered, 1, 10000), 1);
                      EXPECT_EQ(session.ReceiveFile(Directory(), "name"), 0);
                      return started;
                  }),
              "0");
}

TEST_F(ScpReceive, CommandNamesTheFilesInOrderWithoutQuotes) {
    EXPECT_EQ(Command("dir", List({"b", "a"})), "scp -f dir/b dir/a");
    EXPECT_EQ(Command("dir/", List({"b"})), "scp -f dir/b");
    EXPECT_EQ(Command(String_t(), List({"b", "/c/d"})), "scp -f b /c/d");
    EXPECT_EQ(Command("", List({"a b", "*.c"})), "scp -f a b *.c");
    EXPECT_EQ(Command("/the dir", List({"a"})), "scp -f /the dir/a");
    EXPECT_EQ(Command("dir", List({})), "scp -f");
}

TEST_F(ScpReceive, EmptyFileHasNoBodyMessage) {
    EXPECT_EQ(Receive([](RemoteScp& remote) { remote.GiveFile("C0600 0 name\n", ""); }), "0");
    EXPECT_EQ(directory.Stored("name"), "");
    EXPECT_THAT(Sent(), ElementsAre(OpenRequest(), Exec("scp -f dir/name"), Null(), Null(), Null()));
}

TEST_F(ScpReceive, NegativeSizeIsAnEmptyFile) {
    EXPECT_EQ(Receive([](RemoteScp& remote) { remote.GiveFile("C0600 -5 name\n", ""); }), "0");
    EXPECT_EQ(directory.Stored("name"), "");
}

TEST_F(ScpReceive, FilesOfAllSizesArriveComplete) {
    for (std::size_t size : {1u, 8143u, 8144u, 8145u, 32543u, 32563u, 32767u, 32768u, 32769u, 32785u, 32786u,
                             32787u, 65573u, 1u << 20}) {
        std::string const body = Pattern(size);
        std::string const head = "C0644 " + std::to_string(size) + " name\n";
        EXPECT_EQ(Receive([&](RemoteScp& remote) { remote.GiveFile(head, body); }), "0") << size;
        EXPECT_TRUE(directory.Stored("name") == body) << size;
    }
}

TEST_F(ScpReceive, MessagesMayBeSplitAnywhere) {
    std::string const stream = "C0644 5 name\nhello" + std::string(1, '\0');
    EXPECT_EQ(Receive([&](RemoteScp& remote) {
                  for (char c : stream) {
                      remote.Send(std::string(1, c));
                      remote.Send("");
                  }
              }),
              "0");
    EXPECT_EQ(directory.Stored("name"), "hello");
    EXPECT_EQ(ReceiveHead(stream), "0");
    EXPECT_EQ(directory.Stored("name"), "hello");
}

TEST_F(ScpReceive, LinesWithoutAFileHeaderAreDropped) {
    for (std::string const before :
         {"T1183828267 0 1183828267 0\n", "D0755 0 sub\n", "E\n", "\n", "c0644 1 x\n", "?\n\nT\nD\nE\n"}) {
        EXPECT_EQ(Receive([&](RemoteScp& remote) { remote.GiveFile(before + "C0644 2 name\n", "ok"); }), "0")
            << before;
        EXPECT_EQ(directory.Stored("name"), "ok");
        EXPECT_EQ(Sent().size(), 5u); // none of them is acknowledged
    }
}

TEST_F(ScpReceive, FilesOfARecursiveSourceAreReceivedFlat) {
    EXPECT_EQ(
        Run(
            [](RemoteScp& remote) {
                remote.TakeCommand();
                remote.GiveFile("D0755 0 sub\nC0644 1 a\n", "1");
                remote.GiveFile("E\nC0644 1 b\n", "2");
            },
            [&](ScpClient& session) { return session.ReceiveFiles("", Directory(), List({"a", "b"})); }),
        "2");
    EXPECT_EQ(Names(), " a b");
}

TEST_F(ScpReceive, FilesAreStoredInTheServersOrderUnderTheNamesOfTheList) {
    EXPECT_EQ(Run(
                  [](RemoteScp& remote) {
                      EXPECT_EQ(remote.TakeCommand(), "scp -f d/a d/b d/c");
                      remote.GiveFile("C0644 1 c\n", "1");
                      remote.GiveFile("T0 0 0 0\nC0600 0 a\n", "");
                      remote.GiveFile("C0644 2 b\n", "33");
                      remote.ExpectAcknowledgement();
                  },
                  [&](ScpClient& session) {
                      EXPECT_EQ(session.ReceiveFiles("d", Directory(), List({"a", "b", "c"})), 3);
                      session.TerminateReceive();
                      return 0;
                  }),
              "0");
    EXPECT_EQ(directory.Stored("a") + "," + directory.Stored("b") + "," + directory.Stored("c"), "1,,33");
}

TEST_F(ScpReceive, ListMayBeEmpty) {
    EXPECT_EQ(Run([](RemoteScp& remote) { EXPECT_EQ(remote.TakeCommand(), "scp -f"); },
                  [&](ScpClient& session) { return session.ReceiveFiles("d", Directory(), List({})); }),
              "0");
    EXPECT_EQ(Names(), "");
}

TEST_F(ScpReceive, NameInTheHeaderIsIgnored) {
    std::filesystem::create_directory(directory / "in");
    for (std::string const name : {"..", "../x", "/etc/x", "a/..", "x\x1b[2J", "in"}) {
        EXPECT_EQ(Run(
                      [&](RemoteScp& remote) {
                          remote.TakeCommand();
                          remote.GiveFile("C0644 2 " + name + "\n", "ok");
                      },
                      [&](ScpClient& session) {
                          return session.ReceiveFile("", (directory / "in").c_str(), "given");
                      }),
                  "0")
            << name;
        EXPECT_EQ(directory.Stored("in/given"), "ok");
        EXPECT_EQ(Names(), " in");
        std::filesystem::remove(directory / "in/given");
        EXPECT_TRUE(std::filesystem::is_empty(directory / "in")) << name;
    }
}

TEST_F(ScpReceive, ExistingFileIsReplacedAndKeepsItsMode) {
    directory.Store("name", "much longer", 0600);
    EXPECT_EQ(Receive([](RemoteScp& remote) { remote.GiveFile("C0644 2 name\n", "ok"); }), "0");
    EXPECT_EQ(directory.Stored("name"), "ok");
    EXPECT_EQ(directory.ModeOf("name"), 0600u);
}

TEST_F(ScpReceive, MalformedHeaderIsAnException) {
    for (std::string const head :
         {"0644 five name", "0644 5", "0644", "x 5 name", "0644 99999999999999999999 name"}) {
        EXPECT_EQ(ReceiveHead("C" + head + "\n"),
                  "SshProtocolError: invalid head line returned from scp: " + head);
    }
    EXPECT_EQ(ReceiveHead("C\n"), "SshProtocolError: invalid head line returned from scp");
    EXPECT_EQ(Names(), "");
}

TEST_F(ScpReceive, ModeOfTheServerIsTakenWithItsSpecialBits) {
    mode_t const before = umask(027);
    EXPECT_EQ(Receive([](RemoteScp& remote) { remote.GiveFile("C6777 0 name\n", ""); }), "0");
    umask(before);
    EXPECT_EQ(directory.ModeOf("name"), 06750u);
}

TEST_F(ScpReceive, FileIsOpenedWithCloseOnExec) {
    EXPECT_EQ(Receive([&](RemoteScp& remote) {
                  remote.ExpectAcknowledgement();
                  remote.Send("C0644 5 name\n");
                  remote.ExpectAcknowledgement();
                  EXPECT_EQ(support::FlagsOf(support::OpenDescriptorsBelow(directory.Path())),
                            std::vector<int>{FD_CLOEXEC});
                  remote.Send("hello");
                  remote.Acknowledge();
              }),
              "0");
}

TEST_F(ScpReceive, ErrorInsteadOfAHeaderIsAnException) {
    EXPECT_EQ(ReceiveHead("\1scp: dir/name: No such file or directory\n"), terminated);
    EXPECT_EQ(ReceiveHead("T0 0 0 0\n\1\n"), terminated);
    EXPECT_EQ(ReceiveHead("\2\n"), terminated);
    EXPECT_EQ(Names(), "");
}

TEST_F(ScpReceive, ErrorAfterTheBodyIsAnExceptionAndTheFileIsKept) {
    std::vector<std::pair<std::string, std::string>> const answers = {
        {"\1scp: read error\n", std::string(terminated) + ": scp: read error"},
        {"\2", terminated},
        {"\7", "SshProtocolError: scp returned illegal error code"}};
    for (auto const& [answer, outcome] : answers) {
        EXPECT_EQ(ReceiveHead("C0644 3 name\nabc" + answer), outcome);
        EXPECT_EQ(directory.Stored("name"), "abc");
        EXPECT_EQ(Sent().size(), 4u); // the body is not acknowledged
    }
}

TEST_F(ScpReceive, FileThatCannotBeCreatedIsTheNegatedErrno) {
    EXPECT_EQ(Run(
                  [](RemoteScp& remote) {
                      remote.TakeCommand();
                      remote.ExpectAcknowledgement();
                      remote.Send("C0644 1 name\n");
                      remote.ExpectAcknowledgement(); // leaves with the session
                  },
                  [&](ScpClient& session) {
                      EXPECT_EQ(session.ReceiveFile("", (directory / "missing").c_str(), "name"), -ENOENT);
                      return 0;
                  }),
              "0");
    EXPECT_EQ(Run(
                  [](RemoteScp& remote) {
                      remote.TakeCommand();
                      remote.Send("C0644 1 name\n");
                  },
                  [](ScpClient& session) { return session.ReceiveFile("", String_t(), String_t()); }),
              std::to_string(-ENOENT));
}

TEST_F(ScpReceive, NegativeResultEndsTheList) {
    std::filesystem::create_directory(directory / "b");
    EXPECT_EQ(
        Run(
            [](RemoteScp& remote) {
                remote.TakeCommand();
                remote.GiveFile("C0644 1 a\n", "1");
                remote.ExpectAcknowledgement();
                remote.Send("C0644 1 b\n");
            },
            [&](ScpClient& session) { return session.ReceiveFiles("", Directory(), List({"a", "b", "c"})); }),
        std::to_string(-EISDIR));
    EXPECT_EQ(Names(), " a b");
}

TEST_F(ScpReceive, FailedWriteIsAnException) {
    Run(
        [](RemoteScp& remote) {
            remote.TakeCommand();
            remote.Send("C0644 2 full\nab");
        },
        [](ScpClient& session) {
            try {
                session.ReceiveFile("", "/dev", "full");
                ADD_FAILURE() << "no exception";
            } catch (cindral::SystemError const& error) {
                EXPECT_EQ(Text(error.Text()), "write failed");
                EXPECT_EQ(error.Errno(), ENOSPC);
                EXPECT_EQ(Text(error.Detail()), "data");
            }
            return 0;
        });
}

TEST_F(ScpReceive, ChannelThatEndsInsteadOfAHeaderReturnsMinusOne) {
    EXPECT_EQ(Receive([](RemoteScp& remote) {
                  remote.ExpectAcknowledgement();
                  remote.Send("C0644 1");
                  remote.Break();
              }),
              "-1");
    EXPECT_EQ(Names(), "");
}

TEST_F(ScpReceive, ChannelThatEndsInsteadOfTheAnswerReturnsMinusOne) {
    EXPECT_EQ(Run(
                  [](RemoteScp& remote) {
                      remote.TakeCommand();
                      remote.ExpectAcknowledgement();
                      remote.Send("C0644 2 name\n");
                      remote.ExpectAcknowledgement();
                      remote.Send("ab");
                      remote.Break();
                  },
                  [&](ScpClient& session) {
                      EXPECT_EQ(session.StartReceive("dir", List({"name"})), 0);
                      int const result = session.ReceiveFile(Directory(), "name");
                      EXPECT_EQ(session._output._pos, session._output._start); // nothing is acknowledged
                      return result;
                  }),
              "-1");
    EXPECT_EQ(directory.Stored("name"), "ab");
    EXPECT_EQ(Sent().size(), 4u);
}

TEST_F(ScpReceive, PartialBlockIsNotWritten) {
    std::string const block = Pattern(32786);
    EXPECT_EQ(Receive([&](RemoteScp& remote) {
                  remote.ExpectAcknowledgement();
                  remote.Send("C0644 40000 name\n");
                  remote.ExpectAcknowledgement();
                  remote.Send(block.substr(0, 30000));
                  remote.Send(block.substr(30000) + "abc");
                  remote.Break();
              }),
              closedEarly); // what the look for the answer finds
    EXPECT_TRUE(directory.Stored("name") == block);
}

TEST_F(ScpReceive, EndlessLineIsRefused) {
    EXPECT_EQ(Receive([](RemoteScp& remote) {
                  remote.ExpectAcknowledgement();
                  for (int i = 0; i < 9; ++i) remote.Send(std::string(32768, 'C'));
              }),
              "-1");
}

TEST_F(ScpReceive, StartBeforeTheLoginReturnsMinusOneAndSendsNothing) {
    Serve([](Connection& c) { c.WellBehaved(Stage::NewKeys); });
    {
        ScpClient session(server->Port());
        EXPECT_EQ(session.Connect(10), 0);
        EXPECT_EQ(session.KeyExchange(), 0);
        EXPECT_EQ(session.StartReceive("", List({"name"})), -1);
        EXPECT_EQ(session.ReceiveFile("", Directory(), "name"), -1);
        EXPECT_EQ(session.ReceiveFiles("", Directory(), List({"name"})), -1);
    }
    server->Finish();
    EXPECT_EQ(server->At(0).received.size(), 4u); // the last one is NEWKEYS
}

TEST_F(ScpReceive, RefusedChannelMakesTheStartReturnOne) {
    EXPECT_EQ(RunWith(
                  [](Connection& c) {
                      c.ReadChannelOpen();
                      c.SendOpenFailure(1, "no sessions here");
                  },
                  [](ScpClient& session) { return session.StartReceive("", List({"name"})); }),
              "1");
    EXPECT_THAT(Sent(), ElementsAre(OpenRequest()));
}

TEST_F(ScpReceive, RefusedChannelDoesNotStopAWholeTransfer) {
    EXPECT_EQ(RunWith(
                  [](Connection& c) {
                      c.ReadChannelOpen();
                      c.SendOpenFailure(1, "no sessions here");
                      c.Wire().ShutdownWrite();
                  },
                  [&](ScpClient& session) { return session.ReceiveFile("", Directory(), "name"); }),
              closedEarly);
    EXPECT_THAT(Sent(), ElementsAre(OpenRequest()));
}

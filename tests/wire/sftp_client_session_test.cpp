// SftpClientSession: its beginning, and the two current directories.

#include "support/descriptors.h"
#include "wire/sftp_session_fixture.h"

using namespace sftp;
using peer::Bytes;
using peer::Connection;
using peer::Writer;
using testing::ElementsAre;
using testing::SizeIs;

namespace {

std::string const cwd = std::filesystem::current_path();

int Start(SftpProgram& session) { return session.Start(); }

Message Version(std::uint32_t version) { return Message(Writer().U8(2).U32(version)); }

/// All four directories, in the order of their declaration.
std::string Directories(SftpProgram const& session) {
    return Text(session._remoteDir) + " " + Text(session._remoteHome) + " " + Text(session._localDir) + " " +
           Text(session._localHome);
}

class SftpSessionStart : public SftpSessionTest {
protected:
    /// The outcome of Start, and the four directories.
    std::string StartWith(Dialogue const& dialogue) {
        std::string directories;
        std::string const outcome = RunFromLogin(
            [dialogue](RemoteSftp& remote) {
                remote.TakeSubsystem();
                remote.Follow(dialogue);
            },
            [&](SftpProgram& session) {
                directories = Directories(session);
                int const result = session.Start();
                directories = Directories(session);
                return result;
            });
        return outcome + " " + directories;
    }
    std::string GreetedWith(Message const& reply) { return StartWith({{Greeting(), reply}}); }
    std::string ResolvedWith(Message const& reply) {
        return StartWith({{Greeting(), Version(3)}, {Realpath("."), reply}});
    }

    static Message Greeting() { return Message(Writer().U8(1).U32(3)); }
    /// For an outcome after which no directory is known.
    static std::string Nowhere(std::string const& outcome) { return outcome + "    "; }
};

class SftpSessionDirectories : public SftpSessionTest {
protected:
    /// After Start, silently to the server.
    void Silently(std::function<void(SftpProgram&)> const& call) {
        EXPECT_EQ(Run({},
                      [&](SftpProgram& session) {
                          call(session);
                          return 0;
                      }),
                  "0");
    }
};

} // namespace

TEST_F(SftpSessionStart, SequenceIsExact) {
    EXPECT_EQ(StartWith(Beginning()), "0 /home/u /home/u " + cwd + " " + cwd);
    Bytes const greeting = Writer().U32(5).U8(1).U32(3);
    Bytes const realpath = Writer().U32(10).U8(16).U32(0).String(".");
    EXPECT_THAT(Sent(), ElementsAre(OpenRequest(), Request("subsystem").String("sftp").Data(),
                                    Data(peer::ToText(greeting)), Data(peer::ToText(realpath))));
}

TEST_F(SftpSessionStart, SubsystemRequestIsSentWithInit) {
    std::vector<bool> more;
    EXPECT_EQ(RunFromLogin(
                  [](RemoteSftp& remote) {
                      remote.TakeSubsystem();
                      remote.Follow(Beginning());
                  },
                  [&](SftpProgram& session) {
                      support::SendRecorder recorder;
                      int const result = session.Start();
                      for (auto const& sent : recorder.Take()) more.push_back(sent._more);
                      return result;
                  }),
              "0");
    EXPECT_THAT(more, ElementsAre(false, true, false, false)); // channel, subsystem, greeting, directory
}

TEST_F(SftpSessionStart, WithoutConnectionIsRefused) {
    SftpProgram session(1);
    EXPECT_EQ(session.Start(), -1);
    EXPECT_EQ(Directories(session), "   ");
}

TEST_F(SftpSessionStart, WithoutLoginIsRefusedAndSendsNothing) {
    Serve([](Connection& c) { c.WellBehaved(peer::Stage::NewKeys); });
    {
        SftpProgram session(server->Port());
        ASSERT_EQ(session.Connect(10), 0);
        ASSERT_EQ(session.KeyExchange(), 0);
        EXPECT_EQ(session.Start(), -1);
        EXPECT_EQ(Directories(session), "   ");
    }
    server->Finish();
    EXPECT_THAT(server->At(0).received, SizeIs(4)); // up to NEWKEYS
}

TEST_F(SftpSessionStart, RefusedChannelIsAPositiveNumber) {
    EXPECT_EQ(RunFromLogin(
                  [](RemoteSftp& remote) {
                      remote.Peer().ReadChannelOpen();
                      remote.Peer().SendOpenFailure(1, "no channels here");
                  },
                  Start),
              "1");
    EXPECT_THAT(Sent(), ElementsAre(OpenRequest()));
}

TEST_F(SftpSessionStart, RefusedSubsystemIsAViolation) {
    for (std::uint8_t const refusal : {peer::CHANNEL_FAILURE, peer::CHANNEL_EOF, peer::CHANNEL_CLOSE}) {
        EXPECT_EQ(RunFromLogin(
                      [refusal](RemoteSftp& remote) {
                          remote.TakeSubsystem();
                          remote.Expect(Greeting());
                          remote.Peer().SendChannelMessage(refusal);
                      },
                      Start),
                  "SshProtocolError: expected CHANNEL_DATA package, received: " + std::to_string(refusal));
        EXPECT_THAT(Sent(), SizeIs(3)); // the greeting has been sent all the same
    }
}

TEST_F(SftpSessionStart, ClosedConnectionIsAViolation) {
    EXPECT_EQ(RunFromLogin(
                  [](RemoteSftp& remote) {
                      remote.TakeSubsystem();
                      remote.Expect(Greeting());
                  },
                  Start),
              closedEarly);
}

TEST_F(SftpSessionStart, AnyServerVersionIsAccepted) {
    std::string const expected = "0 /home/u /home/u " + cwd + " " + cwd;
    for (std::uint32_t const version : {0u, 2u, 4u, 6u, 0x7fffffffu}) {
        EXPECT_EQ(StartWith({{Greeting(), Version(version)}, Beginning()[1]}), expected) << version;
    }
    Message const extended(Writer().U8(2).U32(3).String("ext@example.com").String("1"));
    EXPECT_EQ(StartWith({{Greeting(), extended}, Beginning()[1]}), expected);
}

TEST_F(SftpSessionStart, NegativeVersionIsAFailure) {
    EXPECT_EQ(GreetedWith(Version(0x80000000)), Nowhere("-2147483648"));
    EXPECT_EQ(GreetedWith(Version(0xffffffff)), Nowhere("-1"));
}

TEST_F(SftpSessionStart, OtherReplyToInitIsAViolation) {
    for (auto const& [type, reply] : Replies()) {
        if (type == 2) continue;
        EXPECT_EQ(GreetedWith(reply), Nowhere(Violation(type)));
    }
}

TEST_F(SftpSessionStart, TruncatedVersionReplyIsAViolation) {
    EXPECT_EQ(GreetedWith(Message(Bytes{})), Nowhere("SshProtocolError: error reading sftp response"));
    EXPECT_EQ(GreetedWith(Message(Bytes{2, 0, 0})), Nowhere("SshProtocolError: error reading sftp response"));
    EXPECT_EQ(GreetedWith(Message(Bytes{2, 0, 0, 0})), Nowhere("SshProtocolError: input too short"));
}

TEST_F(SftpSessionStart, RefusedHomeIsTheNegatedCode) {
    EXPECT_EQ(ResolvedWith(Status(3)), Nowhere("-3"));
    EXPECT_EQ(ResolvedWith(Status(1)), Nowhere("-1"));
    EXPECT_EQ(ResolvedWith(Status(0x7fffffff, "", "")), Nowhere("-2147483647"));
}

TEST_F(SftpSessionStart, HomeWithoutExactlyOneNameIsABadMessage) {
    EXPECT_EQ(ResolvedWith(Names({})), Nowhere("-5"));
    EXPECT_EQ(ResolvedWith(Names({"/a", "/b"})), Nowhere("-5"));
}

TEST_F(SftpSessionStart, EmptyHomeNameIsAViolation) {
    EXPECT_EQ(ResolvedWith(Names({""})), Nowhere("SshProtocolError: input too short"));
}

TEST_F(SftpSessionStart, OtherReplyToRealpathIsAViolation) {
    for (auto const& [type, reply] : Replies()) {
        if (type == 101 || type == 104) continue;
        EXPECT_EQ(ResolvedWith(reply), Nowhere(Violation(type)));
    }
}

TEST_F(SftpSessionStart, ReplyToAnotherRequestIsAViolation) {
    EXPECT_EQ(ResolvedWith(Message(Writer().U8(104).U32(1).U32(0))),
              Nowhere("SshProtocolError: invalid request id"));
}

// Such a server has not sent its current directory, so that neither remote nor local names are resolved.
TEST_F(SftpSessionStart, SuccessStatusForTheHomeLeavesNamesUnresolved) {
    for (std::uint32_t const code : {0u, 0xffffffffu}) {
        EXPECT_EQ(ResolvedWith(Status(code)), "0   " + cwd + " " + cwd);
    }
    EXPECT_EQ(RunFromLogin(
                  [](RemoteSftp& remote) {
                      remote.TakeSubsystem();
                      remote.Follow({{Greeting(), Version(3)}, {Realpath("."), Done()}});
                      remote.Follow({{Rmdir("a/../b"), Done()}});
                  },
                  [](SftpProgram& session) {
                      EXPECT_EQ(session.Start(), 0);
                      EXPECT_EQ(Text(session.RemotePathname("a/../b")), "a/../b");
                      EXPECT_EQ(Text(session.LocalPathname("a/../b")), "a/../b");
                      cindral::SftpStatus status;
                      return session.Rmdir(status, "a/../b");
                  }),
              "0");
}

TEST_F(SftpSessionDirectories, NamesAreUnchangedBeforeStart) {
    SftpProgram session(1);
    for (char const* const name : {"", ".", "a", "a/../b", "../a//b/", "/a/../b"}) {
        EXPECT_EQ(Text(session.RemotePathname(name)), name);
        EXPECT_EQ(Text(session.LocalPathname(name)), name);
    }
    EXPECT_EQ(Text(session.RemotePathname(Pathname())), "");
}

TEST_F(SftpSessionDirectories, RemoteNamesAreResolvedAgainstTheCurrentDirectory) {
    Silently([](SftpProgram& session) {
        EXPECT_EQ(Text(session.RemotePathname("sub")), "/home/u/sub");
        EXPECT_EQ(Text(session.RemotePathname("")), "/home/u");
        EXPECT_EQ(Text(session.RemotePathname(Pathname())), "/home/u");
        EXPECT_EQ(Text(session.RemotePathname(".")), "/home/u");
        EXPECT_EQ(Text(session.RemotePathname("..")), "/home");
        EXPECT_EQ(Text(session.RemotePathname("../v/./w")), "/home/v/w");
        EXPECT_EQ(Text(session.RemotePathname("../../../../x")), "/x");
        EXPECT_EQ(Text(session.RemotePathname("a//b/")), "/home/u/a/b");
        EXPECT_EQ(Text(session.RemotePathname("*/x[1]")), "/home/u/*/x[1]");
        EXPECT_EQ(Text(session.RemotePathname("~/a b")), "/home/u/~/a b");
    });
}

TEST_F(SftpSessionDirectories, AbsoluteNamesAreUnchanged) {
    Silently([](SftpProgram& session) {
        for (char const* const name : {"/", "/a/../b", "//a/./b/", "/.."}) {
            EXPECT_EQ(Text(session.RemotePathname(name)), name);
            EXPECT_EQ(Text(session.LocalPathname(name)), name);
        }
    });
}

TEST_F(SftpSessionDirectories, LocalNamesAreResolvedAgainstTheCurrentDirectory) {
    Silently([](SftpProgram& session) {
        EXPECT_EQ(Text(session.LocalPathname("sub")), cwd + "/sub");
        session.LCd("/l/m");
        EXPECT_EQ(Text(session.LocalPathname("sub")), "/l/m/sub");
        EXPECT_EQ(Text(session.LocalPathname("../n/./o")), "/l/n/o");
        EXPECT_EQ(Text(session.LocalPathname("")), "/l/m");
        EXPECT_EQ(Text(session.RemotePathname("sub")), "/home/u/sub");
    });
}

TEST_F(SftpSessionDirectories, LocalNameIsResolvedIfTheRemoteDirectoryIsKnown) {
    Silently([](SftpProgram& session) {
        session._localDir = Pathname();
        EXPECT_EQ(Text(session.LocalPathname("a/../b")), "b");
        session._localDir = "/l";
        session._remoteDir = Pathname();
        EXPECT_EQ(Text(session.LocalPathname("a/../b")), "a/../b");
    });
}

TEST_F(SftpSessionDirectories, CdOfARelativeNameAdoptsTheServersAnswer) {
    cindral::SftpStatus status = Marked();
    EXPECT_EQ(Run({{Realpath("/home/u/sub"), Names({"/real/sub"})},
                   {Realpath("/real/deeper"), Names({"/real/deeper"})},
                   {Rmdir("/real/deeper/x"), Done()}},
                  [&](SftpProgram& session) {
                      EXPECT_EQ(session.Cd(status, "sub"), 0);
                      EXPECT_EQ(Text(session.RemoteDir()), "/real/sub");
                      EXPECT_EQ(session.Cd(status, "../deeper"), 0);
                      EXPECT_EQ(Text(session._remoteHome), "/home/u");
                      EXPECT_EQ(StatusText(status), "77 before xx");
                      return session.Rmdir(status, "x");
                  }),
              "0");
}

TEST_F(SftpSessionDirectories, CdOfAnAbsoluteNameSendsItUnchanged) {
    cindral::SftpStatus status;
    EXPECT_EQ(Run({{Realpath("/a/../b"), Names({"/b"})}},
                  [&](SftpProgram& session) {
                      int const result = session.Cd(status, "/a/../b");
                      EXPECT_EQ(Text(session.RemoteDir()), "/b");
                      return result;
                  }),
              "0");
}

TEST_F(SftpSessionDirectories, CdOfAnEmptyNameReturnsHome) {
    cindral::SftpStatus status = Marked();
    EXPECT_EQ(Run({{Realpath("/a"), Names({"/a"})}},
                  [&](SftpProgram& session) {
                      session.Cd(status, "/a");
                      EXPECT_EQ(session.Cd(status, ""), 0);
                      EXPECT_EQ(Text(session.RemoteDir()), "/home/u");
                      EXPECT_EQ(session.Cd(status, String_t()), 0);
                      EXPECT_EQ(StatusText(status), "77 before xx");
                      return 0;
                  }),
              "0");
}

TEST_F(SftpSessionDirectories, FailedCdChangesNothing) {
    cindral::SftpStatus status = Marked();
    EXPECT_EQ(Run({{Realpath("/home/u/a"), Names({"/x", "/y"})},
                   {Realpath("/home/u/a"), Names({})},
                   {Realpath("/home/u/a"), Status(2, "no such file")}},
                  [&](SftpProgram& session) {
                      EXPECT_EQ(session.Cd(status, "a"), -5);
                      EXPECT_EQ(session.Cd(status, "a"), -5);
                      EXPECT_EQ(StatusText(status), "77 before xx");
                      int const result = session.Cd(status, "a");
                      EXPECT_EQ(Text(session.RemoteDir()), "/home/u");
                      return result;
                  }),
              "-2");
    EXPECT_EQ(StatusText(status), "2 no such file en");
}

TEST_F(SftpSessionDirectories, CdAdoptsAnyNameOfTheServer) {
    cindral::SftpStatus status;
    EXPECT_EQ(Run({{Realpath("/a"), Names({"rel\n\x1b[2J"})},
                   {Realpath("rel\n\x1b[2J/b"), Names({".."})},
                   {Rmdir("../c"), Done()}},
                  [&](SftpProgram& session) {
                      EXPECT_EQ(session.Cd(status, "/a"), 0);
                      EXPECT_EQ(session.Cd(status, "b"), 0);
                      return session.Rmdir(status, "c");
                  }),
              "0");
}

TEST_F(SftpSessionDirectories, LCdDoesNotCheckTheName) {
    Silently([](SftpProgram& session) {
        EXPECT_EQ(session.LCd("/no/such/place"), 0);
        EXPECT_EQ(Text(session.LocalDir()), "/no/such/place");
        EXPECT_EQ(session.LCd("../x/."), 0);
        EXPECT_EQ(Text(session.LocalDir()), "/no/such/x");
        EXPECT_EQ(session.LCd("/a/../b"), 0);
        EXPECT_EQ(Text(session.LocalDir()), "/a/../b");
        EXPECT_EQ(Text(session._localHome), cwd);
        EXPECT_EQ(std::string(std::filesystem::current_path()), cwd);
    });
}

TEST_F(SftpSessionDirectories, LCdOfAnEmptyNameReturnsHome) {
    Silently([](SftpProgram& session) {
        session.LCd("/a");
        EXPECT_EQ(session.LCd(""), 0);
        EXPECT_EQ(Text(session.LocalDir()), cwd);
        session.LCd("/a");
        EXPECT_EQ(session.LCd(String_t()), 0);
        EXPECT_EQ(Text(session.LocalDir()), cwd);
    });
}

TEST_F(SftpSessionDirectories, LCdBeforeStartIsRelativeToTheProcess) {
    SftpProgram session(1);
    EXPECT_EQ(session.LCd("a/../b"), 0);
    EXPECT_EQ(Text(session.LocalDir()), cwd + "/a/../b");
    EXPECT_EQ(session.LCd(""), 0);
    EXPECT_EQ(Text(session.LocalDir()), "");
}

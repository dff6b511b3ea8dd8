// Whole files over SFTP with the standard dialect, at servers that answer late, little, wrong or not at all.

#include <map>

#include <brantle/apps/scp_session.h>
#include <brantle/sftp/sftp_client_session.h>

#include "support/temporary_directory.h"
#include "wire/standard_fixture.h"
#include "wire/standard_sftp_server.h"

using namespace peer;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr unsigned OPEN = 3, CLOSE_FILE = 4, READ = 5, WRITE = 6, REALPATH = 16;
constexpr std::uint32_t ALL = 0xffffffff;

/// Bytes in which every loss shows.
std::string Numbers(std::size_t size) {
    std::string text;
    for (int i = 0; text.size() < size; ++i) text += std::to_string(i) + ' ';
    text.resize(size);
    return text;
}

Bytes DataReply(std::uint32_t id, std::string_view data) { return Writer().U8(103).U32(id).String(data); }
Bytes StatusReply(std::uint32_t id, std::uint32_t code, std::string_view text) {
    return Writer().U8(101).U32(id).U32(code).String(text).String("");
}

Bytes Names(std::vector<std::string> const& names, std::uint32_t id) {
    Writer reply;
    reply.U8(104).U32(id).U32(static_cast<std::uint32_t>(names.size()));
    for (std::string const& name : names) reply.String(name).String("").U32(0);
    return reply;
}

class StandardSftp : public StandardTest {
protected:
    using Prepare = std::function<void(SftpServer&, StandardConnection&)>;

    struct Copied {
        std::string outcome;
        std::string lastError;
        std::string local;  ///< the local file
        std::string remote; ///< what the server has
    };

    /// Copies a file at a server that the test has prepared.
    Copied Copy(bool toServer, std::string const& content, Prepare const& prepare) {
        std::string stored;
        Serve([&](StandardConnection& c) {
            c.WellBehaved(Stage::Opened);
            SftpServer sftp(c);
            if (!toServer) sftp.content = content;
            if (prepare) prepare(sftp, c);
            try {
                sftp.Serve();
            } catch (Closed const&) {
            }
            stored = sftp.content;
            c.ReadToTheEnd();
        });
        support::TemporaryDirectory const directory;
        std::string const local = directory.Path() / "file";
        if (toServer) std::ofstream(local) << content;
        Copied copied;
        {
            cindral::SftpClientSession session(server->Port(), "127.0.0.1");
            cindral::StandardDialect dialect(session);
            Login(session);
            cindral::SftpStatus status;
            copied.outcome =
                StandardClient::Follow({{"Start ", [&] { return session.Start(); }},
                                        {"Copy ", [&] {
                                             return toServer ? session.Put(status, local.c_str(), "remote")
                                                             : session.Get(status, "remote", local.c_str());
                                         }}});
            copied.lastError = Text(dialect.LastError());
        }
        server->Finish();
        copied.local = FileText(local);
        copied.remote = stored;
        return copied;
    }
    Copied Get(std::string const& content, Prepare const& prepare) { return Copy(false, content, prepare); }
    Copied Put(std::string const& content, Prepare const& prepare) { return Copy(true, content, prepare); }

    /// The outcome of a copy whose server answers requests of one type, but for the first `good` of them,
    /// with these bytes in place of a message and its length.
    std::string WithReply(bool toServer, unsigned type, std::function<Bytes(std::uint32_t id)> const& reply,
                          int good = 0) {
        return Copy(toServer, Numbers(200000),
                    [=](SftpServer& sftp, StandardConnection&) {
                        auto const left = std::make_shared<int>(good);
                        sftp.instead = [=, &sftp](unsigned of, std::uint32_t id, Reader&) {
                            if (of != type || (*left)-- > 0) return false;
                            sftp.SendBytes(reply(id));
                            return true;
                        };
                    })
            .outcome;
    }
    static std::function<Bytes(std::uint32_t)> Message(std::function<Bytes(std::uint32_t)> const& message) {
        return [message](std::uint32_t id) { return Bytes(Writer().String(message(id))); };
    }
};

// --- what is permitted

TEST_F(StandardSftp, ShortReadsGiveTheWholeFile) {
    std::string const content = Numbers(150000);
    Copied const copied = Get(content, [&](SftpServer& sftp, StandardConnection&) {
        sftp.instead = [&](unsigned type, std::uint32_t id, Reader& request) {
            if (type != READ) return false;
            request.Blob();
            auto const offset = static_cast<std::size_t>(request.U64());
            if (offset >= content.size()) return false;
            sftp.Send(DataReply(id, content.substr(offset, std::min<std::size_t>(request.U32(), 7000))));
            return true;
        };
    });
    EXPECT_EQ(copied.outcome, "");
    EXPECT_TRUE(copied.local == content);
}

TEST_F(StandardSftp, AnswersInAnyOrderGiveTheWholeFile) {
    std::string const content = Numbers(4 * 32768);
    Copied const copied = Get(content, [&](SftpServer& sftp, StandardConnection&) {
        auto const held = std::make_shared<std::map<std::size_t, std::uint32_t>>();
        sftp.instead = [&, held](unsigned type, std::uint32_t id, Reader& request) {
            if (type != READ) return false;
            request.Blob();
            auto const offset = static_cast<std::size_t>(request.U64());
            if (offset >= content.size()) return false;
            (*held)[offset] = id;
            if (held->size() < 4) return true;
            for (auto last = held->rbegin(); last != held->rend(); ++last)
                sftp.Send(DataReply(last->second, content.substr(last->first, 32768)));
            return true;
        };
    });
    EXPECT_EQ(copied.outcome, "");
    EXPECT_TRUE(copied.local == content);
}

// --- refusals

TEST_F(StandardSftp, FileThatIsShorterThanAnnouncedFailsTheCopy) {
    std::string const content = Numbers(100000);
    Copied const copied = Get(content, [](SftpServer& sftp, StandardConnection&) {
        sftp.beforeAnswer = [&sftp](unsigned type) {
            if (type == READ) sftp.content.resize(50000);
        };
    });
    EXPECT_EQ(copied.outcome, "Copy -1");
    EXPECT_THAT(copied.lastError, HasSubstr("shorter than announced"));
}

TEST_F(StandardSftp, BlockThatCantBeReadFailsTheCopyInTheServersWordsFiltered) {
    Copied const copied = Get(Numbers(200000), [](SftpServer& sftp, StandardConnection&) {
        sftp.instead = [&sftp, reads = 0](unsigned type, std::uint32_t id, Reader&) mutable {
            if (type != READ || ++reads != 3) return false;
            sftp.Send(StatusReply(id, 4, "bad\x1b[2J disk"));
            return true;
        };
    });
    EXPECT_EQ(copied.outcome, "Copy -1");
    EXPECT_THAT(copied.lastError, AllOf(HasSubstr("bad"), HasSubstr("disk"), Not(HasSubstr("\x1b"))));
}

TEST_F(StandardSftp, BlockThatIsNotWrittenFailsTheCopy) {
    Copied const copied = Put(Numbers(200000), [](SftpServer& sftp, StandardConnection&) {
        sftp.instead = [&sftp, writes = 0](unsigned type, std::uint32_t id, Reader&) mutable {
            if (type != WRITE || ++writes != 2) return false;
            sftp.Send(StatusReply(id, 4, "no space"));
            return true;
        };
    });
    EXPECT_EQ(copied.outcome, "Copy -1");
    EXPECT_THAT(copied.lastError, HasSubstr("no space"));
}

TEST_F(StandardSftp, FileThatCantBeClosedFailsTheUpload) {
    EXPECT_EQ(WithReply(true, CLOSE_FILE, Message([](auto id) { return StatusReply(id, 4, "quota"); })),
              "Copy -1");
}

TEST_F(StandardSftp, RefusedFileIsNotMade) {
    Copied const copied = Get("x", [](SftpServer& sftp, StandardConnection&) {
        sftp.instead = [&sftp](unsigned type, std::uint32_t id, Reader&) {
            if (type != OPEN) return false;
            sftp.Send(StatusReply(id, 3, "Permission denied"));
            return true;
        };
    });
    EXPECT_EQ(copied.outcome, "Copy -1");
    EXPECT_THAT(copied.lastError, HasSubstr("Permission denied"));
}

// --- violations

TEST_F(StandardSftp, AnswerToNoRequestEndsTheSession) {
    for (unsigned type : {READ, WRITE}) {
        auto const reply = [&](std::uint32_t id) {
            return type == READ ? DataReply(id, "x") : StatusReply(id, 0, "");
        };
        for (std::uint32_t off : {1u, 64u, 0x80000000u})
            EXPECT_THAT(
                WithReply(type == WRITE, type, Message([&](auto id) { return reply(id + off * 1024 + 1); })),
                StartsWith("Copy SshProtocolError: "));
    }
}

TEST_F(StandardSftp, SecondAnswerEndsTheSession) {
    EXPECT_THAT(WithReply(true, WRITE,
                          [](auto id) {
                              Bytes const once = Writer().String(StatusReply(id, 0, ""));
                              return Concat({once, once});
                          }),
                StartsWith("Copy SshProtocolError: "));
}

TEST_F(StandardSftp, MoreDataThanAskedForEndTheSession) {
    EXPECT_THAT(
        WithReply(false, READ, Message([](auto id) { return DataReply(id, std::string(32769, 'x')); })),
        StartsWith("Copy SshProtocolError: SFTP data beyond what was asked for"));
}

TEST_F(StandardSftp, SuccessInPlaceOfDataEndsTheSession) {
    EXPECT_THAT(WithReply(false, READ, Message([](auto id) { return StatusReply(id, 0, ""); })),
                StartsWith("Copy SshProtocolError: "));
}

TEST_F(StandardSftp, AnswerOfAnotherTypeEndsTheSession) {
    for (unsigned type : {1u, 2u, 102u, 104u, 105u, 201u, 255u}) {
        auto const reply = Message([&](auto id) { return Bytes(Writer().U8(type).U32(id).String("x")); });
        EXPECT_THAT(WithReply(false, READ, reply), StartsWith("Copy SshProtocolError: "));
        EXPECT_THAT(WithReply(true, WRITE, reply), StartsWith("Copy SshProtocolError: "));
    }
}

TEST_F(StandardSftp, LengthOutOfBoundsEndsTheSessionAtOnce) {
    for (std::uint32_t length : {0u, 0x1000001u, 0x80000000u, ALL})
        EXPECT_THAT(WithReply(false, READ, [&](auto) { return Bytes(Writer().U32(length).U8(103)); }),
                    StartsWith("Copy SshProtocolError: SFTP message length out of bounds"));
}

TEST_F(StandardSftp, MessageThatEndsEarlyEndsTheSession) {
    Bytes const data = DataReply(0, "text");
    for (std::size_t size = 1; size < data.size(); ++size)
        EXPECT_THAT(
            WithReply(false, READ, Message([&](auto id) { return Slice(DataReply(id, "text"), 0, size); })),
            StartsWith("Copy SshProtocolError: "));
}

TEST_F(StandardSftp, NamesBeyondTheMessageEndTheSession) {
    EXPECT_THAT(WithReply(false, REALPATH, Message([](auto id) {
                              return Bytes(
                                  Writer().U8(104).U32(id).U32(ALL).String("/home").String("").U32(0));
                          })),
                StartsWith("Start SshProtocolError: "));
}

TEST_F(StandardSftp, HandleLongerThan256BytesEndsTheSession) {
    for (std::size_t size : {257u, 32300u, 40000u}) {
        Copied const copied = Put("content", [&](SftpServer& sftp, StandardConnection&) {
            sftp.instead = [&sftp, size](unsigned type, std::uint32_t id, Reader&) {
                if (type != OPEN) return false;
                sftp.Send(Writer().U8(102).U32(id).String(std::string(size, 'h')));
                return true;
            };
        });
        EXPECT_THAT(copied.outcome, HasSubstr("SFTP handle too long")) << size;
    }
}

/// A server's directory that has these names, for any pattern.
class StandardSftpListing : public StandardSftp {
protected:
    void ServeDirectory(std::vector<std::string> const& listed) {
        constexpr unsigned OPEN_DIRECTORY = 11, READ_DIRECTORY = 12;
        Serve([listed](StandardConnection& c) {
            c.WellBehaved(Stage::Opened);
            SftpServer sftp(c);
            bool isListed = false;
            sftp.instead = [&](unsigned type, std::uint32_t id, Reader& request) {
                if (type != OPEN_DIRECTORY && type != READ_DIRECTORY) return false;
                Bytes const name = request.Blob();
                bool const isPattern = std::find(name.begin(), name.end(), '*') != name.end();
                if (isPattern || isListed)
                    sftp.Send(StatusReply(id, isPattern ? 2 : 1, "none"));
                else if (type == OPEN_DIRECTORY)
                    sftp.Send(Writer().U8(102).U32(id).String("directory"));
                else
                    sftp.Send(Names(listed, id));
                isListed |= type == READ_DIRECTORY;
                return true;
            };
            try {
                sftp.Serve();
            } catch (Closed const&) {
            }
            c.ReadToTheEnd();
        });
    }
};

/// A server asked for "*" in a home directory must not replace .bashrc.
TEST_F(StandardSftpListing, PatternMatchesHiddenNamesOnlyIfItBeginsWithADot) {
    for (char const* pattern : {"*", ".b*"}) {
        ServeDirectory({".bashrc", "good"});
        {
            cindral::SftpClientSession session(server->Port(), "127.0.0.1");
            cindral::StandardDialect dialect(session);
            Login(session);
            ASSERT_EQ(session.Start(), 0);
            cindral::SftpStatus status;
            TOList<String_t> names;
            EXPECT_EQ(session.Glob(status, names, (std::string("/home/") + pattern).c_str()), 1);
            ASSERT_EQ(names.Len(), 1u);
            TOListIterator<String_t> next(names);
            EXPECT_THAT(Text(*next()), testing::EndsWith(pattern[0] == '*' ? "/good" : "/.bashrc"));
        }
        server->Finish();
    }
}

TEST_F(StandardSftpListing, NameThatNoLocalFileMayHaveIsTheLastError) {
    ServeDirectory({"good", "ba\33d"});
    {
        cindral::SftpClientSession session(server->Port(), "127.0.0.1");
        cindral::StandardDialect dialect(session);
        Login(session);
        ASSERT_EQ(session.Start(), 0);
        cindral::SftpStatus status;
        TOList<String_t> names;
        std::string const outcome = Outcome([&] { return session.Glob(status, names, "/home/*"); });
        EXPECT_EQ(outcome,
                  "SshProtocolError: the server listed a name that no local file may have: ba\\x1bd");
        EXPECT_EQ("SshProtocolError: " + Text(dialect.LastError()), outcome);
    }
    server->Finish();
}

TEST_F(StandardSftp, LocalDirectoryHoldsThoughTheServerNamesNoRemoteOne) {
    constexpr unsigned REAL_PATH = 16;
    Serve([&](StandardConnection& c) {
        c.WellBehaved(Stage::Opened);
        SftpServer sftp(c);
        sftp.content = "content";
        sftp.instead = [&](unsigned type, std::uint32_t id, Reader&) {
            if (type == REAL_PATH) sftp.Send(Names({std::string(1, 0)}, id)); // read as empty
            return type == REAL_PATH;
        };
        try {
            sftp.Serve();
        } catch (Closed const&) {
        }
        c.ReadToTheEnd();
    });
    support::TemporaryDirectory const directory;
    {
        cindral::SftpClientSession session(server->Port(), "127.0.0.1");
        cindral::StandardDialect dialect(session);
        Login(session);
        ASSERT_EQ(session.Start(), 0);
        session.LCd(directory.Path().c_str());
        cindral::SftpStatus status;
        EXPECT_EQ(session.Get(status, "remote", "local"), 0);
    }
    server->Finish();
    EXPECT_EQ(FileText(directory.Path() / "local"), "content");
}

TEST_F(StandardSftp, ChannelThatEndsWithinACopyFailsIt) {
    for (bool toServer : {false, true})
        for (Bytes const& end : {Eof(), Close()}) {
            Copied const copied =
                Copy(toServer, Numbers(200000), [end](SftpServer& sftp, StandardConnection& c) {
                    sftp.instead = [&c, end](unsigned type, std::uint32_t, Reader&) {
                        if (type != READ && type != WRITE) return false;
                        c.SendPacket(end);
                        c.ReadToTheEnd();
                        return true;
                    };
                });
            EXPECT_EQ(copied.outcome, "Copy SshProtocolError: the server has closed the channel");
            EXPECT_EQ(copied.lastError, "the server has closed the channel");
        }
}

TEST_F(StandardSftp, MessageLargerThanTheWindowIsRead) {
    constexpr unsigned OPEN_DIRECTORY = 11, READ_DIRECTORY = 12;
    constexpr std::size_t NAMES = 12, LENGTH = 1 << 18; // 3 MiB
    Serve([&](StandardConnection& c) {
        c.WellBehaved(Stage::Opened);
        SftpServer sftp(c);
        bool isListed = false;
        sftp.instead = [&](unsigned type, std::uint32_t id, Reader& request) {
            if (type != OPEN_DIRECTORY && type != READ_DIRECTORY) return false;
            Bytes const name = request.Blob();
            if (std::find(name.begin(), name.end(), '*') != name.end()) {
                sftp.Send(StatusReply(id, 2, "none"));
            } else if (type == OPEN_DIRECTORY) {
                sftp.Send(Writer().U8(102).U32(id).String("directory"));
            } else if (isListed) {
                sftp.Send(StatusReply(id, 1, "end"));
            } else {
                std::vector<std::string> names;
                for (std::size_t i = 0; i < NAMES; ++i)
                    names.push_back(std::string(LENGTH, static_cast<char>('a' + i)));
                Bytes const reply = Writer().String(Names(names, id));
                std::size_t window = 0x200000 - 1000; // what is left of it, or less
                for (std::size_t at = 0; at < reply.size(); at += 0x8000) {
                    while (window < 0x8000) {
                        Reader grant = c.SkipTo(CHANNEL_WINDOW_ADJUST);
                        grant.U32();
                        window += grant.U32();
                    }
                    c.SendPacket(Writer().U8(CHANNEL_DATA).U32(0).String(Slice(reply, at, 0x8000)));
                    window -= 0x8000;
                }
                isListed = true;
            }
            return true;
        };
        try {
            sftp.Serve();
        } catch (Closed const&) {
        }
        c.ReadToTheEnd();
    });
    {
        cindral::SftpClientSession session(server->Port(), "127.0.0.1");
        cindral::StandardDialect dialect(session);
        Login(session);
        ASSERT_EQ(session.Start(), 0);
        cindral::SftpStatus status;
        TOList<String_t> names;
        session.Glob(status, names, "/home/*");
        ASSERT_EQ(names.Len(), NAMES);
    }
    server->Finish();
}

/// What a program may throw.
struct Stop {};

class StoppingDialect : public cindral::StandardDialect {
public:
    using StandardDialect::StandardDialect;
    void Progress(String_t const&, unsigned long long, unsigned long long) override {
        if (stops) throw Stop();
    }
    bool stops = true;
};

TEST_F(StandardSftp, CopyThatTheProgressBreaksOffLeavesTheSessionUsable) {
    std::string const content = Numbers(500000);
    support::TemporaryDirectory const directory;
    std::string const local = directory.Path() / "file";
    for (bool toServer : {false, true}) {
        std::ofstream(local) << content;
        int opened = 0, closed = 0;
        Serve([&](StandardConnection& c) {
            c.WellBehaved(Stage::Opened);
            SftpServer sftp(c);
            sftp.content = content;
            sftp.instead = [&](unsigned type, std::uint32_t id, Reader&) {
                opened += type == OPEN;
                closed += type == CLOSE_FILE;
                if (type == CLOSE_FILE) sftp.Send(StatusReply(id, 0, ""));
                return type == CLOSE_FILE;
            };
            try {
                sftp.Serve();
            } catch (Closed const&) {
            }
        });
        {
            cindral::SftpClientSession session(server->Port(), "127.0.0.1");
            StoppingDialect dialect(session);
            Login(session);
            ASSERT_EQ(session.Start(), 0);
            cindral::SftpStatus status;
            auto const copy = [&] {
                return toServer ? session.Put(status, local.c_str(), "remote")
                                : session.Get(status, "remote", local.c_str());
            };
            EXPECT_THROW(copy(), Stop);
            dialect.stops = false;
            EXPECT_EQ(Outcome(copy), "0");
        }
        server->Finish();
        EXPECT_EQ(opened, 2);
        EXPECT_EQ(closed, 2);
        EXPECT_TRUE(FileText(local) == content);
    }
}

TEST_F(StandardSftp, ScpCopyThatTheProgressBreaksOffClosesItsChannel) {
    support::TemporaryDirectory const directory;
    std::string const local = directory.Path() / "file";
    for (bool toServer : {false, true}) {
        std::ofstream(local) << Numbers(500000);
        Serve([&](StandardConnection& c) {
            c.WellBehaved(Stage::Opened);
            c.ReadChannelRequest();
            if (toServer)
                c.SendTogether({Data(std::string(1, '\0')), Data(std::string(1, '\0'))});
            else
                c.SendTogether({Data("C0644 500000 file\n"), Data(Numbers(30000)), Data(Numbers(30000))});
            c.ReadToTheEnd();
        });
        {
            cindral::ScpSession session(server->Port(), "127.0.0.1");
            StoppingDialect dialect(session);
            Login(session);
            auto const copy = [&] {
                return toServer ? session.SendFile(directory.Path().c_str(), "file")
                                : session.ReceiveFile(directory.Path().c_str(), "file");
            };
            TOList<String_t> names;
            names.Append("file");
            ASSERT_EQ(toServer ? session.StartSend("target") : session.StartReceive("source", names), 0);
            EXPECT_THROW(copy(), Stop);
            if (toServer) {
                EXPECT_THAT(Outcome(copy), StartsWith("SshProtocolError: the channel is closed"));
            }
        }
        server->Finish();
        EXPECT_EQ(Seen().CountReceived(CHANNEL_CLOSE), 1u);
    }
}

} // namespace

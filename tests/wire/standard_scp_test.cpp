// scp with the standard dialect.

#include <sys/stat.h>

#include <brantle/apps/scp_session.h>

#include "support/temporary_directory.h"
#include "wire/standard_fixture.h"
#include "wire/watching_dialect.h"

using namespace peer;
using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

std::string const OK(1, '\0');
std::string const ERROR(1, '\1');

/// The remote scp, in the hands of a script.
class Remote {
public:
    explicit Remote(StandardConnection& connection) : _connection(connection) {}

    void Send(std::string const& text) { _connection.SendPacket(Data(text)); }
    std::string Read(std::size_t count) {
        while (_bytes.size() < count) {
            Reader message = _connection.ExpectPacket(CHANNEL_DATA);
            message.U32();
            _bytes += message.String();
        }
        std::string const bytes = _bytes.substr(0, count);
        _bytes.erase(0, count);
        return bytes;
    }
    std::string ReadLine() {
        std::string line;
        while (line.empty() || line.back() != '\n') line += Read(1);
        return line;
    }

private:
    StandardConnection& _connection;
    std::string _bytes;
};

class StandardScp : public StandardTest {
protected:
    /// The outcome of a call at a remote scp that follows the script.
    std::string Call(std::function<void(Remote&)> const& script,
                     std::function<int(cindral::ScpSession&)> const& call, bool keepsModes = false) {
        Serve([&](StandardConnection& c) {
            c.WellBehaved(Stage::Opened);
            c.ReadChannelRequest();
            Remote remote(c);
            script(remote);
            c.ReadToTheEnd();
        });
        std::string outcome;
        {
            cindral::ScpSession session(server->Port(), "127.0.0.1");
            WatchingDialect dialect(session);
            dialect.SetKeepModes(keepsModes);
            Login(session);
            outcome = Outcome([&] { return call(session); });
            lastError = Text(dialect.LastError());
            names = dialect.names;
            figures = dialect.figures;
            totals = dialect.totals;
        }
        server->Finish();
        return outcome;
    }

    std::string Path() const { return directory.Path() / "file"; }
    void Write(std::size_t size) const { std::ofstream(Path()) << std::string(size, 'x'); }
    std::string Send(std::function<void(Remote&)> const& script) {
        return Call(script, [&](cindral::ScpSession& session) {
            return session.SendFile(directory.Path().c_str(), "target", "file");
        });
    }
    std::string Receive(std::string const& head, std::string const& body, bool keepsModes = false) {
        return Call(
            [&](Remote& remote) {
                EXPECT_EQ(remote.Read(1), OK);
                remote.Send(head);
                EXPECT_EQ(remote.Read(1), OK);
                for (std::size_t at = 0; at < body.size(); at += 10000) remote.Send(body.substr(at, 10000));
                remote.Send(OK);
            },
            [&](cindral::ScpSession& session) {
                return session.ReceiveFile("source", directory.Path().c_str(), "file");
            },
            keepsModes);
    }
    mode_t LocalMode() const {
        struct stat status{};
        Checked(stat(Path().c_str(), &status), "stat");
        return status.st_mode & 07777;
    }
    /// They begin above 0, rise, and end at the size.
    void ExpectProgressTo(unsigned long long size) const {
        ASSERT_GT(figures.size(), 1u);
        EXPECT_GT(figures.front(), 0u);
        for (std::size_t i = 1; i < figures.size(); ++i) EXPECT_GT(figures[i], figures[i - 1]);
        EXPECT_EQ(figures.back(), size);
        EXPECT_THAT(totals, Each(size));
        EXPECT_THAT(names, Each(std::string("file")));
    }

    support::TemporaryDirectory directory;
    std::string lastError;
    std::vector<std::string> names;
    std::vector<unsigned long long> figures;
    std::vector<unsigned long long> totals;
};

// --- modes

TEST_F(StandardScp, ReceivedFileGetsNoneOfTheServersModeByDefault) {
    mode_t const before = umask(022);
    EXPECT_EQ(Receive("C4777 7 file\n", "content"), "0");
    EXPECT_EQ(LocalMode(), 0644u);
    umask(before);
    EXPECT_EQ(FileText(Path()), "content");
}

TEST_F(StandardScp, ReceivedFileGetsOnlyThePermissionBitsOnRequest) {
    mode_t const before = umask(022);
    EXPECT_EQ(Receive("C4777 7 file\n", "content", true), "0");
    EXPECT_EQ(LocalMode(), 0755u);
    umask(before);
}

TEST_F(StandardScp, ExistingFileKeepsItsMode) {
    Write(100);
    std::filesystem::permissions(Path(), std::filesystem::perms(0600));
    EXPECT_EQ(Receive("C4777 7 file\n", "content", true), "0");
    EXPECT_EQ(LocalMode(), 0600u);
    EXPECT_EQ(FileText(Path()), "content");
}

// --- files that change while they are sent

TEST_F(StandardScp, FileThatGrowsIsSentAsFarAsAnnounced) {
    constexpr std::size_t SIZE = 100000;
    Write(SIZE);
    std::string const outcome = Send([&](Remote& remote) {
        remote.Send(OK);
        EXPECT_EQ(remote.ReadLine(), "C0644 100000 file\n");
        std::ofstream(Path(), std::ios::app) << "\nC4777 7 .profile\ncontent" << std::string(SIZE, 'y');
        remote.Send(OK);
        EXPECT_TRUE(remote.Read(SIZE) == std::string(SIZE, 'x'));
        EXPECT_EQ(remote.Read(1), OK);
        remote.Send(OK);
        EXPECT_EQ(remote.ReadLine(), "E\n");
    });
    EXPECT_EQ(outcome, "0");
}

TEST_F(StandardScp, FileThatShrinksIsFilledWithZerosAndReported) {
    constexpr std::size_t SIZE = 100000, LEFT = 40000;
    Write(SIZE);
    std::string body, mark, text;
    std::string const outcome = Send([&](Remote& remote) {
        remote.Send(OK);
        remote.ReadLine();
        std::filesystem::resize_file(Path(), LEFT);
        remote.Send(OK);
        body = remote.Read(SIZE);
        mark = remote.Read(1);
        text = remote.ReadLine();
        remote.Send(OK);
        EXPECT_EQ(remote.ReadLine(), "E\n");
    });
    EXPECT_EQ(outcome, std::to_string(-EIO));
    EXPECT_THAT(lastError, HasSubstr("file changed while it was being sent"));
    EXPECT_TRUE(body == std::string(LEFT, 'x') + std::string(SIZE - LEFT, '\0'));
    EXPECT_EQ(mark, ERROR);
    EXPECT_EQ(text, "file changed while it was being sent\n");
}

TEST_F(StandardScp, AnswerOfAServerToAFileThatShrankIsTakenAsIts) {
    Write(1000);
    std::string const outcome = Send([&](Remote& remote) {
        remote.Send(OK);
        remote.ReadLine();
        std::filesystem::resize_file(Path(), 0);
        remote.Send(OK);
        remote.Read(1001);
        remote.ReadLine();
        remote.Send(ERROR + "scp: file: so I hear\x1b[2J\n");
    });
    EXPECT_EQ(outcome, "SshProtocolError: scp terminated with error: scp: file: so I hear\\x1b[2J");
    EXPECT_EQ("SshProtocolError: " + lastError, outcome);
}

// --- progress

TEST_F(StandardScp, ProgressOfAFileSentRisesToItsSize) {
    Write(100000);
    EXPECT_EQ(Send([&](Remote& remote) {
                  remote.Send(OK);
                  remote.ReadLine();
                  remote.Send(OK);
                  remote.Read(100001);
                  remote.Send(OK);
              }),
              "0");
    ExpectProgressTo(100000);
}

TEST_F(StandardScp, ProgressOfAFileReceivedRisesToItsSize) {
    EXPECT_EQ(Receive("C0644 100000 file\n", std::string(100000, 'x')), "0");
    ExpectProgressTo(100000);
}

TEST_F(StandardScp, EmptyFileHasNoProgress) {
    EXPECT_EQ(Receive("C0644 0 file\n", ""), "0");
    EXPECT_THAT(figures, IsEmpty());
}

} // namespace

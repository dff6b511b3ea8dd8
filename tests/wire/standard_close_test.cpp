// Copies with the standard dialect of files whose close(2) fails, as over a network or beyond a quota.

#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>

#include <brantle/apps/scp_session.h>
#include <brantle/sftp/sftp_client_session.h>

#include "support/next_symbol.h"
#include "support/temporary_directory.h"
#include "wire/standard_fixture.h"
#include "wire/standard_sftp_server.h"

using namespace peer;

namespace {

constexpr unsigned CLOSE_FILE = 4, REMOVE = 13;
std::atomic<bool> failing{false}; ///< close(2) of files of that name
constexpr std::string_view FAILING_NAME = "/beyond-quota";

bool IsFailing(int fd) {
    if (!failing) return false;
    std::array<char, 4096> path;
    ssize_t const size = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path.data(), path.size());
    if (size < static_cast<ssize_t>(FAILING_NAME.size())) return false;
    std::string_view const name(path.data(), static_cast<std::size_t>(size));
    return name.substr(name.size() - FAILING_NAME.size()) == FAILING_NAME;
}

class StandardClose : public StandardTest {
protected:
    void SetUp() override { failing = true; }
    void TearDown() override { failing = false; }

    /// Does something with an SFTP session, whose server has a file. Returns the types of the requests.
    std::vector<unsigned> WithSftp(std::function<void(cindral::SftpClientSession&, cindral::SftpStatus&,
                                                      cindral::StandardDialect&)> const& step) {
        std::vector<unsigned> requests;
        Serve([&](StandardConnection& c) {
            c.WellBehaved(Stage::Opened);
            SftpServer sftp(c);
            sftp.content = "content";
            sftp.beforeAnswer = [&](unsigned type) { requests.push_back(type); };
            sftp.instead = [&](unsigned type, std::uint32_t id, Reader&) { // so that it goes on after that
                if (type == CLOSE_FILE) sftp.Send(Writer().U8(101).U32(id).U32(0).String("").String(""));
                return type == CLOSE_FILE;
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
            EXPECT_EQ(session.Start(), 0);
            cindral::SftpStatus status;
            step(session, status, dialect);
        }
        server->Join();
        return requests;
    }

    support::TemporaryDirectory const directory;
    std::string const path = directory.Path().string() + std::string(FAILING_NAME);
};

TEST_F(StandardClose, FailureOfTheLocalFileFailsTheDownload) {
    WithSftp([&](auto& session, auto& status, auto& dialect) {
        EXPECT_EQ(session.Get(status, "remote", path.c_str()), -EDQUOT);
        EXPECT_EQ(Text(dialect.LastError()), "/home/remote: Disk quota exceeded");
    });
}

TEST_F(StandardClose, FailureOfTheLocalFileKeepsTheRemoteOneThatIsMoved) {
    for (bool fails : {true, false}) {
        failing = fails;
        std::vector<unsigned> const requests = WithSftp([&](auto& session, auto& status, auto&) {
            EXPECT_EQ(session.MoveToLocal(status, "remote", path.c_str()), fails ? -EDQUOT : -8);
        });
        EXPECT_EQ(std::count(requests.begin(), requests.end(), REMOVE), fails ? 0 : 1);
    }
}

TEST_F(StandardClose, FailureOfTheLocalFileFailsTheReceptionOverScp) {
    Serve([](StandardConnection& c) {
        c.WellBehaved(Stage::Opened);
        c.ReadChannelRequest();
        c.SendPacket(Data("C0644 7 name\n"));
        c.SendPacket(Data(std::string("content\0", 8)));
        c.ReadToTheEnd();
    });
    {
        cindral::ScpSession session(server->Port(), "127.0.0.1");
        cindral::StandardDialect dialect(session);
        Login(session);
        EXPECT_EQ(session.ReceiveFile("/remote", directory.Path().c_str(), "beyond-quota"), -EDQUOT);
        EXPECT_EQ(Text(dialect.LastError()), "beyond-quota: Disk quota exceeded");
    }
    server->Finish();
}

} // namespace

extern "C" int close(int fd) {
    static auto* const next = support::NextSymbol(&close, "close");
    bool const fails = IsFailing(fd);
    int const result = next(fd);
    if (!fails) return result;
    errno = EDQUOT;
    return -1;
}

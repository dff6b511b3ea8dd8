// The mode of a file that a session with the standard dialect receives over SFTP.

#include <sys/stat.h>

#include <brantle/sftp/sftp_client_session.h>

#include "support/temporary_directory.h"
#include "support/terminal.h"
#include "wire/standard_fixture.h"
#include "wire/standard_sftp_server.h"

using namespace peer;

namespace {

constexpr unsigned FSTAT = 8;
constexpr std::uint32_t REGULAR = 0100000;

/// The umask of the process, as long as it lives.
class Umask {
public:
    explicit Umask(mode_t mask) : _before(umask(mask)) {}
    ~Umask() { umask(_before); }
    Umask(Umask const&) = delete;
    Umask& operator=(Umask const&) = delete;

private:
    mode_t _before;
};

mode_t ModeOf(int fd) {
    struct stat status{};
    Checked(fstat(fd, &status), "fstat");
    return status.st_mode;
}

class StandardModes : public StandardTest {
protected:
    using Call = std::function<int(cindral::SftpClientSession&)>;

    /// A call at a server whose file "remote" has that mode.
    void Receive(std::uint32_t mode, bool keepsModes, Call const& call) {
        Serve([&](StandardConnection& c) {
            c.WellBehaved(Stage::Opened);
            SftpServer sftp(c);
            sftp.content = "content";
            sftp.instead = [&sftp, mode](unsigned type, std::uint32_t id, Reader&) {
                if (type != FSTAT) return false;
                sftp.Send(Writer().U8(105).U32(id).U32(1 | 4).U64(sftp.content.size()).U32(REGULAR | mode));
                return true;
            };
            sftp.Serve();
        });
        {
            cindral::SftpClientSession session(server->Port(), "127.0.0.1");
            cindral::StandardDialect dialect(session);
            dialect.SetKeepModes(keepsModes);
            Login(session);
            ASSERT_EQ(session.Start(), 0);
            EXPECT_EQ(call(session), 0);
        }
        server->Finish();
    }

    /// The permission bits of the local file after Get.
    mode_t ModeAfterGet(std::uint32_t mode, bool keepsModes, mode_t mask) {
        std::string const local = directory.Path() / "file";
        Umask const umask(mask);
        Receive(mode, keepsModes, [&](cindral::SftpClientSession& session) {
            cindral::SftpStatus status;
            return session.Get(status, "remote", local.c_str());
        });
        EXPECT_EQ(FileText(local), "content");
        struct stat status{};
        Checked(stat(local.c_str(), &status), "stat");
        return status.st_mode & 07777;
    }
    static int Cat(cindral::SftpClientSession& session) {
        cindral::SftpStatus status;
        return session.Cat(status, "remote");
    }

    support::TemporaryDirectory directory;
};

struct ModeCase {
    std::uint32_t servers;
    bool keepsModes;
    mode_t mask;
    mode_t local;
};

class StandardNewFile : public StandardModes, public testing::WithParamInterface<ModeCase> {};

TEST_P(StandardNewFile, GetsTheModeThatTheContractGives) {
    ModeCase const& mode = GetParam();
    EXPECT_EQ(ModeAfterGet(mode.servers, mode.keepsModes, mode.mask), mode.local);
}

INSTANTIATE_TEST_SUITE_P(ByDefault, StandardNewFile,
                         testing::Values(ModeCase{04777, false, 022, 0644}, ModeCase{0666, false, 022, 0644},
                                         ModeCase{0600, false, 022, 0644}, ModeCase{07777, false, 0, 0666},
                                         ModeCase{0666, false, 077, 0600}, ModeCase{0, false, 022, 0644}));
INSTANTIATE_TEST_SUITE_P(Kept, StandardNewFile,
                         testing::Values(ModeCase{04777, true, 022, 0755}, ModeCase{0666, true, 022, 0644},
                                         ModeCase{0600, true, 022, 0600}, ModeCase{07777, true, 0, 0777},
                                         ModeCase{0777, true, 077, 0700}));

TEST_F(StandardModes, ExistingFileKeepsItsMode) {
    std::ofstream(directory.Path() / "file") << "longer than the content";
    std::filesystem::permissions(directory.Path() / "file", std::filesystem::perms(0640));
    for (bool const keeps : {false, true}) EXPECT_EQ(ModeAfterGet(04777, keeps, 022), 0640u);
}

TEST_F(StandardModes, TerminalKeepsItsModeWhenAFileIsShownOnIt) {
    for (bool const keeps : {false, true}) {
        support::Terminal terminal;
        Checked(fchmod(terminal.Fd(), 0620), "fchmod");
        mode_t const before = ModeOf(terminal.Fd());
        {
            ProcessDescriptors const redirected(input.Fd(), terminal.Fd(), errorOutput.Fd());
            Receive(04777, keeps, Cat);
        }
        EXPECT_EQ(ModeOf(terminal.Fd()), before);
        EXPECT_EQ(terminal.WholeScreen(), "content");
    }
}

TEST_F(StandardModes, PipeAndFileKeepTheirModesWhenAFileIsWrittenToThem) {
    InputPipe pipe;
    MemoryFile const file;
    FILE* const reopened = fopen(("/proc/self/fd/" + std::to_string(pipe.Fd())).c_str(), "r+");
    ASSERT_NE(reopened, nullptr);
    for (int const fd : {fileno(reopened), file.Fd()}) {
        Checked(fchmod(fd, 0600), "fchmod");
        mode_t const before = ModeOf(fd);
        {
            ProcessDescriptors const redirected(input.Fd(), fd, errorOutput.Fd());
            Receive(04777, true, Cat);
        }
        EXPECT_EQ(ModeOf(fd), before);
    }
    fclose(reopened);
    EXPECT_EQ(file.Text(), "content");
}

TEST_F(StandardModes, DeviceKeepsItsModeWhenAFileIsCopiedToIt) {
    support::Terminal terminal;
    Checked(fchmod(terminal.Fd(), 0620), "fchmod");
    mode_t const before = ModeOf(terminal.Fd());
    Receive(04700, true, [&](cindral::SftpClientSession& session) {
        cindral::SftpStatus status;
        return session.Get(status, "remote", terminal.Path().c_str());
    });
    EXPECT_EQ(ModeOf(terminal.Fd()), before);
    EXPECT_EQ(terminal.WholeScreen(), "content");
}

} // namespace

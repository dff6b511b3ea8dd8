// The SFTP examples as a user runs them: by default with OpenSSH's sshd as it is packaged, in the reduced
// dialect with a server that speaks it, and there with a hostile one, too.

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "examples/execute.h"
#include "support/peer/scripted_peer.h"
#include "support/servers/python_servers.h"
#include "support/servers/stock_sshd.h"
#include "support/terminal.h"

using namespace execute;
using namespace peer;
using servers::ReadFile;
using servers::WriteFile;
using testing::HasSubstr;
using testing::MatchesRegex;

namespace {

enum class Speaks { STANDARD, REDUCED };

/// A real server for each dialect, and a directory on either side.
class SftpExamples : public testing::TestWithParam<Speaks> {
protected:
    static void SetUpTestSuite() {
        _stock = std::make_unique<servers::StockSshd>();
        _old = std::make_unique<servers::AsyncsshServer>();
    }
    static void TearDownTestSuite() {
        _old.reset();
        _stock.reset();
    }
    void SetUp() override { ASSERT_TRUE(_stock && _old) << "a server did not start"; }

    Ran Run(std::string const& program, std::string const& arguments, std::string const& before = {}) {
        if (GetParam() == Speaks::REDUCED)
            return Execute(before + program + " --reduced -i " + _old->File("user_rsa") + At(*_old) +
                           arguments + " </dev/null");
        // What the test has made belongs to the user there.
        servers::RunOrThrow({"chown", "-R", _stock->User(), There()});
        return Execute(before + program + " -i " + _stock->UserKey("ed25519") + At(*_stock) + arguments +
                       " </dev/null");
    }
    std::string There(std::string const& name = {}) const { return _there / name; }
    std::string Here(std::string const& name = {}) const { return _here / name; }

private:
    static std::string At(servers::RealServer const& server) {
        return " " + server.User() + "@127.0.0.1:" + std::to_string(server.Port()) + " ";
    }

    static inline std::unique_ptr<servers::StockSshd> _stock;
    static inline std::unique_ptr<servers::AsyncsshServer> _old;
    servers::TemporaryDirectory _there;
    servers::TemporaryDirectory _here;
};

INSTANTIATE_TEST_SUITE_P(Dialects, SftpExamples, testing::Values(Speaks::STANDARD, Speaks::REDUCED),
                         [](testing::TestParamInfo<Speaks> const& instance) {
                             return instance.param == Speaks::STANDARD ? "Standard" : "Reduced";
                         });

auto Succeeds(std::string const& output = {}) {
    return testing::AllOf(testing::Field(&Ran::status, 0), testing::Field(&Ran::output, output),
                          testing::Field(&Ran::errors, ""));
}

bool SameTrees(std::string const& a, std::string const& b) {
    return servers::Run({"diff", "-r", a, b}).status == 0;
}

mode_t ModeOf(std::string const& path) {
    struct stat file;
    return stat(path.c_str(), &file) == 0 ? file.st_mode & 07777 : 0;
}

} // namespace

TEST_P(SftpExamples, LsListsInTheLongForm) {
    WriteFile(There("b"), "content", 0640);
    WriteFile(There("a"), "", 0600);
    WriteFile(There(".hidden"), "");
    auto const lines = [](std::string const& a, std::string const& b) { return a + b; };
    std::string const a = "-rw------- [^\n]* a\n", b = "-rw-r----- [^\n]* 7 [^\n]* b\n";
    EXPECT_THAT(Run(SFTP_LS, There()).output, MatchesRegex(lines(a, b)));
    EXPECT_THAT(Run(SFTP_LS, "-r " + There()).output, MatchesRegex(lines(b, a)));
    EXPECT_THAT(Run(SFTP_LS, "-a " + There()).output, HasSubstr(".hidden\n-rw------- "));
    Ran const matching = Run(SFTP_LS, "'" + There("[b]*") + "'");
    EXPECT_THAT(matching.output, MatchesRegex("-rw-r-----    0 [^\n]* 7 [^\n]*/b\n")) << matching;
    EXPECT_EQ(matching.errors, "");
    std::filesystem::create_directory(There("empty"));
    EXPECT_THAT(Run(SFTP_LS, There("empty")), Succeeds());
}

TEST_P(SftpExamples, LsReportsFailures) {
    EXPECT_THAT(Run(SFTP_LS, There("missing")), Fails(11, There("missing") + ": No such file"));
    EXPECT_THAT(Run(SFTP_LS, "'" + There("x*") + "'"), Fails(11, There("x*") + ": nothing matches"));
}

TEST_P(SftpExamples, CopyPutsAndGetsFiles) {
    WriteFile(Here("a"), "first", 0640);
    WriteFile(Here("b"), std::string(100000, 'b'), 0600);
    EXPECT_THAT(Run(SFTP_COPY, "put " + Here("a") + " " + Here("b") + " " + There()), Succeeds());
    EXPECT_TRUE(SameTrees(Here(), There()));
    EXPECT_EQ(ModeOf(There("a")), 0640u);
    std::filesystem::create_directory(Here("back"));
    EXPECT_THAT(Run(SFTP_COPY, "get " + There("b") + " " + There("a") + " " + Here("back")), Succeeds());
    EXPECT_TRUE(SameTrees(Here("back"), There()));
    EXPECT_EQ(ModeOf(Here("back/a")), 0640u);
}

TEST_P(SftpExamples, CopyAcceptsPatterns) {
    for (char const* name : {"a1", "a2", "b"}) WriteFile(Here(name), name);
    EXPECT_THAT(Run(SFTP_COPY, "put '" + Here("a?") + "' " + There()), Succeeds());
    EXPECT_EQ(ReadFile(There("a1")) + ReadFile(There("a2")), "a1a2");
    EXPECT_FALSE(std::filesystem::exists(There("b")));
    std::filesystem::create_directory(Here("back"));
    EXPECT_THAT(Run(SFTP_COPY, "get '" + There("*2") + "' " + Here("back")), Succeeds());
    EXPECT_EQ(ReadFile(Here("back/a2")), "a2");
    EXPECT_FALSE(std::filesystem::exists(Here("back/a1")));
}

TEST_P(SftpExamples, CopyRecursesIntoDirectories) {
    std::filesystem::create_directories(Here("tree/sub/deep"));
    WriteFile(Here("tree/one"), "1", 0600);
    WriteFile(Here("tree/.two"), "2", 0640);
    WriteFile(Here("tree/sub/deep/three"), "3");
    EXPECT_THAT(Run(SFTP_COPY, "put -r " + Here("tree") + " " + There()), Succeeds());
    EXPECT_TRUE(SameTrees(Here("tree"), There("tree")));
    std::filesystem::create_directory(Here("back"));
    EXPECT_THAT(Run(SFTP_COPY, "get -r " + There("tree") + " " + Here("back")), Succeeds());
    EXPECT_TRUE(SameTrees(Here("tree"), Here("back/tree")));
    EXPECT_EQ(ModeOf(Here("back/tree/.two")), 0640u);
    EXPECT_THAT(Run(SFTP_COPY, "put -r " + Here("tree") + " " + There()), Succeeds()) << "once more";

    std::filesystem::create_symlink("one", There("tree/link"));
    Ran const ran = Run(SFTP_COPY, "get -r " + There("tree") + " " + Here("back"));
    EXPECT_EQ(ran.status, 0) << ran;
    EXPECT_EQ(ran.errors, "link: skipped, not a file or directory\n");
    EXPECT_FALSE(std::filesystem::exists(Here("back/tree/link")));
}

TEST_P(SftpExamples, CopyContinuesAfterFailures) {
    WriteFile(There("a"), "1");
    EXPECT_THAT(Run(SFTP_COPY, "get " + There("missing") + " " + There("a") + " " + Here()),
                Fails(10, There("missing") + ": No such file"));
    EXPECT_EQ(ReadFile(Here("a")), "1");
    EXPECT_THAT(Run(SFTP_COPY, "put " + Here("none") + " " + There()),
                Fails(10, Here("none") + ": No such file or directory"));
    EXPECT_THAT(Run(SFTP_COPY, "put " + Here("a") + " " + There("no/such")),
                Fails(10, Here("a") + ": No such file"));
    EXPECT_THAT(Run(SFTP_COPY, "put -r " + Here() + " " + There("no/such")).errors,
                HasSubstr(": No such file\n"));
    EXPECT_THAT(Run(SFTP_COPY, "get '" + There("x*") + "' " + Here()),
                Fails(10, There("x*") + ": nothing matches"));
    EXPECT_THAT(Run(SFTP_COPY, "get -r " + There("gone") + " " + Here()),
                Fails(10, There("gone") + ": No such file"));
}

// A file that may not grow accepts the first part of a block.
TEST_P(SftpExamples, CopyDetectsThatAFileCannotGrow) {
    WriteFile(There("file"), std::string(20000, 'x'));
    std::string const limit = "bash -c 'trap \"\" XFSZ; ulimit -f 2; exec \"$@\"' limited ";
    EXPECT_THAT(Run(SFTP_COPY, "get " + There("file") + " " + Here(), limit),
                Fails(10, Here("file") + ": File too large"));
}

TEST_P(SftpExamples, CopyReplacesALinkThatTheUserNamesAndNoneThatAPatternFinds) {
    WriteFile(There("file"), "new");
    WriteFile(Here("elsewhere"), "old");
    std::filesystem::create_symlink("elsewhere", Here("file"));
    EXPECT_THAT(Run(SFTP_COPY, "get '" + There("f*") + "' " + Here()),
                Fails(10, Here("file") + ": Too many levels of symbolic links"));
    EXPECT_EQ(ReadFile(Here("elsewhere")), "old");
    EXPECT_THAT(Run(SFTP_COPY, "get " + There("file") + " " + Here()), Succeeds());
    EXPECT_EQ(ReadFile(Here("elsewhere")), "new");
}

TEST_P(SftpExamples, NewFilesGetPermissionBitsWithinTheUmaskAlone) {
    WriteFile(There("file"), "x");
    std::filesystem::permissions(There("file"), std::filesystem::perms(04777));
    mode_t const before = umask(027);
    Ran const ran = Run(SFTP_COPY, "get " + There("file") + " " + Here());
    umask(before);
    EXPECT_THAT(ran, Succeeds());
    EXPECT_EQ(ModeOf(Here("file")), 0750u);
}

// The reduced dialect reports no progress.
TEST_P(SftpExamples, CopyShowsItsProgressOnATerminalAlone) {
    support::Terminal terminal(60, 10);
    WriteFile(Here("name"), std::string(3000000, 'x'));
    std::string const onTerminal = "sh -c 'exec \"$0\" \"$@\" 2>" + terminal.Path() + "' ";
    EXPECT_THAT(Run(SFTP_COPY, "put " + Here("name") + " " + There(), onTerminal), Succeeds());
    std::string const screen = terminal.WholeScreen();
    if (GetParam() == Speaks::REDUCED) {
        EXPECT_EQ(screen, "");
        return;
    }
    EXPECT_THAT(screen, testing::StartsWith("\rname "));
    EXPECT_THAT(screen, MatchesRegex(".*\rname +100% +[0-9.]+ [KMG]iB/s +00:[0-9][0-9]    \r\n"));
}

TEST_P(SftpExamples, ChangeAppliesOneOperation) {
    EXPECT_THAT(Run(SFTP_CHANGE, "mkdir " + There("made")), Succeeds());
    EXPECT_TRUE(std::filesystem::is_directory(There("made")));
    WriteFile(There("made/old"), "content");
    EXPECT_THAT(Run(SFTP_CHANGE, "rename " + There("made/old") + " " + There("made/new")), Succeeds());
    EXPECT_EQ(ReadFile(There("made/new")), "content");
    EXPECT_THAT(Run(SFTP_CHANGE, "chmod 640 '" + There("made/*") + "'"), Succeeds());
    EXPECT_EQ(ModeOf(There("made/new")), 0640u);
    EXPECT_THAT(Run(SFTP_CHANGE, "rmdir " + There("made")), Fails(12, There("made") + ": Failure"));
    EXPECT_THAT(Run(SFTP_CHANGE, "remove " + There("made/new")), Succeeds());
    EXPECT_THAT(Run(SFTP_CHANGE, "rmdir " + There("made")), Succeeds());
    EXPECT_FALSE(std::filesystem::exists(There("made")));
    EXPECT_THAT(Run(SFTP_CHANGE, "remove '" + There("x*") + "'"),
                Fails(12, There("x*") + ": nothing matches"));
}

namespace {

/// What a server says that it has: directories with the names in them, which end in "/" if they are
/// directories. Any other path is a file with the path for its content.
using Claims = std::map<std::string, std::vector<std::string>>;

/// What else it says.
struct Manner {
    std::uint32_t mode = 0100644; ///< of every file
    std::string home = "/home";   ///< where it is to begin with
    std::uint64_t heldBack = 0;   ///< bytes at the end of each file that it announces and does not send
};

/// An SFTP server that follows its claims.
class Claimant {
public:
    Claimant(Connection& connection, Claims claims, Manner manner)
        : _connection(connection), _claims(std::move(claims)), _manner(std::move(manner)) {}

    /// Answers until the client goes.
    void Serve() {
        _connection.WellBehaved(Stage::Opened);
        _connection.ReadChannelRequest();
        try {
            for (;;) Answer();
        } catch (Closed const&) {
        }
    }

private:
    enum Type {
        INIT = 1,
        VERSION,
        OPEN,
        CLOSE,
        READ,
        LSTAT = 7,
        FSTAT,
        OPENDIR = 11,
        READDIR,
        MKDIR = 14,
        RMDIR,
        REALPATH = 16,
        STAT
    };
    enum Reply { STATUS = 101, HANDLE, DATA, NAME, ATTRS };

    void Answer() {
        Reader packet = _connection.ExpectPacket(CHANNEL_DATA);
        packet.U32();
        Reader frame(packet.Blob());
        Reader request(frame.Blob());
        int const type = request.U8();
        std::uint32_t const id = request.U32();
        _connection.SendData(ToText(Writer().String(ReplyTo(type, id, request))));
    }

    Bytes ReplyTo(int type, std::uint32_t id, Reader& request) {
        if (type == INIT) return Writer().U8(VERSION).U32(3);
        std::string const subject = request.String(); // a path, or the handle, which is one
        switch (type) {
        case REALPATH:
            return Writer().U8(NAME).U32(id).U32(1).String(_manner.home).String("long").U32(0);
        case OPENDIR:
            _listed = false;
            return IsDirectory(subject) ? Writer().U8(HANDLE).U32(id).String(subject) : Status(id, 2);
        case READDIR:
            return _listed ? Status(id, 1) : Names(id, _claims[subject]);
        case OPEN:
            return Writer().U8(HANDLE).U32(id).String(subject);
        case READ:
            return request.U64() == 0 ? Writer().U8(DATA).U32(id).String(subject) : Status(id, 1);
        case CLOSE:
            return Status(id, 0);
        case MKDIR:
            return Status(id, 4);
        case RMDIR:
            return Writer().U8(STATUS).U32(id).U32(77).String("").String("");
        default:
            return Writer().U8(ATTRS).U32(id).Raw(Attributes(subject.size(), IsDirectory(subject)));
        }
    }

    bool IsDirectory(std::string const& path) const { return _claims.count(path) != 0; }

    Bytes Attributes(std::size_t size, bool isDirectory) const {
        return Writer().U32(5).U64(size + _manner.heldBack).U32(isDirectory ? 040755 : _manner.mode);
    }

    Bytes Names(std::uint32_t id, std::vector<std::string> const& names) {
        _listed = true;
        Writer reply;
        reply.U8(NAME).U32(id).U32(static_cast<std::uint32_t>(names.size()));
        for (std::string name : names) {
            bool const isDirectory = name.back() == '/';
            if (isDirectory) name.pop_back();
            reply.String(name).String("long " + name).Raw(Attributes(0, isDirectory));
        }
        return reply;
    }

    static Bytes Status(std::uint32_t id, std::uint32_t code) {
        return Writer().U8(STATUS).U32(id).U32(code).String("\033[31mno\n").String("en");
    }

    Connection& _connection;
    Claims _claims;
    Manner _manner;
    bool _listed = false;
};

/// A program's run against a server that makes these claims.
Ran RunAgainst(Claims const& claims, std::string const& program, std::string const& arguments,
               Manner const& manner = {}) {
    ServerSettings settings;
    settings.group = DhGroup::Modp(1024);
    settings.noneAccepted = true;
    ScriptedPeer server([&](Connection& c) { Claimant(c, claims, manner).Serve(); }, settings);
    Ran const ran =
        Execute(program, "--reduced tester@127.0.0.1:" + std::to_string(server.Port()) + " " + arguments);
    server.Finish();
    return ran;
}

std::vector<std::string> FilesBelow(std::string const& directory) {
    std::vector<std::string> files;
    for (auto const& entry : std::filesystem::recursive_directory_iterator(directory))
        files.push_back(entry.path().lexically_relative(directory));
    std::sort(files.begin(), files.end());
    return files;
}

} // namespace

TEST(SftpExamplesAgainstMalice, RecursiveGetStaysInItsDirectory) {
    servers::TemporaryDirectory const outer;
    std::filesystem::create_directories(outer / "in/tree");
    std::filesystem::create_directory(outer / "out");
    WriteFile(outer / "out/file", "untouched");
    std::filesystem::create_symlink("../../out/file", outer / "in/tree/linked");
    std::filesystem::create_symlink("../../out", outer / "in/tree/elsewhere");
    std::string const absolute = outer / "out/made";
    Claims const claims{
        {"/tree",
         {"good", "../escaped", "../../out/file", absolute, "a/..", "a/../../../out/made", "sub/", "../out/",
          "linked", "elsewhere/", "new\nline\033[31m", "..x"}},
        {"/tree/sub", {"..", ".", "../../above", "deep/", "fine"}},
        {"/tree/sub/deep", {"../../../../out/made", "x"}},
        {"/tree/../out", {"made"}},
        {"/tree/elsewhere", {"made"}},
    };
    Ran const ran = RunAgainst(claims, SFTP_COPY, "get -r /tree " + (outer / "in"));
    EXPECT_EQ(ran.status, 10) << ran;
    EXPECT_THAT(FilesBelow(outer.Path()),
                testing::ElementsAre("in", "in/tree", "in/tree/..x", "in/tree/elsewhere", "in/tree/good",
                                     "in/tree/linked", "in/tree/sub", "in/tree/sub/deep",
                                     "in/tree/sub/deep/x", "in/tree/sub/fine", "out", "out/file"));
    EXPECT_EQ(ReadFile(outer / "out/file"), "untouched");
    EXPECT_EQ(ReadFile(outer / "in/tree/good"), "/tree/good");
    for (char const* line : {"../escaped: not a plain file name\n", "a/..: not a plain file name\n",
                             "new?line?[31m: not a plain file name\n",
                             "/linked: Too many levels of symbolic links\n", "/elsewhere: Not a directory\n"})
        EXPECT_THAT(ran.errors, HasSubstr(line));
}

TEST(SftpExamplesAgainstMalice, PatternGetRefusesNamesOutsideTheDirectory) {
    servers::TemporaryDirectory const outer;
    std::filesystem::create_directory(outer / "in");
    WriteFile(outer / "in/.bashrc", "untouched");
    WriteFile(outer / "elsewhere", "untouched");
    std::filesystem::create_symlink("../elsewhere", outer / "in/foolink");
    Claims const claims{{"/tree",
                         {"foo/.bashrc", "foo/../.bashrc", "foo/..", "foo\nbar", "foo\033[2J", "foo\302\233",
                          "foolink", "foobar"}}};
    Ran const ran = RunAgainst(claims, SFTP_COPY, "get '/tree//foo*' " + (outer / "in"));
    EXPECT_EQ(ran.status, 10) << ran;
    EXPECT_THAT(FilesBelow(outer / "in"), testing::ElementsAre(".bashrc", "foobar", "foolink"));
    EXPECT_EQ(ReadFile(outer / "in/.bashrc"), "untouched");
    EXPECT_EQ(ReadFile(outer / "elsewhere"), "untouched");
    EXPECT_EQ(ReadFile(outer / "in/foobar"), "/tree/foobar");
    for (char const* line :
         {"/tree/foo/.bashrc: not a plain file name\n", "/tree/foo?bar: not a plain file name\n",
          "/foolink: Too many levels of symbolic links\n"})
        EXPECT_THAT(ran.errors, HasSubstr(line));
}

TEST(SftpExamplesAgainstMalice, PatternGetStaysInItsDirectory) {
    servers::TemporaryDirectory const outer;
    std::filesystem::create_directory(outer / "in");
    Claims const claims{{"/tree", {"../escaped", "a/../../b", "/c", "good"}}};
    Ran const ran = RunAgainst(claims, SFTP_COPY, "get '/tree/*' " + (outer / "in"));
    EXPECT_EQ(ran.status, 10) << ran;
    EXPECT_THAT(FilesBelow(outer.Path()), testing::ElementsAre("in", "in/c", "in/good"));
}

TEST(SftpExamplesAgainstMalice, PatternGetTakesHiddenFilesOnlyWhereThePatternBeginsWithADot) {
    servers::TemporaryDirectory const outer;
    std::filesystem::create_directory(outer / "in");
    WriteFile(outer / "in/.bashrc", "untouched");
    Claims const claims{{"/tree", {".bashrc", ".profile", "good"}}};
    EXPECT_EQ(RunAgainst(claims, SFTP_COPY, "get '/tree/*' " + (outer / "in")).status, 0);
    EXPECT_THAT(FilesBelow(outer / "in"), testing::ElementsAre(".bashrc", "good"));
    EXPECT_EQ(ReadFile(outer / "in/.bashrc"), "untouched");
    EXPECT_EQ(RunAgainst(claims, SFTP_COPY, "get '/tree/.p*' " + (outer / "in")).status, 0);
    EXPECT_THAT(FilesBelow(outer / "in"), testing::ElementsAre(".bashrc", ".profile", "good"));
}

// The server says where it is to begin with.
TEST(SftpExamplesAgainstMalice, DirectoryWithoutANameGetsNoneOfTheServers) {
    servers::TemporaryDirectory const outer;
    std::filesystem::create_directory(outer / "in");
    Manner manner;
    manner.home = "/home/.ssh";
    Ran const ran = RunAgainst({{"/home/.ssh", {"keys"}}}, SFTP_COPY, "get -r . " + (outer / "in"), manner);
    EXPECT_EQ(ran.status, 0) << ran;
    EXPECT_THAT(FilesBelow(outer.Path()), testing::ElementsAre("in", "in/keys"));
}

TEST(SftpExamplesAgainstMalice, NewFilesGetOnlyPermissionBitsWithinTheUmask) {
    Manner manner;
    manner.mode = 0106777;
    for (char const* what : {"/tree/a", "'/tree/*'", "-r /tree"}) {
        servers::TemporaryDirectory const here;
        mode_t const before = umask(027);
        Ran const ran =
            RunAgainst({{"/tree", {"a"}}}, SFTP_COPY, "get " + (what + (" " + here.Path().string())), manner);
        umask(before);
        EXPECT_EQ(ran.status, 0) << ran;
        std::string const file = here / (what[0] == '-' ? "tree/a" : "a");
        EXPECT_EQ(ModeOf(file), 0750u) << what;
    }
}

TEST(SftpExamplesAgainstMalice, TruncatedFileIsDetected) {
    servers::TemporaryDirectory const here;
    Manner manner;
    manner.heldBack = 3;
    EXPECT_THAT(RunAgainst({}, SFTP_COPY, "get /file " + here.Path().string(), manner),
                Fails(10, "/file: incomplete, 8 bytes there and 5 here"));
}

TEST(SftpExamplesAgainstMalice, TerminalControlCharactersAreNotPrinted) {
    EXPECT_EQ(RunAgainst({{"/tree", {"\033[2J", "new\nline"}}}, SFTP_LS, "/tree").output,
              "long ?[2J\nlong new?line\n");
    EXPECT_THAT(RunAgainst({}, SFTP_CHANGE, "mkdir /x"), Fails(12, "/x: ?[31mno?"));
}

TEST(SftpExamplesAgainstMalice, RefusalWithoutATextPrintsItsCode) {
    EXPECT_THAT(RunAgainst({}, SFTP_CHANGE, "rmdir /x"), Fails(12, "/x: refused with code 77"));
}

TEST(SftpExamplesUsage, WrongArgumentsPrintTheUsage) {
    auto const expect = [](std::string const& program, std::string const& arguments,
                           std::string const& usage) {
        Ran const ran = Execute(program, arguments);
        EXPECT_EQ(ran.status, 2) << arguments;
        EXPECT_THAT(ran.errors, testing::StartsWith("usage: " + usage +
                                                    " [--reduced] [-i IDENTITY] [USER@]HOST[:PORT] "));
    };
    for (char const* arguments : {"", "-i", "host -x"}) expect(SFTP_LS, arguments, "sftp_ls");
    for (char const* arguments : {"", "host", "host put", "host put -r a", "host get a", "host move a b"})
        expect(SFTP_COPY, arguments, "sftp_copy");
    for (char const* arguments :
         {"", "host", "host mkdir", "host rename a", "host chmod 1 2 3", "host other a"})
        expect(SFTP_CHANGE, arguments, "sftp_change");
}

TEST(SftpExamplesRefused, RefusedChannelIsReported) {
    ServerSettings settings;
    settings.group = DhGroup::Modp(1024);
    settings.noneAccepted = true;
    ScriptedPeer server(
        [](Connection& c) {
            c.WellBehaved(Stage::Authenticated);
            c.ReadChannelOpen();
            c.SendOpenFailure(1, "");
        },
        settings);
    EXPECT_THAT(Execute(SFTP_LS, "--reduced tester@127.0.0.1:" + std::to_string(server.Port())),
                Fails(7, "the server refused the channel"));
    server.Finish();
}

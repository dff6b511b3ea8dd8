// SftpClientSession: names from the server cannot leave the directory given.

#include <cerrno>
#include <optional>

#include "wire/sftp_transfer_fixture.h"

using namespace sftp;
using namespace std::string_literals;

namespace {

std::string const isDirectory = std::to_string(-EISDIR);
std::string const isMissing = std::to_string(-ENOENT);
std::string const isNoDirectory = std::to_string(-ENOTDIR);

/// A server that has a file of every name, and in /d a single one of the name given.
class AnyName {
public:
    explicit AnyName(std::string entry = "") : _entry(std::move(entry)) {}

    /// Answers until the client closes.
    void Serve(RemoteSftp& remote) {
        try {
            for (;;) {
                peer::Reader request(remote.ReadRequest());
                unsigned const type = request.U8();
                std::uint32_t const id = request.U32();
                remote.SendMessage(Answer(type, request.String()).Payload(id));
            }
        } catch (peer::Closed const&) {
        }
    }

private:
    Message Answer(unsigned type, std::string const& name) {
        if (type == 11) return name == "/d" ? Opened(name) : Status(2);
        if (type == 12) return std::exchange(_listed, true) ? Status(1) : Names({_entry});
        if (type == 3) {
            _read = false;
            return Opened("h");
        }
        if (type == 5) return std::exchange(_read, true) ? Status(1) : FileData("text");
        if (type == 8) return Attrs(Mode(REGULAR | 0666));
        return Done();
    }

    std::string _entry;
    bool _listed = false;
    bool _read = false;
};

/// The name of an entry, the outcome and the file that is created for it.
struct HostileName {
    std::string name;
    std::string outcome;
    std::optional<std::string> file;
};

/// The directory "to", into which all goes, has a canary in it and others beside it.
class SftpTransferNames : public SftpTransferTest {
protected:
    SftpTransferNames() {
        local.Store("canary", "alive", 0640);
        local.Store("x", "alive", 0640);
        local.Store("a/x", "alive", 0640);
        local.Store("to/canary in it", "alive", 0640);
        before = local.Tree();
    }

    using Copy = std::function<int(SftpProgram&)>;

    std::string Copied(AnyName files, Copy const& copy) {
        return TransferWith([&](RemoteSftp& remote) { files.Serve(remote); }, copy);
    }
    /// The only new file is that one in "to", and everything else is unchanged.
    void ExpectOnly(std::optional<std::string> const& file) {
        std::map<std::string, std::string> expected = before;
        if (file) expected["to/" + *file] = "666 text";
        EXPECT_EQ(local.Tree(), expected);
        if (file) std::filesystem::remove(local / ("to/" + *file));
    }

    std::map<std::string, std::string> before;
    bool const outside = std::filesystem::exists("/etc/x");
    ~SftpTransferNames() override { EXPECT_EQ(std::filesystem::exists("/etc/x"), outside); }
};

} // namespace

TEST_F(SftpTransferNames, EntryNamesCannotLeaveTheDirectory) {
    std::vector<HostileName> const names{
        {".", "0", {}},
        {"..", "0", {}},
        {"../x", "1", "x"},
        {"../canary", "1", "canary"},
        {"../../../../../../etc/x", "1", "x"},
        {"/etc/x", "1", "x"},
        {"//etc//x", "1", "x"},
        {local / "canary", "1", "canary"},
        {"a/x", "1", "x"},
        {"a/..", isDirectory, {}},
        {"a/.", isDirectory, {}},
        {"../..", isDirectory, {}},
        {"../", isDirectory, {}},
        {"..//", isDirectory, {}},
        {"/..", isDirectory, {}},
        {"/", "1", "d"},
        {"//", "1", "d"},
        {"x/", "1", "x"},
        {"x\n../canary", "1", "canary"},
        {"x\ny", "1", "x\ny"},
        {"..\n", "1", "..\n"},
        {"\n", "1", "\n"},
        {" ", "1", " "},
        {"\x1b[2J\x1b]0;title\a", "1", "\x1b[2J\x1b]0;title\a"},
        {"\xff\xfe", "1", "\xff\xfe"},
        {"x\0/../canary"s, "1", "x"},
        {"..\0x"s, "0", {}},
        {"a/..\0x"s, isDirectory, {}},
        {"/\0canary"s, "1", "d"},
        {"...", "1", "..."},
        {"~", "1", "~"},
        {"-rf", "1", "-rf"},
        {"$(touch x)", "1", "$(touch x)"},
        {"\\..\\x", "1", "\\..\\x"},
        {"canary in it/..", isDirectory, {}},
        {std::string(256, 'x'), std::to_string(-ENAMETOOLONG), {}},
    };
    for (HostileName const& hostile : names) {
        SCOPED_TRACE(testing::PrintToString(hostile.name));
        EXPECT_EQ(Copied(AnyName(hostile.name),
                         [this](SftpProgram& session) { return session.MGet(status, "/d/*", "to"); }),
                  hostile.outcome);
        ExpectOnly(hostile.file);
        EXPECT_EQ(Copied(AnyName(hostile.name),
                         [this](SftpProgram& session) { return session.MMoveToLocal(status, "/d/*", "to"); }),
                  hostile.outcome);
        ExpectOnly(hostile.file);
    }
}

TEST_F(SftpTransferNames, MayBeThoseOfHiddenFiles) {
    for (bool const moves : {false, true}) {
        local.Store("to/.bashrc", "the user's own", 0600);
        EXPECT_EQ(Copied(AnyName("foo/.bashrc"),
                         [&](SftpProgram& session) {
                             return moves ? session.MMoveToLocal(status, "/d/foo*", "to")
                                          : session.MGet(status, "/d/foo*", "to");
                         }),
                  "1");
        ExpectOnly(".bashrc");
    }
}

TEST_F(SftpTransferNames, EntryWithoutANameIsAViolation) {
    for (std::string const& name : {""s, "\0x"s}) {
        std::string const outcome = Copied(
            AnyName(name), [this](SftpProgram& session) { return session.MGet(status, "/d/*", "to"); });
        EXPECT_EQ(outcome, name.empty() ? "SshProtocolError: input too short" : "1");
        ExpectOnly(name.empty() ? std::nullopt : std::optional<std::string>("d"));
    }
}

TEST_F(SftpTransferNames, ListNamesCannotLeaveTheDirectory) {
    std::vector<HostileName> const names{
        {"..", "1", "home"},
        {".", "1", "u"},
        {"", "1", "u"},
        {"../x", "1", "x"},
        {"../../../../x", "1", "x"},
        {"../../..", isDirectory, {}},
        {"/etc/x", "1", "x"},
        {local / "canary", "1", "canary"},
        {"a/..", "1", "u"},
        {"/a/..", isDirectory, {}},
        {"/a/.", isDirectory, {}},
        {"/..", isDirectory, {}},
        {"/.", isDirectory, {}},
        {"/", isDirectory, {}},
        {"//", isDirectory, {}},
        {"///", isDirectory, {}},
        {"x\n../canary", "1", "canary"},
        {"x\ny", "1", "x\ny"},
        {"\x1b[2J", "1", "\x1b[2J"},
    };
    for (HostileName const& hostile : names) {
        SCOPED_TRACE(testing::PrintToString(hostile.name));
        TOList<String_t> list;
        list.Append(hostile.name.c_str());
        EXPECT_EQ(Copied(AnyName(), [&](SftpProgram& session) { return session.Get(status, list, "to"); }),
                  hostile.outcome);
        ExpectOnly(hostile.file);
        EXPECT_EQ(
            Copied(AnyName(), [&](SftpProgram& session) { return session.MoveToLocal(status, list, "to"); }),
            hostile.outcome);
        ExpectOnly(hostile.file);
    }
}

TEST_F(SftpTransferNames, RefusedNamesSendNothing) {
    for (char const* const name : {"/", "//", "/..", "/a/..", "/a/."}) {
        EXPECT_EQ(Transfer({}, [&](SftpProgram& session) { return session.Get(status, List({name}), "to"); }),
                  isDirectory);
        EXPECT_EQ(
            Transfer({},
                     [&](SftpProgram& session) { return session.MoveToLocal(status, List({name}), "to"); }),
            isDirectory);
    }
    ExpectOnly({});
}

TEST_F(SftpTransferNames, MissingDirectoryIsNotCreated) {
    for (char const* const name : {"/", "//", "/..", "/a/..", "..", "f"})
        EXPECT_THAT(
            Transfer({}, [&](SftpProgram& session) { return session.Get(status, List({name}), "missing"); }),
            testing::AnyOf(isMissing, isDirectory))
            << name;
    ExpectOnly({});
}

TEST_F(SftpTransferNames, FileInPlaceOfTheDirectoryIsKept) {
    for (char const* const name : {"/", "//", "/..", "/a/..", "..", "f"})
        EXPECT_THAT(
            Transfer({}, [&](SftpProgram& session) { return session.Get(status, List({name}), "canary"); }),
            testing::AnyOf(isNoDirectory, isDirectory))
            << name;
    ExpectOnly({});
}

TEST_F(SftpTransferNames, HomeDirectoryNamesCannotLeaveTheDirectory) {
    for (std::string const& home : {".."s, "../.."s, "/.."s, "/etc"s, "a\n/.."s}) {
        SCOPED_TRACE(testing::PrintToString(home));
        AnyName files;
        EXPECT_EQ(RunFromLogin(
                      [&](RemoteSftp& remote) {
                          remote.TakeSubsystem();
                          remote.Follow(Beginning(home));
                          files.Serve(remote);
                      },
                      [this](SftpProgram& session) {
                          EXPECT_EQ(session.Start(), 0);
                          session.LCd(local.Name());
                          return session.Get(status, List({"x"}), "to");
                      }),
                  "1");
        ExpectOnly("x");
    }
}

// SftpClientSession: which names the operations of a transfer use, and their side effects.

#include <cerrno>

#include "wire/sftp_transfer_fixture.h"

using namespace sftp;

namespace {

/// The server's home directory is /home/u. Some tests have a working directory of the process that is
/// another than the session's, with files of the same names.
class SftpTransferOperations : public SftpTransferTest {
protected:
    LocalDirectory process;
};

using Tree = std::map<std::string, std::string>;

} // namespace

// --- single files

TEST_F(SftpTransferOperations, ReceiveResolvesNoName) {
    WorkingDirectory const working(process.Path());
    EXPECT_EQ(Transfer(Fetching("sub/../f", "text", 0600),
                       [this](SftpProgram& session) { return session.Receive(status, "sub/../f", "copy"); }),
              "0");
    EXPECT_EQ(process.Tree(), (Tree{{"copy", "600 text"}}));
    EXPECT_TRUE(local.Tree().empty());
}

TEST_F(SftpTransferOperations, ReceiveReplacesAFile) {
    process.Store("copy", "a longer text before", 0755);
    WorkingDirectory const working(process.Path());
    EXPECT_EQ(Transfer(Fetching("f", "text", 0600),
                       [this](SftpProgram& session) { return session.Receive(status, "f", "copy"); }),
              "0");
    EXPECT_EQ(process.Tree(), (Tree{{"copy", "600 text"}}));
}

TEST_F(SftpTransferOperations, ReceiveIntoADescriptorWritesAtItsOffset) {
    local.Store("copy", "before ");
    FileDescriptor const fd(open((local / "copy").c_str(), O_WRONLY | O_APPEND));
    EXPECT_EQ(Transfer(Fetching("f", "text", 0600),
                       [&](SftpProgram& session) { return session.Receive(status, "f", fd); }),
              "0");
    EXPECT_EQ(local.Tree(), (Tree{{"copy", "600 before text"}}));
}

TEST_F(SftpTransferOperations, SendResolvesNoName) {
    process.Store("f", "text", 0600);
    local.Store("f", "other text");
    WorkingDirectory const working(process.Path());
    EXPECT_EQ(Transfer(Storing("sub/../copy", "text", 0600),
                       [this](SftpProgram& session) { return session.Send(status, "f", "sub/../copy"); }),
              "0");
}

TEST_F(SftpTransferOperations, SendFromADescriptorReadsAtItsOffset) {
    local.Store("f", "before text");
    FileDescriptor const fd(open((local / "f").c_str(), O_RDONLY));
    lseek(fd, 7, SEEK_SET);
    EXPECT_EQ(Transfer(Storing("copy", "text"),
                       [&](SftpProgram& session) { return session.Send(status, "copy", fd); }),
              "0");
}

TEST_F(SftpTransferOperations, GetResolvesBothNames) {
    EXPECT_EQ(Transfer(Fetching("/home/f", "text"),
                       [this](SftpProgram& session) { return session.Get(status, "../f", "sub/../copy"); }),
              "0");
    EXPECT_EQ(local.Stored("copy"), "text");
}

TEST_F(SftpTransferOperations, PutResolvesBothNames) {
    local.Store("f", "text");
    EXPECT_EQ(Transfer(Storing("/home/copy", "text"),
                       [this](SftpProgram& session) { return session.Put(status, "sub/../f", "../copy"); }),
              "0");
}

TEST_F(SftpTransferOperations, AbsoluteNamesAreUnchanged) {
    local.MakeDirectory("sub");
    local.Store("f", "text");
    EXPECT_EQ(Transfer(Fetching("/a/../f", "text") + Storing("/a/../f", "text"),
                       [this](SftpProgram& session) {
                           EXPECT_EQ(session.Get(status, "/a/../f", local.Name("sub/../copy")), 0);
                           return session.Put(status, local.Name("sub/../f"), "/a/../f");
                       }),
              "0");
    EXPECT_EQ(local.Stored("copy"), "text");
}

TEST_F(SftpTransferOperations, CatWritesToDescriptor1) {
    MemoryFile const output;
    EXPECT_EQ(Transfer(Fetching("/home/u/f", "text", 0640),
                       [&](SftpProgram& session) {
                           ProcessDescriptors const redirected(0, output.Fd(), 2);
                           return session.Cat(status, "f");
                       }),
              "0");
    EXPECT_EQ(output.Text(), "text");
    struct stat file{};
    fstat(output.Fd(), &file);
    EXPECT_EQ(file.st_mode & 07777, 0640u);
}

TEST_F(SftpTransferOperations, MoveToLocalRemovesTheReceivedFile) {
    EXPECT_EQ(Transfer(Fetching("/home/f", "text") + Removing("/home/f"),
                       [this](SftpProgram& session) { return session.MoveToLocal(status, "../f", "copy"); }),
              "0");
    EXPECT_EQ(local.Stored("copy"), "text");
}

TEST_F(SftpTransferOperations, MoveToLocalReturnsTheResultOfTheRemove) {
    EXPECT_EQ(Transfer(Fetching("/f", "text") + Dialogue{{Remove("/f"), Status(3, "denied")}},
                       [this](SftpProgram& session) { return session.MoveToLocal(status, "/f", "copy"); }),
              "-3");
    EXPECT_EQ(StatusText(status), "3 denied en");
    EXPECT_EQ(local.Stored("copy"), "text");
}

TEST_F(SftpTransferOperations, MoveToLocalKeepsAFileThatWasNotReceived) {
    EXPECT_EQ(Transfer(Refusing("/f", READING),
                       [this](SftpProgram& session) { return session.MoveToLocal(status, "/f", "copy"); }),
              "-1");
    EXPECT_EQ(
        Transfer({}, [this](SftpProgram& session) { return session.MoveToLocal(status, "/f", "no/copy"); }),
        std::to_string(-ENOENT));
}

TEST_F(SftpTransferOperations, MoveToRemoteUnlinksTheSentFile) {
    local.Store("f", "text");
    WorkingDirectory const working(local.Path());
    EXPECT_EQ(Transfer(Storing("/home/copy", "text"),
                       [this](SftpProgram& session) { return session.MoveToRemote(status, "f", "../copy"); }),
              "0");
    EXPECT_TRUE(local.Tree().empty());
}

TEST_F(SftpTransferOperations, MoveToRemoteSendsFromTheProcessDirectoryAndUnlinksInTheSessions) {
    process.Store("f", "sent");
    local.Store("f", "unlinked");
    WorkingDirectory const working(process.Path());
    EXPECT_EQ(Transfer(Storing("/copy", "sent"),
                       [this](SftpProgram& session) { return session.MoveToRemote(status, "f", "/copy"); }),
              "0");
    EXPECT_EQ(process.Stored("f"), "sent");
    EXPECT_FALSE(local.Has("f"));
}

TEST_F(SftpTransferOperations, MoveToRemoteReturnsTheErrorOfTheUnlink) {
    process.Store("f", "sent");
    WorkingDirectory const working(process.Path());
    EXPECT_EQ(Transfer(Storing("/copy", "sent"),
                       [this](SftpProgram& session) { return session.MoveToRemote(status, "f", "/copy"); }),
              std::to_string(-ENOENT));
    EXPECT_EQ(process.Stored("f"), "sent");
}

TEST_F(SftpTransferOperations, MoveToRemoteKeepsAFileThatWasNotSent) {
    local.Store("f", "text");
    WorkingDirectory const working(local.Path());
    EXPECT_EQ(Transfer(Refusing("/copy", WRITING),
                       [this](SftpProgram& session) { return session.MoveToRemote(status, "f", "/copy"); }),
              "-1");
    EXPECT_EQ(local.Stored("f"), "text");
}

TEST_F(SftpTransferOperations, MoveToRemoteOfAMissingFileSendsNothing) {
    local.Store("f", "text");
    WorkingDirectory const working(process.Path());
    EXPECT_EQ(
        Transfer({}, [this](SftpProgram& session) { return session.MoveToRemote(status, "f", "/copy"); }),
        std::to_string(-ENOENT));
    EXPECT_EQ(local.Stored("f"), "text");
}

// --- lists

TEST_F(SftpTransferOperations, EmptyListsSendNothing) {
    EXPECT_EQ(Transfer({},
                       [this](SftpProgram& session) {
                           EXPECT_EQ(session.Get(status, List({}), "to"), 0);
                           EXPECT_EQ(session.Put(status, List({}), "to"), 0);
                           EXPECT_EQ(session.MoveToLocal(status, List({}), "to"), 0);
                           return session.MoveToRemote(status, List({}), "to");
                       }),
              "0");
}

TEST_F(SftpTransferOperations, ListGetStoresEachUnderItsLastComponent) {
    local.MakeDirectory("to");
    EXPECT_EQ(Transfer(Fetching("/home/u/sub/a", "first") + Fetching("/b", "second", 0600) +
                           Fetching("/home/c/", "third"),
                       [this](SftpProgram& session) {
                           return session.Get(status, List({"sub/a", "/b", "/home/c/"}), "sub/../to");
                       }),
              "3");
    EXPECT_EQ(
        local.Tree(),
        (Tree{
            {"to", "755 directory"}, {"to/a", "644 first"}, {"to/b", "600 second"}, {"to/c", "644 third"}}));
}

TEST_F(SftpTransferOperations, ListGetWithoutADirectoryUsesTheCurrentOne) {
    EXPECT_EQ(Transfer(Fetching("/home/u/f", "text"),
                       [this](SftpProgram& session) { return session.Get(status, List({"f"}), ""); }),
              "1");
    EXPECT_EQ(local.Stored("f"), "text");
}

TEST_F(SftpTransferOperations, ListGetEndsAtALocalFailure) {
    EXPECT_EQ(
        Transfer({},
                 [this](SftpProgram& session) { return session.Get(status, List({"a", "b"}), "missing"); }),
        std::to_string(-ENOENT));
}

TEST_F(SftpTransferOperations, ListPutStoresEachUnderItsLastComponent) {
    local.Store("sub/a", "first");
    process.Store("b", "second", 0600);
    EXPECT_EQ(Transfer(Storing("/home/to/a", "first") + Storing("/home/to/b", "second", 0600),
                       [this](SftpProgram& session) {
                           TOList<String_t> names = List({"sub/a"});
                           names.Append(process.Name("b"));
                           return session.Put(status, names, "../to");
                       }),
              "2");
}

TEST_F(SftpTransferOperations, ListPutEndsAtTheFirstFailure) {
    local.Store("a", "first");
    local.Store("c", "third");
    EXPECT_EQ(
        Transfer(Storing("/to/a", "first"),
                 [this](SftpProgram& session) { return session.Put(status, List({"a", "b", "c"}), "/to"); }),
        std::to_string(-ENOENT));
}

TEST_F(SftpTransferOperations, ListMoveToLocalRemovesEach) {
    EXPECT_EQ(
        Transfer(Fetching("/home/u/a", "first") + Removing("/home/u/a") + Fetching("/b", "second") +
                     Removing("/b"),
                 [this](SftpProgram& session) { return session.MoveToLocal(status, List({"a", "/b"}), ""); }),
        "2");
    EXPECT_EQ(local.Tree(), (Tree{{"a", "644 first"}, {"b", "644 second"}}));
}

TEST_F(SftpTransferOperations, ListMoveToLocalEndsAtARefusedRemove) {
    EXPECT_EQ(Transfer(Fetching("/a", "first") + Dialogue{{Remove("/a"), Status(3, "denied")}},
                       [this](SftpProgram& session) {
                           return session.MoveToLocal(status, List({"/a", "/b"}), "");
                       }),
              "-3");
    EXPECT_EQ(local.Tree(), (Tree{{"a", "644 first"}}));
}

TEST_F(SftpTransferOperations, ListMoveToLocalEndsAtARefusedOpen) {
    EXPECT_EQ(Transfer(Refusing("/a", READING),
                       [this](SftpProgram& session) {
                           return session.MoveToLocal(status, List({"/a", "/b"}), "");
                       }),
              "-1");
}

TEST_F(SftpTransferOperations, ListMoveToRemoteSendsFromTheSessionAndUnlinksThere) {
    local.Store("a", "first");
    local.Store("sub/b", "second");
    process.Store("a", "other text");
    WorkingDirectory const working(process.Path());
    EXPECT_EQ(Transfer(Storing("/home/u/to/a", "first") + Storing("/home/u/to/b", "second"),
                       [this](SftpProgram& session) {
                           return session.MoveToRemote(status, List({"a", "sub/b"}), "to");
                       }),
              "2");
    EXPECT_EQ(local.Tree(), (Tree{{"sub", "755 directory"}}));
    EXPECT_EQ(process.Stored("a"), "other text");
}

TEST_F(SftpTransferOperations, ListMoveToRemoteEndsAtAFailedUnlink) {
    local.Store("a", "first");
    local.Store("b", "second");
    EXPECT_EQ(
        TransferWith(
            [this](RemoteSftp& remote) {
                Dialogue storing = Storing("/to/a", "first");
                storing.pop_back();
                remote.Follow(storing);
                remote.Expect(Close("h"));
                std::filesystem::remove(local / "a");
                remote.Reply(Done());
            },
            [this](SftpProgram& session) { return session.MoveToRemote(status, List({"a", "b"}), "/to"); }),
        std::to_string(-ENOENT));
    EXPECT_EQ(local.Tree(), (Tree{{"b", "644 second"}}));
}

TEST_F(SftpTransferOperations, ListMoveToRemoteKeepsAFileThatWasNotSent) {
    local.Store("a", "first");
    EXPECT_EQ(Transfer(Refusing("/to/a", WRITING),
                       [this](SftpProgram& session) {
                           return session.MoveToRemote(status, List({"a", "b"}), "/to");
                       }),
              "-1");
    EXPECT_EQ(local.Tree(), (Tree{{"a", "644 first"}}));
}

// --- patterns

TEST_F(SftpTransferOperations, MGetOfAPlainNameSearchesItsDirectory) {
    EXPECT_EQ(Transfer(NoDirectory("/d/f") + Listing("/d", {"e", "f"}) + Fetching("/d/f", "text"),
                       [this](SftpProgram& session) { return session.MGet(status, "/d/f", ""); }),
              "1");
    EXPECT_EQ(local.Tree(), (Tree{{"f", "644 text"}}));
}

TEST_F(SftpTransferOperations, MGetReturnsTheFailureOfTheList) {
    EXPECT_EQ(Transfer(NoDirectory("/d/*") + Listing("/d", {"e", "f"}) + Refusing("/d/e", READING),
                       [this](SftpProgram& session) { return session.MGet(status, "/d/*", ""); }),
              "-1");
}

TEST_F(SftpTransferOperations, MPutReturnsTheFailureOfTheList) {
    local.Store("a", "first");
    local.Store("b", "second");
    EXPECT_EQ(Transfer(Storing("/to/a", "first") + Refusing("/to/b", WRITING),
                       [this](SftpProgram& session) { return session.MPut(status, "*", "/to"); }),
              "-1");
}

TEST_F(SftpTransferOperations, MMoveToLocalRemovesEach) {
    EXPECT_EQ(Transfer(NoDirectory("/home/u/?") + Listing("/home/u", {"a", "aa", "b"}) +
                           Fetching("/home/u/a", "first") + Removing("/home/u/a") +
                           Fetching("/home/u/b", "second") + Removing("/home/u/b"),
                       [this](SftpProgram& session) { return session.MMoveToLocal(status, "?", ""); }),
              "2");
    EXPECT_EQ(local.Tree(), (Tree{{"a", "644 first"}, {"b", "644 second"}}));
}

TEST_F(SftpTransferOperations, MMoveToLocalOfAPatternWithoutMatchReturns0) {
    EXPECT_EQ(Transfer(NoDirectory("/home/u/?") + Listing("/home/u", {"aa"}),
                       [this](SftpProgram& session) { return session.MMoveToLocal(status, "?", ""); }),
              "0");
}

TEST_F(SftpTransferOperations, MMoveToRemoteUnlinksEach) {
    local.Store("a", "first");
    local.Store("aa", "third");
    local.Store("b", "second");
    process.Store("a", "other text");
    WorkingDirectory const working(process.Path());
    EXPECT_EQ(Transfer(Storing("/to/a", "first") + Storing("/to/b", "second"),
                       [this](SftpProgram& session) { return session.MMoveToRemote(status, "?", "/to"); }),
              "2");
    EXPECT_EQ(local.Tree(), (Tree{{"aa", "644 third"}}));
    EXPECT_EQ(process.Tree(), (Tree{{"a", "644 other text"}}));
}

TEST_F(SftpTransferOperations, MMoveToRemoteOfAPatternWithoutMatchSendsNothing) {
    EXPECT_EQ(
        Transfer({}, [this](SftpProgram& session) { return session.MMoveToRemote(status, "?", "/to"); }),
        "0");
}

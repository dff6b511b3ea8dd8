// SftpClientSession: the requests of a transfer, one by one.

#include <cerrno>

#include "support/descriptor_state.h"
#include "wire/sftp_transfer_fixture.h"

using namespace sftp;
using peer::Bytes;
using peer::Writer;

namespace {

using SftpTransferWire = SftpTransferTest;

} // namespace

TEST_F(SftpTransferWire, GetIsOpenFstatReadsClose) {
    auto const get = [this](SftpProgram& session) { return session.Get(status, "f", "copy"); };
    EXPECT_EQ(Transfer(Fetching("/home/u/f", "hello", 0640), get), "0");
    EXPECT_EQ(local.Stored("copy"), "hello");
    EXPECT_EQ(local.ModeOf("copy"), 0640u);
    EXPECT_EQ(StatusText(status), "0 end en");
}

TEST_F(SftpTransferWire, GetByteForByte) {
    EXPECT_EQ(Transfer(Fetching("/f", "hello"),
                       [this](SftpProgram& session) { return session.Get(status, "/f", "copy"); }),
              "0");
    std::vector<Bytes> expected;
    for (Bytes const& request : {Bytes(Writer().U8(3).U32(1).String("/f").U32(1).U32(0)),
                                 Bytes(Writer().U8(8).U32(2).String("h").U32(15)),
                                 Bytes(Writer().U8(5).U32(3).String("h").U64(0).U32(32562)),
                                 Bytes(Writer().U8(5).U32(4).String("h").U64(5).U32(32562)),
                                 Bytes(Writer().U8(4).U32(5).String("h"))})
        expected.push_back(Data(peer::ToText(Writer().String(request))));
    std::vector<Bytes> const sent = Sent();
    ASSERT_EQ(sent.size(),
              4u + expected.size()); // the channel, the subsystem, the greeting, the home directory
    EXPECT_EQ(std::vector<Bytes>(sent.begin() + 4, sent.end()), expected);
}

TEST_F(SftpTransferWire, PutIsOpenSetFstatWritesClose) {
    local.Store("f", "hello", 0640);
    auto const put = [this](SftpProgram& session) { return session.Put(status, "f", "copy"); };
    EXPECT_EQ(Transfer(Storing("/home/u/copy", "hello", 0640), put), "0");
    EXPECT_EQ(StatusText(status), "0 done en");
}

TEST_F(SftpTransferWire, PutByteForByte) {
    local.Store("f", "hello", 0755);
    EXPECT_EQ(Transfer(Storing("/f", "hello", 0755),
                       [this](SftpProgram& session) { return session.Put(status, "f", "/f"); }),
              "0");
    std::vector<Bytes> expected;
    for (Bytes const& request : {Bytes(Writer().U8(3).U32(1).String("/f").U32(0x1a).U32(0)),
                                 Bytes(Writer().U8(10).U32(2).String("h").U32(4).U32(0100755)),
                                 Bytes(Writer().U8(6).U32(3).String("h").U64(0).String("hello")),
                                 Bytes(Writer().U8(4).U32(4).String("h"))})
        expected.push_back(Data(peer::ToText(Writer().String(request))));
    std::vector<Bytes> const sent = Sent();
    ASSERT_EQ(sent.size(), 4u + expected.size());
    EXPECT_EQ(std::vector<Bytes>(sent.begin() + 4, sent.end()), expected);
}

TEST_F(SftpTransferWire, EmptyRemoteFileIsCreatedWithItsPermissions) {
    EXPECT_EQ(Transfer({{Open("/empty", READING), Opened("h")},
                        {Fstat("h"), Attrs(AllAttrs(0, 0, 0, 0100604))},
                        {Read("h", 0, READ_SIZE), Status(1, "end")},
                        {Close("h"), Done()}},
                       [this](SftpProgram& session) { return session.Get(status, "/empty", "copy"); }),
              "0");
    EXPECT_EQ(local.Stored("copy"), "");
    EXPECT_EQ(local.ModeOf("copy"), 0604u);
    EXPECT_EQ(StatusText(status), "0 end en");
}

TEST_F(SftpTransferWire, ModeOfTheServerIsTakenDespiteTheUmask) {
    mode_t const before = umask(077);
    EXPECT_EQ(Transfer(Fetching("/f", "", 06777),
                       [this](SftpProgram& session) { return session.Get(status, "/f", "copy"); }),
              "0");
    umask(before);
    EXPECT_EQ(local.ModeOf("copy"), 06777u);
}

TEST_F(SftpTransferWire, LocalFilesAreOpenedWithCloseOnExec) {
    local.Store("f", "");
    for (Dialogue const& dialogue : {Fetching("/f", ""), Storing("/f", "")}) {
        bool const receives = dialogue[0].request.Payload(0) == Open("/f", READING).Payload(0);
        EXPECT_EQ(TransferWith(
                      [&](RemoteSftp& remote) {
                          remote.Expect(dialogue[0].request);
                          EXPECT_EQ(support::FlagsOf(support::OpenDescriptorsBelow(local.Path())),
                                    std::vector<int>{FD_CLOEXEC});
                          remote.Reply(dialogue[0].reply);
                          remote.Follow(Dialogue(dialogue.begin() + 1, dialogue.end()));
                      },
                      [&](SftpProgram& session) {
                          return receives ? session.Get(status, "/f", "copy")
                                          : session.Put(status, "f", "/f");
                      }),
                  "0");
    }
}

TEST_F(SftpTransferWire, EmptyLocalFileSendsNoWrite) {
    local.Store("empty", "", 0604);
    EXPECT_EQ(Transfer({{Open("/copy", WRITING), Opened("h")},
                        {SetFstat("h", Mode(0100604)), Done()},
                        {Close("h"), Done()}},
                       [this](SftpProgram& session) { return session.Put(status, "empty", "/copy"); }),
              "0");
}

TEST_F(SftpTransferWire, RefusedOpenOfAReceiveClosesAnEmptyHandle) {
    FileDescriptor const fd(open((local / "copy").c_str(), O_RDWR | O_CREAT, 0600));
    EXPECT_EQ(
        Transfer({{Open("/f", READING), Status(2, "no such file")}, {Close(""), Status(4, "no handle")}},
                 [&](SftpProgram& session) { return session.Receive(status, "/f", fd); }),
        "-1");
    EXPECT_EQ(StatusText(status), "2 no such file en");
    EXPECT_EQ(local.Stored("copy"), "");
    EXPECT_EQ(local.ModeOf("copy"), 0600u);
}

TEST_F(SftpTransferWire, RefusedOpenOfASendClosesAnEmptyHandle) {
    local.Store("f", "hello");
    EXPECT_EQ(Transfer({{Open("/f", WRITING), Status(3, "denied")}, {Close(""), Status(4, "no handle")}},
                       [this](SftpProgram& session) { return session.Put(status, "f", "/f"); }),
              "-1");
    EXPECT_EQ(StatusText(status), "3 denied en");
}

TEST_F(SftpTransferWire, RefusedGetLeavesAnEmptyFile) {
    local.Store("copy", "before", 0640);
    EXPECT_EQ(Transfer(Refusing("/f", READING),
                       [this](SftpProgram& session) { return session.Get(status, "/f", "copy"); }),
              "-1");
    EXPECT_EQ(local.Stored("copy"), "");
    EXPECT_EQ(local.ModeOf("copy"), 0640u);
}

TEST_F(SftpTransferWire, GetToAMissingDirectorySendsNothing) {
    status = Marked();
    EXPECT_EQ(
        Transfer({}, [this](SftpProgram& session) { return session.Get(status, "/f", "missing/copy"); }),
        std::to_string(-ENOENT));
    EXPECT_EQ(StatusText(status), "77 before xx");
    EXPECT_TRUE(local.Tree().empty());
}

TEST_F(SftpTransferWire, PutOfAMissingFileSendsNothing) {
    status = Marked();
    EXPECT_EQ(Transfer({}, [this](SftpProgram& session) { return session.Put(status, "missing", "/f"); }),
              std::to_string(-ENOENT));
    EXPECT_EQ(StatusText(status), "77 before xx");
}

TEST_F(SftpTransferWire, FileOfOneBlockTakesTwoReads) {
    std::string const text = Pattern(READ_SIZE);
    EXPECT_EQ(Transfer({{Open("/f", READING), Opened("h")},
                        {Fstat("h"), Attrs(AllAttrs(text.size(), 0, 0, 0100644))},
                        {Read("h", 0, 32562), FileData(text)},
                        {Read("h", 32562, 32562), Status(1, "end")},
                        {Close("h"), Done()}},
                       [this](SftpProgram& session) { return session.Get(status, "/f", "copy"); }),
              "0");
    EXPECT_EQ(local.Stored("copy"), text);
}

TEST_F(SftpTransferWire, FileOfOneByteMoreTakesThreeReads) {
    std::string const text = Pattern(READ_SIZE + 1);
    EXPECT_EQ(Transfer({{Open("/f", READING), Opened("h")},
                        {Fstat("h"), Attrs(AllAttrs(text.size(), 0, 0, 0100644))},
                        {Read("h", 0, 32562), FileData(text.substr(0, 32562))},
                        {Read("h", 32562, 32562), FileData(text.substr(32562))},
                        {Read("h", 32563, 32562), Status(1, "end")},
                        {Close("h"), Done()}},
                       [this](SftpProgram& session) { return session.Get(status, "/f", "copy"); }),
              "0");
    EXPECT_EQ(local.Stored("copy"), text);
}

TEST_F(SftpTransferWire, ShortRepliesAdvanceTheOffsetByTheirLength) {
    EXPECT_EQ(Transfer({{Open("/f", READING), Opened("h")},
                        {Fstat("h"), Attrs(AllAttrs(5, 0, 0, 0100644))},
                        {Read("h", 0, 32562), FileData("h")},
                        {Read("h", 1, 32562), FileData("ell")},
                        {Read("h", 4, 32562), FileData("o")},
                        {Read("h", 5, 32562), Status(1, "end")},
                        {Close("h"), Done()}},
                       [this](SftpProgram& session) { return session.Get(status, "/f", "copy"); }),
              "0");
    EXPECT_EQ(local.Stored("copy"), "hello");
}

TEST_F(SftpTransferWire, PutOfOneBlockIsOneWrite) {
    std::string const text = Pattern(WRITE_SIZE);
    local.Store("f", text);
    EXPECT_EQ(Transfer({{Open("/f", WRITING), Opened("h")},
                        {SetFstat("h", Mode(0100644)), Done()},
                        {Write("h", 0, text), Done()},
                        {Close("h"), Done()}},
                       [this](SftpProgram& session) { return session.Put(status, "f", "/f"); }),
              "0");
}

TEST_F(SftpTransferWire, PutOfOneByteMoreIsTwoWrites) {
    std::string const text = Pattern(WRITE_SIZE + 1);
    local.Store("f", text);
    EXPECT_EQ(Transfer({{Open("/f", WRITING), Opened("h")},
                        {SetFstat("h", Mode(0100644)), Done()},
                        {Write("h", 0, text.substr(0, 32544)), Done()},
                        {Write("h", 32544, text.substr(32544)), Done()},
                        {Close("h"), Done()}},
                       [this](SftpProgram& session) { return session.Put(status, "f", "/f"); }),
              "0");
}

TEST_F(SftpTransferWire, PutSetsTheWholeModeBeforeTheFirstData) {
    local.Store("f", "hello", 07531);
    EXPECT_EQ(Transfer({{Open("/f", WRITING), Opened("h")},
                        {SetFstat("h", Mode(0107531)), Done()},
                        {Write("h", 0, "hello"), Done()},
                        {Close("h"), Done()}},
                       [this](SftpProgram& session) { return session.Put(status, "f", "/f"); }),
              "0");
}

TEST_F(SftpTransferWire, MGetSearchesThenGets) {
    local.MakeDirectory("to");
    EXPECT_EQ(Transfer(NoDirectory("/home/u/*.c") + Listing("/home/u", {".", "..", "b.c", "a.h", "a.c"}) +
                           Fetching("/home/u/b.c", "second") + Fetching("/home/u/a.c", "first", 0600),
                       [this](SftpProgram& session) { return session.MGet(status, "*.c", "to"); }),
              "2");
    EXPECT_EQ(local.Tree(), (std::map<std::string, std::string>{
                                {"to", "755 directory"}, {"to/a.c", "600 first"}, {"to/b.c", "644 second"}}));
}

TEST_F(SftpTransferWire, MPutPutsInOrder) {
    local.Store("b.c", "second", 0600);
    local.Store("a.h", "header");
    local.Store("a.c", "first");
    EXPECT_EQ(Transfer(Storing("/home/u/to/a.c", "first") + Storing("/home/u/to/b.c", "second", 0600),
                       [this](SftpProgram& session) { return session.MPut(status, "*.c", "to"); }),
              "2");
}

TEST_F(SftpTransferWire, MGetOfAPatternWithoutMatchReturns0) {
    status = Marked();
    EXPECT_EQ(Transfer(NoDirectory("/home/u/*.c") + Listing("/home/u", {"a.h"}),
                       [this](SftpProgram& session) { return session.MGet(status, "*.c", "to"); }),
              "0");
    EXPECT_EQ(StatusText(status), "77 before xx");
    EXPECT_TRUE(local.Tree().empty());
}

TEST_F(SftpTransferWire, MPutOfAPatternWithoutMatchSendsNothing) {
    status = Marked();
    EXPECT_EQ(Transfer({}, [this](SftpProgram& session) { return session.MPut(status, "*.c", "/to"); }), "0");
    EXPECT_EQ(StatusText(status), "77 before xx");
}

TEST_F(SftpTransferWire, ListGetEndsAtAFailingThirdName) {
    local.MakeDirectory("to");
    EXPECT_EQ(
        Transfer(
            Fetching("/home/u/a", "first") + Fetching("/home/u/b", "second") + Refusing("/home/u/c", READING),
            [this](SftpProgram& session) { return session.Get(status, List({"a", "b", "c", "d"}), "to"); }),
        "-1");
    EXPECT_EQ(StatusText(status), "3 denied en");
    EXPECT_EQ(local.Stored("to/a"), "first");
    EXPECT_EQ(local.Stored("to/b"), "second");
    EXPECT_FALSE(local.Has("to/d"));
}

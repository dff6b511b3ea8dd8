// SftpClientSession: transfers that the server refuses and transfers that fail locally.

#include <sys/mman.h>

#include <cerrno>
#include <climits>
#include <csignal>

#include "support/descriptors.h"
#include "wire/sftp_transfer_fixture.h"

using namespace sftp;
using support::DescriptorPair;

namespace {

std::string Minus(int error) { return std::to_string(-error); }

/// Ignores SIGPIPE as long as it lives.
class PipesMayBreak {
public:
    PipesMayBreak() : _before(std::signal(SIGPIPE, SIG_IGN)) {}
    ~PipesMayBreak() { std::signal(SIGPIPE, _before); }
    PipesMayBreak(PipesMayBreak const&) = delete;
    PipesMayBreak& operator=(PipesMayBreak const&) = delete;

private:
    void (*_before)(int);
};

/// A transfer that begins well.
class SftpTransferFailures : public SftpTransferTest {
protected:
    static Dialogue Fetched(Dialogue const& rest) {
        return Dialogue{{Open("/f", READING), Opened("h")}, {Fstat("h"), Attrs(Mode(REGULAR | 0644))}} +
               rest + Closing();
    }
    static Dialogue Stored(Dialogue const& rest) {
        return Dialogue{{Open("/f", WRITING), Opened("h")}, {SetFstat("h", Mode(REGULAR | 0644)), Done()}} +
               rest + Closing();
    }
    static Exchange End(std::size_t offset) { return {Read("h", offset, READ_SIZE), Status(1, "end")}; }

    std::string Get(Dialogue const& dialogue) {
        return Transfer(dialogue, [this](SftpProgram& session) { return session.Get(status, "/f", "copy"); });
    }
    std::string Receive(int fd, Dialogue const& dialogue) {
        return Transfer(dialogue, [=](SftpProgram& session) { return session.Receive(status, "/f", fd); });
    }
    std::string Put(Dialogue const& dialogue) {
        return Transfer(dialogue, [this](SftpProgram& session) { return session.Put(status, "f", "/f"); });
    }
    std::string Send(int fd, Dialogue const& dialogue) {
        return Transfer(dialogue, [=](SftpProgram& session) { return session.Send(status, "/f", fd); });
    }
};

} // namespace

// --- what a server answers to a receive

TEST_F(SftpTransferFailures, EmptyHandleIsAFailure) {
    EXPECT_EQ(Get({{Open("/f", READING), Opened("")}, {Close(""), Done()}}), "-1");
    EXPECT_EQ(StatusText(status), "0  ");
}

TEST_F(SftpTransferFailures, SuccessStatusForOpenIsAFailure) {
    EXPECT_EQ(Get({{Open("/f", READING), Status(0)}, {Close(""), Done()}}), "-1");
}

TEST_F(SftpTransferFailures, RefusedFstatEndsAReceive) {
    EXPECT_EQ(
        Get({{Open("/f", READING), Opened("h")}, {Fstat("h"), Status(4, "broken")}, {Close("h"), Done()}}),
        "-4");
    EXPECT_EQ(StatusText(status), "4 broken en");
    EXPECT_EQ(local.Stored("copy"), "");
}

TEST_F(SftpTransferFailures, FstatWithoutPermissionsRemovesAllPermissions) {
    EXPECT_EQ(Get(Dialogue{{Open("/f", READING), Opened("h")}, {Fstat("h"), Attrs(Owner(1, 2))}} +
                  Dialogue{{Read("h", 0, READ_SIZE), FileData("text")}, End(4)} + Closing()),
              "0");
    EXPECT_EQ(local.ModeOf("copy"), 0u);
}

TEST_F(SftpTransferFailures, SuccessStatusForFstatRemovesAllPermissions) {
    EXPECT_EQ(Get(Dialogue{{Open("/f", READING), Opened("h")}, {Fstat("h"), Status(0)}, End(0)} + Closing()),
              "0");
    EXPECT_EQ(local.ModeOf("copy"), 0u);
}

TEST_F(SftpTransferFailures, NegativeCodeOfFstatIsNotAFailure) {
    EXPECT_EQ(
        Get(Dialogue{{Open("/f", READING), Opened("h")}, {Fstat("h"), Status(Code(-3))}, End(0)} + Closing()),
        "0");
    EXPECT_EQ(local.ModeOf("copy"), 0u);
}

TEST_F(SftpTransferFailures, RefusedReadEndsAReceive) {
    EXPECT_EQ(Get(Fetched({{Read("h", 0, READ_SIZE), FileData("text")},
                           {Read("h", 4, READ_SIZE), Status(4, "broken")}})),
              "-1");
    EXPECT_EQ(StatusText(status), "4 broken en");
    EXPECT_EQ(local.Stored("copy"), "text");
}

TEST_F(SftpTransferFailures, SuccessStatusForReadIsTheEnd) {
    EXPECT_EQ(Get(Fetched({{Read("h", 0, READ_SIZE), Status(0)}})), "0");
}

TEST_F(SftpTransferFailures, EmptyDataIsTheEnd) {
    EXPECT_EQ(
        Get(Fetched({{Read("h", 0, READ_SIZE), FileData("text")}, {Read("h", 4, READ_SIZE), FileData("")}})),
        "0");
    EXPECT_EQ(local.Stored("copy"), "text");
}

TEST_F(SftpTransferFailures, EmptyDataKeepsTheCallersOldCode) {
    status = Marked();
    EXPECT_EQ(Get(Fetched({{Read("h", 0, READ_SIZE), FileData("")}})), "-1");
    EXPECT_EQ(StatusText(status), "77 before xx");
}

TEST_F(SftpTransferFailures, MoreDataThanRequestedEndsAReceive) {
    EXPECT_EQ(Get(Fetched({{Read("h", 0, READ_SIZE), FileData("text")},
                           {Read("h", 4, READ_SIZE), FileData(Pattern(READ_SIZE + 1))}})),
              "-1");
    EXPECT_EQ(status._code, 5);
    EXPECT_EQ(local.Stored("copy"), "text");
}

TEST_F(SftpTransferFailures, NegativeCodeOfReadCountsAsBytes) {
    EXPECT_EQ(Get(Fetched({{Read("h", 0, READ_SIZE), Status(Code(-3))}, End(3)})), "0");
    EXPECT_EQ(local.Stored("copy"), std::string(3, '\0'));
}

TEST_F(SftpTransferFailures, NegativeCodeOfReadNeverWritesMoreThanABlock) {
    EXPECT_EQ(Get(Fetched({{Read("h", 0, READ_SIZE), FileData("text")},
                           {Read("h", 4, READ_SIZE), Status(Code(-INT_MAX))},
                           End(4ull + INT_MAX)})),
              "0");
    EXPECT_EQ(local.Stored("copy"), "texttext" + std::string(READ_SIZE - 4, '\0'));
}

TEST_F(SftpTransferFailures, LowestCodeOfReadEndsAReceive) {
    EXPECT_EQ(Get(Fetched({{Read("h", 0, READ_SIZE), Status(Code(INT_MIN))}})), "-1");
    EXPECT_EQ(status._code, INT_MIN);
}

TEST_F(SftpTransferFailures, ReplyToTheCloseOfAReceiveIsIgnored) {
    EXPECT_EQ(Get({{Open("/f", READING), Opened("h")},
                   {Fstat("h"), Attrs(Mode(0644))},
                   End(0),
                   {Close("h"), Status(4, "broken")}}),
              "0");
    EXPECT_EQ(StatusText(status), "0 end en");
}

// --- what a server answers to a send

TEST_F(SftpTransferFailures, RefusedSetFstatEndsASend) {
    local.Store("f", "text");
    EXPECT_EQ(Put({{Open("/f", WRITING), Opened("h")},
                   {SetFstat("h", Mode(0100644)), Status(3, "denied")},
                   {Close("h"), Done()}}),
              "-3");
    EXPECT_EQ(StatusText(status), "3 denied en");
}

TEST_F(SftpTransferFailures, NegativeCodeOfSetFstatIsNotAFailure) {
    local.Store("f", "text");
    EXPECT_EQ(Put({{Open("/f", WRITING), Opened("h")},
                   {SetFstat("h", Mode(0100644)), Status(Code(-3))},
                   {Write("h", 0, "text"), Done()},
                   {Close("h"), Done()}}),
              "0");
}

TEST_F(SftpTransferFailures, NegativeCodeOfSetFstatIsTheResultOfAnEmptyFile) {
    local.Store("f", "");
    EXPECT_EQ(Put({{Open("/f", WRITING), Opened("h")},
                   {SetFstat("h", Mode(0100644)), Status(Code(-3))},
                   {Close("h"), Done()}}),
              "-1");
}

TEST_F(SftpTransferFailures, RefusedBlockIsSkippedAndTheNextIsWrittenAtItsOffset) {
    std::string const text = Pattern(3 * WRITE_SIZE - 1);
    local.Store("f", text);
    EXPECT_EQ(Put(Stored({{Write("h", 0, text.substr(0, WRITE_SIZE)), Status(4, "full")},
                          {Write("h", 0, text.substr(WRITE_SIZE, WRITE_SIZE)), Done()},
                          {Write("h", WRITE_SIZE, text.substr(2 * WRITE_SIZE)), Done()}})),
              "0");
    EXPECT_EQ(StatusText(status), "0 done en");
}

TEST_F(SftpTransferFailures, RefusalOfTheLastBlockIsReturned) {
    std::string const text = Pattern(2 * WRITE_SIZE);
    local.Store("f", text);
    EXPECT_EQ(Put(Stored({{Write("h", 0, text.substr(0, WRITE_SIZE)), Done()},
                          {Write("h", WRITE_SIZE, text.substr(WRITE_SIZE)), Status(4, "full")}})),
              "-1");
    EXPECT_EQ(StatusText(status), "4 full en");
}

TEST_F(SftpTransferFailures, RefusalOfEveryBlockKeepsTheOffsetAtZero) {
    std::string const text = Pattern(2 * WRITE_SIZE);
    local.Store("f", text);
    EXPECT_EQ(Put(Stored({{Write("h", 0, text.substr(0, WRITE_SIZE)), Status(3, "denied")},
                          {Write("h", 0, text.substr(WRITE_SIZE)), Status(4, "full")}})),
              "-1");
    EXPECT_EQ(StatusText(status), "4 full en");
}

TEST_F(SftpTransferFailures, NegativeCodeOfWriteCountsAsBytes) {
    local.Store("f", "text");
    EXPECT_EQ(Put(Stored({{Write("h", 0, "text"), Status(Code(-1))},
                          {Write("h", 1, "tex"), Status(Code(-2))},
                          {Write("h", 3, "t"), Done()}})),
              "0");
}

TEST_F(SftpTransferFailures, NegativeCodeOfWriteMayCountMoreThanTheBlock) {
    local.Store("f", Pattern(WRITE_SIZE + 1));
    EXPECT_EQ(
        Put(Stored({{Write("h", 0, Pattern(WRITE_SIZE)), Status(Code(-INT_MAX))},
                    {Write("h", INT_MAX, Pattern(WRITE_SIZE + 1).substr(WRITE_SIZE)), Status(Code(-9))}})),
        "-1");
    EXPECT_EQ(status._code, -9);
}

TEST_F(SftpTransferFailures, LowestCodeOfWriteSkipsTheBlock) {
    local.Store("f", Pattern(WRITE_SIZE + 1));
    EXPECT_EQ(Put(Stored({{Write("h", 0, Pattern(WRITE_SIZE)), Status(Code(INT_MIN))},
                          {Write("h", 0, Pattern(WRITE_SIZE + 1).substr(WRITE_SIZE)), Done()}})),
              "0");
}

TEST_F(SftpTransferFailures, ReplyToTheCloseOfASendIsIgnored) {
    local.Store("f", "");
    EXPECT_EQ(Put({{Open("/f", WRITING), Opened("h")},
                   {SetFstat("h", Mode(0100644)), Done()},
                   {Close("h"), Status(4, "full")}}),
              "0");
    EXPECT_EQ(StatusText(status), "0 done en");
}

// --- local failures

TEST_F(SftpTransferFailures, UnwritableFileSendsNothing) {
    local.Store("copy", "before", 0444);
    std::filesystem::permissions(local.Path(), std::filesystem::perms(0755));
    EXPECT_EQ(Transfer({},
                       [this](SftpProgram& session) {
                           ObedientThread const obedient;
                           return session.Get(status, "/f", "copy");
                       }),
              Minus(EACCES));
    EXPECT_EQ(local.Stored("copy"), "before");
}

TEST_F(SftpTransferFailures, UnreadableFileSendsNothing) {
    local.Store("f", "text", 0);
    EXPECT_EQ(Transfer({},
                       [this](SftpProgram& session) {
                           ObedientThread const obedient;
                           return session.Put(status, "f", "/f");
                       }),
              Minus(EACCES));
}

TEST_F(SftpTransferFailures, LocalDirectoryAsFileSendsNothing) {
    local.MakeDirectory("copy");
    EXPECT_EQ(Get({}), Minus(EISDIR));
}

TEST_F(SftpTransferFailures, FailedFchmodEndsAReceiveBeforeAnyData) {
    EXPECT_EQ(Receive(-1, Fetched({})), Minus(EBADF));
    EXPECT_EQ(StatusText(status), "0  ");

    FileDescriptor const ofTheSystem(open("/proc/self/comm", O_RDWR));
    EXPECT_EQ(Receive(ofTheSystem, Fetched({})), Minus(EPERM));
}

TEST_F(SftpTransferFailures, FailedFstatEndsASendBeforeTheModeIsSet) {
    EXPECT_EQ(Send(-1, Dialogue{{Open("/f", WRITING), Opened("h")}} + Closing()), Minus(EBADF));
    EXPECT_EQ(StatusText(status), "0  ");
}

TEST_F(SftpTransferFailures, ReadOnlyDescriptorEndsAReceive) {
    local.Store("copy", "before");
    FileDescriptor const fd(open((local / "copy").c_str(), O_RDONLY));
    EXPECT_EQ(Receive(fd, Fetched({{Read("h", 0, READ_SIZE), FileData("text")}})), Minus(EBADF));
    EXPECT_EQ(local.Stored("copy"), "before");
}

TEST_F(SftpTransferFailures, FullDescriptorEndsAReceive) {
    FileDescriptor const fd(memfd_create("sealed", MFD_ALLOW_SEALING));
    ASSERT_EQ(fcntl(fd, F_ADD_SEALS, F_SEAL_GROW), 0);
    EXPECT_EQ(Receive(fd, Fetched({{Read("h", 0, READ_SIZE), FileData("text")}})), Minus(EPERM));
    EXPECT_EQ(StatusText(status), "0  ");
}

TEST_F(SftpTransferFailures, PipeWithoutAReaderEndsAReceive) {
    PipesMayBreak const ignored;
    DescriptorPair pipe = DescriptorPair::Pipe(false);
    pipe.ClosePeer();
    EXPECT_EQ(Receive(pipe.Ours(), Fetched({{Read("h", 0, READ_SIZE), FileData("text")}})), Minus(EPIPE));
}

TEST_F(SftpTransferFailures, ShortWriteIsNotRetried) {
    DescriptorPair pipe = DescriptorPair::Pipe(false);
    fcntl(pipe.Ours(), F_SETFL, O_NONBLOCK);
    auto const room = static_cast<std::size_t>(fcntl(pipe.Ours(), F_SETPIPE_SZ, 4096));
    ASSERT_LT(room, READ_SIZE);
    std::string const text = Pattern(READ_SIZE);
    EXPECT_EQ(Receive(pipe.Ours(), Fetched({{Read("h", 0, READ_SIZE), FileData(text)}, End(READ_SIZE)})),
              "0");
    EXPECT_EQ(pipe.Received(), text.substr(0, room));
}

TEST_F(SftpTransferFailures, FullPipeEndsAReceive) {
    DescriptorPair const pipe = DescriptorPair::Pipe(false);
    fcntl(pipe.Ours(), F_SETFL, O_NONBLOCK);
    fcntl(pipe.Ours(), F_SETPIPE_SZ, 4096);
    EXPECT_EQ(Receive(pipe.Ours(), Fetched({{Read("h", 0, READ_SIZE), FileData(Pattern(READ_SIZE))},
                                            {Read("h", READ_SIZE, READ_SIZE), FileData("more")}})),
              Minus(EAGAIN));
}

TEST_F(SftpTransferFailures, FailedLocalReadEndsASend) {
    local.MakeDirectory("f");
    EXPECT_EQ(
        Put(Dialogue{{Open("/f", WRITING), Opened("h")}, {SetFstat("h", Mode(0040755)), Done()}} + Closing()),
        Minus(EISDIR));
}

TEST_F(SftpTransferFailures, FailedLocalReadAfterABlockEndsASend) {
    DescriptorPair pipe = DescriptorPair::Pipe(true);
    fcntl(pipe.Ours(), F_SETFL, O_NONBLOCK);
    fchmod(pipe.Ours(), 0600);
    pipe.Send("text");
    EXPECT_EQ(Send(pipe.Ours(), Dialogue{{Open("/f", WRITING), Opened("h")},
                                         {SetFstat("h", Mode(0010600)), Done()},
                                         {Write("h", 0, "text"), Done()}} +
                                    Closing()),
              Minus(EAGAIN));
}

// SftpClientSession: operations on a single file.

#include <climits>
#include <ostream>

#include "wire/sftp_session_fixture.h"

using namespace sftp;
using cindral::SftpFileAttr;
using cindral::SftpFileHandle;
using cindral::SftpStatus;
using peer::Writer;

namespace {

SftpFileHandle const& SomeHandle() {
    static SftpFileHandle const handle(ByteString("hdl", 3));
    return handle;
}

/// An operation on a file, which succeeds.
struct Operation {
    char const* name;
    /// For the name that is sent.
    std::function<Dialogue(std::string const&)> dialogue;
    std::function<int(SftpProgram&, SftpStatus&, char const*)> call;
};

void PrintTo(Operation const& operation, std::ostream* out) { *out << operation.name; }

std::vector<Operation> PathOperations() {
    return {
        {"Mkdir", [](auto& path) { return Dialogue{{Mkdir(path, Mode(01750)), Done()}}; },
         [](auto& session, auto& status, auto path) { return session.Mkdir(status, path, 01750); }},
        {"Rmdir", [](auto& path) { return Dialogue{{Rmdir(path), Done()}}; },
         [](auto& session, auto& status, auto path) { return session.Rmdir(status, path); }},
        {"Remove", [](auto& path) { return Dialogue{{Remove(path), Done()}}; },
         [](auto& session, auto& status, auto path) { return session.Remove(status, path); }},
        {"RenameFrom", [](auto& path) { return Dialogue{{Rename(path, "/home/u/to"), Done()}}; },
         [](auto& session, auto& status, auto path) { return session.Rename(status, path, "to"); }},
        {"RenameTo", [](auto& path) { return Dialogue{{Rename("/home/u/from", path), Done()}}; },
         [](auto& session, auto& status, auto path) { return session.Rename(status, "from", path); }},
        {"SymlinkFirst", [](auto& path) { return Dialogue{{Symlink(path, "/home/u/second"), Done()}}; },
         [](auto& session, auto& status, auto path) { return session.Symlink(status, path, "second"); }},
        {"SymlinkSecond", [](auto& path) { return Dialogue{{Symlink("/home/u/first", path), Done()}}; },
         [](auto& session, auto& status, auto path) { return session.Symlink(status, "first", path); }},
        {"Readlink", [](auto& path) { return Dialogue{{Readlink(path), Names({"target"})}}; },
         [](auto& session, auto& status, auto path) {
             String_t result;
             return session.Readlink(status, path, result);
         }},
        {"Stat", [](auto& path) { return Dialogue{{Stat(path), Attrs(AllAttrs(1, 2, 3, 4))}}; },
         [](auto& session, auto& status, auto path) {
             SftpFileAttr attrs;
             return session.Stat(status, path, attrs);
         }},
        {"Lstat", [](auto& path) { return Dialogue{{Lstat(path), Attrs(AllAttrs(1, 2, 3, 4))}}; },
         [](auto& session, auto& status, auto path) {
             SftpFileAttr attrs;
             return session.Lstat(status, path, attrs);
         }},
        {"Chmod", [](auto& path) { return Dialogue{{SetStat(path, Mode(04711)), Done()}}; },
         [](auto& session, auto& status, auto path) { return session.Chmod(status, path, 04711); }},
        {"Chown",
         [](auto& path) {
             return Dialogue{{Stat(path), Attrs(AllAttrs(0x123456789a, 5, 6, 0100644))},
                             {SetStat(path, AllAttrs(0x123456789a, 7, 6, 0100644)), Done()}};
         },
         [](auto& session, auto& status, auto path) { return session.Chown(status, path, 7); }},
        {"Chgrp",
         [](auto& path) {
             return Dialogue{{Stat(path), Attrs(AllAttrs(0x123456789a, 5, 6, 0100644))},
                             {SetStat(path, AllAttrs(0x123456789a, 5, 7, 0100644)), Done()}};
         },
         [](auto& session, auto& status, auto path) { return session.Chgrp(status, path, 7); }},
    };
}

/// They have no name to send.
std::vector<Operation> HandleOperations() {
    return {
        {"Fstat", [](auto&) { return Dialogue{{Fstat("hdl"), Attrs(AllAttrs(1, 2, 3, 4))}}; },
         [](auto& session, auto& status, auto) {
             SftpFileAttr attrs;
             return session.Fstat(status, SomeHandle(), attrs);
         }},
        {"Fchmod", [](auto&) { return Dialogue{{SetFstat("hdl", Mode(0600)), Done()}}; },
         [](auto& session, auto& status, auto) { return session.Fchmod(status, SomeHandle(), 0600); }},
        {"Fchown",
         [](auto&) {
             return Dialogue{{Fstat("hdl"), Attrs(AllAttrs(0x123456789a, 5, 6, 0100644))},
                             {SetFstat("hdl", AllAttrs(0x123456789a, 7, 6, 0100644)), Done()}};
         },
         [](auto& session, auto& status, auto) { return session.Fchown(status, SomeHandle(), 7); }},
        {"Fchgrp",
         [](auto&) {
             return Dialogue{{Fstat("hdl"), Attrs(AllAttrs(0x123456789a, 5, 6, 0100644))},
                             {SetFstat("hdl", AllAttrs(0x123456789a, 5, 7, 0100644)), Done()}};
         },
         [](auto& session, auto& status, auto) { return session.Fchgrp(status, SomeHandle(), 7); }},
    };
}

std::vector<Operation> AllOperations() {
    std::vector<Operation> all = PathOperations();
    for (Operation const& operation : HandleOperations()) all.push_back(operation);
    return all;
}

std::string Name(testing::TestParamInfo<Operation> const& info) { return info.param.name; }

class SftpPathOperation : public SftpSessionTest, public testing::WithParamInterface<Operation> {
protected:
    /// The operation on that name, which is sent as another.
    void ExpectSent(std::string const& name, std::string const& sent) {
        SftpStatus status;
        EXPECT_EQ(Run(GetParam().dialogue(sent),
                      [&](auto& session) { return GetParam().call(session, status, name.c_str()); }),
                  "0");
    }
};

class SftpStatusResult : public SftpSessionTest, public testing::WithParamInterface<Operation> {
protected:
    Dialogue WholeDialogue() const { return GetParam().dialogue("/f"); }
    /// The outcome of the operation with another last reply in this dialogue.
    std::string RunTo(Dialogue dialogue, Message const& reply) {
        dialogue.back().reply = reply;
        return Run(dialogue, [&](auto& session) { return GetParam().call(session, status, "/f"); });
    }

    SftpStatus status = Marked();
};

class SftpAttributes : public SftpSessionTest {
protected:
    /// The outcome of Chown to 7 with that answer to Stat; it sends `sent`.
    std::string Chown(Message const& found, peer::Bytes const& sent) {
        return Run({{Stat("/f"), found}, {SetStat("/f", sent), Done()}}, [](auto& session) {
            SftpStatus status;
            return session.Chown(status, "/f", 7);
        });
    }
    std::string Chgrp(Message const& found, peer::Bytes const& sent) {
        return Run({{Stat("/f"), found}, {SetStat("/f", sent), Done()}}, [](auto& session) {
            SftpStatus status;
            return session.Chgrp(status, "/f", 7);
        });
    }
    static std::string Describe(SftpFileAttr const& attrs) {
        std::string text;
        for (unsigned long long const field :
             {0ull + attrs._flags, attrs._size, 0ull + attrs._uid, 0ull + attrs._gid,
              0ull + attrs._permissions, 0ull + attrs._atime, 0ull + attrs._mtime})
            text += std::to_string(field) + " ";
        return text;
    }

    /// One pair after the size and the mode.
    static peer::Bytes Extended() {
        return Writer().U32(0x80000005).U64(9).U32(0640).U32(1).String("name@example.com").String("value");
    }
};

class SftpReadlink : public SftpSessionTest {
protected:
    /// The outcome of Readlink, and the target, which was "before".
    std::string ReadlinkWith(Message const& reply) {
        String_t target = "before";
        std::string const outcome = Run(
            {{Readlink("/l"), reply}}, [&](auto& session) { return session.Readlink(status, "/l", target); });
        return outcome + " " + Text(target);
    }

    SftpStatus status = Marked();
};

} // namespace

TEST_P(SftpPathOperation, RelativeNameIsSentAbsolute) {
    ExpectSent("a", "/home/u/a");
    ExpectSent("../v/./a/", "/home/v/a");
    ExpectSent("../../../..", "/");
}

TEST_P(SftpPathOperation, AbsoluteNameIsSentUnchanged) { ExpectSent("/x/../y//z/", "/x/../y//z/"); }

TEST_P(SftpPathOperation, EmptyNameIsTheCurrentDirectory) { ExpectSent("", "/home/u"); }

TEST_P(SftpPathOperation, NameMayHoldAnyBytes) {
    ExpectSent("a b\n\x1b]0;\xff\\", "/home/u/a b\n\x1b]0;\xff\\");
}

INSTANTIATE_TEST_SUITE_P(All, SftpPathOperation, testing::ValuesIn(PathOperations()), Name);

TEST_P(SftpStatusResult, CodeIsReturnedNegatedAndStored) {
    Dialogue const dialogue = WholeDialogue();
    for (std::size_t n = 1; n <= dialogue.size(); ++n) {
        Dialogue const begun(dialogue.begin(), dialogue.begin() + static_cast<std::ptrdiff_t>(n));
        EXPECT_EQ(RunTo(begun, Status(2, "no such file", "en")), "-2");
        EXPECT_EQ(StatusText(status), "2 no such file en");
        EXPECT_EQ(RunTo(begun, Status(1, "", "")), "-1");
        EXPECT_EQ(StatusText(status), "1  ");
        EXPECT_EQ(RunTo(begun, Status(0x7fffffff)), "-2147483647");
        EXPECT_EQ(RunTo(begun, Status(0x80000000)), "-2147483648");
    }
}

TEST_P(SftpStatusResult, NegativeCodeIsAPositiveResult) {
    EXPECT_EQ(RunTo(WholeDialogue(), Status(0xfffffffb)), "5");
    EXPECT_EQ(status._code, -5);
}

TEST_P(SftpStatusResult, SuccessStatusIsStored) {
    EXPECT_EQ(RunTo(WholeDialogue(), Status(0, "fine", "de")), "0");
    EXPECT_EQ(StatusText(status), "0 fine de");
}

TEST_P(SftpStatusResult, OtherReplyIsAViolation) {
    ExpectViolations(WholeDialogue(), [&](auto& session) { return GetParam().call(session, status, "/f"); });
}

TEST_P(SftpStatusResult, ReplyToAnotherRequestIsAViolation) {
    // After Start, the operation's own requests have the ids from 1 on.
    auto const id = static_cast<std::uint32_t>(WholeDialogue().size());
    for (std::uint32_t const other : {id - 1, id + 1, 0xffffffffu}) {
        Message const reply(Writer().U8(101).U32(other).U32(0).String("x").String("y"));
        EXPECT_EQ(RunTo(WholeDialogue(), reply), "SshProtocolError: invalid request id");
    }
}

TEST_P(SftpStatusResult, TruncatedReplyIsAViolation) {
    EXPECT_EQ(RunTo(WholeDialogue(), Message(peer::Bytes{101, 0, 0, 0})),
              "SshProtocolError: error reading sftp response");
    EXPECT_EQ(RunTo(WholeDialogue(), Message(101, Writer().U32(0))), "SshProtocolError: invalid input");
}

INSTANTIATE_TEST_SUITE_P(All, SftpStatusResult, testing::ValuesIn(AllOperations()), Name);

TEST_F(SftpAttributes, AreReturnedToTheCaller) {
    SftpStatus status = Marked();
    SftpFileAttr attrs;
    EXPECT_EQ(Run({{Stat("/f"), Attrs(AllAttrs(0x123456789a, 5, 6, 0100644))},
                   {Lstat("/f"), Attrs(Extended())},
                   {Fstat("hdl"), Attrs(NoAttrs())}},
                  [&](auto& session) {
                      EXPECT_EQ(session.Stat(status, "/f", attrs), 0);
                      EXPECT_EQ(Describe(attrs), "15 78187493530 5 6 33188 1001 1002 ");
                      attrs = SftpFileAttr();
                      EXPECT_EQ(session.Lstat(status, "/f", attrs), 0);
                      EXPECT_EQ(Describe(attrs), "2147483653 9 0 0 416 0 0 ");
                      return session.Fstat(status, SomeHandle(), attrs);
                  }),
              "0");
    EXPECT_EQ(attrs._flags, 0u);
    EXPECT_EQ(StatusText(status), "77 before xx");
}

TEST_F(SftpAttributes, RefusedStatKeepsThem) {
    SftpStatus status;
    SftpFileAttr attrs = SftpFileAttr::Default(0600);
    EXPECT_EQ(Run({{Stat("/f"), Status(3)}, {Lstat("/f"), Status(3)}, {Fstat("hdl"), Status(3)}},
                  [&](auto& session) {
                      EXPECT_EQ(session.Stat(status, "/f", attrs), -3);
                      EXPECT_EQ(session.Lstat(status, "/f", attrs), -3);
                      return session.Fstat(status, SomeHandle(), attrs);
                  }),
              "-3");
    EXPECT_EQ(Describe(attrs), "4 0 0 0 384 0 0 ");
}

TEST_F(SftpAttributes, ModeIsSentUnchanged) {
    for (std::uint32_t const mode : {0u, 07777u, 0100644u, 0xffffffffu}) {
        EXPECT_EQ(Run({{SetStat("/f", Mode(mode)), Done()},
                       {SetFstat("hdl", Mode(mode)), Done()},
                       {Mkdir("/f", Mode(mode)), Done()}},
                      [&](auto& session) {
                          SftpStatus status;
                          EXPECT_EQ(session.Chmod(status, "/f", mode), 0);
                          EXPECT_EQ(session.Fchmod(status, SomeHandle(), mode), 0);
                          return session.Mkdir(status, "/f", mode);
                      }),
                  "0");
    }
}

TEST_F(SftpAttributes, MissingOwnersAreSentBackAsZero) {
    EXPECT_EQ(Chown(Attrs(Mode(0644)), Writer().U32(6).U32(7).U32(0).U32(0644)), "0");
    EXPECT_EQ(Chgrp(Attrs(Mode(0644)), Writer().U32(6).U32(0).U32(7).U32(0644)), "0");
    EXPECT_EQ(Chown(Attrs(NoAttrs()), Owner(7, 0)), "0");
    EXPECT_EQ(Chgrp(Attrs(NoAttrs()), Owner(0, 7)), "0");
}

TEST_F(SftpAttributes, ExtendedPairsAreSentBackAsTheFlagOnly) {
    EXPECT_EQ(Chown(Attrs(Extended()), Writer().U32(0x80000007).U64(9).U32(7).U32(0).U32(0640)), "0");
    EXPECT_EQ(Chgrp(Attrs(Extended()), Writer().U32(0x80000007).U64(9).U32(0).U32(7).U32(0640)), "0");
}

TEST_F(SftpAttributes, FchownSendsThemBack) {
    peer::Bytes const sent = Writer().U32(0x80000007).U64(9).U32(7).U32(0).U32(0640);
    peer::Bytes const sentNext = Writer().U32(6).U32(0).U32(8).U32(0644);
    EXPECT_EQ(Run({{Fstat("hdl"), Attrs(Extended())},
                   {SetFstat("hdl", sent), Done()},
                   {Fstat("hdl"), Attrs(Mode(0644))},
                   {SetFstat("hdl", sentNext), Done()}},
                  [&](auto& session) {
                      SftpStatus status;
                      EXPECT_EQ(session.Fchown(status, SomeHandle(), 7), 0);
                      return session.Fchgrp(status, SomeHandle(), 8);
                  }),
              "0");
}

// A result of Stat that is not negative does not end it.
TEST_F(SftpAttributes, MissingAttributesAreSentBackAsNone) {
    for (std::uint32_t const code : {0u, 0xfffffffbu}) {
        EXPECT_EQ(Chown(Status(code), Owner(7, 0)), "0");
        EXPECT_EQ(Chgrp(Status(code), Owner(0, 7)), "0");
        EXPECT_EQ(Run({{Fstat("hdl"), Status(code)}, {SetFstat("hdl", Owner(7, 0)), Status(4)}},
                      [](auto& session) {
                          SftpStatus status;
                          return session.Fchown(status, SomeHandle(), 7);
                      }),
                  "-4");
    }
}

TEST_F(SftpAttributes, EmptyHandleIsStillSent) {
    EXPECT_EQ(Run({{Fstat(""), Status(4, "bad handle")}},
                  [](auto& session) {
                      SftpStatus status;
                      return session.Fchown(status, SftpFileHandle(), 7);
                  }),
              "-4");
}

TEST_F(SftpReadlink, TargetIsTheServersName) {
    EXPECT_EQ(ReadlinkWith(Names({"../x"})), "0 ../x");
    EXPECT_EQ(ReadlinkWith(Names({"/etc/x\n\x1b[2J"})), "0 /etc/x\n\x1b[2J");
    EXPECT_EQ(StatusText(status), "77 before xx");
}

TEST_F(SftpReadlink, AnythingButOneNameIsABadMessage) {
    EXPECT_EQ(ReadlinkWith(Names({})), "-5 before");
    EXPECT_EQ(ReadlinkWith(Names({"a", "b"})), "-5 before");
    EXPECT_EQ(StatusText(status), "77 before xx");
}

TEST_F(SftpReadlink, RefusalKeepsTheTarget) { EXPECT_EQ(ReadlinkWith(Status(2)), "-2 before"); }

TEST_F(SftpReadlink, EmptyTargetIsAViolation) {
    EXPECT_EQ(ReadlinkWith(Names({""})), "SshProtocolError: input too short before");
}

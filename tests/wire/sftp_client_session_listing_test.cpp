// SftpClientSession: directories as sets of entries.

#include "wire/sftp_session_fixture.h"

using namespace sftp;
using cindral::DirEntry;
using cindral::SftpStatus;
using peer::Writer;

namespace {

using Entries = TSet<DirEntry, DirEntry::Compare>;

class SftpListDir : public SftpSessionTest {
protected:
    /// The outcome of ListDir, with the names that are in the set then.
    std::string ListDir(Dialogue const& dialogue, char const* path, int all = 0) {
        std::string outcome =
            Run(dialogue, [&](auto& session) { return session.ListDir(status, entries, path, all); });
        Entries::ConstIterator next(entries, 0);
        while (DirEntry const* const entry = next()) outcome += " " + Text(entry->_name);
        return outcome;
    }
    /// The same for a set that is empty.
    std::string ListFresh(Dialogue const& dialogue, char const* path, int all = 0) {
        entries = Entries();
        return ListDir(dialogue, path, all);
    }
    DirEntry const& Entry(char const* name) const {
        DirEntry const* const entry = entries.Find(DirEntry(name));
        if (!entry) throw std::runtime_error("no such entry");
        return *entry;
    }

    Entries entries;
    SftpStatus status = Marked();
};

/// What finds these files by their pattern in /home/u.
Dialogue Matching(std::string const& pattern, std::vector<std::string> const& entries) {
    return NoDirectory("/home/u/" + pattern) + NoDirectory("/home/u/" + pattern) +
           Listing("/home/u", entries);
}

Exchange Look(std::string const& entry, Message const& answer = Attrs(Mode(0100644))) {
    return {Lstat("/home/u/" + entry), answer};
}

} // namespace

TEST_F(SftpListDir, SequenceForADirectoryIsExact) {
    EXPECT_EQ(ListDir({{OpenDir("/home/u/d"), Opened("handle")},
                       {ReadDir("handle"), Names({"b", ".."})},
                       {ReadDir("handle"), Names({".", "c", "a"})},
                       {ReadDir("handle"), Status(1)},
                       {Close("handle"), Done()}},
                      "d"),
              "3 a b c");
    EXPECT_EQ(StatusText(status), "77 before xx");
}

TEST_F(SftpListDir, SequenceForAPlainFileIsExact) {
    EXPECT_EQ(ListDir({{OpenDir("/home/u/f"), Status(4)},
                       {OpenDir("/home/u/f"), Status(4)},
                       {OpenDir("/home/u"), Opened("handle")},
                       {ReadDir("handle"), Names({"e", "f", "ff"})},
                       {ReadDir("handle"), Status(1)},
                       {Close("handle"), Done()},
                       {Lstat("/home/u/f"), Attrs(AllAttrs(9, 5, 6, 0100640))}},
                      "f"),
              "1 /home/u/f");
    DirEntry const& entry = Entry("/home/u/f");
    EXPECT_EQ(Text(entry._longname), "");
    EXPECT_EQ(entry._status.st_size, 9);
    EXPECT_EQ(entry._status.st_uid, 5u);
    EXPECT_EQ(entry._status.st_gid, 6u);
    EXPECT_EQ(entry._status.st_mode, 0100640u);
    EXPECT_EQ(entry._status.st_mtime, 1002);
    EXPECT_EQ(StatusText(status), "77 before xx");
}

TEST_F(SftpListDir, EntriesHaveTheServersNamesAndAttributes) {
    EXPECT_EQ(ListDir(Listing("/d", {"a"}, AllAttrs(9, 5, 6, 0100640)), "/d"), "1 a");
    EXPECT_EQ(Text(Entry("a")._longname), "-a");
    EXPECT_EQ(Entry("a")._status.st_size, 9);
    EXPECT_EQ(Entry("a")._status.st_uid, 5u);
    EXPECT_EQ(Entry("a")._status.st_mode, 0100640u);
    peer::Bytes const extended =
        Writer().U32(0x80000004).U32(0755).U32(2).String("a@b").String("").String("c@d").String("x");
    EXPECT_EQ(ListFresh(Listing("/d", {"a", "b"}, extended), "/d"), "2 a b");
    EXPECT_EQ(Entry("b")._status.st_mode, 0755u);
}

TEST_F(SftpListDir, HiddenNamesAreListedOnRequest) {
    std::vector<std::string> const names = {".", "..", ".h", "...", "a", "a.b"};
    EXPECT_EQ(ListDir(Listing("/d", names), "/d", 0), "2 a a.b");
    EXPECT_EQ(ListFresh(Listing("/d", names), "/d", 1), "4 ... .h a a.b");
    EXPECT_EQ(ListFresh(Listing("/d", names), "/d", -1), "4 ... .h a a.b");
}

TEST_F(SftpListDir, EmptyDirectoryHasNoEntries) {
    EXPECT_EQ(ListDir(Listing("/d", {}), "/d"), "0");
    EXPECT_EQ(ListDir(Listing("/d", {".", ".."}), "/d", 1), "0");
    EXPECT_EQ(ListDir({{OpenDir("/d"), Opened("h")}, {ReadDir("h"), Names({})}, {Close("h"), Done()}}, "/d"),
              "0");
    EXPECT_EQ(StatusText(status), "77 before xx");
}

TEST_F(SftpListDir, RepeatedNameIsCountedTwice) {
    EXPECT_EQ(ListDir({{OpenDir("/d"), Opened("h")},
                       {ReadDir("h"), Names({"a", "b"}, Mode(0100600))},
                       {ReadDir("h"), Names({"a"}, Mode(0100644))},
                       {ReadDir("h"), Status(1)},
                       {Close("h"), Done()}},
                      "/d"),
              "3 a b");
    EXPECT_EQ(Entry("a")._status.st_mode, 0100600u);
}

TEST_F(SftpListDir, ExistingEntriesAreKept) {
    EXPECT_EQ(ListDir(Listing("/d", {"a", "b"}), "/d"), "2 a b");
    EXPECT_EQ(ListDir(Listing("/e", {"b", "c"}), "/e"), "2 a b c");
}

TEST_F(SftpListDir, EmptyNameIsTheCurrentDirectory) {
    EXPECT_EQ(ListDir(Listing("/home/u", {"a"}), ""), "1 a");
    EXPECT_EQ(ListFresh(Listing("/home/v", {"a"}), "../v/."), "1 a");
    EXPECT_EQ(ListFresh(Listing("/x/../y", {"a"}), "/x/../y"), "1 a");
}

TEST_F(SftpListDir, FailureDuringTheListingEndsItSilently) {
    EXPECT_EQ(ListDir({{OpenDir("/d"), Opened("h")},
                       {ReadDir("h"), Names({"a"})},
                       {ReadDir("h"), Status(4)},
                       {Close("h"), Status(4)}},
                      "/d"),
              "1 a");
    EXPECT_EQ(
        ListFresh({{OpenDir("/d"), Opened("h")}, {ReadDir("h"), Status(3)}, {Close("h"), Done()}}, "/d"),
        "0");
    EXPECT_EQ(StatusText(status), "77 before xx");
}

TEST_F(SftpListDir, NamesOfTheServerAreNotChecked) {
    std::vector<std::string> const names = {"x\ny", "\x1b[2J", "../x", "/etc/x", "a/.."};
    EXPECT_EQ(ListDir(Listing("/d", names), "/d", 1), "5 \x1b[2J ../x /etc/x a/.. x\ny");
    EXPECT_EQ(ListFresh(Listing("/d", names), "/d", 0), "4 \x1b[2J /etc/x a/.. x\ny");
}

TEST_F(SftpListDir, EmptyNameOfTheServerIsAViolation) {
    EXPECT_EQ(ListDir({{OpenDir("/d"), Opened("h")}, {ReadDir("h"), Names({""})}}, "/d"),
              "SshProtocolError: input too short");
    // So is an empty long form.
    peer::Bytes const names = Writer().U32(1).String("a").String("").Raw(NoAttrs());
    EXPECT_EQ(ListFresh({{OpenDir("/d"), Opened("h")},
                         {ReadDir("h"), Names({"b"})},
                         {ReadDir("h"), Message(104, names)},
                         {Close("h"), Done()}},
                        "/d"),
              "SshProtocolError: input too short b");
}

TEST_F(SftpListDir, LongDirectoryIsListedCompletely) {
    Dialogue dialogue{{OpenDir("/d"), Opened("h")}};
    for (int batch = 0; batch < 20; ++batch) {
        std::vector<std::string> names;
        for (int i = 0; i < 500; ++i) names.push_back(std::to_string(batch * 500 + i));
        dialogue.push_back({ReadDir("h"), Names(names)});
    }
    dialogue.push_back({ReadDir("h"), Status(1)});
    dialogue.push_back({Close("h"), Done()});
    EXPECT_EQ(ListDir(dialogue, "/d").substr(0, 6), "10000 ");
    EXPECT_EQ(entries.Size(), 10000u);
}

TEST_F(SftpListDir, PatternListsFullNamesIncludingHidden) {
    EXPECT_EQ(
        ListDir(Matching("*.c", {"b.c", ".c", "a.h", "a.c"}) + Dialogue{Look("b.c"), Look(".c"), Look("a.c")},
                "*.c"),
        "3 /home/u/.c /home/u/a.c /home/u/b.c");
    EXPECT_EQ(StatusText(status), "77 before xx");
}

TEST_F(SftpListDir, VanishedMatchIsOmittedButCounted) {
    EXPECT_EQ(
        ListDir(Matching("?", {"a", "b", "c"}) + Dialogue{Look("a"), Look("b", Status(2, "gone")), Look("c")},
                "?"),
        "3 /home/u/a /home/u/c");
    EXPECT_EQ(StatusText(status), "2 gone en");
}

TEST_F(SftpListDir, MatchWithoutAttributesIsListedOnSuccess) {
    EXPECT_EQ(
        ListDir(Matching("?", {"a", "b"}) + Dialogue{Look("a", Status(0)), Look("b", Status(0xfffffffb))},
                "?"),
        "2 /home/u/a");
    EXPECT_EQ(Entry("/home/u/a")._status.st_mode, 0u);
}

TEST_F(SftpListDir, DirectoryThatMatchesAPatternIsNotEntered) {
    EXPECT_EQ(ListDir(Matching("d*", {"d1"}) + Dialogue{Look("d1", Attrs(Mode(040755)))}, "d*"),
              "1 /home/u/d1");
    EXPECT_EQ(Entry("/home/u/d1")._status.st_mode, 040755u);
}

TEST_F(SftpListDir, MissingNameHasNoEntries) {
    EXPECT_EQ(ListDir(Matching("x", {"y"}), "x"), "0");
    EXPECT_EQ(ListDir(Matching("x*", {}), "x*"), "0");
    EXPECT_EQ(
        ListDir(NoDirectory("/no/x") + NoDirectory("/no/x") + NoDirectory("/no") + NoDirectory("/"), "/no/x"),
        "0");
    EXPECT_EQ(StatusText(status), "77 before xx");
}

TEST_F(SftpListDir, DirectoryThatOpensOnTheSecondTryIsListedItself) {
    EXPECT_EQ(
        ListDir(NoDirectory("/d") + Listing("/d", {}) + Dialogue{{Lstat("/d"), Attrs(Mode(040700))}}, "/d"),
        "1 /d");
}

TEST_F(SftpListDir, OtherReplyIsAViolation) {
    Dialogue const directory = {{OpenDir("/d"), Opened("h")},
                                {ReadDir("h"), Names({"a"})},
                                {ReadDir("h"), Names({"b"})},
                                {ReadDir("h"), Status(1)},
                                {Close("h"), Done()}};
    ExpectViolations(
        directory, [&](auto& session) { return session.ListDir(status, entries, "/d", 1); },
        [&](std::size_t i) { return ClosingAfter(directory, i); });

    Dialogue const file = Matching("f", {"f"}) + Dialogue{Look("f")};
    ExpectViolations(
        file, [&](auto& session) { return session.ListDir(status, entries, "f", 1); },
        [&](std::size_t i) { return ClosingAfter(file, i); });
}

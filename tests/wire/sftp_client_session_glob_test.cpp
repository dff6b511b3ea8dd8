// SftpClientSession: how remote patterns are expanded.

#include <pthread.h>

#include <algorithm>
#include <functional>
#include <stdexcept>

#include "wire/sftp_session_fixture.h"

using namespace sftp;
using cindral::SftpClient;
using cindral::SftpStatus;
using testing::ElementsAre;

namespace {

using DirReader = SftpClient::DirReader;

class SftpGlob : public SftpSessionTest {
protected:
    /// The outcome of Glob, with the names after it. The status must be unchanged.
    std::string Glob(Dialogue const& dialogue, Pathname const& pattern) {
        return WithNames(dialogue, [&](auto& session) { return session.Glob(status, names, pattern); });
    }
    std::string GlobRec(Dialogue const& dialogue, Pathname const& path, String_t const& rest) {
        return WithNames(dialogue, [&](auto& session) { return session.GlobRec(status, names, path, rest); });
    }
    /// The outcome of ReadDir for a reader of /a, with the names after it.
    std::string ReadInto(Dialogue const& dialogue, String_t const& pattern, String_t const& dir,
                         std::function<void(DirReader&)> const& prepare = {}) {
        return WithNames(dialogue, [&](auto& session) {
            DirReader reader(session._client, "/a");
            if (prepare) prepare(reader);
            return session.ReadDir(reader, pattern, names, dir);
        });
    }
    /// What Glob of "/a/" and a pattern finds in a directory that has these names.
    std::string GlobIn(std::vector<std::string> const& entries, std::string const& pattern) {
        names.Clear();
        return Glob(NoDirectory("/a/" + pattern) + Listing("/a", entries), ("/a/" + pattern).c_str());
    }

    TOList<String_t> names;
    SftpStatus status = Marked();

private:
    std::string WithNames(Dialogue const& dialogue, Call const& call) {
        std::string outcome = Run(dialogue, call);
        for (std::string const& name : Texts(names)) outcome += " " + name;
        EXPECT_EQ(StatusText(status), "77 before xx");
        return outcome;
    }
};

/// The replies to opening a directory only: the names in them are not read.
Dialogue Peek(std::string const& path, std::vector<std::string> const& entries) {
    return {{OpenDir(path), Opened("h")}, {ReadDir("h"), Names(entries)}, {Close("h"), Done()}};
}

/// Makes a call on a separate thread, with a stack of so many bytes.
void CallWithStack(std::size_t size, std::function<void()> call) {
    pthread_attr_t attributes;
    pthread_t thread;
    auto const start = [](void* function) -> void* {
        (*static_cast<std::function<void()>*>(function))();
        return nullptr;
    };
    pthread_attr_init(&attributes);
    bool const started = pthread_attr_setstacksize(&attributes, size) == 0 &&
                         pthread_create(&thread, &attributes, start, &call) == 0;
    pthread_attr_destroy(&attributes);
    if (!started) throw std::runtime_error("no thread");
    pthread_join(thread, nullptr);
}

} // namespace

TEST_F(SftpGlob, WildcardsInTwoComponentsReadEachMatch) {
    Dialogue const dialogue = {
        {OpenDir("/a/*/x*"), Status(2)},
        {OpenDir("/a/*"), Status(2)},
        {OpenDir("/a"), Opened("a")},
        {ReadDir("a"), Names({".", "..", "d1", "file", "d2"})},
        {ReadDir("a"), Status(1)},
        {Close("a"), Done()},
        {OpenDir("/a/d1"), Opened("d1")},
        {ReadDir("d1"), Names({"x1", "y1"})},
        {ReadDir("d1"), Names({".x", "x2"})},
        {ReadDir("d1"), Status(1)},
        {Close("d1"), Done()},
        {OpenDir("/a/file"), Status(4)},
        {OpenDir("/a/d2"), Opened("d2")},
        {ReadDir("d2"), Names({"x"})},
        {ReadDir("d2"), Status(1)},
        {Close("d2"), Done()},
    };
    EXPECT_EQ(Glob(dialogue, "/a/*/x*"), "3 /a/d1/x1 /a/d1/x2 /a/d2/x");
}

TEST_F(SftpGlob, DirectoriesWithoutAMatchAreNotCounted) {
    EXPECT_EQ(Glob(NoDirectory("/a/*/x") + NoDirectory("/a/*") + Listing("/a", {"b", "c"}) +
                       Listing("/a/b", {"y"}) + Listing("/a/c", {}),
                   "/a/*/x"),
              "0");
}

TEST_F(SftpGlob, ComponentsAfterAWildcardAreSearched) {
    EXPECT_EQ(Glob(NoDirectory("/*/b/*") + NoDirectory("/*/b") + NoDirectory("/*") +
                       Listing("/", {"d1", "d2"}) + Listing("/d1", {"b", "c"}) + Listing("/d2", {"c"}) +
                       Listing("/d1/b", {"f", "g"}),
                   "/*/b/*"),
              "2 /d1/b/f /d1/b/g");
}

TEST_F(SftpGlob, EmptyPathIsTheDirectoryItself) {
    EXPECT_EQ(Glob(Listing("./.", {}), ""), "1 .");
    names.Clear();
    EXPECT_EQ(Glob(Peek("./.", {".", "..", "f"}), Pathname()), "1 .");
}

TEST_F(SftpGlob, LeadingDotIsRemovedFromRelativeNames) {
    EXPECT_EQ(Glob(NoDirectory("./*") + Listing(".", {".", "..", ".hidden", "plain"}), "*"),
              "2 .hidden plain");
    names.Clear();
    EXPECT_EQ(Glob(NoDirectory("./d/f") + Listing("./d", {"e", "f"}), "d/f"), "1 d/f");
    names.Clear();
    EXPECT_EQ(Glob(Listing("./d", {}), "d"), "1 d");
    names.Clear();
    EXPECT_EQ(Glob(Listing("./../d", {}), "../d"), "1 ../d");
}

TEST_F(SftpGlob, DirectoryIsItsOwnMatch) {
    EXPECT_EQ(Glob(Peek("/a/b", {"c", "d"}), "/a/b"), "1 /a/b");
    names.Clear();
    EXPECT_EQ(Glob(Listing("/", {}), "/"), "1 /");
    names.Clear();
    // Even one whose name is a pattern, or is not normalised.
    EXPECT_EQ(Glob(Listing("/a/*", {}), "/a/*"), "1 /a/*");
    names.Clear();
    EXPECT_EQ(Glob(Listing("/a/../b/", {}), "/a/../b/"), "1 /a/../b/");
}

TEST_F(SftpGlob, FileIsSearchedForInItsDirectory) {
    EXPECT_EQ(GlobIn({"a", "b", "bb"}, "b"), "1 /a/b");
    names.Clear();
    EXPECT_EQ(Glob(NoDirectory("/f") + Listing("/", {"e", "f"}), "/f"), "1 /f");
}

TEST_F(SftpGlob, MissingNameHasNoMatch) {
    EXPECT_EQ(GlobIn({"a", "bb"}, "b"), "0");
    EXPECT_EQ(GlobIn({}, "*"), "0");
    EXPECT_EQ(GlobIn({".", ".."}, "*"), "0");
}

TEST_F(SftpGlob, MissingDirectoryIsSearchedForUpToTheRoot) {
    EXPECT_EQ(Glob(NoDirectory("/no/x") + NoDirectory("/no") + Listing("/", {"a"}), "/no/x"), "0");
    EXPECT_EQ(Glob(NoDirectory("/no/x") + NoDirectory("/no") + NoDirectory("/"), "/no/x"), "0");
    EXPECT_EQ(Glob(NoDirectory("./no/x") + NoDirectory("./no") + NoDirectory("."), "no/x"), "0");
}

TEST_F(SftpGlob, AllWildcardsAreSupported) {
    std::vector<std::string> const entries = {".a", "a", "ab", "b", "a*", "[", "a\\"};
    EXPECT_EQ(GlobIn(entries, "*"), "7 /a/.a /a/a /a/ab /a/b /a/a* /a/[ /a/a\\");
    EXPECT_EQ(GlobIn(entries, "?"), "3 /a/a /a/b /a/[");
    EXPECT_EQ(GlobIn(entries, "?a"), "1 /a/.a");
    EXPECT_EQ(GlobIn(entries, "[ab]"), "2 /a/a /a/b");
    EXPECT_EQ(GlobIn(entries, "[!a]"), "2 /a/b /a/[");
    EXPECT_EQ(GlobIn(entries, "a\\*"), "1 /a/a*");
    EXPECT_EQ(GlobIn(entries, "["), "1 /a/[");
    EXPECT_EQ(GlobIn(entries, "A*"), "0");
}

TEST_F(SftpGlob, TrailingSeparatorIsDropped) {
    EXPECT_EQ(Glob(NoDirectory("/a/*/") + Listing("/a", {"f", "d"}), "/a/*/"), "2 /a/f /a/d");
}

TEST_F(SftpGlob, NamesOfTheServerAreNotChecked) {
    EXPECT_EQ(GlobIn({"x\ny", "\x1b[2J", "a b", "\xff", "a/..", "../x", "...", "-rf"}, "*"),
              "8 /a/x\ny /a/\x1b[2J /a/a b /a/\xff /a/a/.. /a/../x /a/... /a/-rf");
    EXPECT_EQ(GlobIn({std::string("x\0y", 3)}, "*"), "1 /a/x");
}

TEST_F(SftpGlob, WildcardsMatchASeparatorInAName) {
    EXPECT_EQ(GlobIn({"sub/x", "/etc/x", "subx"}, "*x"), "3 /a/sub/x /a/etc/x /a/subx");
    EXPECT_EQ(GlobIn({"sub/x", "sub-x"}, "sub?x"), "2 /a/sub/x /a/sub-x");
}

TEST_F(SftpGlob, EmptyNameOfTheServerIsAViolation) {
    EXPECT_EQ(Glob({{OpenDir("/a"), Opened("h")}, {ReadDir("h"), Names({"x", ""})}}, "/a"),
              "SshProtocolError: input too short");
    EXPECT_EQ(Glob(NoDirectory("/a/*") + Dialogue{{OpenDir("/a"), Opened("h")},
                                                  {ReadDir("h"), Names({"x"})},
                                                  {ReadDir("h"), Names({""})},
                                                  {Close("h"), Done()}},
                   "/a/*"),
              "SshProtocolError: input too short");
}

TEST_F(SftpGlob, FailedListingEndsThere) {
    for (Message const& last : {Status(4), Status(1), Status(0), Names({})}) {
        names.Clear();
        EXPECT_EQ(Glob(NoDirectory("/a/*") + Dialogue{{OpenDir("/a"), Opened("h")},
                                                      {ReadDir("h"), Names({"x", "y"})},
                                                      {ReadDir("h"), last},
                                                      {Close("h"), Status(4)}},
                       "/a/*"),
                  "2 /a/x /a/y");
    }
}

TEST_F(SftpGlob, ExistingNamesAreKeptForADirectory) {
    names = List({"./old", "x"});
    EXPECT_EQ(Glob(Listing("/a", {}), "/a"), "3 ./old x /a");
    EXPECT_EQ(Glob(Listing("./b", {}), "b").substr(0, 1), "4");
    EXPECT_THAT(Texts(names), ElementsAre("old", "", "", "b")); // all of them are freed of the leading dot
}

TEST_F(SftpGlob, ExistingNamesAreReplacedByMatches) {
    names = List({"old", "older"});
    EXPECT_EQ(Glob(NoDirectory("/a/*") + Listing("/a", {"b"}), "/a/*"), "1 /a/b");
    EXPECT_EQ(Glob(NoDirectory("/a/*") + Listing("/a", {}), "/a/*"), "0");
}

TEST_F(SftpGlob, OtherReplyIsAViolation) {
    Dialogue const dialogue = NoDirectory("/a/*/x*") + NoDirectory("/a/*") + Listing("/a", {"b", "c"}) +
                              Listing("/a/b", {"x", "y"}) + NoDirectory("/a/c");
    ExpectViolations(
        dialogue,
        [&](auto& session) {
            names.Clear();
            return session.Glob(status, names, "/a/*/x*");
        },
        [&](std::size_t i) { return ClosingAfter(dialogue, i); });
    EXPECT_EQ(StatusText(status), "77 before xx");
}

TEST_F(SftpGlob, TruncatedListingIsAViolation) {
    EXPECT_EQ(Glob({{OpenDir("/a"), Message(peer::Bytes{102, 0, 0, 0})}}, "/a"),
              "SshProtocolError: error reading sftp response");
    EXPECT_EQ(Glob({{OpenDir("/a"), Opened("h")}, {ReadDir("h"), Message(104, {})}}, "/a"),
              "SshProtocolError: input too short");
    peer::Bytes const tooMany = peer::Writer().U32(0xffffffff).String("a").String("b").Raw(NoAttrs());
    EXPECT_EQ(Glob({{OpenDir("/a"), Opened("h")}, {ReadDir("h"), Message(104, tooMany)}}, "/a"),
              "SshProtocolError: input too short");
}

TEST_F(SftpGlob, RecursionWithoutAPathSendsNothing) {
    EXPECT_EQ(GlobRec({}, "", "x"), "0");
    EXPECT_EQ(GlobRec({}, Pathname(), String_t()), "0");
}

TEST_F(SftpGlob, RecursionIntoADirectoryCountsItsMatches) {
    names = List({"old"});
    EXPECT_EQ(GlobRec(Listing("/a", {"x1", "y", "x2"}), "/a", "x*"), "2 old /a/x1 /a/x2");
}

TEST_F(SftpGlob, RecursionThroughAWildcardCountsTheLevelBelow) {
    names = List({"old"});
    EXPECT_EQ(GlobRec(NoDirectory("/a/*") + Listing("/a", {"b", "c", "d"}) + Listing("/a/b", {"y"}) +
                          NoDirectory("/a/c") + Listing("/a/d", {"x"}),
                      "/a/*", "x*"),
              "3 old /a/d/x");
    names.Clear();
    EXPECT_EQ(GlobRec(NoDirectory("/a/*") + Listing("/a", {}), "/a/*", "x*"), "0");
}

TEST_F(SftpGlob, ReadDirAppendsRemainingMatches) {
    EXPECT_EQ(ReadInto(Listing("/a", {"x1", ".", "y", "..", "x2"}), "x*", "/dir"), "2 /dir/x1 /dir/x2");
    names.Clear();
    EXPECT_EQ(ReadInto(Listing("/a", {"x1", "y", "x2"}), "x*", "dir/", [](auto& reader) { ++reader; }),
              "1 dir/x2");
}

TEST_F(SftpGlob, ReadDirWithoutPatternAppendsAll) {
    EXPECT_EQ(ReadInto(Listing("/a", {".", "..", ".h", "[", "*"}), String_t(), "d"), "3 d/.h d/[ d/*");
    names.Clear();
    EXPECT_EQ(ReadInto(Listing("/a", {".", "b"}), "", "d"), "1 d/b");
}

TEST_F(SftpGlob, ReadDirWithoutDirectoryReturnsBareNames) {
    EXPECT_EQ(ReadInto(Listing("/a", {"b", "/c"}), "", ""), "2 b /c");
    names.Clear();
    EXPECT_EQ(ReadInto(Listing("/a", {"b"}), "b", String_t()), "1 b");
}

TEST_F(SftpGlob, ReadDirAppends) {
    names = List({"old"});
    EXPECT_EQ(ReadInto(Listing("/a", {"b"}), "", "/a"), "1 old /a/b");
}

TEST_F(SftpGlob, ReadDirOfAClosedReaderReturnsNone) {
    EXPECT_EQ(ReadInto(NoDirectory("/a"), "", "/a"), "0");
    EXPECT_EQ(
        ReadInto(
            Dialogue{{OpenDir("/a"), Opened("h")}, {ReadDir("h"), Names({"b", "c"})}, {Close("h"), Done()}},
            "", "/a", [](auto& reader) { reader.Close(); }),
        "0");
}

TEST_F(SftpGlob, ReadDirOfAFinishedReaderReturnsNone) {
    EXPECT_EQ(ReadInto(Listing("/a", {}), "", "/a"), "0");
    EXPECT_EQ(ReadInto(Listing("/a", {"b"}), "", "/a", [](auto& reader) { ++reader; }), "0");
    EXPECT_EQ(ReadInto(Listing("/a", {}), "", "/a", [](auto& reader) { reader.Close(); }), "0");
}

// Only the server knows the directory that a relative pattern is resolved against.
TEST_F(SftpGlob, DeepPathsNeedNoDeepStack) {
    std::string path;
    Dialogue dialogue;
    for (int depth = 0; depth < 2000; ++depth) {
        path += "/a";
        dialogue.push_back({OpenDir(path), Status(2)});
    }
    std::reverse(dialogue.begin(), dialogue.end());
    dialogue.push_back({OpenDir("/"), Status(2)});
    EXPECT_EQ(Run(dialogue,
                  [&](auto& session) {
                      int result = -1;
                      CallWithStack(512 * 1024,
                                    [&] { result = session.GlobRec(status, names, path.c_str(), "*"); });
                      return result;
                  }),
              "0");
}

// SftpClientSession: operations on all files that match a pattern.

#include <ostream>

#include "wire/sftp_session_fixture.h"

using namespace sftp;
using cindral::SftpClientSession;
using cindral::SftpStatus;
using peer::Writer;

namespace {

/// What finds these names in /home/u. The pattern is the last component.
Dialogue Matching(std::string const& pattern, std::vector<std::string> const& entries) {
    return NoDirectory("/home/u/" + pattern) + Listing("/home/u", entries);
}

/// An operation on each match, with one request for each name.
struct Operation {
    char const* name;
    std::function<Message(std::string const&)> request;
    std::function<int(SftpProgram&, SftpStatus&, char const*)> call;
};

void PrintTo(Operation const& operation, std::ostream* out) { *out << operation.name; }

std::string Name(testing::TestParamInfo<Operation> const& info) { return info.param.name; }

class SftpEachMatch : public SftpSessionTest, public testing::WithParamInterface<Operation> {
protected:
    std::string RunOn(char const* pattern, Dialogue const& dialogue) {
        return Run(dialogue, [&](auto& session) { return GetParam().call(session, status, pattern); });
    }
    /// The outcome for as many files as there are answers.
    std::string AnsweredWith(std::vector<Message> const& answers) {
        std::vector<std::string> entries;
        Dialogue requests;
        for (Message const& answer : answers) {
            entries.push_back("f" + std::to_string(entries.size()));
            requests.push_back(On(entries.back(), answer));
        }
        return RunOn("f*", Matching("f*", entries) + requests);
    }
    static Exchange On(std::string const& entry, Message const& answer = Done()) {
        return {GetParam().request("/home/u/" + entry), answer};
    }

    SftpStatus status = Marked();
};

/// Chown to 7 in a directory of files that had the mode 0600 and no known owner.
class SftpChown : public SftpSessionTest {
protected:
    /// Codes of the answers for one file. Without one for Stat there are attributes.
    struct Answers {
        std::uint32_t stat;
        std::uint32_t set;
    };

    std::string ChownAll(std::vector<Answers> const& files) {
        return RunAll(files, Owner(7, 0), Writer().U32(6).U32(7).U32(0).U32(0600),
                      [&](auto& session) { return session.Chown(status, "f*", 7); });
    }
    std::string ChgrpAll(std::vector<Answers> const& files) {
        return RunAll(files, Owner(0, 7), Writer().U32(6).U32(0).U32(7).U32(0600),
                      [&](auto& session) { return session.Chgrp(status, "f*", 7); });
    }
    /// The result of both, which must be the same.
    std::string ResultOf(std::vector<Answers> const& files) {
        std::string const outcome = ChownAll(files);
        EXPECT_EQ(ChgrpAll(files), outcome);
        return outcome;
    }

    static constexpr std::uint32_t FOUND = 0;
    static constexpr std::uint32_t SET = 0;

    SftpStatus status = Marked();

private:
    std::string RunAll(std::vector<Answers> const& files, peer::Bytes const& blind, peer::Bytes const& known,
                       Call const& call) {
        std::vector<std::string> entries;
        Dialogue requests;
        for (Answers const& answers : files) {
            entries.push_back("f" + std::to_string(entries.size()));
            std::string const path = "/home/u/" + entries.back();
            bool const isFound = answers.stat == FOUND;
            requests.push_back({Stat(path), isFound ? Attrs(Mode(0600)) : Status(answers.stat)});
            requests.push_back({SetStat(path, isFound ? known : blind), Status(answers.set)});
        }
        return Run(Matching("f*", entries) + requests, call);
    }
};

} // namespace

TEST(SftpWildcard, IsAnyOfThreeCharacters) {
    for (char const* const path : {"*", "?", "[", "a*", "/a?/b", "a[", "\\*", "[]"})
        EXPECT_TRUE(SftpClientSession::IsWildcardPath(path)) << path;
    for (char const* const path : {"", "a", "]", "{a,b}", "~", "\\", "a b", "!^-.$"})
        EXPECT_FALSE(SftpClientSession::IsWildcardPath(path)) << path;
    EXPECT_FALSE(SftpClientSession::IsWildcardPath(String_t()));
}

TEST_P(SftpEachMatch, SequenceIsExact) {
    EXPECT_EQ(
        RunOn("*.c", Matching("*.c", {"b.c", "a.h", ".c", "a.c"}) + Dialogue{On("b.c"), On(".c"), On("a.c")}),
        "0");
    EXPECT_EQ(StatusText(status), "0 done en");
    EXPECT_EQ(RunOn("/a/*/x*", NoDirectory("/a/*/x*") + NoDirectory("/a/*") + Listing("/a", {"b", "c"}) +
                                   Listing("/a/b", {"x1", "y"}) + Listing("/a/c", {"x2"}) +
                                   Dialogue{{GetParam().request("/a/b/x1"), Done()},
                                            {GetParam().request("/a/c/x2"), Done()}}),
              "0");
}

TEST_P(SftpEachMatch, NoMatchIsAFailureThatKeepsTheStatus) {
    EXPECT_EQ(RunOn("*.c", Matching("*.c", {"a.h"})), "-1");
    EXPECT_EQ(RunOn("*.c", Matching("*.c", {})), "-1");
    EXPECT_EQ(RunOn("/*", NoDirectory("/*") + NoDirectory("/")), "-1");
    EXPECT_EQ(RunOn("d*/x", NoDirectory("/home/u/d*/x") + Matching("d*", {"d1", "d2"}) +
                                Listing("/home/u/d1", {"y"}) + NoDirectory("/home/u/d2")),
              "-1");
    EXPECT_EQ(StatusText(status), "77 before xx");
}

TEST_P(SftpEachMatch, NameWithABracketIsAPattern) {
    EXPECT_EQ(RunOn("a[1]", Matching("a[1]", {"a[1]", "a1"}) + Dialogue{On("a1")}), "0");
    EXPECT_EQ(RunOn("a[1", Matching("a[1", {"a[1", "a1"}) + Dialogue{On("a[1")}), "0");
}

TEST_P(SftpEachMatch, DirectoryOfExactlyThatNameIsTheMatch) {
    EXPECT_EQ(RunOn("d*", Listing("/home/u/d*", {}) + Dialogue{On("d*")}), "0");
}

TEST_P(SftpEachMatch, BracketInTheCurrentDirectoryIsNotAPattern) {
    EXPECT_EQ(Run({{Realpath("/home/u/d"), Names({"/[d]"})}, {GetParam().request("/[d]/f"), Done()}},
                  [&](auto& session) {
                      session.Cd(status, "d");
                      return GetParam().call(session, status, "f");
                  }),
              "0");
}

TEST_P(SftpEachMatch, LastFailureIsTheResult) {
    EXPECT_EQ(AnsweredWith({Status(4)}), "-4");
    EXPECT_EQ(AnsweredWith({Status(4), Done(), Status(3), Done()}), "-3");
    EXPECT_EQ(StatusText(status), "0 done en");
    EXPECT_EQ(AnsweredWith({Done(), Status(3), Status(4, "no")}), "-4");
    EXPECT_EQ(StatusText(status), "4 no en");
}

TEST_P(SftpEachMatch, PositiveResultIsIgnored) {
    EXPECT_EQ(AnsweredWith({Status(0xfffffffb)}), "0");
    EXPECT_EQ(AnsweredWith({Status(4), Status(0xfffffffb)}), "-4");
}

TEST_P(SftpEachMatch, NamesOfTheServerAreSentBackUnchanged) {
    EXPECT_EQ(RunOn("*", Matching("*", {"..", "x\n\x1b[2J", "../y", "/etc/z", "-f", "[", "*"}) +
                             Dialogue{On("x\n\x1b[2J"), On("../y"), On("etc/z"), On("-f"), On("["), On("*")}),
              "0");
}

TEST_P(SftpEachMatch, OtherReplyIsAViolation) {
    Dialogue const dialogue = Matching("f*", {"f1", "f2"}) + Dialogue{On("f1"), On("f2")};
    ExpectViolations(
        dialogue, [&](auto& session) { return GetParam().call(session, status, "f*"); },
        [&](std::size_t i) { return ClosingAfter(dialogue, i); });
}

INSTANTIATE_TEST_SUITE_P(All, SftpEachMatch,
                         testing::Values(Operation{"Remove", [](auto& path) { return Remove(path); },
                                                   [](auto& session, auto& status, auto path) {
                                                       return session.Remove(status, path);
                                                   }},
                                         Operation{"Chmod",
                                                   [](auto& path) { return SetStat(path, Mode(04711)); },
                                                   [](auto& session, auto& status, auto path) {
                                                       return session.Chmod(status, path, 04711);
                                                   }}),
                         Name);

TEST_F(SftpChown, ReadsAndRewritesTheAttributesOfEachFile) {
    Dialogue const matching = Matching("f?", {"f2", "f", "f1"});
    EXPECT_EQ(Run(matching + Dialogue{{Stat("/home/u/f2"), Attrs(AllAttrs(0x123456789a, 1, 2, 0100600))},
                                      {SetStat("/home/u/f2", AllAttrs(0x123456789a, 7, 2, 0100600)), Done()},
                                      {Stat("/home/u/f1"), Attrs(AllAttrs(0, 3, 4, 0100644))},
                                      {SetStat("/home/u/f1", AllAttrs(0, 7, 4, 0100644)), Done()}},
                  [&](auto& session) { return session.Chown(status, "f?", 7); }),
              "0");
    EXPECT_EQ(Run(matching + Dialogue{{Stat("/home/u/f2"), Attrs(AllAttrs(0x123456789a, 1, 2, 0100600))},
                                      {SetStat("/home/u/f2", AllAttrs(0x123456789a, 1, 7, 0100600)), Done()},
                                      {Stat("/home/u/f1"), Attrs(AllAttrs(0, 3, 4, 0100644))},
                                      {SetStat("/home/u/f1", AllAttrs(0, 3, 7, 0100644)), Done()}},
                  [&](auto& session) { return session.Chgrp(status, "f?", 7); }),
              "0");
}

TEST_F(SftpChown, NoMatchIsAFailureThatKeepsTheStatus) {
    EXPECT_EQ(ResultOf({}), "-1");
    EXPECT_EQ(StatusText(status), "77 before xx");
}

TEST_F(SftpChown, UnreadAttributesAreWrittenAnyway) {
    EXPECT_EQ(ResultOf({{2, SET}}), "0");
    EXPECT_EQ(ResultOf({{2, 3}}), "-3");
    EXPECT_EQ(ResultOf({{2, SET}, {FOUND, SET}}), "0");
}

TEST_F(SftpChown, FailureToWriteIsTheResult) {
    EXPECT_EQ(ResultOf({{FOUND, 3}}), "-3");
    EXPECT_EQ(ResultOf({{FOUND, SET}, {FOUND, 3}}), "-3");
    EXPECT_EQ(ResultOf({{FOUND, 3}, {FOUND, 4}}), "-4");
}

TEST_F(SftpChown, NextFileClearsAFailure) {
    EXPECT_EQ(ResultOf({{FOUND, 3}, {FOUND, SET}}), "0");
    EXPECT_EQ(ResultOf({{2, 3}, {FOUND, SET}}), "0");
    EXPECT_EQ(ResultOf({{FOUND, 3}, {FOUND, SET}, {2, SET}}), "0");
}

TEST_F(SftpChown, FailureToReadCountsOnlyAfterAFailure) {
    EXPECT_EQ(ResultOf({{FOUND, 3}, {2, SET}}), "-2");
    EXPECT_EQ(ResultOf({{FOUND, 3}, {2, 4}}), "-4");
    EXPECT_EQ(ResultOf({{FOUND, 3}, {2, SET}, {5, SET}}), "-5");
    EXPECT_EQ(ResultOf({{FOUND, 3}, {2, SET}, {FOUND, SET}}), "0");
}

TEST_F(SftpChown, PositiveResultOfStatIsKeptAfterAFailure) {
    EXPECT_EQ(ResultOf({{0xfffffffb, SET}}), "0");
    EXPECT_EQ(ResultOf({{FOUND, 3}, {0xfffffffb, SET}, {FOUND, SET}}), "5");
    EXPECT_EQ(ResultOf({{FOUND, 3}, {0xfffffffb, SET}, {FOUND, 4}}), "-4");
    EXPECT_EQ(ResultOf({{FOUND, 3}, {FOUND, 0xfffffffb}}), "0");
}

TEST_F(SftpChown, StatusIsThatOfTheLastReply) {
    EXPECT_EQ(ChownAll({{FOUND, 3}, {2, SET}}), "-2");
    EXPECT_EQ(StatusText(status), "0 message en");
    EXPECT_EQ(ChgrpAll({{2, 4}}), "-4");
    EXPECT_EQ(StatusText(status), "4 message en");
}

TEST_F(SftpChown, OtherReplyIsAViolation) {
    Dialogue const dialogue = Matching("f*", {"f"}) + Dialogue{{Stat("/home/u/f"), Attrs(Owner(1, 2))},
                                                               {SetStat("/home/u/f", Owner(7, 2)), Done()}};
    ExpectViolations(
        dialogue, [&](auto& session) { return session.Chown(status, "f*", 7); },
        [&](std::size_t i) { return ClosingAfter(dialogue, i); });
}

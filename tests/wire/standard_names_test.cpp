// Names that a server lists, in the calls of a session with the standard dialect that write locally.

#include <brantle/sftp/sftp_client_session.h>

#include "support/temporary_directory.h"
#include "wire/standard_fixture.h"
#include "wire/standard_sftp_directory.h"

using namespace peer;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

using Session = cindral::SftpClientSession;

/// A call that works with what a pattern matches.
struct Call {
    char const* name;
    int (*make)(Session& session, char const* pattern, char const* directory);
};

int Glob(Session& session, char const* pattern, char const*) {
    cindral::SftpStatus status;
    TOList<String_t> names;
    return session.Glob(status, names, pattern);
}

int MGet(Session& session, char const* pattern, char const* directory) {
    cindral::SftpStatus status;
    return session.MGet(status, pattern, directory);
}

int MMoveToLocal(Session& session, char const* pattern, char const* directory) {
    cindral::SftpStatus status;
    return session.MMoveToLocal(status, pattern, directory);
}

class StandardNames : public StandardTest, public testing::WithParamInterface<Call> {
protected:
    /// The outcome of the call at a server whose directory has these names. What has been written is in
    /// `written`, by the paths below the place that the call's directory is in.
    std::string Match(std::vector<std::string> const& names, char const* pattern) {
        opened.clear();
        removed.clear();
        written.clear();
        Serve([&](StandardConnection& c) {
            c.WellBehaved(Stage::Opened);
            SftpServer sftp(c);
            sftp.content = "content";
            SftpDirectory directory(sftp);
            directory.names = names;
            try {
                sftp.Serve();
            } catch (Closed const&) {
            }
            opened = directory.opened;
            removed = directory.removed;
        });
        support::TemporaryDirectory const place;
        std::filesystem::path const target = place.Path() / "target";
        std::filesystem::create_directories(target / "foo");
        std::string outcome;
        {
            Session session(server->Port(), "127.0.0.1");
            cindral::StandardDialect dialect(session);
            Login(session);
            if (session.Start() != 0) return "Start";
            std::string const remote = std::string("/home/") + pattern;
            outcome = Outcome([&] { return GetParam().make(session, remote.c_str(), target.c_str()); });
            lastError = Text(dialect.LastError());
        }
        server->Finish();
        for (auto const& entry : std::filesystem::recursive_directory_iterator(place.Path()))
            if (!entry.is_directory())
                written.push_back(entry.path().lexically_relative(place.Path()).string());
        return outcome;
    }
    void ExpectNothingDone() const {
        EXPECT_THAT(written, IsEmpty());
        EXPECT_THAT(opened, IsEmpty());
        EXPECT_THAT(removed, IsEmpty());
    }

    std::vector<std::string> opened, removed, written;
    std::string lastError;
};

TEST_P(StandardNames, NameThatLeadsElsewhereEndsTheCallBeforeAnyFileIsCopied) {
    for (char const* name :
         {"foo/.bashrc", "foo/../../escaped", "/tmp/escaped", "foo/", "a\nb", "a\x1b[2J", "\x7f", "a\tb"}) {
        SCOPED_TRACE(testing::PrintToString(name));
        EXPECT_THAT(Match({"good", name}, "*"),
                    StartsWith("SshProtocolError: the server listed a name that no local file may have"));
        ExpectNothingDone();
    }
}

TEST_P(StandardNames, HiddenNameThatLeadsElsewhereEndsTheCall) {
    for (char const* name : {"../.bashrc", ".ssh/authorized_keys", "./x", ".a\nb"}) {
        SCOPED_TRACE(testing::PrintToString(name));
        EXPECT_EQ(Match({name}, "*"), "0") << "a pattern without a dot does not match it";
        ExpectNothingDone();
        EXPECT_THAT(Match({name}, ".*"), StartsWith("SshProtocolError: the server listed a name"));
        ExpectNothingDone();
    }
}

TEST_P(StandardNames, EmptyNameEndsTheCall) {
    EXPECT_THAT(Match({""}, "*"), StartsWith("SshProtocolError: "));
    ExpectNothingDone();
}

TEST_P(StandardNames, DirectoryItselfAndItsParentAreNoMatches) {
    for (char const* pattern : {"*", ".*"}) {
        EXPECT_EQ(Match({".", ".."}, pattern), "0");
        ExpectNothingDone();
    }
}

TEST_P(StandardNames, OrdinaryNameIsAMatch) {
    EXPECT_EQ(Match({".", "..", "good"}, "*"), "1");
    if (GetParam().make == Glob) return ExpectNothingDone();
    EXPECT_THAT(written, ElementsAre("target/good"));
    EXPECT_THAT(opened, ElementsAre("/home/good"));
    if (GetParam().make == MMoveToLocal) {
        EXPECT_THAT(removed, ElementsAre("/home/good"));
    }
}

TEST_P(StandardNames, RefusedNameIsShownWithoutControlCharacters) {
    EXPECT_THAT(Match({"bad\x1b[2Jname\n"}, "*"), Not(HasSubstr("\x1b")));
    EXPECT_THAT(lastError, Not(HasSubstr("\x1b")));
}

INSTANTIATE_TEST_SUITE_P(Calls, StandardNames,
                         testing::Values(Call{"Glob", Glob}, Call{"MGet", MGet},
                                         Call{"MMoveToLocal", MMoveToLocal}),
                         [](auto const& param) { return std::string(param.param.name); });

} // namespace

#include <cerrno>
#include <string>

#include <gtest/gtest.h>

#include <brantle/session/ssh_session.h>
#include <brantle/thornel/text.h>

namespace {

struct Target {
    int result;
    std::string user;
    std::string host;
};

bool operator==(Target const& a, Target const& b) {
    return a.result == b.result && a.user == b.user && a.host == b.host;
}

std::ostream& operator<<(std::ostream& out, Target const& target) {
    return out << target.result << " user \"" << target.user << "\" host \"" << target.host << '"';
}

Target Parse(char const* url) {
    String_t user("old user");
    String_t host("old host");
    int const result = cindral::SshSession::ParseUrl(url, user, host);
    return {result, user.Text() ? user.Text() : "", host.Text() ? host.Text() : ""};
}

std::string LocalUser() { return getusername(); }

} // namespace

TEST(ParseUrl, UserAndHostGetTheDefaultPort) {
    EXPECT_EQ(Parse("ann@example.org"), (Target{0, "ann", "example.org:22"}));
}

TEST(ParseUrl, PortIsKept) {
    EXPECT_EQ(Parse("ann@example.org:2222"), (Target{0, "ann", "example.org:2222"}));
}

TEST(ParseUrl, LastAtSignSeparatesTheUser) {
    EXPECT_EQ(Parse("ann@corp@example.org"), (Target{0, "ann@corp", "example.org:22"}));
    EXPECT_EQ(Parse("@@example.org"), (Target{0, "@", "example.org:22"}));
}

TEST(ParseUrl, EmptyUserStaysEmpty) { EXPECT_EQ(Parse("@example.org"), (Target{0, "", "example.org:22"})); }

TEST(ParseUrl, UserDefaultsToTheLocalUser) {
    ASSERT_NE(LocalUser(), "");
    EXPECT_EQ(Parse("example.org"), (Target{0, LocalUser(), "example.org:22"}));
    EXPECT_EQ(Parse("example.org:80"), (Target{0, LocalUser(), "example.org:80"}));
}

TEST(ParseUrl, BracketedHostGetsTheDefaultPort) {
    EXPECT_EQ(Parse("ann@[::1]"), (Target{0, "ann", "[::1]:22"}));
    EXPECT_EQ(Parse("ann@[]"), (Target{0, "ann", "[]:22"}));
}

TEST(ParseUrl, BracketedHostWithPortIsUnchanged) {
    EXPECT_EQ(Parse("ann@[::1]:2222"), (Target{0, "ann", "[::1]:2222"}));
}

TEST(ParseUrl, FirstClosingBracketEndsTheHost) {
    EXPECT_EQ(Parse("ann@[::1]]"), (Target{0, "ann", "[::1]]:22"}));
}

TEST(ParseUrl, BracketInsideTheHostIsAnOrdinaryCharacter) {
    EXPECT_EQ(Parse("ann@host[::1"), (Target{0, "ann", "host[::1"}));
}

TEST(ParseUrl, UnclosedBracketIsRefusedAfterTheAssignments) {
    EXPECT_EQ(Parse("ann@[::1"), (Target{-EINVAL, "ann", "[::1"}));
    EXPECT_EQ(Parse("[::1"), (Target{-EINVAL, LocalUser(), "[::1"}));
}

TEST(ParseUrl, TrailingColonCountsAsAPort) {
    EXPECT_EQ(Parse("ann@example.org:"), (Target{0, "ann", "example.org:"}));
    EXPECT_EQ(Parse("ann@[::1]:"), (Target{0, "ann", "[::1]:"}));
}

TEST(ParseUrl, PortIsNotChecked) {
    EXPECT_EQ(Parse("ann@example.org:http"), (Target{0, "ann", "example.org:http"}));
    EXPECT_EQ(Parse("ann@::1"), (Target{0, "ann", "::1"}));
}

TEST(ParseUrl, EmptyTextIsTheDefaultPortWithoutAHost) {
    EXPECT_EQ(Parse(""), (Target{0, LocalUser(), ":22"}));
    EXPECT_EQ(Parse("ann@"), (Target{0, "ann", ":22"}));
}

TEST(ParseUrl, TargetMayBeTheTextOfAnOutput) {
    String_t user("ann@example.org");
    String_t host("bob@[::1]");
    EXPECT_EQ(cindral::SshSession::ParseUrl(host.Text(), user, host), 0);
    EXPECT_STREQ(user.Text(), "bob");
    EXPECT_STREQ(host.Text(), "[::1]:22");
    user = "ann@example.org:2222";
    EXPECT_EQ(cindral::SshSession::ParseUrl(user.Text(), user, host), 0);
    EXPECT_STREQ(user.Text(), "ann");
    EXPECT_STREQ(host.Text(), "example.org:2222");
}

TEST(ParseUrl, NullIsRefusedAndChangesNothing) {
    EXPECT_EQ(Parse(nullptr), (Target{-EINVAL, "old user", "old host"}));
}

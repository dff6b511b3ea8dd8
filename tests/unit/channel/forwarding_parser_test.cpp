// The text form of a forwarding.

#include <cerrno>
#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include <brantle/session/ssh_session.h>

namespace {

struct Forwarding {
    int result;
    std::string bindAddress;
    unsigned int listenPort;
    std::string host;
    unsigned int port;
};

bool operator==(Forwarding const& a, Forwarding const& b) {
    return a.result == b.result && a.bindAddress == b.bindAddress && a.listenPort == b.listenPort &&
           a.host == b.host && a.port == b.port;
}

std::ostream& operator<<(std::ostream& out, Forwarding const& f) {
    return out << f.result << " on \"" << f.bindAddress << "\" " << f.listenPort << " to \"" << f.host
               << "\" " << f.port;
}

std::string Copy(String_t const& text) { return text.Text() ? text.Text() : ""; }

Forwarding Parse(char const* spec) {
    String_t bindAddress("old address");
    String_t host("old host");
    unsigned int listenPort = 1;
    unsigned int port = 2;
    int const result = cindral::SshSession::ParseFwdSpec(spec, bindAddress, listenPort, host, port);
    return {result, Copy(bindAddress), listenPort, Copy(host), port};
}

int Result(std::string const& spec) { return Parse(spec.c_str()).result; }

constexpr unsigned int MINUS_ONE = 0xffffffff;

} // namespace

TEST(ForwardingParser, BindAddressDefaultsToLocalhost) {
    EXPECT_EQ(Parse("8080:example:80"), (Forwarding{0, "localhost", 8080, "example", 80}));
}

TEST(ForwardingParser, BindAddressComesFirst) {
    EXPECT_EQ(Parse("0.0.0.0:8080:example:80"), (Forwarding{0, "0.0.0.0", 8080, "example", 80}));
    EXPECT_EQ(Parse("*:8080:example:80"), (Forwarding{0, "*", 8080, "example", 80}));
    EXPECT_EQ(Parse("1.2:8080:h:80"), (Forwarding{0, "1.2", 8080, "h", 80}));
}

TEST(ForwardingParser, HostOfDigitsIsRefused) {
    EXPECT_EQ(Parse("8080:80:80"), (Forwarding{-EINVAL, "localhost", 8080, "old host", 2}));
    EXPECT_EQ(Parse("here:8080:80:80"), (Forwarding{-EINVAL, "here", 8080, "old host", 2}));
    EXPECT_EQ(Result("8080:-80:80"), -EINVAL);
}

TEST(ForwardingParser, HostOfDigitsIsAcceptedInBrackets) {
    EXPECT_EQ(Parse("8080:[80]]80"), (Forwarding{0, "localhost", 8080, "80", 80}));
}

TEST(ForwardingParser, MissingPortIsRefused) {
    EXPECT_EQ(Parse("8080:example"), (Forwarding{-EINVAL, "localhost", 8080, "example", 2}));
    EXPECT_EQ(Parse("8080:example:"), (Forwarding{-EINVAL, "localhost", 8080, "example", 2}));
    EXPECT_EQ(Parse("8080:example::80"), (Forwarding{-EINVAL, "localhost", 8080, "example", 2}));
    EXPECT_EQ(Result("8080:[a]]"), -EINVAL);
}

TEST(ForwardingParser, MissingHostIsRefused) {
    EXPECT_EQ(Parse("8080"), (Forwarding{-EINVAL, "localhost", 8080, "old host", 2}));
    EXPECT_EQ(Parse("8080:"), (Forwarding{-EINVAL, "localhost", 8080, "old host", 2}));
    EXPECT_EQ(Parse("8080::80"), (Forwarding{-EINVAL, "localhost", 8080, "old host", 2}));
}

TEST(ForwardingParser, PortThatIsNoNumberIsRefused) {
    for (char const* port : {"http", "80x", "[80]]", "0x50", "80 ", "", "2147483648", "8 0", "+-8"})
        EXPECT_EQ(Result(std::string("8080:example:") + port), -EINVAL) << port;
}

TEST(ForwardingParser, EmptyTextIsRefused) {
    for (char const* spec : {"", " ", "\t\n", ":", ":8080:example:80", "[", "[a", "[a]"})
        EXPECT_EQ(Parse(spec), (Forwarding{-EINVAL, "old address", 1, "old host", 2})) << spec;
}

TEST(ForwardingParser, NullIsRefusedAndChangesNothing) {
    EXPECT_EQ(Parse(nullptr), (Forwarding{-EINVAL, "old address", 1, "old host", 2}));
}

TEST(ForwardingParser, SingleBracketIsRefused) {
    EXPECT_EQ(Parse("[a]:1:b:2"), (Forwarding{-EINVAL, "old address", 1, "old host", 2}));
    EXPECT_EQ(Parse("8080:[::1]:80"), (Forwarding{-EINVAL, "localhost", 8080, "old host", 2}));
}

TEST(ForwardingParser, ColonAfterBracketsIsRefused) {
    EXPECT_EQ(Parse("[::1]]8080:[fe80::1]]80"), (Forwarding{0, "::1", 8080, "fe80::1", 80}));
    EXPECT_EQ(Parse("[::1]]:8080:h:80").result, -EINVAL);
    EXPECT_EQ(Parse("8080:[h]]:80").result, -EINVAL);
}

TEST(ForwardingParser, BracketedTextMayHoldAnyCharacter) {
    EXPECT_EQ(Parse("[8080]]1:h:80"), (Forwarding{0, "8080", 1, "h", 80}));
    EXPECT_EQ(Parse("[]]1:[]]80"), (Forwarding{0, "", 1, "", 80}));
    EXPECT_EQ(Parse("[a[b:c]]1:h:80"), (Forwarding{0, "a[b:c", 1, "h", 80}));
}

TEST(ForwardingParser, BracketInsideAFieldIsAnOrdinaryCharacter) {
    EXPECT_EQ(Parse("a[b:1:c]]:80"), (Forwarding{0, "a[b", 1, "c]]", 80}));
}

TEST(ForwardingParser, BindAddressNeedsANumberAndAColonAfterIt) {
    EXPECT_EQ(Parse("here:there:host:80"), (Forwarding{-EINVAL, "here", 0, "old host", 2}));
    EXPECT_EQ(Parse("here:8080"), (Forwarding{-EINVAL, "here", 8080, "old host", 2}));
    EXPECT_EQ(Parse("here:8080x:host:80"), (Forwarding{-EINVAL, "here", 8080, "old host", 2}));
    EXPECT_EQ(Parse("here").result, -EINVAL);
}

TEST(ForwardingParser, WhiteSpaceBeforeAFieldIsSkipped) {
    EXPECT_EQ(Parse(" 8080:\texample:\n80"), (Forwarding{0, "localhost", 8080, "example", 80}));
    EXPECT_EQ(Parse(" here: 8080: example: 80"), (Forwarding{0, "here", 8080, "example", 80}));
    EXPECT_EQ(Parse("8080:[a]] 80"), (Forwarding{0, "localhost", 8080, "a", 80}));
}

TEST(ForwardingParser, WhiteSpaceAfterAFieldBelongsToIt) {
    EXPECT_EQ(Parse("8080:example :80"), (Forwarding{0, "localhost", 8080, "example ", 80}));
    EXPECT_EQ(Parse("8080 :1:example:80"), (Forwarding{0, "8080 ", 1, "example", 80}));
}

TEST(ForwardingParser, WhiteSpaceBetweenClosingBracketsIsRefused) {
    EXPECT_EQ(Parse("[a] ]1:b:2"), (Forwarding{-EINVAL, "old address", 1, "old host", 2}));
    EXPECT_EQ(Parse("8080:[a]\t]80"), (Forwarding{-EINVAL, "localhost", 8080, "old host", 2}));
}

TEST(ForwardingParser, WhiteSpaceInFrontOfTheColonAfterANumberIsRefused) {
    EXPECT_EQ(Parse("bind:8080 :h:1"), (Forwarding{-EINVAL, "bind", 8080, "old host", 2}));
    EXPECT_EQ(Parse("[bind]]8080\n:h:1"), (Forwarding{-EINVAL, "bind", 8080, "old host", 2}));
}

TEST(ForwardingParser, TextAfterThePortIsIgnored) {
    EXPECT_EQ(Parse("8080:example:80:and so on"), (Forwarding{0, "localhost", 8080, "example", 80}));
    EXPECT_EQ(Parse("8080:example:80:"), (Forwarding{0, "localhost", 8080, "example", 80}));
}

TEST(ForwardingParser, PortsAreNotCheckedForSignOrRange) {
    EXPECT_EQ(Parse("-1:example:+80"), (Forwarding{0, "localhost", MINUS_ONE, "example", 80}));
    EXPECT_EQ(Parse("0:example:-1"), (Forwarding{0, "localhost", 0, "example", MINUS_ONE}));
    EXPECT_EQ(Parse("2147483647:h:65536"), (Forwarding{0, "localhost", 2147483647, "h", 65536}));
    EXPECT_EQ(Parse("here:4294967295:h:80"), (Forwarding{0, "here", MINUS_ONE, "h", 80}));
    EXPECT_EQ(Result("here:4294967296:h:80"), -EINVAL);
}

TEST(ForwardingParser, NumberThatIsTooLargeIsABindAddress) {
    EXPECT_EQ(Parse("2147483648:1:h:80"), (Forwarding{0, "2147483648", 1, "h", 80}));
}

TEST(ForwardingParser, SpecMayBeTheTextOfAnOutput) {
    String_t bindAddress("8080:example:80");
    String_t host;
    unsigned int listenPort = 0;
    unsigned int port = 0;
    EXPECT_EQ(cindral::SshSession::ParseFwdSpec(bindAddress.Text(), bindAddress, listenPort, host, port), 0);
    EXPECT_STREQ(bindAddress.Text(), "localhost");
    EXPECT_STREQ(host.Text(), "example");
}

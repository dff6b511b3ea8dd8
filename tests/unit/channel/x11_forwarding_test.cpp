// The local display of X11 forwarding: its text, its entry in xauth, cookies, and the connection to it.

#include <brantle/channel/x11_forwarding.h>

#include <unistd.h>

#include <cerrno>
#include <set>
#include <string>

#include <gmock/gmock.h>

#include <brantle/thornel/file_descriptor.h>

#include "support/text.h"
#include "support/x11/fake_xauth.h"
#include "support/x11/scripted_x_server.h"

using support::Text;
using namespace cindral;
using testing::ElementsAre;
using testing::IsEmpty;
using x11::FakeXauth;
using x11::ScriptedXServer;
using x11::Transport;

namespace {

using Forwarding = SshSession::X11Forwarding;

std::string const cookieText = "000102030405060708090a0b0c0dfeff";
std::string const cookie("\0\1\2\3\4\5\6\7\x8\x9\xa\xb\xc\xd\xfe\xff", 16);

struct DisplayParts {
    char const* text;
    char const* host;
    unsigned int number;
    unsigned int screen;
};

} // namespace

// --- the display text

TEST(X11Display, IsSplitAtColonsAndDots) {
    FakeXauth const xauth("");
    for (DisplayParts const& parts : {
             DisplayParts{"localhost:10.0", "localhost", 10, 0},
             {"localhost:10.3", "localhost", 10, 3},
             {"unix:0", "unix", 0, 0},
             {":0", "", 0, 0},
             {":0.1", "", 0, 1},
             {"host:999", "host", 999, 0},
             {"host:1000.2", "host", 1000, 2},
             {"host", "host", 0, 0},
             {"host:", "host", 0, 0},
             {":", "", 0, 0},
             {"host:.5", "host", 0, 5},
             {"host::2", "host", 0, 2},
             {"host:12x.7y", "host", 12, 7},
             {"host:x.y", "host", 0, 0},
             {"host:1.2.3", "host", 1, 2},
             {"192.0.2.1:5", "192", 0, 2}, // a dotted host ends at its first dot
             {"host:-1", "host", 0xffffffff, 0},
         }) {
        Forwarding const forwarding(parts.text, 0);
        EXPECT_EQ(Text(forwarding._display), parts.text);
        EXPECT_EQ(Text(forwarding._host), parts.host) << parts.text;
        EXPECT_EQ(forwarding._displayNumber, parts.number) << parts.text;
        EXPECT_EQ(forwarding._screenNumber, parts.screen) << parts.text;
        EXPECT_EQ(Text(forwarding._localSocket), "/tmp/.X11-unix/X" + std::to_string(parts.number));
    }
}

TEST(X11Display, EmptyTextIsNumber0) {
    FakeXauth const xauth("");
    Forwarding const forwarding(String_t(), 0);
    EXPECT_EQ(Text(forwarding._host), "");
    EXPECT_EQ(forwarding._displayNumber, 0u);
    EXPECT_EQ(Text(forwarding._localSocket), "/tmp/.X11-unix/X0");
    EXPECT_THAT(xauth.Calls(), ElementsAre("list"));
}

TEST(X11Display, ConstantsHaveTheirValues) {
    EXPECT_STREQ(Forwarding::_defaultAuthMethod, "MIT-MAGIC-COOKIE-1");
    EXPECT_STREQ(Forwarding::_localSocketPrefix, "/tmp/.X11-unix/X");
}

// --- xauth

TEST(X11Xauth, ListsTheDisplayWithUnixForLocalhost) {
    FakeXauth const xauth("");
    for (char const* display : {"localhost:10.0", ":0", "unix:0", "host:1", "localhost", "localhost.:2"})
        Forwarding(display, 0);
    EXPECT_THAT(xauth.Calls(), ElementsAre("list|unix:10.0", "list|:0", "list|unix:0", "list|host:1",
                                           "list|localhost", "list|localhost.:2"));
}

TEST(X11Xauth, DisplayIsPassedToTheShellUnquoted) {
    FakeXauth const xauth("");
    Forwarding const forwarding(":1 '2  3'", 0);
    EXPECT_THAT(xauth.Calls(), ElementsAre("list|:1|2  3"));
}

TEST(X11Xauth, EntryGivesMethodAndCookie) {
    FakeXauth const xauth("host/unix:0  XDM-AUTHORIZATION-1  " + cookieText + "\n");
    Forwarding const forwarding(":0", 0);
    EXPECT_EQ(Text(forwarding._authMethod), "XDM-AUTHORIZATION-1");
    EXPECT_EQ(Text(forwarding._realCookie), cookie);
}

TEST(X11Xauth, OnlyTheFirstLineCounts) {
    FakeXauth const xauth("host/unix:0  MIT-MAGIC-COOKIE-1  " + cookieText + "\nhost:0  OTHER  ffff\n");
    Forwarding const forwarding(":0", 0);
    EXPECT_EQ(Text(forwarding._authMethod), "MIT-MAGIC-COOKIE-1");
    EXPECT_EQ(Text(forwarding._realCookie), cookie);
}

TEST(X11Xauth, LongListIsLeftUnread) {
    std::string list = "a  m  0123\n";
    for (int i = 0; i < 100000; ++i) list += "b  n  4567\n";
    FakeXauth const xauth(list);
    Forwarding const forwarding(":0", 0);
    EXPECT_EQ(Text(forwarding._realCookie), "\x01\x23");
}

TEST(X11Xauth, MalformedLinesGiveTheFieldsThatTheyHave) {
    struct {
        char const* line;
        char const* method;
        std::string cookie;
    } const lines[] = {
        {"", "MIT-MAGIC-COOKIE-1", ""},
        {"\n", "MIT-MAGIC-COOKIE-1", ""},
        {"   \n", "MIT-MAGIC-COOKIE-1", ""},
        {"\nhost  METHOD  0123\n", "MIT-MAGIC-COOKIE-1", ""},
        {"host\n", "MIT-MAGIC-COOKIE-1", ""},
        {"host \n", "MIT-MAGIC-COOKIE-1", ""},
        {"host METHOD\n", "METHOD", ""},
        {"host METHOD  \n", "METHOD", ""},
        {"host METHOD 0123", "METHOD", "\x01\x23"}, // without line end
        {" host     METHOD   aBCd further words\n", "METHOD", "\xab\xcd"},
        {"host METHOD abc\n", "METHOD", "\xab"}, // half of an odd length, rounded down
        {"host METHOD a\n", "METHOD", ""},
        {"host METHOD abcdxy\n", "METHOD", ""}, // no cookie at all
        {"host METHOD no-cookie\n", "METHOD", ""},
        {"host\tMETHOD\t0123\n", "MIT-MAGIC-COOKIE-1", ""}, // only blanks separate
    };
    for (auto const& [line, method, bytes] : lines) {
        FakeXauth const xauth(line);
        Forwarding const forwarding(":0", 0);
        EXPECT_EQ(Text(forwarding._authMethod), method) << '"' << line << '"';
        EXPECT_EQ(Text(forwarding._realCookie), bytes) << '"' << line << '"';
    }
}

TEST(X11Xauth, CookiesOfAllLengthsAreRead) {
    for (std::size_t length : {1u, 8u, 16u, 255u, 256u, 257u, 600u}) {
        std::string text;
        for (std::size_t i = 0; i < length; ++i) text += "5a";
        FakeXauth const xauth("host METHOD " + text + "\n");
        Forwarding const forwarding(":0", 0);
        EXPECT_EQ(Text(forwarding._realCookie), std::string(length, 'Z'));
    }
}

TEST(X11Xauth, ExitStatusIsIgnored) {
    FakeXauth const xauth("host METHOD 0123\n", 1);
    EXPECT_EQ(Text(Forwarding(":0", 0)._realCookie), "\x01\x23");
}

TEST(X11Xauth, CookieIsEmptyWithoutXauth) {
    x11::NoXauth const none;
    Forwarding const forwarding(":0", 0);
    EXPECT_EQ(Text(forwarding._authMethod), "MIT-MAGIC-COOKIE-1");
    EXPECT_EQ(forwarding._realCookie.Length(), 0u);
    EXPECT_EQ(forwarding._fakeCookie.Length(), 16u);
}

// --- cookies

TEST(X11Cookie, FakeCookieIsRandom) {
    FakeXauth const xauth("host METHOD " + cookieText + "\n");
    std::set<std::string> seen{cookie};
    for (int i = 0; i < 20; ++i) {
        Forwarding const forwarding(":0", 0);
        EXPECT_EQ(forwarding._fakeCookie.Length(), 16u);
        EXPECT_TRUE(seen.insert(Text(forwarding._fakeCookie)).second);
    }
}

TEST(X11Cookie, TextIsLowerCaseHexadecimal) {
    EXPECT_EQ(Text(Forwarding::CookieString(ByteString(cookie.data(), 16))), cookieText);
    EXPECT_EQ(Text(Forwarding::CookieString(ByteString("\xAB", 1))), "ab");
    EXPECT_EQ(Text(Forwarding::CookieString(ByteString())), "");
}

TEST(X11Cookie, TextOfMoreThan36BytesIsSplitByABlank) {
    std::string const bytes(40, '\x11');
    EXPECT_EQ(Text(Forwarding::CookieString(ByteString(bytes.data(), 36))), std::string(72, '1'));
    EXPECT_EQ(Text(Forwarding::CookieString(ByteString(bytes.data(), 40))),
              std::string(72, '1') + " " + std::string(8, '1'));
}

// --- the connection

namespace {

/// The outcome of a Connect, the descriptor of which is closed.
struct Connected {
    explicit Connected(Forwarding& forwarding) {
        FileDescriptor const fd(forwarding.Connect(10, error));
        connected = fd >= 0;
    }
    bool connected;
    int error = 4711;
};

} // namespace

TEST(X11Connect, WithoutHostConnectsToTheUnixSocket) {
    ScriptedXServer display(Transport::Unix);
    FakeXauth const xauth("");
    for (char const* host : {"", "unix"}) {
        Forwarding forwarding(String_t((host + (":" + std::to_string(display.Number()))).c_str()), 0);
        EXPECT_EQ(forwarding._unixSocket, 0);
        EXPECT_TRUE(Connected(forwarding).connected);
        EXPECT_EQ(forwarding._unixSocket, 1);
        EXPECT_TRUE(display.HasVisitor());
        display.Accept();
    }
}

TEST(X11Connect, WithHostConnectsToTheTcpPort) {
    ScriptedXServer display(Transport::Tcp);
    FakeXauth const xauth("");
    Forwarding forwarding(String_t(display.Display().c_str()), 0);
    forwarding._unixSocket = 1;
    EXPECT_TRUE(Connected(forwarding).connected);
    EXPECT_EQ(forwarding._unixSocket, 0);
    EXPECT_TRUE(display.HasVisitor());
}

TEST(X11Connect, NumberOf1000WithAHostIsRefused) {
    FakeXauth const xauth("");
    for (char const* display : {"localhost:1000", "localhost:1001", "localhost:-1", "localhost:59535"}) {
        Forwarding forwarding(display, 0);
        Connected const connected(forwarding);
        EXPECT_FALSE(connected.connected) << display;
        EXPECT_EQ(connected.error, 4711) << display;
    }
}

TEST(X11Connect, NumberOf1000WithoutAHostIsTried) {
    FakeXauth const xauth("");
    Forwarding forwarding(":1000", 0);
    Connected const connected(forwarding);
    EXPECT_FALSE(connected.connected);
    EXPECT_EQ(connected.error, ENOENT);
    EXPECT_EQ(forwarding._unixSocket, 1);
}

TEST(X11Connect, WithoutAListenerFailsWithErrno) {
    FakeXauth const xauth("");
    for (Transport transport : {Transport::Unix, Transport::Tcp}) {
        ScriptedXServer display(transport);
        Forwarding forwarding(String_t(display.Display().c_str()), 0);
        display.StopListening();
        Connected const connected(forwarding);
        EXPECT_FALSE(connected.connected);
        EXPECT_EQ(connected.error, transport == Transport::Unix ? ENOENT : ECONNREFUSED);
        EXPECT_EQ(forwarding._unixSocket, transport == Transport::Unix);
    }
}

TEST(X11Connect, ImpossibleAddressChangesNothing) {
    FakeXauth const xauth("");
    Forwarding local(":0", 0);
    local._localSocket = String_t(std::string(200, 'x').c_str());
    Connected const tooLong(local);
    EXPECT_FALSE(tooLong.connected);
    EXPECT_EQ(tooLong.error, 4711);
    EXPECT_EQ(local._unixSocket, 0);
    Forwarding remote("[:0", 0);
    remote._unixSocket = 1;
    Connected const noHost(remote);
    EXPECT_FALSE(noHost.connected);
    EXPECT_EQ(noHost.error, 4711);
    EXPECT_EQ(remote._unixSocket, 1);
}

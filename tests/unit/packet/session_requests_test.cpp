#include <brantle/packet/session_requests.h>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <cstdlib>

#include <gtest/gtest.h>

#include <brantle/cindral/block_cipher.h>
#include <brantle/cindral/tty_modes.h>

#include "decode.h"

using namespace cindral;

namespace {

/// A descriptor that is closed at the end.
class Descriptor {
public:
    explicit Descriptor(int fd) : _fd(fd) {}
    ~Descriptor() { close(_fd); }
    Descriptor(Descriptor const&) = delete;
    Descriptor& operator=(Descriptor const&) = delete;
    int _fd;
};

class PtyRequest : public testing::Test {
protected:
    void SetUp() override {
        _settings = termios();
        _settings.c_cc[VINTR] = 3;
        _settings.c_lflag = ECHO | ISIG;
        setenv("TERM", "vt100", 1);
    }
    void TearDown() override { unsetenv("TERM"); }

    termios _settings;
    BlockCipher _cipher;
};

TEST_F(PtyRequest, SizeIsThatOfTheTerminal) {
    Descriptor const pty(posix_openpt(O_RDWR | O_NOCTTY));
    winsize size = {24, 80, 640, 480};
    ASSERT_EQ(ioctl(pty._fd, TIOCSWINSZ, &size), 0);
    PacketSessionPtyRequest request(5, pty._fd, _settings);
    EXPECT_EQ(request._columns, 80u);
    EXPECT_EQ(request._rows, 24u);
    EXPECT_EQ(request._widthPixels, 640u);
    EXPECT_EQ(request._heightPixels, 480u);
    ByteString const modes = TtyMakeModes(_settings);
    ASSERT_GT(modes.Length(), 0u);
    ASSERT_LT(modes.Length(), 65536u);
    std::string const length = {0, 0, static_cast<char>(modes.Length() >> 8),
                                static_cast<char>(modes.Length())};
    EXPECT_EQ(Text(request.Payload(_cipher)),
              Wire("62 00000005 00000007 'pty-req' 00 00000005 'vt100' 00000050 00000018 00000280 000001e0") +
                  length + Text(modes));
}

TEST_F(PtyRequest, SizeIsZeroWithoutATerminal) {
    Descriptor const null(open("/dev/null", O_RDWR));
    for (int fd : {null._fd, -1}) {
        PacketSessionPtyRequest const request(5, fd, _settings);
        EXPECT_EQ(request._columns, 0u);
        EXPECT_EQ(request._rows, 0u);
        EXPECT_EQ(request._widthPixels, 0u);
        EXPECT_EQ(request._heightPixels, 0u);
        EXPECT_EQ(request._wantReply, 0);
        EXPECT_EQ(Text(request._modes), Text(TtyMakeModes(_settings)));
    }
}

TEST_F(PtyRequest, UnsetTermIsAnEmptyString) {
    unsetenv("TERM");
    PacketSessionPtyRequest request(5, -1, _settings);
    EXPECT_EQ(Text(request._term), "");
    EXPECT_EQ(Text(request.Payload(_cipher)).substr(0, 21),
              Wire("62 00000005 00000007 'pty-req' 00 00000000"));
}

TEST_F(PtyRequest, FieldsAreRead) {
    auto const request = Decode<PacketSessionPtyRequest>(
        Wire("62 00000001 00000007 'pty-req' 02 00000005 'xterm' 00000050 00000018 00000280 000001e0"
             "00000006 350000000100"));
    EXPECT_EQ(request._recipientChannel, 1u);
    EXPECT_STREQ(request._request.Text(), "pty-req");
    EXPECT_EQ(request._wantReply, 2);
    EXPECT_STREQ(request._term.Text(), "xterm");
    EXPECT_EQ(request._columns, 80u);
    EXPECT_EQ(request._rows, 24u);
    EXPECT_EQ(request._widthPixels, 640u);
    EXPECT_EQ(request._heightPixels, 480u);
    EXPECT_EQ(Text(request._modes), Wire("350000000100"));
}

TEST(PacketSessionStart, FieldsAreRead) {
    auto const shell = Decode<PacketSessionStartShell>(Wire("62 00000001 00000005 'shell' 01"));
    EXPECT_EQ(shell._recipientChannel, 1u);
    EXPECT_STREQ(shell._request.Text(), "shell");
    EXPECT_EQ(shell._wantReply, 1);

    auto const command = Decode<PacketSessionStartCmd>(Wire("62 00000001 00000004 'exec' 00 00000002 'ls'"));
    EXPECT_EQ(command._recipientChannel, 1u);
    EXPECT_STREQ(command._request.Text(), "exec");
    EXPECT_EQ(command._wantReply, 0);
    EXPECT_STREQ(command._command.Text(), "ls");

    auto const subsystem =
        Decode<PacketSessionStartSubsystem>(Wire("62 00000001 00000009 'subsystem' 01 00000004 'sftp'"));
    EXPECT_EQ(subsystem._recipientChannel, 1u);
    EXPECT_STREQ(subsystem._request.Text(), "subsystem");
    EXPECT_EQ(subsystem._wantReply, 1);
    EXPECT_STREQ(subsystem._subsystem.Text(), "sftp");
}

TEST(PacketSessionX11Request, FieldsSurviveARoundTrip) {
    BlockCipher cipher;
    std::string const payload =
        Wire("62 00000001 00000007 'x11-req' 01 02 00000005 'proto' 00000006 'cookie' 00000003");
    auto request = Decode<PacketSessionX11Request>(payload);
    EXPECT_EQ(request._recipientChannel, 1u);
    EXPECT_STREQ(request._request.Text(), "x11-req");
    EXPECT_EQ(request._wantReply, 1);
    EXPECT_EQ(request._singleConnection, 2);
    EXPECT_STREQ(request._authProtocol.Text(), "proto");
    EXPECT_STREQ(request._authCookie.Text(), "cookie");
    EXPECT_EQ(request._screen, 3u);
    EXPECT_EQ(Text(request.Payload(cipher)), payload);
}

TEST(PacketChannelRequest, OutgoingRequestHasNoData) {
    PacketChannelRequest const request(1, "exit-status", 1);
    EXPECT_EQ(request._exitStatus, 0u);
    EXPECT_EQ(Text(request._signalName), "");
    EXPECT_EQ(request._coreDumped, 0);
}

TEST(PacketChannelRequest, ExitStatusIsRead) {
    auto const request = Decode<PacketChannelRequest>(Wire("62 00000001 0000000b 'exit-status' 00 80000007"));
    EXPECT_EQ(request._recipientChannel, 1u);
    EXPECT_STREQ(request._request.Text(), "exit-status");
    EXPECT_EQ(request._wantReply, 0);
    EXPECT_EQ(request._exitStatus, 0x80000007u);
    EXPECT_EQ(Text(request._signalName), "");
    EXPECT_EQ(request._coreDumped, 0);
}

TEST(PacketChannelRequest, ExitStatusOfZeroLeavesTheSignalNameEmpty) {
    auto const request = Decode<PacketChannelRequest>(Wire("62 00000001 0000000b 'exit-status' 00 00000000"));
    EXPECT_EQ(request._exitStatus, 0u);
    EXPECT_EQ(Text(request._signalName), "");
}

TEST(PacketChannelRequest, ExitSignalKeepsTheCoreFlagAsReceived) {
    auto const request = Decode<PacketChannelRequest>(
        Wire("62 00000001 0000000b 'exit-signal' 00 00000004 'TERM' ff 00000006 'killed' 00000002 'en'"));
    EXPECT_STREQ(request._signalName.Text(), "TERM");
    EXPECT_EQ(request._coreDumped, 255);
    EXPECT_EQ(request._exitStatus, 0u);
}

TEST(PacketChannelRequest, ExitSignalOfTheWrongLengthIsRefused) {
    std::string const payload =
        Wire("62 00000001 0000000b 'exit-signal' 00 00000004 'TERM' 01 00000000 00000000");
    EXPECT_EQ(Decode<PacketChannelRequest>(payload)._coreDumped, 1);
    ExpectPrematureEnd([&] {
        PacketDecoder decoder(Bytes(Framed(payload.substr(0, payload.size() - 1))));
        PacketChannelRequest request(decoder);
    });
    ExpectError<SshProtocolError>("additional characters in packet after padding", "SSH_MSG_CHANNEL_REQUEST",
                                  [&] { Decode<PacketChannelRequest>(payload + "x"); });
}

TEST(PacketChannelRequest, OtherRequestsHaveNoData) {
    auto const request = Decode<PacketChannelRequest>(Wire("62 00000001 00000005 'other' 01"));
    EXPECT_STREQ(request._request.Text(), "other");
    EXPECT_EQ(request._wantReply, 1);
    ExpectError<SshProtocolError>(
        "additional characters in packet after padding", "SSH_MSG_CHANNEL_REQUEST",
        [] { Decode<PacketChannelRequest>(Wire("62 00000001 00000005 'other' 01 00000000")); });
}

} // namespace

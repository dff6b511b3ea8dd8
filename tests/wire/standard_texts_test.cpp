// Texts of the server's that reach the program through the standard dialect.

#include <functional>
#include <string>

#include <brantle/apps/scp_session.h>
#include <brantle/sftp/sftp_client_session.h>

#include "wire/standard_fixture.h"

using namespace peer;

namespace {

/// The next message of an SFTP client, without its length.
Reader ReadSftp(StandardConnection& c) {
    Reader packet(c.ReadPacket());
    EXPECT_EQ(packet.U8(), CHANNEL_DATA);
    packet.U32();
    Reader frame(packet.Blob());
    return Reader(frame.Blob());
}

void SendSftp(StandardConnection& c, Bytes const& message) {
    c.SendPacket(Writer().U8(CHANNEL_DATA).U32(0).String(Bytes(Writer().String(message))));
}

template <class Session>
std::string LogIn(Session& session) {
    cindral::EnterPassword enter(0, "");
    cindral::KbdInteractiveCallback questions;
    return StandardClient::Follow(
        {{"Connect ", [&] { return session.Connect(10); }},
         {"KeyExchange ", [&] { return session.KeyExchange(); }},
         {"Authenticate ", [&] { return session.Authenticate("", "tester", "", enter, questions); }}});
}

/// The client's status of an operation that the server answers by code 4 and these texts.
cindral::SftpStatus StatusOf(std::function<void(Writer&)> const& addTexts) {
    StandardPeer server([&](StandardConnection& c) {
        c.WellBehaved(Stage::Opened);
        c.ReadChannelRequest();
        EXPECT_EQ(ReadSftp(c).U8(), 1); // INIT
        SendSftp(c, Writer().U8(2).U32(3));
        Reader realpath = ReadSftp(c);
        EXPECT_EQ(realpath.U8(), 16);
        SendSftp(c, Writer().U8(104).U32(realpath.U32()).U32(1).String("/home").String("").U32(0));
        Reader mkdir = ReadSftp(c);
        EXPECT_EQ(mkdir.U8(), 14);
        Writer status;
        status.U8(101).U32(mkdir.U32()).U32(4);
        addTexts(status);
        SendSftp(c, status);
        c.ReadToTheEnd();
    });
    cindral::SftpStatus status;
    {
        cindral::SftpClientSession session(server.Port(), "127.0.0.1");
        cindral::StandardDialect dialect(session);
        EXPECT_EQ(LogIn(session), "");
        EXPECT_EQ(StandardClient::Follow({{"Start ", [&] { return session.Start(); }},
                                          {"Mkdir ", [&] { return session.Mkdir(status, "x", 0755); }}}),
                  "Mkdir -4");
    }
    server.Finish();
    return status;
}

} // namespace

TEST(StandardTexts, StatusOfSftpHasItsControlCharactersMadeVisible) {
    cindral::SftpStatus const status =
        StatusOf([](Writer& texts) { texts.String("\033[31mno\n").String("e\007n"); });
    EXPECT_EQ(Text(status._message), "\\x1b[31mno\\x0a");
    EXPECT_EQ(Text(status._language), "e\\x07n");
}

TEST(StandardTexts, StatusOfSftpMayLackItsTexts) {
    EXPECT_EQ(StatusOf([](Writer&) {})._code, 4);
    EXPECT_EQ(StatusOf([](Writer& texts) { texts.String("no"); })._code, 4);
}

TEST(StandardTexts, WhatWasTriedStaysKnownWhenTheServerEndsTheLogin) {
    StandardPeer server([](StandardConnection& c) {
        c.WellBehaved(Stage::Service);
        for (int requests = 0; requests < 2; ++requests) { // none, and the password
            c.ReadAuthRequest();
            c.SendAuthFailure("password");
        }
        c.ReadAuthRequest();
        c.SendPacket(Writer().U8(DISCONNECT).U32(2).String("too many\033").String(""));
        c.ReadToTheEnd();
    });
    std::string reason, lastError;
    {
        StandardClient client(server.Port());
        client.passwords = RecordingPassword{1, {"other"}};
        reason = client.LogIn();
        lastError = Text(client.dialect.LastError());
    }
    server.Finish();
    EXPECT_EQ(reason, "Authenticate SshProtocolError: disconnected by the server: too many\\x1b");
    EXPECT_EQ(lastError, "disconnected by the server: too many\\x1b; login failed: the server accepts "
                         "password; password: refused");
}

TEST(StandardTexts, ErrorsOfScpHaveTheirControlCharactersMadeVisibleAndItsStatusIsKnown) {
    StandardPeer server([](StandardConnection& c) {
        c.WellBehaved(Stage::Opened);
        c.ReadChannelRequest();
        c.SendExtendedData("\033[31mscp: not found\n");
        c.SendTogether({Writer().U8(CHANNEL_REQUEST).U32(0).String("exit-status").Bool(false).U32(127),
                        Writer().U8(CHANNEL_EOF).U32(0), Writer().U8(CHANNEL_CLOSE).U32(0)});
        c.ReadToTheEnd();
    });
    std::string errors, lastError;
    {
        cindral::ScpSession session(server.Port(), "127.0.0.1");
        cindral::StandardDialect dialect(session);
        EXPECT_EQ(LogIn(session), "");
        testing::internal::CaptureStderr();
        EXPECT_EQ(session.StartSend("there"), -1);
        errors = testing::internal::GetCapturedStderr();
        lastError = Text(dialect.LastError());
    }
    server.Finish();
    EXPECT_EQ(errors, "\\x1b[31mscp: not found\n");
    EXPECT_EQ(lastError, "the remote program ended with status 127");
}

TEST(StandardTexts, ErrorsOfAnSftpServerHaveTheirControlCharactersMadeVisible) {
    StandardPeer server([](StandardConnection& c) {
        c.WellBehaved(Stage::Opened);
        c.ReadChannelRequest();
        EXPECT_EQ(ReadSftp(c).U8(), 1); // INIT
        c.SendExtendedData("disk\007 full\n");
        SendSftp(c, Writer().U8(2).U32(3));
        Reader realpath = ReadSftp(c);
        EXPECT_EQ(realpath.U8(), 16);
        SendSftp(c, Writer().U8(104).U32(realpath.U32()).U32(1).String("/home").String("").U32(0));
        c.ReadToTheEnd();
    });
    std::string errors;
    {
        cindral::SftpClientSession session(server.Port(), "127.0.0.1");
        cindral::StandardDialect dialect(session);
        EXPECT_EQ(LogIn(session), "");
        testing::internal::CaptureStderr();
        EXPECT_EQ(session.Start(), 0);
        errors = testing::internal::GetCapturedStderr();
    }
    server.Finish();
    EXPECT_EQ(errors, "disk\\x07 full\n");
}

// The library with Dropbear, with which no method of key exchange succeeds.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "real/session_cases.h"
#include "support/servers/dropbear_server.h"
#include "support/servers/server_suite.h"

using testing::StartsWith;

using Dropbear = servers::ServerSuite<servers::DropbearServer>;

TEST_F(Dropbear, SendsItsKexinitUnprompted) {
    constexpr int KEXINIT = 20;
    EXPECT_EQ(FirstMessageUnprompted(TheServer()), KEXINIT);
}

TEST_F(Dropbear, FixedGroupIsRefused) {
    client::SessionClient const client(TheServer());
    client::Report const report = client.LogIn();
    EXPECT_EQ(report["connect"], "0");
    EXPECT_THAT(report["server-version"], StartsWith("SSH-2.0-dropbear"));
    EXPECT_THAT(report["thrown"], testing::MatchesRegex("InvalidArgument: .*need out of range"));
    EXPECT_EQ(report["end"], "reached") << report;
    EXPECT_EQ(report.status, 0);
}

// What a program in the reduced dialect sends, compared between one that is linked with the standard dialect
// and one that is not.

#include <cstdlib>

#include "wire/loop_fixture.h"

using namespace peer;

namespace {

/// The exit status of a program that is given that port.
int RunProgram(char const* program, std::uint16_t port) {
    std::string const command = std::string(program) + " " + std::to_string(port) + " </dev/null >/dev/null";
    int const status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace

TEST(LinkedDialect, ThatIsNotAttachedChangesNoByte) {
    ScriptedPeer server(
        [](Connection& c) {
            c.WellBehaved(Stage::Opened);
            c.ReadChannelRequest();
            c.SendPacket(Data("output"));
            c.ExpectPacket(CHANNEL_EOF);
            c.SendPacket(Eof());
            c.ExpectPacket(CHANNEL_CLOSE);
            c.SendExitStatus(0);
            c.ReadUntilClosed();
        },
        [] {
            ServerSettings settings = QuickSettings();
            settings.noneAccepted = false;
            settings.methods = "password";
            return settings;
        }());
    EXPECT_EQ(RunProgram(PLAIN_PROGRAM, server.Port()), 0);
    EXPECT_EQ(RunProgram(LINKED_PROGRAM, server.Port()), 1);
    server.Finish(2);
    Connection const &plain = server.At(0), &linked = server.At(1);
    EXPECT_EQ(Difference(plain.kex.clientKexInit, linked.kex.clientKexInit), "");
    EXPECT_EQ(Difference(plain.Wire().Received(), linked.Wire().Received()), "");
    EXPECT_GT(plain.Wire().ReceivedCount(), 1000u);
}

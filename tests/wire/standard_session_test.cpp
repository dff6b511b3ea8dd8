// A session with the standard dialect at a well-behaved server, under each algorithm that the scripted peer
// has.

#include <brantle/apps/scp_session.h>

#include "support/temporary_directory.h"
#include "wire/standard_fixture.h"

using namespace peer;

namespace {

struct Algorithms {
    char const* name;
    char const* kex;
    char const* hostKey;
    char const* cipher;
    char const* mac;
};

StandardKey const& HostKeyFor(std::string const& algorithm) {
    if (algorithm == "ssh-ed25519") return StandardKey::Host();
    if (algorithm[0] == 'r') return StandardKey::HostRsa();
    return StandardKey::HostEcdsa(std::stoi(algorithm.substr(algorithm.size() - 3)));
}

class StandardAlgorithms : public StandardTest, public testing::WithParamInterface<Algorithms> {};

TEST_P(StandardAlgorithms, SessionIsCompleteAcrossARekeying) {
    Algorithms const& algorithms = GetParam();
    settings.Kex(algorithms.kex, algorithms.hostKey).Pin(algorithms.cipher, algorithms.mac);
    settings.hostKey = &HostKeyFor(algorithms.hostKey);
    StandardResult const result = Run([](StandardConnection& c) {
        c.SendPacket(Data("before, "));
        c.Rekey();
        c.SendPacket(Data("after"));
        c.SendPacket(ExtendedData("errors", 1));
        c.SendTogether(Ending(7));
    });
    EXPECT_EQ(result.outcome, RUN_ENDED);
    EXPECT_EQ(result.output, "before, after");
    EXPECT_EQ(result.errors, "errors");
    EXPECT_EQ(result.exitStatus, 7);
    EXPECT_EQ(result.exchanges, 2u);
    EXPECT_TRUE(result.isStrict);
}

INSTANTIATE_TEST_SUITE_P(
    All, StandardAlgorithms,
    testing::Values(
        Algorithms{"gcm", "curve25519-sha256", "ssh-ed25519", "aes128-gcm@openssh.com", ""},
        Algorithms{"gcm256", "ecdh-sha2-nistp256", "ssh-ed25519", "aes256-gcm@openssh.com", ""},
        Algorithms{"chacha", "curve25519-sha256", "rsa-sha2-512", "chacha20-poly1305@openssh.com", ""},
        Algorithms{"ctr", "diffie-hellman-group14-sha256", "rsa-sha2-256", "aes128-ctr", "hmac-sha2-256"},
        Algorithms{"ctr256", "diffie-hellman-group-exchange-sha256", "ssh-ed25519", "aes256-ctr",
                   "hmac-sha2-512"},
        Algorithms{"etm", "curve25519-sha256@libssh.org", "ssh-ed25519", "aes128-ctr",
                   "hmac-sha2-256-etm@openssh.com"},
        Algorithms{"etm512", "curve25519-sha256", "ssh-ed25519", "aes128-ctr",
                   "hmac-sha2-512-etm@openssh.com"},
        Algorithms{"ecdsa256", "curve25519-sha256", "ecdsa-sha2-nistp256", "aes128-gcm@openssh.com", ""},
        Algorithms{"ecdsa384", "curve25519-sha256", "ecdsa-sha2-nistp384", "aes128-gcm@openssh.com", ""},
        Algorithms{"ecdsa521", "curve25519-sha256", "ecdsa-sha2-nistp521", "aes128-gcm@openssh.com", ""}),
    [](auto const& param) { return std::string(param.param.name); });

class StandardAttachment : public StandardTest {};

TEST_F(StandardAttachment, DialectOfASessionThatIsConnectedIsRefusedAndChangesNothing) {
    Serve([](StandardConnection& c) {
        c.SendLine(c.settings.versionLine);
        c.ReadLine(); // without a carriage return, as the session ends it
        c.SendKexInit();
        c.ReceiveKexInit();
    });
    {
        TestSession session(server->Port());
        ASSERT_EQ(session.Connect(10), 0);
        EXPECT_EQ(Outcome([&] { return cindral::StandardDialect(session).ExitStatus(); }),
                  "InvalidArgument: SessionDialect::Attach: the session is connected");
        Outcome([&] { return session.KeyExchange(); });
    }
    server->Join();
    EXPECT_THAT(KexInitLists::Parse(Seen().kex.clientInit).kex,
                testing::Not(testing::HasSubstr("curve25519")))
        << "the session's own offer is sent";
}

/// The data of the client's next message.
std::string NextData(StandardConnection& c) {
    Reader message = c.ExpectPacket(CHANNEL_DATA);
    message.U32();
    return message.String();
}

class StandardUpload : public StandardTest {};

TEST_F(StandardUpload, LargeFileNeedsNoAnswerWithinAHugeWindow) {
    std::size_t const size = 8 << 20; // more than sockets hold
    settings.window = 0xffffffff;
    std::size_t stored = 0;
    Serve([&](StandardConnection& c) {
        c.Wire().recording = false;
        c.WellBehaved(Stage::Opened);
        c.ReadChannelRequest();
        std::string const ok(1, '\0');
        c.SendPacket(Data(ok));
        EXPECT_EQ(NextData(c), "C0644 8388608 file\n");
        c.SendPacket(Data(ok));
        while (stored < size + 1) stored += NextData(c).size();
        c.SendPacket(Data(ok));
        c.ReadToTheEnd();
    });
    support::TemporaryDirectory const directory;
    std::ofstream(directory.Path() / "file") << std::string(size, 'x');
    {
        cindral::ScpSession session(server->Port(), "127.0.0.1");
        cindral::StandardDialect dialect(session);
        Login(session);
        EXPECT_EQ(session.SendFile(directory.Path().c_str(), "target", "file"), 0);
    }
    server->Finish();
    EXPECT_EQ(stored, size + 1);
}

class StandardScpFailure : public StandardTest {};

TEST_F(StandardScpFailure, IsTheLastError) {
    struct {
        bool toServer;
        char const* answer; ///< of the remote program, to whatever it is sent first
        char const* text;
    } const cases[] = {
        {true, "\1no \33 space\n", "scp terminated with error: no \\x1b space"},
        {true, "\2", "scp terminated with error"},
        {true, "\7", "scp returned illegal error code"},
        {false, "\1x: No such file\n", "scp terminated with error: x: No such file"},
        {false, "Cx\n", "invalid head line returned from scp: x"},
    };
    support::TemporaryDirectory const directory;
    std::string const path = directory.Path();
    std::ofstream(path + "/file") << "content";
    for (auto const& [toServer, answer, text] : cases) {
        Serve([reply = std::string(answer)](StandardConnection& c) {
            c.WellBehaved(Stage::Opened);
            c.ReadChannelRequest();
            c.SendPacket(Data(reply));
            c.ReadToTheEnd();
        });
        cindral::ScpSession session(server->Port(), "127.0.0.1");
        cindral::StandardDialect dialect(session);
        Login(session);
        EXPECT_EQ(Outcome([&, toServer = toServer] {
                      return toServer ? session.SendFile(path.c_str(), "target", "file")
                                      : session.ReceiveFile("remote", path.c_str(), "file");
                  }),
                  std::string("SshProtocolError: ") + text);
        EXPECT_EQ(Text(dialect.LastError()), text);
    }
}

} // namespace

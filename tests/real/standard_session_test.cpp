// The standard dialect with OpenSSH's sshd as Debian's package configures it.

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/servers/stock_sshd.h"
#include "support/servers/x_server.h"
#include "support/temporary_directory.h"
#include "wire/tcp_end.h"

using servers::Outcome;
using servers::ReadFile;
using servers::StockSshd;
using servers::WriteFile;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr int REFUSED = 100;
constexpr int THROWN = 101;
constexpr std::size_t LARGE = 64 << 20; ///< 32 windows

/// Bytes without a period that a packet or a window could hide.
std::string Noise(std::size_t size) {
    std::string bytes(size, '\0');
    unsigned int state = 1;
    for (char& byte : bytes) {
        state = state * 1664525u + 1013904223u;
        byte = static_cast<char>(state >> 24);
    }
    return bytes;
}

class StandardSession : public testing::Test {
protected:
    static void SetUpTestSuite() { server = std::make_unique<StockSshd>(); }
    static void TearDownTestSuite() { server.reset(); }

    using Words = std::vector<std::string>;

    /// Runs a job of standard_program with a key of that type and a home directory of its own.
    Outcome Do(Words const& options, std::string const& job, Words const& arguments,
               std::string const& input = {}, std::string const& key = "ed25519",
               StockSshd const* at = nullptr) {
        StockSshd const& peer = at ? *at : *server;
        Words line{"env", "HOME=" + _home.Path().string(), STANDARD_PROGRAM, "report=" + File("report")};
        line.insert(line.end(), options.begin(), options.end());
        line.push_back(job);
        line.push_back(peer.User() + "@" + peer.Host() + ":" + std::to_string(peer.Port()));
        line.push_back(peer.UserKey(key));
        line.insert(line.end(), arguments.begin(), arguments.end());
        return servers::Run(line, input);
    }
    Outcome Run(std::string const& command, std::string const& input = {}, Words const& options = {}) {
        return Do(options, "run", {command}, input);
    }
    std::string File(std::string const& name) const { return (_home.Path() / name).string(); }
    /// A file in the user's home directory at the server's side.
    std::string Remote(std::string const& name) const { return server->Home() + "/" + name; }
    std::string Reported() const { return ReadFile(File("report")); }

    static std::unique_ptr<StockSshd> server;
    support::TemporaryDirectory _home;
};

std::unique_ptr<StockSshd> StandardSession::server;

TEST_F(StandardSession, CommandReturnsItsOutputErrorsAndStatus) {
    Outcome const outcome = Run("echo out; echo err >&2; exit 7");
    EXPECT_EQ(outcome.status, 7);
    EXPECT_EQ(outcome.output, "out\n");
    EXPECT_EQ(outcome.errors, "err\n");
    EXPECT_THAT(Reported(), HasSubstr("kex=curve25519-sha256\nhostkey=ssh-ed25519\n"));
    EXPECT_THAT(Reported(), HasSubstr("strict=1\nexchanges=1\n"));
}

TEST_F(StandardSession, CommandEndedByASignalHasNoStatus) {
    EXPECT_EQ(Run("kill -KILL $$").status, REFUSED);
    EXPECT_THAT(Reported(), HasSubstr("signal=KILL\n"));
}

TEST_F(StandardSession, LargeOutputArrivesWholeBeforeTheStatus) {
    Outcome const outcome = Run("head -c 67108864 /dev/zero; exit 3");
    EXPECT_EQ(outcome.status, 3);
    EXPECT_EQ(outcome.output.size(), LARGE);
}

TEST_F(StandardSession, InputBeyondTheWindowArrivesWholeAndComesBack) {
    std::string const noise = Noise(LARGE);
    Outcome const outcome = Run("cat", noise);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_TRUE(outcome.output == noise);
}

TEST_F(StandardSession, RekeyingWorksWhileDataFlowsBothWays) {
    std::string const noise = Noise(8 << 20);
    Outcome const outcome = Run("cat", noise, {"rekey=200000"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_TRUE(outcome.output == noise);
    std::string const report = Reported();
    int const exchanges = std::atoi(report.c_str() + report.find("exchanges=") + 10);
    EXPECT_GT(exchanges, 20);
}

TEST_F(StandardSession, EveryKeyTypeLogsIn) {
    for (std::string const& type : servers::StandardServer::KeyTypes())
        EXPECT_EQ(Do({}, "run", {"exit 5"}, {}, type).status, 5) << type;
}

TEST_F(StandardSession, SecondRunFindsTheHostKeyKnown) {
    EXPECT_EQ(Run("true").status, 0);
    std::string const known = ReadFile(File(".ssh/known_hosts"));
    EXPECT_THAT(known, HasSubstr(" ssh-ed25519 "));
    EXPECT_EQ(Run("true").status, 0);
    EXPECT_EQ(ReadFile(File(".ssh/known_hosts")), known);
}

TEST_F(StandardSession, ChangedHostKeyIsRefusedWithFileAndLine) {
    std::filesystem::create_directory(File(".ssh"));
    std::string const other = ReadFile(server->UserKey("ed25519") + ".pub");
    WriteFile(File(".ssh/known_hosts"), "[127.0.0.1]:" + std::to_string(server->Port()) + " " + other);
    Outcome const outcome = Run("true");
    EXPECT_EQ(outcome.status, REFUSED);
    EXPECT_THAT(outcome.errors, HasSubstr("known_hosts:1"));
}

TEST_F(StandardSession, NothingInCommonNamesBothLists) {
    StockSshd const hardened("Ciphers aes256-gcm@openssh.com\n");
    Outcome const outcome = Do({"ciphers=aes128-ctr"}, "run", {"true"}, {}, "ed25519", &hardened);
    EXPECT_EQ(outcome.status, REFUSED);
    EXPECT_THAT(outcome.errors,
                HasSubstr("no common cipher: offered are aes128-ctr; the server has aes256-gcm"));
}

TEST_F(StandardSession, RekeyingByTheServerIsAnswered) {
    StockSshd const rekeying("RekeyLimit 64K\n");
    std::string const noise = Noise(4 << 20);
    Outcome const outcome = Do({}, "run", {"cat"}, noise, "ed25519", &rekeying);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_TRUE(outcome.output == noise);
}

TEST_F(StandardSession, ForcedCommandRunsInsteadAndServerIsKeptAlive) {
    StockSshd const forced("ForceCommand sleep 3; echo forced\nClientAliveInterval 1\n");
    Outcome const outcome = Do({}, "run", {"echo mine"}, {}, "ed25519", &forced);
    EXPECT_EQ(outcome.output, "forced\n");
    EXPECT_EQ(outcome.status, 0);
}

struct Algorithm {
    char const* option;
    char const* names;
};

class StandardAlgorithm : public StandardSession, public testing::WithParamInterface<Algorithm> {};

TEST_P(StandardAlgorithm, CarriesDataBothWays) {
    std::string const noise = Noise(1 << 20);
    Outcome const outcome = Run("cat", noise, {std::string(GetParam().option) + "=" + GetParam().names});
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_TRUE(outcome.output == noise);
    std::string const names = GetParam().names;
    EXPECT_THAT(Reported(), HasSubstr("=" + names + "\n"));
}

INSTANTIATE_TEST_SUITE_P(
    Kex, StandardAlgorithm,
    testing::Values(Algorithm{"kex", "curve25519-sha256"}, Algorithm{"kex", "curve25519-sha256@libssh.org"},
                    Algorithm{"kex", "ecdh-sha2-nistp256"}, Algorithm{"kex", "ecdh-sha2-nistp384"},
                    Algorithm{"kex", "ecdh-sha2-nistp521"}, Algorithm{"kex", "diffie-hellman-group14-sha256"},
                    Algorithm{"kex", "diffie-hellman-group16-sha512"},
                    Algorithm{"kex", "diffie-hellman-group-exchange-sha256"}));
INSTANTIATE_TEST_SUITE_P(HostKey, StandardAlgorithm,
                         testing::Values(Algorithm{"hostkeys", "ssh-ed25519"},
                                         Algorithm{"hostkeys", "ecdsa-sha2-nistp256"},
                                         Algorithm{"hostkeys", "rsa-sha2-512"},
                                         Algorithm{"hostkeys", "rsa-sha2-256"}));
INSTANTIATE_TEST_SUITE_P(Cipher, StandardAlgorithm,
                         testing::Values(Algorithm{"ciphers", "aes128-gcm@openssh.com"},
                                         Algorithm{"ciphers", "aes256-gcm@openssh.com"},
                                         Algorithm{"ciphers", "chacha20-poly1305@openssh.com"},
                                         Algorithm{"ciphers", "aes128-ctr"},
                                         Algorithm{"ciphers", "aes192-ctr"},
                                         Algorithm{"ciphers", "aes256-ctr"}));

class StandardMac : public StandardSession, public testing::WithParamInterface<char const*> {};

TEST_P(StandardMac, CarriesDataBothWays) {
    std::string const noise = Noise(1 << 20);
    std::string const name = GetParam();
    Outcome const outcome = Run("cat", noise, {"ciphers=aes128-ctr", "macs=" + name});
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_TRUE(outcome.output == noise);
    EXPECT_THAT(Reported(), HasSubstr("mac=" + name + "\n"));
}

INSTANTIATE_TEST_SUITE_P(All, StandardMac,
                         testing::Values("hmac-sha2-256-etm@openssh.com", "hmac-sha2-512-etm@openssh.com",
                                         "hmac-sha2-256", "hmac-sha2-512", "hmac-sha1"));

TEST_F(StandardSession, SftpCopiesALargeFileBothWays) {
    std::string const noise = Noise(LARGE + 12345);
    WriteFile(File("file"), noise);
    EXPECT_EQ(Do({}, "put", {File("file"), Remote("file")}).errors, "");
    EXPECT_TRUE(ReadFile(Remote("file")) == noise);
    EXPECT_EQ(Do({}, "get", {Remote("file"), File("back")}).errors, "");
    EXPECT_TRUE(ReadFile(File("back")) == noise);
}

TEST_F(StandardSession, SftpCopiesAnEmptyFileAndOneThatAnnouncesNoSize) {
    WriteFile(File("empty"), "");
    EXPECT_EQ(Do({}, "put", {File("empty"), Remote("empty")}).status, 0);
    EXPECT_THAT(ReadFile(Remote("empty")), IsEmpty());
    EXPECT_EQ(Do({}, "cat", {"/proc/version"}).output, ReadFile("/proc/version"));
}

TEST_F(StandardSession, RefusedSftpGetDoesNotTouchTheLocalFile) {
    WriteFile(File("kept"), "kept");
    Outcome const outcome = Do({}, "get", {Remote("missing"), File("kept")});
    EXPECT_EQ(outcome.status, REFUSED);
    EXPECT_THAT(outcome.errors, HasSubstr("No such file"));
    EXPECT_EQ(ReadFile(File("kept")), "kept");
}

TEST_F(StandardSession, FullDeviceFailsTheCopy) {
    WriteFile(File("file"), Noise(100000));
    EXPECT_EQ(Do({}, "put", {File("file"), Remote("full-source")}).status, 0);
    Outcome const outcome = Do({}, "get", {Remote("full-source"), "/dev/full"});
    EXPECT_EQ(outcome.status, REFUSED);
    EXPECT_THAT(outcome.errors, HasSubstr("No space left"));
}

TEST_F(StandardSession, LocalFileThatCantBeOpenedIsNamedInTheLastError) {
    WriteFile(Remote("there"), "there", 0644);
    std::string const missing = File("missing");
    EXPECT_EQ(Do({}, "put", {missing, Remote("x")}).errors, missing + ": No such file or directory\n");
    EXPECT_EQ(Do({}, "get", {Remote("there"), missing + "/x"}).errors,
              missing + "/x: No such file or directory\n");
    EXPECT_EQ(Do({}, "scp-put", {_home.Path().string(), server->Home(), "missing"}).errors,
              missing + ": No such file or directory\n");
    Outcome const scp = Do({}, "scp-get", {server->Home(), missing, "there"});
    EXPECT_EQ(scp.status, REFUSED);
    EXPECT_EQ(scp.errors, missing + "/there: No such file or directory\n");
}

TEST_F(StandardSession, ScpCopiesALargeFileBothWays) {
    std::string const noise = Noise(16 << 20);
    WriteFile(File("scp-file"), noise);
    EXPECT_EQ(Do({}, "scp-put", {_home.Path().string(), server->Home(), "scp-file"}).errors, "");
    EXPECT_TRUE(ReadFile(Remote("scp-file")) == noise);
    std::filesystem::create_directory(File("to"));
    EXPECT_EQ(Do({}, "scp-get", {server->Home(), File("to"), "scp-file"}).errors, "");
    EXPECT_TRUE(ReadFile(File("to/scp-file")) == noise);
}

TEST_F(StandardSession, ScpRefusesANameWithALineFeed) {
    WriteFile(File("a\nb"), "x");
    Outcome const outcome = Do({}, "scp-put", {_home.Path().string(), server->Home(), "a\nb"});
    EXPECT_EQ(outcome.status, REFUSED);
    EXPECT_THAT(outcome.errors, HasSubstr("scp can't name the file"));
}

TEST_F(StandardSession, RefusedSubsystemIsAnExceptionWithItsName) {
    StockSshd const without("Subsystem other /bin/false\n");
    EXPECT_EQ(Do({}, "get", {"/etc/passwd", File("x")}, {}, "ed25519", &without).status, THROWN);
}

TEST_F(StandardSession, RemoteForwardingOfPort0LeadsToItsTarget) {
    // The SSH server itself is the target: it begins by itself.
    Outcome const outcome = Run("cat", "", {"remote=0:127.0.0.1:" + std::to_string(server->Port())});
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_THAT(Reported(), testing::ContainsRegex("port=[1-9][0-9]+\n"));
}

TEST_F(StandardSession, RemoteForwardingCarriesAConnection) {
    std::string const port = std::to_string(server->Port());
    std::string const listen = std::to_string(tcp::FreePort());
    Outcome const outcome = Run("sleep 0.2; exec 3<>/dev/tcp/127.0.0.1/" + listen + "; head -c 4 <&3", "",
                                {"remote=" + listen + ":127.0.0.1:" + port});
    EXPECT_EQ(outcome.output, "SSH-") << outcome.errors;
}

TEST_F(StandardSession, LocalForwardingCarriesConnections) {
    std::string const port = std::to_string(server->Port());
    std::string const listen = std::to_string(tcp::FreePort());
    // The command connects to the client's side, which is the same machine here.
    Outcome const outcome = Run("for i in 1 2 3 4 5 6 7 8; do (exec 3<>/dev/tcp/127.0.0.1/" + listen +
                                    "; printf '%s\\n' $(head -c 4 <&3)) & done; wait",
                                "", {"local=" + listen + ":127.0.0.1:" + port});
    EXPECT_EQ(outcome.output, "SSH-\nSSH-\nSSH-\nSSH-\nSSH-\nSSH-\nSSH-\nSSH-\n") << outcome.errors;
}

} // namespace

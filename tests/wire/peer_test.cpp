// The scripted peer is checked against the OpenSSH client, so that its key exchange, packets and
// signatures are known to be correct before the library is tested against it.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>

#include <gtest/gtest.h>

#include "support/peer/scripted_peer.h"
#include "wire/all_algorithms.h"

using namespace peer;

namespace {

struct ClientResult {
    int status;
    std::string output;
};

/// Writes a file that only this user may read, in the test's own home directory.
std::string PrivateFile(std::string const& name, std::string const& text, mode_t mode) {
    std::string const path = std::string(std::getenv("HOME")) + "/" + name;
    std::ofstream(path) << text;
    chmod(path.c_str(), mode);
    return path;
}

ClientResult RunOpenSsh(std::uint16_t port, std::string const& options, std::string const& environment = "") {
    std::string const command =
        environment + " timeout 60 ssh -F /dev/null -p " + std::to_string(port) +
        " -o StrictHostKeyChecking=no -o UserKnownHostsFile=/dev/null -o GlobalKnownHostsFile=/dev/null"
        " -o KexAlgorithms=diffie-hellman-group-exchange-sha1 -o HostKeyAlgorithms=ssh-rsa,ssh-dss"
        " -o Ciphers=aes128-ctr,aes192-ctr,aes256-ctr,aes128-cbc,aes192-cbc,aes256-cbc,3des-cbc"
        " -o MACs=hmac-sha1,hmac-sha1-96,hmac-md5,hmac-sha2-256,hmac-sha2-512 -o LogLevel=ERROR"
        " -o IdentitiesOnly=yes -o NumberOfPasswordPrompts=1 " +
        options + " tester@127.0.0.1 greet </dev/null 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    ClientResult result{-1, ""};
    std::array<char, 4096> buffer;
    for (std::size_t n = 0; (n = fread(buffer.data(), 1, buffer.size(), pipe)) > 0;)
        result.output.append(buffer.data(), n);
    int const status = pclose(pipe);
    if (WIFEXITED(status)) result.status = WEXITSTATUS(status);
    return result;
}

void GreetAndLeave(Connection& c) {
    c.WellBehaved(Stage::Opened);
    ChannelRequest const request = c.ReadChannelRequest();
    if (request.type != "exec" || Reader(request.rest).String() != "greet")
        throw PeerError("no exec of greet");
    if (request.wantReply) c.SendChannelMessage(CHANNEL_SUCCESS);
    c.SendData("hello from the peer\n");
    c.SendEof();
    c.SendExitStatus(7);
    c.SendClose();
    c.ReadUntilClosed();
}

ServerSettings RfcSettings() {
    ServerSettings settings;
    settings.keyExtension = KeyExtension::Rfc4253;
    settings.group = DhGroup::Modp(2048);
    return settings;
}

std::string AskPass(std::string const& password) {
    std::string const script = PrivateFile("askpass", "#!/bin/sh\necho '" + password + "'\n", 0700);
    return "SSH_ASKPASS_REQUIRE=force SSH_ASKPASS=" + script;
}

/// A plain TCP connection to the peer.
class RawClient {
public:
    explicit RawClient(std::uint16_t port) : _fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (connect(_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
            throw PeerError("connect");
    }
    ~RawClient() { close(_fd); }
    RawClient(RawClient const&) = delete;
    RawClient& operator=(RawClient const&) = delete;

    void Send(std::string const& text) const {
        if (send(_fd, text.data(), text.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(text.size()))
            throw PeerError("send");
    }
    Bytes ReadAll() const {
        Bytes all;
        std::array<std::uint8_t, 4096> buffer;
        for (ssize_t n = 0; (n = recv(_fd, buffer.data(), buffer.size(), 0)) > 0;)
            all.insert(all.end(), buffer.begin(), buffer.begin() + n);
        return all;
    }

private:
    int _fd;
};

class PeerWithOpenSsh : public testing::TestWithParam<Algorithms> {};

} // namespace

TEST_P(PeerWithOpenSsh, AgreesOnKeysPacketsAndMacs) {
    auto const [cipher, mac] = GetParam();
    ServerSettings settings = RfcSettings();
    settings.kexInit.Pin(cipher, mac);
    settings.noneAccepted = true;
    ScriptedPeer server(GreetAndLeave, settings);
    ClientResult const result = RunOpenSsh(server.Port(), "-o PreferredAuthentications=none");
    server.Finish();
    EXPECT_EQ(result.status, 7);
    EXPECT_EQ(result.output, "hello from the peer\n");
    EXPECT_EQ(server.At(0).kex.cipherClientToServer, cipher);
    EXPECT_EQ(server.At(0).kex.macServerToClient, mac);
}

INSTANTIATE_TEST_SUITE_P(Every, PeerWithOpenSsh, AllAlgorithms(), AlgorithmsName);

TEST(PeerAgainstOpenSsh, DsaHostKeyVerifies) {
    ServerSettings settings = RfcSettings();
    settings.hostKey = &KeyPair::HostDsa();
    settings.kexInit.hostKey = "ssh-dss";
    settings.noneAccepted = true;
    ScriptedPeer server(GreetAndLeave, settings);
    EXPECT_EQ(RunOpenSsh(server.Port(), "-o PreferredAuthentications=none").status, 7);
    server.Finish();
}

TEST(PeerAgainstOpenSsh, SendsTheGroupRequested) {
    ServerSettings settings = RfcSettings();
    settings.group.reset();
    settings.noneAccepted = true;
    settings.kexInit.Pin("aes128-ctr", "hmac-md5");
    ScriptedPeer server(GreetAndLeave, settings);
    EXPECT_EQ(RunOpenSsh(server.Port(), "-o PreferredAuthentications=none").status, 7);
    server.Finish();
    EXPECT_EQ(server.At(0).kex.group.bits, 3072u);
}

TEST(PeerAgainstOpenSsh, PasswordIsChecked) {
    ScriptedPeer server(GreetAndLeave, RfcSettings());
    EXPECT_EQ(RunOpenSsh(server.Port(), "-o PreferredAuthentications=password", AskPass("secret")).status, 7);
    server.Finish();
}

TEST(PeerAgainstOpenSsh, WrongPasswordIsRefused) {
    ScriptedPeer server(GreetAndLeave, RfcSettings());
    EXPECT_EQ(RunOpenSsh(server.Port(), "-o PreferredAuthentications=password", AskPass("wrong")).status,
              255);
    EXPECT_THROW(server.Finish(), PeerError);
}

TEST(PeerAgainstOpenSsh, KeyboardInteractiveIsAnswered) {
    ScriptedPeer server(GreetAndLeave, RfcSettings());
    EXPECT_EQ(RunOpenSsh(server.Port(), "-o PreferredAuthentications=keyboard-interactive", AskPass("secret"))
                  .status,
              7);
    server.Finish();
}

TEST(PeerAgainstOpenSsh, SignaturesOfUserKeysVerify) {
    for (KeyPair const* key : {&KeyPair::UserRsa(), &KeyPair::UserDsa()}) {
        std::string const file = PrivateFile("identity_" + key->Type(), key->Pem(), 0600);
        ScriptedPeer server(GreetAndLeave, RfcSettings());
        ClientResult const result =
            RunOpenSsh(server.Port(), "-o PreferredAuthentications=publickey "
                                      "-o PubkeyAcceptedAlgorithms=ssh-rsa,ssh-dss -i " +
                                          file);
        server.Finish();
        EXPECT_EQ(result.status, 7) << key->Type() << ": " << result.output;
    }
}

TEST(PeerAgainstOpenSsh, ChangedByteEndsTheClient) {
    ServerSettings settings = RfcSettings();
    settings.noneAccepted = true;
    ScriptedPeer server(
        [](Connection& c) {
            c.WellBehaved(Stage::NewKeys);
            c.Wire().faults.flipSent = c.Wire().SentCount() + 6;
            c.ServiceAccept();
            c.Authenticate();
        },
        settings);
    EXPECT_EQ(RunOpenSsh(server.Port(), "-o PreferredAuthentications=none").status, 255);
    EXPECT_THROW(server.Finish(), PeerError);
}

TEST(PeerAgainstOpenSsh, SessionInSingleByteSegmentsWorks) {
    ServerSettings settings = RfcSettings();
    settings.noneAccepted = true;
    ScriptedPeer server(
        [](Connection& c) {
            c.Wire().faults.segment = 1;
            GreetAndLeave(c);
        },
        settings);
    EXPECT_EQ(RunOpenSsh(server.Port(), "-o PreferredAuthentications=none").status, 7);
    server.Finish();
}

TEST(PeerKeys, BothDerivationsDifferOnlyAfterTheFirstDigest) {
    Bytes const k = FromHex("8123456789");
    Bytes const hash = Sha1(ToBytes("hash"));
    KeySet const standard = DeriveKeySet(KeyExtension::Rfc4253, k, hash, hash, 21);
    KeySet const prefixed = DeriveKeySet(KeyExtension::LengthPrefixed, k, hash, hash, 21);
    for (char letter = 'A'; letter <= 'F'; ++letter) {
        ASSERT_EQ(prefixed[letter].size(), 40u);
        Bytes const first =
            Sha1(Concat({FromHex("00000006008123456789"), hash, Bytes{std::uint8_t(letter)}, hash}));
        EXPECT_EQ(Slice(prefixed[letter], 0, 20), first);
        EXPECT_EQ(Slice(standard[letter], 0, 20), first);
        EXPECT_EQ(Slice(prefixed[letter], 20, 20),
                  Sha1(Concat({FromHex("00000006008123456789"), FromHex("00000014"), hash,
                               FromHex("00000014"), first})));
        EXPECT_NE(prefixed[letter], standard[letter]);
    }
    EXPECT_EQ(DeriveKeySet(KeyExtension::LengthPrefixed, k, hash, hash, 20)['A'].size(), 20u);
}

TEST(PeerWire, ReaderThrowsAtTheEndAndCountsTheRest) {
    Reader reader(Writer().U8(1).U32(2).U64(3).String("four").Mpint({0x00, 0x80}).Mpint({}).Data());
    EXPECT_EQ(reader.U8(), 1);
    EXPECT_EQ(reader.U32(), 2u);
    EXPECT_EQ(reader.U64(), 3u);
    EXPECT_EQ(reader.String(), "four");
    EXPECT_EQ(reader.Mpint(), Bytes{0x80});
    EXPECT_THROW(reader.End(), PeerError);
    EXPECT_EQ(reader.Mpint(), Bytes{});
    reader.End();
    EXPECT_THROW(reader.U8(), PeerError);
    EXPECT_THROW(Reader(FromHex("00000001ff")).Mpint(), PeerError);
    EXPECT_THROW(Reader(FromHex("000000020001")).Mpint(), PeerError);
    EXPECT_EQ(Difference({1, 2, 3}, {1, 2, 3}), "");
    EXPECT_NE(Difference({1, 2, 3}, {1, 2}), "");
}

TEST(PeerFaults, CutAfterSentSendsExactlyThatManyBytes) {
    for (std::size_t n : {0u, 1u, 5u, 12u}) {
        ScriptedPeer server([n](Connection& c) {
            c.Wire().faults.cutAfterSent = n;
            c.Wire().Begin();
            c.SendLine("first\n");
            c.SendLine("second");
        });
        RawClient client(server.Port());
        EXPECT_EQ(client.ReadAll(), Slice(ToBytes("first\nsecond"), 0, n));
        server.Finish();
        EXPECT_FALSE(server.RanToItsEnd());
    }
}

TEST(PeerFaults, CutAfterReceivedReadsExactlyThatManyBytes) {
    ScriptedPeer server([](Connection& c) {
        c.Wire().faults.cutAfterReceived = 3;
        c.ReadLine();
    });
    RawClient client(server.Port());
    client.Send("line\n");
    EXPECT_EQ(client.ReadAll(), Bytes{});
    server.Finish();
    EXPECT_EQ(server.At(0).Wire().Received(), ToBytes("lin"));
}

TEST(PeerFaults, FlipChangesOneByte) {
    ScriptedPeer server([](Connection& c) {
        c.Wire().faults.flipSent = 4;
        c.Wire().faults.flipMask = 0x20;
        c.SendLine("abc");
        c.SendLine("def");
    });
    RawClient client(server.Port());
    EXPECT_EQ(client.ReadAll(), ToBytes("abcdEf"));
    server.Finish();
    EXPECT_TRUE(server.RanToItsEnd());
}

TEST(PeerScripts, FailureReachesTheTest) {
    ScriptedPeer server([](Connection& c) { c.ReadLine(); });
    {
        RawClient client(server.Port());
    }
    EXPECT_THROW(server.Finish(), Closed);
    EXPECT_FALSE(server.RanToItsEnd());
    EXPECT_NE(server.Error(), "");
}

TEST(PeerScripts, EveryConnectionHasItsRecord) {
    ScriptedPeer server([](Connection& c) { c.SendLine(std::to_string(c.index)); });
    {
        RawClient first(server.Port());
        EXPECT_EQ(first.ReadAll(), ToBytes("0"));
    }
    RawClient second(server.Port());
    EXPECT_EQ(second.ReadAll(), ToBytes("1"));
    server.Finish(2);
    EXPECT_EQ(server.At(1).Wire().Sent(), ToBytes("1"));
}

// Every byte of whole sessions as the server sees them: what the client sends is built here a second time
// from the expected messages and compared with the stream; only random cookies and padding are taken from it.

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <numeric>

#include <brantle/cindral/enter_password.h>

#include "wire/all_algorithms.h"
#include "wire/standard_streams.h"
#include "wire/test_session.h"

using namespace peer;

namespace {

std::size_t ExpectedPadding(std::size_t payload, std::size_t block) {
    std::size_t const padding = block - (payload + 5) % block;
    return padding < 5 ? padding + block : padding;
}

/// The stream that carries these payloads. Padding of encrypted packets comes from the records.
Bytes ExpectedStream(Connection const& c, std::vector<Bytes> const& payloads) {
    KexState const& kex = c.kex;
    Bytes stream = ToBytes("SSH-2.0-libbrantle_0.1\n");
    Cipher cipher;
    MacKey mac;
    for (std::uint32_t sequence = 0; sequence < payloads.size(); ++sequence) {
        Bytes const& payload = payloads[sequence];
        std::size_t const size = ExpectedPadding(payload.size(), cipher.BlockSize());
        Bytes const padding = cipher.IsNone() ? Bytes(size) : c.received.at(sequence).padding;
        if (padding.size() != size) throw PeerError("padding of packet " + std::to_string(sequence));
        Bytes const plain = Writer()
                                .U32(static_cast<std::uint32_t>(1 + payload.size() + size))
                                .U8(static_cast<unsigned>(size))
                                .Raw(payload)
                                .Raw(padding);
        stream = Concat({stream, cipher.Process(plain), mac.Compute(sequence, plain)});
        if (payload[0] == NEWKEYS) {
            cipher = Cipher(kex.cipherClientToServer, kex.keys['C'], kex.keys['A'], true);
            mac = MacKey(kex.macClientToServer, kex.keys['E']);
        }
    }
    return stream;
}

std::vector<Bytes> KexPayloads(KexState const& kex, std::uint32_t preferred) {
    return {
        Writer().U8(KEXINIT).Raw(Slice(kex.clientKexInit, 1, 16)).Raw(Slice(kex.clientKexInit, 17, 10000)),
        Writer().U8(GEX_REQUEST).U32(1024).U32(preferred).U32(8192), Writer().U8(GEX_INIT).Mpint(kex.e),
        Writer().U8(NEWKEYS), Writer().U8(SERVICE_REQUEST).String("ssh-userauth")};
}

Writer AuthHead(std::string const& method) {
    return Writer().U8(USERAUTH_REQUEST).String("tester").String("ssh-connection").String(method);
}

/// What follows authentication: channel, command, one piece of input, its end, the answer to the peer's
/// end, and the farewell.
std::vector<Bytes> ConnectionPayloads() {
    return {Writer().U8(CHANNEL_OPEN).String("session").U32(0).U32(0x200000).U32(0x8000),
            Writer().U8(CHANNEL_REQUEST).U32(42).String("exec").Bool(false).String("wc -c"),
            Writer().U8(CHANNEL_DATA).U32(42).String("some input"),
            Writer().U8(CHANNEL_EOF).U32(42),
            Writer().U8(CHANNEL_CLOSE).U32(42),
            Writer().U8(DISCONNECT).U32(11).String("done").String("")};
}

void ServeCommand(Connection& c) {
    c.WellBehaved(Stage::Opened);
    c.ReadChannelRequest();
    c.ExpectPacket(CHANNEL_DATA);
    c.ExpectPacket(CHANNEL_EOF);
    c.SendData("out ");
    c.SendExtendedData("err");
    c.SendEof();
    c.ExpectPacket(CHANNEL_CLOSE);
    c.SendExitStatus(0);
    c.ExpectPacket(DISCONNECT);
    c.ExpectClosed();
}

std::uint32_t PreferredFor(std::size_t need) { return need <= 16 ? 1024 : need <= 24 ? 2048 : 4096; }

std::uint32_t CountedBytes(std::vector<PacketRecord> const& records) {
    return std::accumulate(records.begin(), records.end(), 0u,
                           [](std::uint32_t sum, PacketRecord const& r) { return sum + r.packetLength + 4; });
}

struct Counters {
    unsigned outSequence;
    unsigned inSequence;
    unsigned outBytes;
    unsigned inBytes;
};

/// Runs a session whole, with the identity of a key file if one is named.
Counters RunSession(std::uint16_t port, std::string const& identity) {
    StandardStreams streams("some input");
    TestSession session(port);
    EXPECT_EQ(session.Connect(10), 0);
    EXPECT_EQ(session.KeyExchange(), 0);
    cindral::EnterPassword enter(0, String_t());
    enter._tries = 1;
    cindral::KbdCopyCallback callback(String_t("secret"));
    EXPECT_EQ(session.Authenticate(String_t(identity.c_str()), String_t("tester"), String_t("secret"), enter,
                                   callback),
              0);
    EXPECT_EQ(session.Open(), 0);
    session.StartCommand(String_t("wc -c"));
    session.InitDispatcher();
    EXPECT_EQ(session.Run(), -1);
    session.Disconnect(11, String_t("done"));
    EXPECT_EQ(streams.Output(), "out err");
    return {session._out._sshBuffer._sequence, session._in._sshBuffer._sequence, session._out._byteCount,
            session._in._byteCount};
}

/// Runs a session against a server with these settings and compares its bytes.
void CompareSession(ServerSettings const& settings, std::string const& identity,
                    std::function<std::vector<Bytes>(Connection const&)> const& authPayloads) {
    ScriptedPeer server(ServeCommand, settings);
    Counters const counters = RunSession(server.Port(), identity);
    server.Finish();
    Connection const& c = server.At(0);
    std::vector<Bytes> payloads = KexPayloads(c.kex, PreferredFor(c.kex.need));
    for (auto const& part : {authPayloads(c), ConnectionPayloads()})
        payloads.insert(payloads.end(), part.begin(), part.end());
    ASSERT_EQ(c.received.size(), payloads.size());
    for (std::size_t i = 0; i < payloads.size(); ++i) {
        EXPECT_EQ(Difference(payloads[i], c.received[i].payload), "") << "packet " << i;
        EXPECT_EQ(c.received[i].sequence, i);
    }
    EXPECT_EQ(Difference(ExpectedStream(c, payloads), c.Wire().Received()), "");
    EXPECT_EQ(counters.outSequence, c.received.size());
    EXPECT_EQ(counters.inSequence, c.sent.size());
    EXPECT_EQ(counters.outBytes, CountedBytes(c.received));
    EXPECT_EQ(counters.inBytes, CountedBytes(c.sent));
}

std::vector<Bytes> NoneAndPassword(Connection const&) {
    return {AuthHead("none"), AuthHead("password").Bool(false).String("secret")};
}

class WholeSession : public testing::TestWithParam<Algorithms> {};

} // namespace

TEST_P(WholeSession, IsReproducibleByteForByte) {
    auto const [cipher, mac] = GetParam();
    ServerSettings settings;
    settings.kexInit.Pin(cipher, mac);
    settings.methods = "password";
    CompareSession(settings, "", NoneAndPassword);
}

INSTANTIATE_TEST_SUITE_P(Every, WholeSession, AllAlgorithms(), AlgorithmsName);

TEST(WholeSessionByMethod, None) {
    ServerSettings settings;
    settings.noneAccepted = true;
    CompareSession(settings, "", [](Connection const&) { return std::vector<Bytes>{AuthHead("none")}; });
}

TEST(WholeSessionByMethod, KeyboardInteractive) {
    ServerSettings settings;
    settings.methods = "keyboard-interactive,password";
    CompareSession(settings, "", [](Connection const&) {
        return std::vector<Bytes>{AuthHead("none"), AuthHead("keyboard-interactive").String("").String(""),
                                  Writer().U8(USERAUTH_INFO_RESPONSE).U32(1).String("secret")};
    });
}

TEST(WholeSessionByMethod, PublicKey) {
    KeyPair const& key = KeyPair::UserRsa();
    std::string const identity = std::string(std::getenv("HOME")) + "/identity";
    std::ofstream(identity) << key.Pem();
    chmod(identity.c_str(), 0600);
    std::ofstream(identity + ".pub") << key.PublicLine() << "\n";
    ServerSettings settings;
    settings.methods = "publickey";
    CompareSession(settings, identity, [&](Connection const& c) {
        Bytes const query = AuthHead("publickey").Bool(false).String("ssh-rsa").String(key.Blob());
        Bytes const request = AuthHead("publickey").Bool(true).String("ssh-rsa").String(key.Blob());
        // An RSA signature of this kind is the same each time, so that it can be compared too.
        Bytes const signature = key.Sign(Writer().String(c.kex.hash).Raw(request));
        return std::vector<Bytes>{AuthHead("none"), query, Writer().Raw(request).String(signature)};
    });
}

TEST(WholeSessionPadding, IsRandomUnderACipher) {
    ServerSettings settings;
    settings.methods = "password";
    ScriptedPeer server(ServeCommand, settings);
    RunSession(server.Port(), "");
    server.Finish();
    Bytes all;
    for (PacketRecord const& record : server.At(0).received)
        if (record.encrypted) all.insert(all.end(), record.padding.begin(), record.padding.end());
    std::vector<std::size_t> counts(256);
    for (std::uint8_t byte : all) ++counts[byte];
    ASSERT_GT(all.size(), 40u);
    EXPECT_LT(*std::max_element(counts.begin(), counts.end()), all.size() / 4);
}

TEST(WholeSessionSegments, SingleBytesMakeNoDifference) {
    ServerSettings settings;
    settings.methods = "password";
    ScriptedPeer server(
        [](Connection& c) {
            c.Wire().faults.segment = 1;
            ServeCommand(c);
        },
        settings);
    RunSession(server.Port(), "");
    server.Finish();
}

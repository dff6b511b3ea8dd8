// Whole sessions with a server that follows the protocol in all but one byte: each byte of its packets is
// changed in turn, and each packet sent under every other message number, before MAC and encryption, so that
// it reaches decoders and handlers. The session must end, in a result or exception of the library.

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <mutex>

#include "support/descriptor_state.h"
#include "support/session/captured_streams.h"
#include "wire/swept_session.h"

namespace fs = std::filesystem;
using support::OpenDescriptors;
using namespace peer;

namespace {

std::size_t const paddingLengthAt = 4;
std::size_t const payloadAt = 5;
unsigned const lastMessageNumber = 101;

/// A change of one byte of the plain text of one packet.
struct Change {
    std::uint32_t sequence;
    std::size_t at;
    std::uint8_t mask;
};

std::ostream& operator<<(std::ostream& out, Change const& change) {
    return out << "packet " << change.sequence << ", byte " << change.at << ", mask "
               << unsigned{change.mask};
}

/// The payload of the last packet sent, as the client reads it.
Bytes PayloadAsSent(Connection const& c) {
    Bytes const& plain = c.sent.back().plain;
    std::size_t const padding = plain[paddingLengthAt];
    return Slice(plain, payloadAt, std::max(plain.size() - payloadAt, padding) - padding);
}

DhGroup GroupAsSent(Connection const& c) {
    Reader reader(PayloadAsSent(c));
    reader.U8();
    DhGroup group;
    group.p = reader.Mpint();
    group.g = reader.Mpint();
    return group;
}

/// The whole session, with packets of many kinds. Both sides go on from the KEXINIT and the group that the
/// client received, so that a change there does not just break the exchange hash.
void Serve(Connection& c) {
    c.Identify();
    c.SendKexInit();
    c.kex.serverKexInit = PayloadAsSent(c);
    c.ReceiveKexInit();
    c.Negotiate();
    c.ReceiveGroupRequest();
    c.SendGroup();
    c.kex.group = GroupAsSent(c);
    c.ReceiveGroupInit();
    c.SendGroupReply(c.MakeGroupReply());
    c.NewKeys();
    c.ServiceAccept();
    c.Authenticate();
    c.ConfirmOpen();
    c.SendPacket(Writer().U8(GLOBAL_REQUEST).String("keepalive").Bool(true));
    c.SendIgnore("nothing");
    c.SendDebug("debug", false);
    c.SendWindowAdjust(0x10000);
    c.SendChannelMessage(CHANNEL_SUCCESS);
    c.SendData("output");
    c.SendExtendedData("");
    c.SendEof();
    c.SendExitStatus(0);
}

ServerSettings Settings(std::string const& method) {
    ServerSettings settings;
    settings.kexInit.Pin("aes128-ctr", "hmac-md5");
    settings.versionLine = "SSH-2.0-x\r\n";
    settings.group = DhGroup::Modp(1024);
    settings.methods = method;
    settings.banner = "banner";
    return settings;
}

/// Serves sessions of which all but the first have one byte changed.
class MaliciousServer {
public:
    MaliciousServer(std::string const& method, std::string const& identity)
        : _identity(identity), _server([this](Connection& c) { Perform(c); }, Settings(method)) {}

    std::string RunUnchanged() { return RunSession(_server.Port(), _identity); }

    std::string Run(Change const& change, std::chrono::milliseconds waitLimit) {
        {
            std::lock_guard<std::mutex> const lock(_mutex);
            _change = change;
            _waitLimit = waitLimit;
        }
        return RunUnchanged();
    }

    /// The packets of the first session.
    std::vector<PacketRecord> Finish() {
        _server.Join();
        return _server.At(0).sent;
    }

private:
    void Perform(Connection& c) {
        {
            std::lock_guard<std::mutex> const lock(_mutex);
            if (_change) {
                c.Wire().waitLimit = _waitLimit;
                c.tamper = [change = *_change](std::uint32_t sequence, Bytes& plain) {
                    if (sequence == change.sequence) plain.at(change.at) ^= change.mask;
                };
            }
        }
        Serve(c);
    }

    std::string _identity;
    std::mutex _mutex;
    std::optional<Change> _change;
    std::chrono::milliseconds _waitLimit{0};
    ScriptedPeer _server;
};

/// A step gave a negative result, as the last one does in the end, or an exception of the library's.
bool IsAnEnd(std::string const& outcome) {
    return outcome.find(" -") != std::string::npos || outcome.find(": ") != std::string::npos;
}

std::size_t const shards = 4;

/// One method of authentication, and one of the shards into which the changes are dealt.
class MaliciousSweep : public testing::TestWithParam<std::tuple<char const*, std::size_t>> {
protected:
    MaliciousSweep() {
        fs::path const directory = fs::path(std::getenv("HOME")) / ".ssh";
        fs::create_directories(directory);
        _identity = (directory / "own").string();
        std::ofstream(_identity) << KeyPair::UserRsa().Pem();
        std::ofstream(_identity + ".pub") << KeyPair::UserRsa().PublicLine() << '\n';
        fs::permissions(_identity, fs::perms::owner_read | fs::perms::owner_write);
    }
    ~MaliciousSweep() override { fs::remove_all(fs::path(_identity).parent_path()); }

    void SetUp() override {
        _descriptors = OpenDescriptors();
        MaliciousServer server(_method, _identity);
        ASSERT_EQ(server.RunUnchanged(), done);
        _packets = server.Finish();
        for (PacketRecord const& packet : _packets)
            if (packet.Type() == CHANNEL_OPEN_CONFIRMATION) _openedBy = packet.sequence;
    }
    void TearDown() override { EXPECT_EQ(OpenDescriptors(), _descriptors); }

    /// The methods differ only in the packets of the login; with "password" all others are swept, too.
    bool IsSwept(PacketRecord const& packet) const {
        bool const ofLogin = packet.Type() >= USERAUTH_REQUEST && packet.Type() < GLOBAL_REQUEST;
        return ofLogin || _method == "password";
    }

    /// Runs a session for each change of this shard.
    void Run(std::vector<Change> const& changes,
             std::function<void(Change const&, std::string const&)> check) {
        Captured const messages(std::cerr);
        std::optional<MaliciousServer> server;
        for (std::size_t n = std::get<1>(GetParam()); n < changes.size(); n += shards) {
            Change const& change = changes[n];
            PacketRecord const& packet = _packets[change.sequence];
            // A changed host key is checked completely only as long as the host is unknown.
            if (!server || packet.Type() == GEX_REPLY) server.emplace(_method, _identity);
            bool const inPadding = change.at >= packet.plain.size() - packet.padding.size();
            // Changes can make both sides wait for each other; the server gives up soon then.
            auto const limit = inPadding ? Link::timeLimit : std::chrono::milliseconds(300);
            check(change, server->Run(change, limit));
        }
    }

    std::string const _method = std::get<0>(GetParam());
    std::string _identity;
    std::vector<PacketRecord> _packets;
    std::uint32_t _openedBy = 0; ///< the packet that confirms the channel
    std::set<int> _descriptors;
};

} // namespace

TEST_P(MaliciousSweep, EachByteChanged) {
    std::vector<Change> changes;
    for (PacketRecord const& packet : _packets) {
        if (!IsSwept(packet)) continue;
        for (std::size_t at = paddingLengthAt; at < packet.plain.size(); ++at) {
            changes.push_back({packet.sequence, at, 0x01});
            changes.push_back({packet.sequence, at, 0x80});
            if (at < payloadAt + 5) changes.push_back({packet.sequence, at, 0xff});
        }
    }
    Run(changes, [this](Change const& change, std::string const& outcome) {
        PacketRecord const& packet = _packets[change.sequence];
        if (change.at >= packet.plain.size() - packet.padding.size()) {
            EXPECT_EQ(outcome, done) << change << ", which is padding";
        } else {
            EXPECT_TRUE(IsAnEnd(outcome)) << outcome << " after " << change;
        }
    });
}

TEST_P(MaliciousSweep, EachPacketUnderEveryOtherNumber) {
    std::vector<Change> changes;
    for (PacketRecord const& packet : _packets) {
        if (!IsSwept(packet)) continue;
        for (unsigned number = 0; number <= lastMessageNumber; ++number)
            if (number != packet.Type())
                changes.push_back(
                    {packet.sequence, payloadAt, static_cast<std::uint8_t>(packet.Type() ^ number)});
    }
    Run(changes, [this](Change const& change, std::string const& outcome) {
        EXPECT_TRUE(IsAnEnd(outcome)) << outcome << " after " << change;
        // The open channel tolerates missing messages; what comes before it, or ends it, is waited for.
        if (change.sequence <= _openedBy || change.sequence == _packets.back().sequence) {
            EXPECT_NE(outcome, done) << "after " << change;
        }
    });
}

INSTANTIATE_TEST_SUITE_P(Methods, MaliciousSweep,
                         testing::Combine(testing::Values("password", "publickey", "keyboard-interactive"),
                                          testing::Range(std::size_t{0}, shards)),
                         [](auto const& param) {
                             std::string name = std::get<0>(param.param);
                             name.erase(std::remove(name.begin(), name.end(), '-'), name.end());
                             return name + "_" + std::to_string(std::get<1>(param.param));
                         });

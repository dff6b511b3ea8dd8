// A whole session with the connection cut after each byte in turn, and with each byte of the server's
// changed in turn: it must end in a result or exception that reports it, and never as if nothing had
// happened.

#include <mutex>

#include "wire/swept_session.h"

using namespace peer;

namespace {

ServerSettings SweepSettings(char const* cipher) {
    ServerSettings settings;
    settings.kexInit.Pin(cipher, "hmac-md5");
    settings.kexInit.kex = "diffie-hellman-group-exchange-sha1";
    settings.versionLine = "SSH-2.0-x\r\n";
    settings.methods = "password";
    return settings;
}

void ServeCommand(Connection& c) {
    c.WellBehaved(Stage::Opened);
    c.ReadChannelRequest();
    c.SendData("output");
    c.SendEof();
    c.ExpectPacket(CHANNEL_EOF);
    c.ExpectPacket(CHANNEL_CLOSE);
    c.SendExitStatus(0);
}

bool EndsWith(std::string const& text, std::string const& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

bool IsRefusal(std::string const& outcome) {
    if (outcome == done || outcome == "nothing") return false;
    return outcome.find("-1") != std::string::npos || outcome.find("Error: ") != std::string::npos ||
           outcome.find("BadInput: ") != std::string::npos ||
           outcome.find("InvalidArgument: ") != std::string::npos ||
           outcome.find("CryptoException: ") != std::string::npos;
}

/// A server whose connections but the first suffer the faults that the test sets before each session.
class SweptServer {
public:
    explicit SweptServer(char const* cipher)
        : _server(
              [this](Connection& c) {
                  if (c.index > 0) Arm(c);
                  c.Wire().Begin();
                  ServeCommand(c);
              },
              SweepSettings(cipher)) {
        EXPECT_EQ(RunSession(_server.Port()), done);
    }

    std::string Run(Faults const& faults, std::chrono::milliseconds waitLimit = Link::timeLimit) {
        {
            std::lock_guard<std::mutex> const lock(_mutex);
            _faults = faults;
            _waitLimit = waitLimit;
        }
        return RunSession(_server.Port());
    }

    /// Ends the server. The first connection, which had no faults, gives the positions.
    Connection const& Finish(std::size_t sessions) {
        _server.Join(sessions + 1);
        return _server.At(0);
    }

private:
    void Arm(Connection& c) {
        std::lock_guard<std::mutex> const lock(_mutex);
        c.Wire().faults = _faults;
        c.Wire().waitLimit = _waitLimit;
    }

    std::mutex _mutex;
    Faults _faults;
    std::chrono::milliseconds _waitLimit{0};
    ScriptedPeer _server;
};

/// Sizes of a session's streams, and the packets of the server's.
struct Layout {
    std::size_t sent;
    std::size_t received;
    std::size_t lineEnd; ///< where the CR of the server's line is
    std::vector<PacketRecord> packets;

    /// The packet that holds this byte of the server's stream; null within the line.
    PacketRecord const* At(std::size_t position) const {
        for (PacketRecord const& packet : packets)
            if (position >= packet.streamOffset &&
                position < packet.streamOffset + packet.raw.size() + packet.mac.size())
                return &packet;
        return nullptr;
    }
};

Layout SessionLayout(char const* cipher) {
    SweptServer server(cipher);
    Connection const& c = server.Finish(0);
    return {c.Wire().SentCount(), c.Wire().ReceivedCount(), c.kex.serverVersion.size(), c.sent};
}

std::size_t const shards = 8;

/// One cipher, and one of the shards into which the positions are dealt.
class Sweep : public testing::TestWithParam<std::tuple<char const*, std::size_t>> {
protected:
    void SetUp() override { _layout = SessionLayout(std::get<0>(GetParam())); }

    /// Gives each position of this shard below end to a check, with a server to run its session against.
    void ForEachPosition(std::size_t end, std::function<void(SweptServer&, std::size_t)> const& check) {
        SweptServer server(std::get<0>(GetParam()));
        std::size_t sessions = 0;
        for (std::size_t n = std::get<1>(GetParam()); n < end; n += shards, ++sessions) {
            SCOPED_TRACE("position " + std::to_string(n));
            check(server, n);
        }
        server.Finish(sessions);
    }

    Layout _layout;
};

Faults CutAfterReceived(std::size_t count, bool reset) {
    Faults faults;
    faults.cutAfterReceived = count;
    faults.reset = reset;
    return faults;
}

} // namespace

TEST_P(Sweep, CutAfterEachByteOfTheServer) {
    ForEachPosition(_layout.sent, [&](SweptServer& server, std::size_t n) {
        Faults faults;
        faults.cutAfterSent = n;
        std::string const outcome = server.Run(faults);
        PacketRecord const* packet = _layout.At(n);
        bool const inLast = packet && packet == &_layout.packets.back();
        if (inLast && n >= packet->streamOffset + packet->raw.size()) {
            EXPECT_EQ(outcome, done);
        } else if (inLast && n >= packet->streamOffset + packet->blockSize) {
            // The missing part reads as zeros, and so do a status of zero and padding that is not checked.
            EXPECT_TRUE(IsRefusal(outcome) || outcome == done) << outcome;
        } else if (!packet || n < packet->streamOffset + 4 ||
                   n >= packet->streamOffset + packet->raw.size()) {
            EXPECT_TRUE(EndsWith(outcome, closedEarly)) << outcome;
        } else {
            EXPECT_TRUE(IsRefusal(outcome)) << outcome;
        }
    });
}

TEST_P(Sweep, CutAfterEachByteOfTheClient) {
    ForEachPosition(_layout.received, [&](SweptServer& server, std::size_t n) {
        std::string const outcome = server.Run(CutAfterReceived(n, false));
        EXPECT_TRUE(EndsWith(outcome, closedEarly)) << outcome;
    });
}

TEST_P(Sweep, ResetAfterEachByteOfTheClient) {
    ForEachPosition(_layout.received, [&](SweptServer& server, std::size_t n) {
        std::string const outcome = server.Run(CutAfterReceived(n, true));
        EXPECT_TRUE(IsRefusal(outcome)) << outcome;
    });
}

TEST_P(Sweep, EachByteOfTheServerChanged) {
    ForEachPosition(_layout.sent, [&](SweptServer& server, std::size_t n) {
        Faults faults;
        faults.flipSent = n;
        PacketRecord const* packet = _layout.At(n);
        std::size_t const at = packet ? n - packet->streamOffset : 0;
        // A changed length or line end makes both sides wait for the other; the server gives up soon then.
        bool const lengthChanged =
            packet ? at < (packet->encrypted ? packet->blockSize : 4) : n == _layout.lineEnd + 1;
        std::string const outcome =
            server.Run(faults, lengthChanged ? std::chrono::milliseconds(300) : Link::timeLimit);
        bool const trimmed = n == _layout.lineEnd; // CR becomes another blank that is cut off as well
        if (trimmed || (packet && !packet->encrypted && at >= packet->raw.size() - packet->padding.size())) {
            EXPECT_EQ(outcome, done) << "nothing protects this byte";
        } else if (packet && !packet->encrypted && at == 4) {
            // One byte of padding more than there is passes where the payload is not hashed.
            EXPECT_TRUE(IsRefusal(outcome) || outcome == done) << outcome;
        } else if (packet && packet->encrypted && at >= packet->blockSize) {
            EXPECT_TRUE(EndsWith(outcome, "SshProtocolError: invalid mac value")) << outcome;
        } else {
            EXPECT_TRUE(IsRefusal(outcome)) << outcome;
        }
    });
}

INSTANTIATE_TEST_SUITE_P(Positions, Sweep,
                         testing::Combine(testing::Values("aes128-ctr", "aes128-cbc"),
                                          testing::Range(std::size_t{0}, shards)),
                         [](auto const& param) {
                             std::string const mode = std::string(std::get<0>(param.param)).substr(7);
                             return mode + "_" + std::to_string(std::get<1>(param.param));
                         });

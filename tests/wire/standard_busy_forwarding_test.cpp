// Forwarded connections of the standard dialect that are slow, many, or busy in both directions at once.

#include <future>
#include <map>

#include "wire/standard_forwarding_fixture.h"

using namespace peer;
using testing::HasSubstr;

namespace {

constexpr std::uint32_t CLIENTS_WINDOW = 0x200000; ///< what the client grants each channel

/// Bytes in which every loss shows, different for each seed.
std::string Noise(std::size_t size, unsigned int seed) {
    std::string bytes(size, '\0');
    unsigned int state = seed + 1;
    for (char& byte : bytes) {
        state = state * 1664525u + 1013904223u;
        byte = static_cast<char>(state >> 24);
    }
    return bytes;
}

/// Sends on a channel what the client grants for it, until it grants no more. Returns the number of bytes.
std::size_t SendUntilItIsStuck(StandardConnection& c, std::uint32_t channel) {
    std::string const piece(0x8000, 'x');
    std::size_t sent = 0, granted = CLIENTS_WINDOW;
    do {
        for (; sent + piece.size() <= granted; sent += piece.size()) c.SendPacket(Data(piece, channel));
        while (c.Wire().WaitReadable(std::chrono::milliseconds(300))) {
            Reader message(c.ReadPacket());
            if (message.U8() != CHANNEL_WINDOW_ADJUST) continue;
            message.U32();
            granted += message.U32();
            break;
        }
    } while (sent + piece.size() <= granted);
    return sent;
}

class StandardBusyForwarding : public StandardForwardingTest {
protected:
    tcp::Service service;
};

TEST_F(StandardBusyForwarding, SlowLocalProgramHoldsUpItsOwnChannelAlone) {
    std::string const piece(MAX_PACKET, 'x');
    std::string slowText, quickText;
    StandardResult const result = Forward(
        [&](StandardConnection& c) {
            c.Wire().recording = false;
            std::uint32_t slow = 0, quick = 0;
            tcp::End const slowEnd = ConnectThrough(c, 70, 0, slow); // which may not send anything either
            tcp::End const quickEnd = ConnectThrough(c, 71, 1000, quick);
            slowEnd.Send("rests");
            std::size_t const stuck = SendUntilItIsStuck(c, slow);
            for (int round = 0; round < 6; ++round) {
                for (std::uint32_t sent = 0; sent < CLIENTS_WINDOW / 2; sent += MAX_PACKET)
                    c.SendPacket(Data(piece, quick));
                quickText += quickEnd.Receive(CLIENTS_WINDOW / 2);
            }
            quickEnd.Send("goes on");
            Reader data = c.SkipTo(CHANNEL_DATA);
            EXPECT_EQ(data.U32(), 71u);
            EXPECT_EQ(data.String(), "goes on");
            c.SendPacket(Data("output"));
            slowText = slowEnd.Receive(stuck);
            EXPECT_EQ(slowText.size(), stuck);
            c.SendPacket(WindowAdjust(slow, 100));
            data = c.SkipTo(CHANNEL_DATA);
            EXPECT_EQ(data.U32(), 70u);
            EXPECT_EQ(data.String(), "rests");
            c.SendTogether(Ending(3));
        },
        service.Port());
    EXPECT_EQ(result.outcome, RUN_ENDED);
    EXPECT_EQ(result.exitStatus, 3);
    EXPECT_EQ(result.output, "output");
    EXPECT_TRUE(quickText == std::string(3 * CLIENTS_WINDOW, 'x'));
    EXPECT_GE(slowText.size(), CLIENTS_WINDOW);
    EXPECT_EQ(slowText.find_first_not_of('x'), std::string::npos);
}

/// They are all there before the loop accepts the first, and the session's own output goes on meanwhile.
TEST_F(StandardBusyForwarding, BurstOfConnectionsIsServedWholeBesideBulkData) {
    constexpr unsigned int BURST = 120;
    constexpr std::uint32_t FIRST = 100; // of the server's numbers
    std::vector<tcp::End> ends;
    std::size_t bulk = 0;
    StandardResult const result = Forward(
        [&](StandardConnection& c) {
            c.Wire().recording = false;
            std::map<std::uint32_t, std::uint32_t> locals; ///< by the server's numbers
            std::size_t window = CLIENTS_WINDOW;
            std::string const piece(16384, 'b');
            for (unsigned int closed = 0; closed < BURST;) {
                if (window >= piece.size()) {
                    c.SendPacket(Data(piece));
                    window -= piece.size();
                    bulk += piece.size();
                }
                Reader message(c.ReadPacket());
                std::uint8_t const type = message.U8();
                if (type == CHANNEL_OPEN) {
                    EXPECT_EQ(message.String(), "direct-tcpip");
                    auto const remote = FIRST + static_cast<std::uint32_t>(locals.size());
                    locals[remote] = message.U32();
                    c.SendPacket(Confirmation(locals[remote], remote, 1000));
                    continue;
                }
                std::uint32_t const remote = message.U32();
                if (type == CHANNEL_WINDOW_ADJUST && remote == settings.channel) window += message.U32();
                if (type == CHANNEL_DATA) {
                    c.SendPacket(Data(message.String() + " came", locals.at(remote)));
                    c.SendTogether({Eof(locals.at(remote)), Close(locals.at(remote))});
                }
                if (type == CHANNEL_CLOSE) ++closed;
            }
            c.SendTogether(Ending(3));
        },
        service.Port(),
        [&](StandardClient&) {
            for (unsigned int i = 0; i < BURST; ++i) {
                ends.push_back(tcp::End::To(Listener()));
                ends.back().Send(std::to_string(i));
            }
        });
    EXPECT_EQ(result.outcome, RUN_ENDED);
    EXPECT_EQ(result.exitStatus, 3);
    EXPECT_EQ(result.output.size(), bulk);
    EXPECT_GE(bulk, CLIENTS_WINDOW);
    ASSERT_EQ(ends.size(), BURST);
    for (unsigned int i = 0; i < BURST; ++i) EXPECT_EQ(ends[i].ReceiveAll(), std::to_string(i) + " came");
}

// --- both kinds at once

TEST_F(StandardBusyForwarding, OpeningsOfBothSidesThatCrossAreBothServed) {
    StandardResult const result = Forward(
        [&](StandardConnection& c) {
            for (std::uint32_t round = 0; round < 50; ++round) {
                std::uint32_t const asked = 1000 + 2 * round, offered = asked + 1;
                tcp::End const near = tcp::End::To(Listener());
                std::uint32_t const local = OpenedBy(c); // unanswered as yet
                c.SendPacket(Opening(offered, 1000));
                tcp::End const far = service.Accept();
                Reader confirmation = c.SkipTo(CHANNEL_OPEN_CONFIRMATION);
                EXPECT_EQ(confirmation.U32(), offered);
                std::uint32_t const other = confirmation.U32();
                EXPECT_NE(other, local);
                c.SendPacket(Data("to the service", other));
                EXPECT_EQ(far.Receive(14), "to the service");
                c.SendTogether({Confirmation(local, asked, 1000), Data("to the program", local)});
                EXPECT_EQ(near.Receive(14), "to the program");
                near.Send("n");
                Reader data = c.SkipTo(CHANNEL_DATA);
                EXPECT_EQ(data.U32(), asked);
                far.Send("f");
                data = c.SkipTo(CHANNEL_DATA);
                EXPECT_EQ(data.U32(), offered);
            }
            c.SendTogether(Ending(3));
        },
        service.Port());
    EXPECT_EQ(result.outcome, RUN_ENDED);
    EXPECT_EQ(result.exitStatus, 3);
}

/// Sends back on each channel what comes on it, within the client's windows.
class Echo {
public:
    explicit Echo(StandardConnection& connection) : _connection(connection) {}

    /// A channel whose window for the client is that.
    void Add(std::uint32_t remote, std::uint32_t local) { _channels[remote] = {local, CLIENTS_WINDOW, ""}; }

    /// Until all channels have ended.
    void Serve() {
        while (!_channels.empty()) {
            Reader message(_connection.ReadPacket());
            std::uint8_t const type = message.U8();
            auto const found = _channels.find(message.U32());
            if (found == _channels.end()) continue;
            Channel& channel = found->second;
            if (type == CHANNEL_CLOSE) {
                _channels.erase(found);
                continue;
            }
            if (type == CHANNEL_DATA) {
                std::string const data = message.String();
                channel.bytes += data;
                _connection.SendPacket(WindowAdjust(channel.local, static_cast<std::uint32_t>(data.size())));
            }
            if (type == CHANNEL_WINDOW_ADJUST) channel.window += message.U32();
            if (type == CHANNEL_EOF) channel.hasEnded = true;
            SendBack(channel);
        }
    }

private:
    struct Channel {
        std::uint32_t local;
        std::size_t window;
        std::string bytes;
        bool hasEnded = false; ///< the client has sent all
        bool isClosed = false;
    };

    void SendBack(Channel& channel) {
        while (!channel.bytes.empty() && channel.window > 0) {
            std::size_t const size = std::min({channel.bytes.size(), channel.window, std::size_t{0x8000}});
            _connection.SendPacket(Data(channel.bytes.substr(0, size), channel.local));
            channel.bytes.erase(0, size);
            channel.window -= size;
        }
        if (!channel.hasEnded || !channel.bytes.empty() || std::exchange(channel.isClosed, true)) return;
        _connection.SendTogether({Eof(channel.local), Close(channel.local)});
    }

    StandardConnection& _connection;
    std::map<std::uint32_t, Channel> _channels;
};

/// Sends and receives at once; whether all has come back.
bool ComesBack(tcp::End const& end, std::string const& bytes) {
    auto const sent = std::async(std::launch::async, [&] {
        end.Send(bytes);
        end.EndSending();
    });
    return end.ReceiveAll() == bytes;
}

TEST_F(StandardBusyForwarding, BothKindsCarryBulkDataBothWaysAtOnce) {
    constexpr std::uint32_t PAIRS = 6, WINDOW = 0x10000;
    std::vector<tcp::End> ends;
    std::vector<std::future<bool>> complete;
    StandardResult const result = Forward(
        [&](StandardConnection& c) {
            c.Wire().recording = false;
            Echo echo(c);
            for (std::uint32_t remote = 100; remote < 100 + 2 * PAIRS; remote += 2) {
                std::uint32_t local = 0;
                ends.push_back(ConnectThrough(c, remote, WINDOW, local));
                echo.Add(remote, local);
                c.SendPacket(Opening(remote + 1, WINDOW));
                ends.push_back(service.Accept());
                Reader confirmation = c.SkipTo(CHANNEL_OPEN_CONFIRMATION);
                EXPECT_EQ(confirmation.U32(), remote + 1);
                echo.Add(remote + 1, confirmation.U32());
            }
            for (unsigned int i = 0; i < ends.size(); ++i)
                complete.push_back(std::async(std::launch::async, [&ends, i] {
                    return ComesBack(ends[i], Noise(2 * CLIENTS_WINDOW + 12345, i));
                }));
            echo.Serve();
            c.SendTogether(Ending(3));
        },
        service.Port());
    EXPECT_EQ(result.outcome, RUN_ENDED);
    EXPECT_EQ(result.exitStatus, 3);
    ASSERT_EQ(complete.size(), 2 * PAIRS);
    for (auto& one : complete) EXPECT_TRUE(one.get());
}

} // namespace

// Where a session with the standard dialect sets limits to its server, its descriptors and its channels.

#include <sys/resource.h>

#include <future>

#include "wire/standard_forwarding_fixture.h"

using namespace peer;
using testing::HasSubstr;

namespace {

constexpr std::uint32_t WINDOW = 1000;
constexpr std::uint32_t PROHIBITED = 1, RESOURCE_SHORTAGE = 4; // RFC 4254, section 5.1

class StandardLimits : public StandardForwardingTest {};

TEST_F(StandardLimits, ForwardedConnectionWithoutADescriptorIsClosedAndTheOthersGoOn) {
    tcp::Service const service;
    StandardResult const result = Forward(
        [&](StandardConnection& c) {
            std::uint32_t first = 0, last = 0;
            tcp::End const before = ConnectThrough(c, 70, WINDOW, first);
            c.SendPacket(Data("x", first));
            EXPECT_EQ(before.Receive(1), "x");
            tcp::End without(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
            sockaddr_in const address = tcp::Loopback(Listener());
            noneToAccept = true;
            EXPECT_EQ(connect(without.Fd(), reinterpret_cast<sockaddr const*>(&address), sizeof address), 0);
            EXPECT_TRUE(without.IsClosedByPeer());
            before.Send("y");
            EXPECT_EQ(c.SkipTo(CHANNEL_DATA).U32(), 70u);
            noneToAccept = false;
            tcp::End const after = ConnectThrough(c, 71, WINDOW, last);
            c.SendPacket(Data("z", last));
            EXPECT_EQ(after.Receive(1), "z");
            c.SendTogether(Ending(3));
        },
        service.Port());
    EXPECT_EQ(result.outcome, RUN_ENDED);
    EXPECT_EQ(result.exitStatus, 3);
    EXPECT_EQ(result.lastError, "no descriptor left for a forwarded connection");
}

/// A service that leaves all connections in its queue, and room for their descriptors.
class Queue {
public:
    Queue() : _fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in const address = tcp::Loopback(0);
        Checked(bind(_fd, reinterpret_cast<sockaddr const*>(&address), sizeof address), "bind");
        Checked(listen(_fd, 4000), "listen");
        getrlimit(RLIMIT_NOFILE, &_before);
        rlimit const raised{std::max<rlim_t>(_before.rlim_cur, 4000), _before.rlim_max};
        Checked(setrlimit(RLIMIT_NOFILE, &raised), "setrlimit");
    }
    ~Queue() {
        close(_fd);
        setrlimit(RLIMIT_NOFILE, &_before);
    }
    Queue(Queue const&) = delete;
    Queue& operator=(Queue const&) = delete;

    std::uint16_t Port() const { return tcp::PortOf(_fd); }

private:
    int _fd;
    rlimit _before{};
};

TEST_F(StandardLimits, ChannelBeyondThe1024thIsRefusedUntilOneHasEnded) {
    constexpr std::uint32_t MOST = 1024, FIRST = 100;
    Queue const target;
    StandardResult const result = Forward(
        [&](StandardConnection& c) {
            std::uint32_t local = 0;
            for (std::uint32_t remote = FIRST; remote < FIRST + MOST - 1; ++remote) {
                c.SendPacket(Opening(remote, WINDOW));
                Reader answer = c.ExpectPacket(CHANNEL_OPEN_CONFIRMATION);
                EXPECT_EQ(answer.U32(), remote);
                local = answer.U32();
            }
            c.SendPacket(Opening(7, WINDOW));
            Reader refusal = c.ExpectPacket(CHANNEL_OPEN_FAILURE);
            EXPECT_EQ(refusal.U32(), 7u);
            EXPECT_EQ(refusal.U32(), RESOURCE_SHORTAGE);
            EXPECT_TRUE(tcp::End::To(Listener()).IsClosedByPeer());
            c.SendPacket(Close(local));
            c.ExpectPacket(CHANNEL_CLOSE);
            c.SendPacket(Opening(7, WINDOW));
            EXPECT_EQ(c.ExpectPacket(CHANNEL_OPEN_CONFIRMATION).U32(), 7u);
            c.SendTogether(Ending(3));
        },
        target.Port());
    EXPECT_EQ(result.outcome, RUN_ENDED);
    EXPECT_EQ(result.exitStatus, 3);
    EXPECT_EQ(result.lastError, "too many channels for a further forwarded connection");
}

/// The reason for which the client refuses that channel next.
std::uint32_t ReasonFor(StandardConnection& c, std::uint32_t remote) {
    Reader refusal = c.ExpectPacket(CHANNEL_OPEN_FAILURE);
    EXPECT_EQ(refusal.U32(), remote);
    return refusal.U32();
}

TEST_F(StandardLimits, The65thOpeningBeforeTheLoopRunsIsRefusedAtOnce) {
    constexpr std::uint32_t KEPT = 64;
    StandardResult const result = RunFrom([](StandardConnection& c) {
        c.WellBehaved(Stage::Authenticated);
        c.ExpectPacket(CHANNEL_OPEN);
        for (std::uint32_t remote = 0; remote <= KEPT; ++remote) c.SendPacket(Opening(1000 + remote, WINDOW));
        EXPECT_EQ(ReasonFor(c, 1000 + KEPT), RESOURCE_SHORTAGE);
        c.SendPacket(Confirmation(0, 42, WINDOW));
        c.ReadChannelRequest();
        for (std::uint32_t remote = 0; remote < KEPT; ++remote)
            EXPECT_EQ(ReasonFor(c, 1000 + remote), PROHIBITED); // as that port is not forwarded
        c.SendTogether(Ending(3));
        c.ReadToTheEnd();
    });
    EXPECT_EQ(server->Error(), "");
    EXPECT_EQ(result.outcome, RUN_ENDED);
    EXPECT_EQ(result.exitStatus, 3);
}

// --- floods

/// Ends the session when its descriptor can be read.
class Stop : public IOMultiplexerDispatcher {
public:
    explicit Stop(LoopSession& session) : IOMultiplexerDispatcher(IOMultiplexerRead), _session(session) {}
    Stop* Clone() const override { return new Stop(*this); }
    int Dispatch(int) override {
        _session.Terminate();
        return 0;
    }

private:
    LoopSession& _session;
};

struct Flood {
    char const* name;
    Bytes message;
};

class StandardFlood : public StandardForwardingTest, public testing::WithParamInterface<Flood> {};

TEST_P(StandardFlood, AnotherDescriptorOfTheProgramActsMeanwhile) {
    InputPipe other;
    StandardResult const result = RunFrom(
        [&](StandardConnection& c) {
            c.WellBehaved(Stage::Opened);
            c.ReadChannelRequest();
            c.Wire().recording = false;
            std::vector<Bytes> const many(100, GetParam().message);
            for (int rounds = 0;; ++rounds) {
                c.SendTogether(many);
                if (rounds == 20) other.Write("x"); // the loop is in the midst of it
            }
        },
        [&](StandardClient& client) {
            client.beforeRun = [&] {
                client.session.Multiplexer().Register(other.Fd(), Stop(client.session));
            };
        });
    EXPECT_EQ(result.outcome, RUN_ENDED);
    EXPECT_EQ(result.exitStatus, -1);
}

TEST_P(StandardFlood, InputAndForwardedConnectionsReachTheServerMeanwhile) {
    tcp::Service const service;
    StandardResult const result = Forward(
        [&](StandardConnection& c) {
            c.Wire().recording = false;
            std::vector<Bytes> const many(100, GetParam().message);
            tcp::End const end = tcp::End::To(Listener());
            bool hasInput = false, hasOpening = false;
            for (int rounds = 0; !hasInput || !hasOpening; ++rounds) {
                c.SendTogether(many);
                if (rounds == 20) input.Write("input");
                while (c.Wire().WaitReadable(std::chrono::milliseconds(0))) {
                    std::uint8_t const type = c.ReadPacket().at(0);
                    hasInput |= type == CHANNEL_DATA;
                    hasOpening |= type == CHANNEL_OPEN;
                }
            }
            c.SendTogether(Ending(3));
        },
        service.Port());
    EXPECT_EQ(result.outcome, RUN_ENDED);
    EXPECT_EQ(result.exitStatus, 3);
}

INSTANTIATE_TEST_SUITE_P(
    Of, StandardFlood,
    testing::Values(Flood{"Ignore", Ignore(std::string(1000, 'x'))}, Flood{"EmptyIgnore", {IGNORE}},
                    Flood{"EmptyData", Data("")}, Flood{"UnknownNumbers", {192}},
                    Flood{"GlobalRequests", Writer().U8(GLOBAL_REQUEST).String("name").Bool(false)},
                    Flood{"WindowAdjustments", WindowAdjust(0, 0)}),
    [](auto const& param) { return std::string(param.param.name); });

} // namespace

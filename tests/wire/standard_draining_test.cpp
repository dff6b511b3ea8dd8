// Ends of a session with the standard dialect: what has arrived is delivered, whatever happens to the
// connection.

#include <fcntl.h>

#include <future>
#include <thread>

#include <brantle/channel/tcp_forwarding.h>

#include "wire/standard_fixture.h"
#include "wire/tcp_end.h"

using namespace peer;
using testing::StartsWith;

namespace {

constexpr std::size_t OUTPUT = 640 * 1024; ///< more than a pipe holds

/// Reads the client's standard output, from when the server has gone.
class StandardDraining : public StandardTest {
protected:
    void SetUp() override { ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0); }
    void TearDown() override {
        if (reader.joinable()) reader.join();
        close(ends[0]);
    }

    /// Large output and status 3, then CLOSE; returns when the client has closed, too, and the connection is
    /// reset.
    void SendOutputAndGo(StandardConnection& c) {
        for (std::size_t sent = 0; sent < OUTPUT; sent += settings.maxPacket)
            c.SendPacket(Data(std::string(settings.maxPacket, 'x')));
        c.SendTogether(Ending(3));
        c.SkipTo(CHANNEL_CLOSE);
        c.Wire().Reset();
    }
    /// To be called by the script at its end.
    void LetRead(std::chrono::milliseconds after) {
        std::this_thread::sleep_for(after);
        gone.set_value();
    }
    /// Puts a pipe in the place of descriptor 1.
    void ReadLate() {
        dup2(ends[1], 1);
        close(ends[1]);
        reader = std::thread([this] {
            gone.get_future().wait();
            char buffer[0x10000];
            for (ssize_t n; (n = read(ends[0], buffer, sizeof buffer)) > 0;)
                text.append(buffer, static_cast<std::size_t>(n));
        });
    }
    void ExpectAll(StandardResult const& result) {
        reader.join();
        EXPECT_EQ(server->Error(), "");
        EXPECT_EQ(result.outcome, RUN_ENDED);
        EXPECT_EQ(result.exitStatus, 3);
        EXPECT_EQ(result.lastError, "");
        EXPECT_EQ(text.size(), OUTPUT);
    }

    int ends[2];
    std::promise<void> gone;
    std::thread reader;
    std::string text;
};

TEST_F(StandardDraining, ResetAfterTheCloseLosesNothingThoughInputIsUnread) {
    for (std::string const& typed : {std::string(), std::string(60000, 'i')}) {
        gone = {};
        input.Write(typed);
        StandardResult const result = RunFrom(
            [&](StandardConnection& c) {
                c.WellBehaved(Stage::Opened);
                c.ReadChannelRequest();
                c.SendPacket(Data("output"));
                c.SendTogether(Ending(3));
                c.Wire().Reset();
                gone.set_value();
            },
            [&](StandardClient& client) { client.beforeRun = [&] { gone.get_future().wait(); }; });
        EXPECT_EQ(result.outcome, RUN_ENDED);
        EXPECT_EQ(result.exitStatus, 3);
        EXPECT_EQ(result.lastError, "");
        EXPECT_THAT(result.output, StartsWith("output"));
    }
}

TEST_F(StandardDraining, ForwardedConnectionIsNotReadAfterTheClose) {
    std::promise<std::uint16_t> port;
    StandardResult const result = RunFrom(
        [&](StandardConnection& c) {
            c.WellBehaved(Stage::Opened);
            c.ReadChannelRequest();
            std::uint16_t const listener = port.get_future().get();
            tcp::End const local = tcp::End::To(listener);
            std::uint32_t const number = c.ReadChannelOpen().sender;
            c.SendPacket(
                Writer().U8(CHANNEL_OPEN_CONFIRMATION).U32(number).U32(77).U32(1 << 20).U32(1 << 15));
            local.Send("request");
            c.SkipTo(CHANNEL_DATA);
            SendOutputAndGo(c);
            local.Send("more");
            EXPECT_TRUE(tcp::End::To(listener).Receive(1).empty());
            LetRead(std::chrono::milliseconds(50));
        },
        [&](StandardClient& client) {
            ReadLate();
            client.beforeRun = [&] {
                auto& session = client.session;
                EXPECT_EQ(session.StartLocalForwarding(8000, "target", 0, "127.0.0.1"), 0);
                port.set_value(tcp::PortOf(session._localForwardings.Find(0)->_server->Fd()));
            };
        });
    ExpectAll(result);
}

TEST_F(StandardDraining, RekeyingThatIsDueIsNotStartedAfterTheClose) {
    StandardResult const result = RunFrom(
        [&](StandardConnection& c) {
            c.WellBehaved(Stage::Opened);
            c.ReadChannelRequest();
            SendOutputAndGo(c);
            LetRead(std::chrono::milliseconds(1200));
        },
        [&](StandardClient& client) {
            client.dialect.SetRekeyLimit(1 << 30, 1);
            ReadLate();
        });
    ExpectAll(result);
}

/// What the server has said before is read first.
TEST_F(StandardDraining, WordsOfADisconnectAreReadThoughInputCanNotBeSent) {
    input.Write("input");
    StandardResult const result = RunFrom(
        [&](StandardConnection& c) {
            c.WellBehaved(Stage::Opened);
            c.ReadChannelRequest();
            c.SendPacket(Disconnect("too late"));
            c.Wire().Reset();
            gone.set_value();
        },
        [&](StandardClient& client) { client.beforeRun = [&] { gone.get_future().wait(); }; });
    EXPECT_THAT(result.outcome, StartsWith("Run SshProtocolError: disconnected by the server: too late"));
}

TEST_F(StandardDraining, ConnectionThatIsLostWhileInputIsSentIsTheLastError) {
    input.Write("input");
    StandardResult const result = RunFrom(
        [&](StandardConnection& c) {
            c.WellBehaved(Stage::Opened);
            c.ReadChannelRequest();
            c.Wire().Reset();
            gone.set_value();
        },
        [&](StandardClient& client) { client.beforeRun = [&] { gone.get_future().wait(); }; });
    EXPECT_THAT(result.outcome, StartsWith("Run SystemError: connection lost"));
    EXPECT_THAT(result.lastError, StartsWith("connection lost"));
}

TEST_F(StandardDraining, OutputThatCanNotBeWrittenLaterIsTheLastError) {
    StandardResult const result = RunFrom(
        [&](StandardConnection& c) {
            c.WellBehaved(Stage::Opened);
            c.ReadChannelRequest();
            SendOutputAndGo(c);
            LetRead(std::chrono::milliseconds(50));
        },
        [&](StandardClient&) {
            dup2(ends[1], 1);
            close(ends[1]);
            reader = std::thread([this] {
                gone.get_future().wait();
                close(std::exchange(ends[0], -1));
            });
        });
    EXPECT_THAT(result.outcome, StartsWith("Run SystemError: write failed"));
    EXPECT_THAT(result.lastError, StartsWith("write failed"));
}

} // namespace

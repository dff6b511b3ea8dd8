// A conversation of SFTP over an encrypted connection, and what becomes of it when the connection is cut.

#include <brantle/sftp/sftp_client.h>

#include <mutex>

#include "wire/apps_fixture.h"

using namespace peer;
using cindral::SftpClient;
using testing::HasSubstr;

namespace {

char const* const done = "3 hello 0";

Writer Head(unsigned type, std::uint32_t id) { return Writer().U8(type).U32(id); }

/// The client's messages in the conversation.
std::vector<Bytes> Requests() {
    return {
        Writer().U8(1).U32(3),
        Head(3, 0).String("/f").U32(SftpClient::SSH_FXF_READ).U32(0),
        Head(5, 1).String("handle").U64(0).U32(100),
        Head(4, 2).String("handle"),
    };
}

std::vector<Bytes> Replies() {
    return {
        Writer().U8(2).U32(3),
        Head(102, 0).String("handle"),
        Head(103, 1).String("hello"),
        Head(101, 2).U32(0).String("closed").String("en"),
    };
}

/// Fetches a file: the version, what it holds and how it was closed, or else what broke.
std::string Fetch(std::uint16_t port) {
    TestSession session(port);
    cindral::OSshDataStream output(session._out, 0, session._windowSize);
    cindral::ISshDataStream input(session._in, session._out, 0, session._windowSize);
    Login(session);
    if (session.Open() != 0) throw std::runtime_error("no channel");

    std::string fetched;
    std::string const outcome = Outcome([&] {
        SftpClient client(output, input);
        cindral::SftpStatus status;
        fetched = std::to_string(client.Start()) + " ";
        auto const handle = client.Open(status, "/f", SftpClient::SSH_FXF_READ, cindral::SftpFileAttr());
        char buffer[100];
        int const count = client.Read(status, handle, 0, buffer, sizeof(buffer));
        if (count > 0) fetched.append(buffer, static_cast<std::size_t>(count)) += ' ';
        client.Close(status, handle);
        return status._code;
    });
    return outcome.find("Error: ") == std::string::npos ? fetched + outcome : outcome;
}

/// Serves the conversation to one client after the other, all but the first with the faults given.
class FetchServer {
public:
    FetchServer() : _peer([this](Connection& c) { Serve(c); }, QuickSettings()) {
        EXPECT_EQ(Fetch(_peer.Port()), done);
    }

    std::string Run(Faults const& faults) {
        {
            std::lock_guard<std::mutex> const lock(_mutex);
            _faults = faults;
        }
        return Fetch(_peer.Port());
    }
    /// Ends the server. The first connection, which had no faults, tells what stands where.
    Connection const& Finish(std::size_t sessions) {
        _peer.Join(sessions + 1);
        return _peer.At(0);
    }

private:
    void Serve(Connection& c) {
        c.WellBehaved(Stage::Opened);
        if (c.index > 0) {
            std::lock_guard<std::mutex> const lock(_mutex);
            c.Wire().faults = _faults;
        }
        for (Bytes const& reply : Replies()) {
            c.ExpectPacket(CHANNEL_DATA);
            c.SendData(ToText(Writer().String(reply)));
        }
        ReadToTheEnd(c);
    }

    std::mutex _mutex;
    Faults _faults;
    ScriptedPeer _peer;
};

/// The packets of the conversation, in one direction.
std::vector<PacketRecord> Conversation(std::vector<PacketRecord> const& records) {
    return {records.end() - 4, records.end()};
}

std::size_t EndOf(PacketRecord const& packet) {
    return packet.streamOffset + packet.raw.size() + packet.mac.size();
}

} // namespace

TEST(SftpWire, EachMessageIsOneOfTheChannel) {
    FetchServer server;
    Connection const& c = server.Finish(0);
    ASSERT_EQ(c.received.size(), 7u + 4);
    std::vector<Bytes> requests;
    for (PacketRecord const& packet : Conversation(c.received)) requests.push_back(packet.payload);
    std::vector<Bytes> expected;
    for (Bytes const& request : Requests()) expected.push_back(Data(ToText(Writer().String(request))));
    EXPECT_EQ(requests, expected);
}

TEST(SftpWire, CutAfterEachByteOfTheRepliesIsAnError) {
    FetchServer whole;
    std::vector<PacketRecord> const replies = Conversation(whole.Finish(0).sent);
    PacketRecord const& last = replies.back();

    FetchServer server;
    std::size_t sessions = 0;
    for (std::size_t n = replies.front().streamOffset; n < EndOf(last); ++n, ++sessions) {
        SCOPED_TRACE("position " + std::to_string(n));
        Faults faults;
        faults.cutAfterSent = n;
        std::string const outcome = server.Run(faults);
        // In the last packet what is missing reads as zeros, and so do zeros and padding of no matter.
        if (n < last.streamOffset + last.blockSize || outcome != done) {
            EXPECT_THAT(outcome, HasSubstr("Error: "));
        }
    }
    server.Finish(sessions);
}

TEST(SftpWire, CutAfterEachByteOfTheRequestsIsAnError) {
    FetchServer whole;
    std::vector<PacketRecord> const requests = Conversation(whole.Finish(0).received);

    FetchServer server;
    std::size_t sessions = 0;
    std::size_t const end = EndOf(requests.back());
    for (std::size_t n = requests.front().streamOffset + 1; n < end; ++n, ++sessions) {
        SCOPED_TRACE("position " + std::to_string(n));
        Faults faults;
        faults.cutAfterReceived = n;
        faults.reset = n % 2 == 0;
        EXPECT_THAT(server.Run(faults), HasSubstr("Error: "));
    }
    server.Finish(sessions);
}

TEST(SftpWire, ResetInAMacsPlaceIsAnErrorOfReading) {
    FetchServer whole;
    std::vector<PacketRecord> const replies = Conversation(whole.Finish(0).sent);

    FetchServer server;
    for (PacketRecord const& reply : replies) {
        Faults faults;
        faults.cutAfterSent = EndOf(reply) - reply.mac.size();
        faults.reset = true;
        EXPECT_EQ(server.Run(faults), "SshProtocolError: error reading sftp response");
    }
    server.Finish(replies.size());
}

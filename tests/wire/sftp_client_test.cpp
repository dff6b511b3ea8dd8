// An SFTP dialogue over an encrypted connection, and its outcome when the connection is cut.

#include <brantle/sftp/sftp_client.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <mutex>
#include <string>
#include <vector>

#include "wire/apps_fixture.h"

using namespace peer;
using cindral::SftpClient;
using cindral::SftpFileAttr;
using cindral::SftpFileHandle;
using cindral::SftpStatus;
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

/// The outcome of a client's work on an open channel.
std::string Converse(std::uint16_t port, std::function<int(SftpClient&, SftpStatus&)> const& work) {
    TestSession session(port);
    cindral::OSshDataStream output(session._out, 0, session._windowSize);
    cindral::ISshDataStream input(session._in, session._out, 0, session._windowSize);
    Login(session);
    if (session.Open() != 0) throw std::runtime_error("no channel");
    return Outcome([&] {
        SftpClient client(output, input);
        SftpStatus status;
        return work(client, status);
    });
}

/// Fetches a file: the version, its contents and how it was closed, or else the failure.
std::string Fetch(std::uint16_t port) {
    std::string fetched;
    std::string const outcome = Converse(port, [&](SftpClient& client, SftpStatus& status) {
        fetched = std::to_string(client.Start()) + " ";
        auto const handle = client.Open(status, "/f", SftpClient::SSH_FXF_READ, SftpFileAttr());
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
    /// Ends the server. The first connection, which had no faults, shows what is where.
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
std::vector<PacketRecord> Conversation(std::vector<PacketRecord> const& records, std::ptrdiff_t count = 4) {
    return {records.end() - count, records.end()};
}

/// The payloads that carry these messages, one each.
std::vector<Bytes> InDataMessages(std::vector<Bytes> const& messages) {
    std::vector<Bytes> payloads;
    for (Bytes const& message : messages) payloads.push_back(Data(ToText(Writer().String(message))));
    return payloads;
}

/// An operation on the wire. All of them in order are a conversation.
struct Exchange {
    Bytes _request;
    Bytes _reply;
    int _result;
    std::function<int(SftpClient&, SftpStatus&)> _call;
};

Writer Success(std::uint32_t id) { return Head(101, id).U32(0).String("ok").String("en"); }
Writer Mode(std::uint32_t id) { return Head(105, id).U32(4).U32(0100640); }
Writer Name(std::uint32_t id, char const* name) {
    return Head(104, id).U32(1).String(name).String("long").U32(0);
}

std::vector<Exchange> Exchanges() {
    static SftpFileHandle const handle(ByteString("handle", 6));
    static SftpFileAttr mode = SftpFileAttr::Default(0640);
    static char block[4];
    static TOList<cindral::SftpName> names;
    static String_t path;
    return {
        {Writer().U8(1).U32(3), Writer().U8(2).U32(3), 3, [](auto& c, auto&) { return c.Start(); }},
        {Head(3, 0).String("/f").U32(0x1a).U32(4).U32(0640), Head(102, 0).String("handle"), 6,
         [](auto& c, auto& s) { return static_cast<int>(c.Open(s, "/f", 0x1a, mode)._bytes.Length()); }},
        {Head(11, 1).String("/d"), Head(102, 1).String("handle"), 6,
         [](auto& c, auto& s) { return static_cast<int>(c.OpenDir(s, "/d")._bytes.Length()); }},
        {Head(4, 2).String("handle"), Success(2), 0,
         [](auto& c, auto& s) {
             c.Close(s, handle);
             return s._code;
         }},
        {Head(5, 3).String("handle").U64(0x100000001).U32(4), Head(103, 3).String("data"), 4,
         [](auto& c, auto& s) { return c.Read(s, handle, 0x100000001, block, 4); }},
        {Head(6, 4).String("handle").U64(0x100000001).String("abc"), Success(4), 3,
         [](auto& c, auto& s) { return c.Write(s, handle, 0x100000001, "abc", 3); }},
        {Head(12, 5).String("handle"), Name(5, "x"), 1,
         [](auto& c, auto& s) { return c.ReadDir(s, handle, names); }},
        {Head(14, 6).String("/d").U32(4).U32(0640), Success(6), 0,
         [](auto& c, auto& s) { return c.Mkdir(s, "/d", mode); }},
        {Head(15, 7).String("/d"), Success(7), 0, [](auto& c, auto& s) { return c.Rmdir(s, "/d"); }},
        {Head(13, 8).String("/f"), Success(8), 0, [](auto& c, auto& s) { return c.Remove(s, "/f"); }},
        {Head(7, 9).String("/f").U32(15), Mode(9), 0,
         [](auto& c, auto& s) { return c.Lstat(s, "/f", mode); }},
        {Head(17, 10).String("/f").U32(15), Mode(10), 0,
         [](auto& c, auto& s) { return c.Stat(s, "/f", mode); }},
        {Head(8, 11).String("handle").U32(15), Mode(11), 0,
         [](auto& c, auto& s) { return c.Fstat(s, handle, mode); }},
        {Head(9, 12).String("/f").U32(4).U32(0100640), Success(12), 0,
         [](auto& c, auto& s) { return c.SetStat(s, "/f", mode); }},
        {Head(10, 13).String("handle").U32(4).U32(0100640), Success(13), 0,
         [](auto& c, auto& s) { return c.SetFstat(s, handle, mode); }},
        {Head(18, 14).String("/old").String("/new").U32(0), Success(14), 0,
         [](auto& c, auto& s) { return c.Rename(s, "/old", "/new"); }},
        {Head(20, 15).String("first").String("second"), Success(15), 0,
         [](auto& c, auto& s) { return c.Symlink(s, "first", "second"); }},
        {Head(19, 16).String("/l"), Name(16, "/f"), 0,
         [](auto& c, auto& s) { return c.Readlink(s, "/l", path); }},
        {Head(16, 17).String("."), Name(17, "/home"), 0,
         [](auto& c, auto& s) { return c.Realpath(s, ".", path); }},
        {Head(13, 18).String("/no"), Head(101, 18).U32(2).String("No such file").String("en"), -2,
         [](auto& c, auto& s) { return c.Remove(s, "/no"); }},
    };
}

std::size_t EndOf(PacketRecord const& packet) {
    return packet.streamOffset + packet.raw.size() + packet.mac.size();
}

} // namespace

TEST(SftpWire, EachMessageIsOneDataMessage) {
    FetchServer server;
    Connection const& c = server.Finish(0);
    ASSERT_EQ(c.received.size(), 7u + 4);
    std::vector<Bytes> requests;
    for (PacketRecord const& packet : Conversation(c.received)) requests.push_back(packet.payload);
    EXPECT_EQ(requests, InDataMessages(Requests()));
}

TEST(SftpWire, EveryRequestIsExact) {
    std::vector<Exchange> const exchanges = Exchanges();
    ScriptedPeer server(
        [&](Connection& c) {
            c.WellBehaved(Stage::Opened);
            for (Exchange const& exchange : exchanges) {
                c.ExpectPacket(CHANNEL_DATA);
                c.SendData(ToText(Writer().String(exchange._reply)));
            }
            ReadToTheEnd(c);
        },
        QuickSettings());
    EXPECT_EQ(Converse(server.Port(),
                       [&](SftpClient& client, SftpStatus& status) {
                           for (Exchange const& exchange : exchanges)
                               EXPECT_EQ(exchange._call(client, status), exchange._result);
                           EXPECT_EQ(Text(status._message), "No such file");
                           return status._code;
                       }),
              "2");
    server.Join(1);
    ASSERT_EQ(server.At(0).received.size(), 7 + exchanges.size());
    std::vector<Bytes> requests;
    for (PacketRecord const& packet :
         Conversation(server.At(0).received, static_cast<std::ptrdiff_t>(exchanges.size())))
        requests.push_back(packet.payload);
    std::vector<Bytes> expected;
    for (Exchange const& exchange : exchanges) expected.push_back(exchange._request);
    EXPECT_EQ(requests, InDataMessages(expected));
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
        // In the last packet the missing part reads as zeros, and so do zeros and padding that is ignored.
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

TEST(SftpWire, ResetInsteadOfAMacIsAReadError) {
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

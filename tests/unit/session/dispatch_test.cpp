// Handlers of messages, called with one packet each; what they send goes into a pair of sockets.

#include <string>
#include <vector>

#include <gmock/gmock.h>

#include <brantle/cindral/exceptions.h>
#include <brantle/session/ssh_session.h>
#include <brantle/thornel/file_descriptor.h>

#include "unit/channel/plain_connection.h"

using namespace cindral;

namespace {

class HandlingSession : public SshSession {
public:
    HandlingSession() : SshSession(CLIENT, 22, String_t("127.0.0.1")) {}

    using SshSession::_channels;
    using SshSession::_in;
    using SshSession::_out;
    using SshSession::HandleChannelClose;
    using SshSession::HandleChannelData;
    using SshSession::HandleChannelOpen;
};

/// A packet as it comes from the streams, with so many bytes of padding of that value.
ByteString Packed(Bytes payload, std::size_t padding = 19, unsigned char value = 0xff) {
    payload.insert(payload.begin(), static_cast<unsigned char>(padding));
    payload.insert(payload.end(), padding, value);
    return ByteString(payload.data(), static_cast<unsigned int>(payload.size()));
}

Bytes Word(unsigned char low) { return {0, 0, 0, low}; }

Bytes Joined(std::vector<Bytes> const& fields) {
    Bytes all;
    for (Bytes const& field : fields) all.insert(all.end(), field.begin(), field.end());
    return all;
}

Bytes Text(std::string const& text) {
    return Joined({Word(static_cast<unsigned char>(text.size())), Bytes(text.begin(), text.end())});
}

/// Sender's number 5, window 1, packet size 2, and what follows.
Bytes Opening(std::string const& type, Bytes const& rest = {}) {
    return Joined({{90}, Text(type), Word(5), Word(1), Word(2), rest});
}

Bytes const refusal = Joined({{92}, Word(5), Word(1), Text("open failed"), Text("")});

class Handlers : public testing::Test {
protected:
    Handlers() { _session._out._socketBuffer.Bind(_connection._out._socketBuffer.OSockStream::Fd()); }

    int Open(ByteString const& packet) {
        PacketDecoder decoder(packet);
        return _session.HandleChannelOpen(decoder);
    }

    PlainConnection _connection;
    HandlingSession _session;
};

} // namespace

TEST_F(Handlers, SessionWithoutAnAddressIsRefusedWhateverItsPadding) {
    for (std::size_t padding : {4u, 7u, 8u, 19u, 255u})
        for (unsigned char const value : Bytes{0, 1, 0xff}) {
            EXPECT_EQ(Open(Packed(Opening("session"), padding, value)), 1);
            EXPECT_THAT(_connection.Sent(), testing::ElementsAre(refusal)) << padding;
        }
}

TEST_F(Handlers, OtherTypesWithoutAnAddressEndTooEarly) {
    for (char const* type : {"auth-agent@example.org", "x11", "forwarded-tcpip", "sessions", ""})
        for (std::size_t padding : {0u, 3u, 4u, 7u})
            EXPECT_THROW(Open(Packed(Opening(type), padding, 0)), BadInput) << type << ' ' << padding;
    EXPECT_THROW(Open(Packed(Opening("direct-tcpip"), 19, 1)), SshProtocolError);
    EXPECT_THAT(_connection.Sent(), testing::IsEmpty());
}

TEST_F(Handlers, OtherTypesReadTheirAddressFromThePadding) {
    EXPECT_EQ(Open(Packed(Opening("auth-agent@example.org"), 8, 0)), 1);
    EXPECT_THAT(_connection.Sent(), testing::ElementsAre(refusal));
}

TEST_F(Handlers, OpeningsWithAnAddressAreRefusedToo) {
    for (char const* type : {"session", "x11", "forwarded-tcpip"}) {
        EXPECT_EQ(Open(Packed(Opening(type, Joined({Word(0), Word(80)})))), 1);
        EXPECT_THAT(_connection.Sent(), testing::ElementsAre(refusal)) << type;
    }
}

TEST_F(Handlers, OpeningsOfOtherLengthsAreViolations) {
    EXPECT_THROW(Open(Packed(Opening("session", {0}))), SshProtocolError);
    Bytes shorter = Opening("session");
    shorter.pop_back();
    EXPECT_THROW(Open(Packed(shorter)), SshProtocolError);
    EXPECT_THROW(Open(Packed({90})), SshProtocolError);
    EXPECT_THROW(Open(Packed({90}, 0)), BadInput);
    EXPECT_THROW(Open(ByteString()), BadInput);
    // A length with which the sum of all comes out right in 32 bits.
    EXPECT_THROW(Open(Packed({90, 0xff, 0xff, 0xff, 0xf4}, 0)), SshProtocolError);
    EXPECT_THAT(_connection.Sent(), testing::IsEmpty());
}

TEST_F(Handlers, DataBeforeACloseReachesTheDescriptor) {
    OutputPipe output;
    FileDescriptor fd(dup(output.WriteEnd()));
    _session._channels.NewTcpConnection(9, "forwarded", 0, fd, &_session._in, &_session._out);
    PacketDecoder data(Packed(Joined({{94}, Word(0), Text("last words")})));
    EXPECT_EQ(_session.HandleChannelData(data), 1);
    EXPECT_EQ(output.Written(), "");
    PacketDecoder close(Packed(Joined({{97}, Word(0)})));
    EXPECT_EQ(_session.HandleChannelClose(close), 1);
    EXPECT_EQ(output.Written(), "last words");
    EXPECT_EQ(_session._channels.Find(0), nullptr);
}

#include <algorithm>

#include <gtest/gtest.h>

#include <brantle/cindral/exceptions.h>

#include "message_table.h"
#include "unit/packet/wire.h"
#include "unit/thornel/largest_allocation.h"

using namespace cindral;

namespace {

class SftpMessageCodec : public testing::TestWithParam<SftpMessage> {
protected:
    MessagePtr Build() { return GetParam()._build(_target); }
    MessagePtr Parse(std::string const& payload) { return GetParam()._parse(Bytes(payload), _target); }

    int Type() { return static_cast<unsigned char>(GetParam()._received[0]); }
    unsigned int Id() { return Type() < 3 ? 0 : 7; }

    void ExpectWrongType(std::string const& payload, int received) {
        ExpectError<SshProtocolError>(GetParam()._wrongType, std::to_string(received),
                                      [&] { Parse(payload); });
    }
    void ExpectBadFields(std::string const& payload) {
        ExpectError<SshProtocolError>(GetParam()._badFields, "", [&] { Parse(payload); });
    }

    Target _target;
};

TEST_P(SftpMessageCodec, IsEncodedFieldByField) {
    MessagePtr const message = Build();
    EXPECT_EQ(message->_payload.Length(), 0u);
    EXPECT_EQ(message->_type, Type());
    EXPECT_EQ(message->_id, Id());
    EXPECT_EQ(Text(message->Payload()), GetParam()._sent);
}

TEST_P(SftpMessageCodec, IsEncodedOnce) {
    MessagePtr const message = Build();
    ByteString const first = message->Payload();
    message->_id = 8;
    EXPECT_EQ(message->Payload()._rep, first._rep);
    EXPECT_EQ(message->_payload._rep, first._rep);
    EXPECT_EQ(Text(first), GetParam()._sent);
}

TEST_P(SftpMessageCodec, IsDecodedFieldByField) {
    MessagePtr const message = Parse(GetParam()._received);
    EXPECT_EQ(message->_type, Type());
    EXPECT_EQ(message->_id, Id());
    EXPECT_EQ(Text(GetParam()._encodeFields(*message)), GetParam()._sent);
}

TEST_P(SftpMessageCodec, PayloadIsTheReceivedBytes) {
    ByteString const received = Bytes(GetParam()._received);
    MessagePtr const message = GetParam()._parse(received, _target);
    EXPECT_EQ(message->Payload()._rep, received._rep);
}

TEST_P(SftpMessageCodec, BytesAfterTheFieldsAreIgnored) {
    MessagePtr const message = Parse(GetParam()._received + "surplus");
    EXPECT_EQ(Text(GetParam()._encodeFields(*message)), GetParam()._sent);
    EXPECT_EQ(Text(message->Payload()), GetParam()._received + "surplus");
}

TEST_P(SftpMessageCodec, OtherTypeIsRefusedWithTheTextOfTheClass) {
    std::string payload = GetParam()._received;
    for (int type : {0, Type() ^ 1, Type() ^ 0x80, 255}) {
        payload[0] = static_cast<char>(type);
        ExpectWrongType(payload, type);
        ExpectWrongType(payload.substr(0, 1), type);
    }
}

TEST_P(SftpMessageCodec, EmptyPayloadIsAnotherTypeExceptForOpen) {
    if (GetParam()._class == "Open") {
        ExpectBadFields("");
        ExpectError<SshProtocolError>(GetParam()._badFields, "",
                                      [&] { GetParam()._parse(ByteString(), _target); });
    } else {
        ExpectWrongType("", 0);
        ExpectError<SshProtocolError>(GetParam()._wrongType, "0",
                                      [&] { GetParam()._parse(ByteString(), _target); });
    }
}

TEST_P(SftpMessageCodec, EveryTruncationIsRefused) {
    for (std::size_t length = 1; length < GetParam()._received.size(); ++length) {
        ExpectBadFields(GetParam()._received.substr(0, length));
    }
}

TEST_P(SftpMessageCodec, NoLengthFieldCausesALargeAllocation) {
    // The largest text is taken at once, and so is the smallest frame's buffer.
    constexpr std::size_t LIMIT = 262144 + 1;
    for (std::string const& number :
         {Wire("ffffffff"), Wire("7fffffff"), Wire("00ffffff"), Wire("00040000")}) {
        for (std::size_t at = 1; at + number.size() <= GetParam()._received.size(); ++at) {
            std::string payload = GetParam()._received;
            payload.replace(at, number.size(), number);
            TakeLargestAllocation();
            try {
                Parse(payload);
            } catch (SshProtocolError const& error) {
                EXPECT_EQ(Text(error.Text()), GetParam()._badFields);
            }
            EXPECT_LE(TakeLargestAllocation(), LIMIT) << "at " << at;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Messages, SftpMessageCodec, testing::ValuesIn(SftpMessages()),
                         [](auto const& instance) { return instance.param._class; });

/// A message with an empty text in it.
struct EmptyText {
    char const* _class;
    char const* _line;
};

void PrintTo(EmptyText const& message, std::ostream* out) { *out << message._line; }

class SftpEmptyText : public testing::TestWithParam<EmptyText> {};

TEST_P(SftpEmptyText, IsRefused) {
    std::vector<SftpMessage> const messages = SftpMessages();
    auto const message = std::find_if(messages.begin(), messages.end(),
                                      [](auto const& row) { return row._class == GetParam()._class; });
    ASSERT_NE(message, messages.end());
    Target target;
    ExpectError<SshProtocolError>(message->_badFields, "",
                                  [&] { message->_parse(Bytes(Wire(GetParam()._line)), target); });
}

INSTANTIATE_TEST_SUITE_P(
    Messages, SftpEmptyText,
    testing::Values(EmptyText{"Open", "03 00000007 00000000 0000001a 00000000"},
                    EmptyText{"Lstat", "07 00000007 00000000 0000000f"},
                    EmptyText{"Stat", "11 00000007 00000000 0000000f"},
                    EmptyText{"Setstat", "09 00000007 00000000 00000000"},
                    EmptyText{"OpenDir", "0b 00000007 00000000"}, EmptyText{"Remove", "0d 00000007 00000000"},
                    EmptyText{"Mkdir", "0e 00000007 00000000 00000000"},
                    EmptyText{"Rmdir", "0f 00000007 00000000"}, EmptyText{"Realpath", "10 00000007 00000000"},
                    EmptyText{"Rename", "12 00000007 00000000 00000001 'b' 00000000"},
                    EmptyText{"Rename", "12 00000007 00000001 'a' 00000000 00000000"},
                    EmptyText{"Readlink", "13 00000007 00000000"},
                    EmptyText{"Symlink", "14 00000007 00000000 00000001 'b'"},
                    EmptyText{"Symlink", "14 00000007 00000001 'a' 00000000"},
                    EmptyText{"Name", "68 00000007 00000001 00000000 00000001 'l' 00000000"},
                    EmptyText{"Name", "68 00000007 00000001 00000001 'a' 00000000 00000000"}));

} // namespace

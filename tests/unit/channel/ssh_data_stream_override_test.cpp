// Data streams derived by a program, which override Flush() or Fill().

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <brantle/channel/ssh_data_stream.h>

#include "plain_connection.h"
#include "support/descriptors.h"
#include "support/overriding_streams.h"

namespace cindral {
namespace {

using support::OperationName;
using support::ReadOperation;
using support::Shifted;
using support::WriteOperation;

constexpr unsigned int WINDOW = 0x200000;
constexpr std::size_t DATA_HEADER = 9; ///< type, channel and length of a CHANNEL_DATA

/// The data of CHANNEL_DATA messages.
std::string Joined(std::vector<Bytes> const& messages) {
    std::string data;
    for (Bytes const& message : messages) data.append(message.begin() + DATA_HEADER, message.end());
    return data;
}

class OverriddenDataStreamFlush : public testing::TestWithParam<WriteOperation> {
protected:
    template <class Stream>
    std::string Sent(Stream& out) {
        GetParam()._write(out);
        out.Flush();
        return Joined(_connection.Sent());
    }

    PlainConnection _connection;
    unsigned int _window = WINDOW;
};

INSTANTIATE_TEST_SUITE_P(DataStreams, OverriddenDataStreamFlush,
                         testing::ValuesIn(support::WriteOperations()), OperationName());

TEST_P(OverriddenDataStreamFlush, SeesEveryByte) {
    support::CountingOutput<OSshDataStream> out(_connection._out, 0, _window);
    EXPECT_EQ(Sent(out), GetParam()._bytes);
    EXPECT_EQ(out._bytes, GetParam()._bytes.size());
}

TEST_P(OverriddenDataStreamFlush, ChangesEveryByte) {
    support::ShiftingOutput<OSshDataStream> out(_connection._out, 0, _window);
    EXPECT_EQ(Sent(out), Shifted(GetParam()._bytes));
}

TEST(OverriddenDataStreamFlush, LeavesTheMessagesAsTheyAre) {
    PlainConnection connection;
    unsigned int const window = WINDOW;
    support::CountingOutput<OSshDataStream> out(connection._out, 0, window);
    std::string const text = support::Letters(2 * 8144 + 10);
    support::SendRecorder recorder;
    out.Write(text.data(), static_cast<int>(text.size())).Flush();
    std::vector<bool> more;
    for (auto const& sent : recorder.Take()) more.push_back(sent._more);
    EXPECT_EQ(more, (std::vector<bool>{true, true, false}));
    std::vector<Bytes> const messages = connection.Sent();
    ASSERT_EQ(messages.size(), 3u);
    EXPECT_EQ(messages[0].size(), DATA_HEADER + 8144);
    EXPECT_EQ(messages[1].size(), DATA_HEADER + 8144);
    EXPECT_EQ(messages[2].size(), DATA_HEADER + 10);
}

class OverriddenDataStreamFill : public testing::TestWithParam<ReadOperation> {
protected:
    void Receive(std::string const& data) {
        Bytes payload{94, 0, 0, 0, 0};
        for (char byte : support::WireNumber(data.size()) + data)
            payload.push_back(static_cast<unsigned char>(byte));
        _connection.Receive(payload);
        _connection.HangUp();
    }

    PlainConnection _connection;
    unsigned int _window = WINDOW;
};

INSTANTIATE_TEST_SUITE_P(DataStreams, OverriddenDataStreamFill, testing::ValuesIn(support::ReadOperations()),
                         OperationName());

TEST_P(OverriddenDataStreamFill, SeesEveryByte) {
    support::CountingInput<ISshDataStream> in(_connection._in, _connection._out, 0, _window);
    Receive(GetParam()._bytes);
    EXPECT_EQ(GetParam()._read(in), GetParam()._bytes);
    EXPECT_EQ(in._bytes, GetParam()._bytes.size());
}

TEST_P(OverriddenDataStreamFill, ChangesEveryByte) {
    support::ShiftingInput<ISshDataStream> in(_connection._in, _connection._out, 0, _window);
    Receive(Shifted(GetParam()._bytes));
    EXPECT_EQ(GetParam()._read(in), GetParam()._bytes);
}

} // namespace
} // namespace cindral

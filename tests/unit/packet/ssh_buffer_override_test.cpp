// Framing buffers derived by a program, which override Flush() or Fill().

#include <string>

#include <gtest/gtest.h>

#include <brantle/cindral/sock_stream_adapter.h>
#include <brantle/cindral/string_buffer.h>
#include <brantle/packet/ssh_buffer.h>

#include "support/overriding_streams.h"

using namespace cindral;
using support::OperationName;
using support::ReadOperation;
using support::Shifted;
using support::WriteOperation;

namespace {

template <class Buffer>
struct Output {
    std::string Wire() const { return std::string(_memory.Str(), _memory.Len()); }

    OStringBuffer _memory;
    BlockCipher _cipher;
    Mac _mac;
    Buffer _buffer{&_memory, _cipher, _mac};
};

class OverriddenSshBufferFlush : public testing::TestWithParam<WriteOperation> {
protected:
    /// Does the operation on a stream over the buffer, as it is done with a packet.
    template <class Buffer>
    void Write(Buffer& buffer) {
        buffer.StartPacket();
        OSockStreamAdapter out(buffer);
        GetParam()._write(out);
        out.Flush();
        EXPECT_EQ(buffer.FinalizePacket(), 0);
    }
};

INSTANTIATE_TEST_SUITE_P(SshBuffers, OverriddenSshBufferFlush, testing::ValuesIn(support::WriteOperations()),
                         OperationName());

TEST_P(OverriddenSshBufferFlush, SeesEveryByte) {
    Output<support::CountingOutput<OSshBuffer>> out;
    Write(out._buffer);
    EXPECT_EQ(out._buffer._bytes, GetParam()._bytes.size());
    EXPECT_EQ(out.Wire(), GetParam()._bytes);
}

TEST_P(OverriddenSshBufferFlush, ChangesEveryByte) {
    Output<support::ShiftingOutput<OSshBuffer>> out;
    Write(out._buffer);
    EXPECT_EQ(out.Wire(), Shifted(GetParam()._bytes));
}

TEST_P(OverriddenSshBufferFlush, ChangesEveryBytePutOneByOne) {
    Output<support::ShiftingOutput<OSshBuffer>> out;
    for (char byte : GetParam()._bytes) EXPECT_GE(out._buffer.putchr(byte), 0);
    EXPECT_EQ(out._buffer.FinalizePacket(), 0);
    EXPECT_EQ(out.Wire(), Shifted(GetParam()._bytes));
}

TEST_P(OverriddenSshBufferFlush, ChangesEveryByteOfARange) {
    Output<support::ShiftingOutput<OSshBuffer>> out;
    std::string const& bytes = GetParam()._bytes;
    EXPECT_EQ(out._buffer.put(bytes.data(), bytes.data() + bytes.size()), static_cast<int>(bytes.size()));
    EXPECT_EQ(out._buffer.Flush(), 0);
    EXPECT_EQ(out.Wire(), Shifted(bytes));
}

template <class Buffer>
struct Input {
    explicit Input(std::string const& wire)
        : _memory(wire.data(), static_cast<unsigned int>(wire.size())), _buffer(&_memory, _cipher, _mac) {
        _buffer.StartPacket(static_cast<unsigned int>(wire.size()));
    }

    IStringBuffer _memory;
    BlockCipher _cipher;
    Mac _mac;
    Buffer _buffer;
};

class OverriddenSshBufferFill : public testing::TestWithParam<ReadOperation> {
protected:
    std::string const& _bytes = GetParam()._bytes;
    std::string const _wire = Shifted(_bytes);
};

INSTANTIATE_TEST_SUITE_P(SshBuffers, OverriddenSshBufferFill, testing::ValuesIn(support::ReadOperations()),
                         OperationName());

TEST_P(OverriddenSshBufferFill, SeesEveryByte) {
    Input<support::CountingInput<ISshBuffer>> in(_bytes);
    ISockStreamAdapter stream(in._buffer);
    EXPECT_EQ(GetParam()._read(stream), _bytes);
    EXPECT_EQ(in._buffer._bytes, _bytes.size());
}

TEST_P(OverriddenSshBufferFill, ChangesEveryByte) {
    Input<support::ShiftingInput<ISshBuffer>> in(_wire);
    ISockStreamAdapter stream(in._buffer);
    EXPECT_EQ(GetParam()._read(stream), _bytes);
}

TEST_P(OverriddenSshBufferFill, ChangesEveryByteTakenOneByOne) {
    Input<support::ShiftingInput<ISshBuffer>> in(_wire);
    std::string bytes(_bytes.size(), '\0');
    for (char& byte : bytes) EXPECT_EQ(in._buffer.getchr(byte), 1);
    EXPECT_EQ(bytes, _bytes);
}

TEST_P(OverriddenSshBufferFill, ChangesEveryByteOfARange) {
    Input<support::ShiftingInput<ISshBuffer>> in(_wire);
    std::string bytes(_bytes.size(), '\0');
    EXPECT_EQ(in._buffer.get(bytes.data(), bytes.data() + bytes.size()), static_cast<int>(bytes.size()));
    EXPECT_EQ(bytes, _bytes);
}

} // namespace

// Socket buffers and adapters derived by a program, which override Flush() or Fill().

#include <string>

#include <gtest/gtest.h>

#include <brantle/cindral/sock_stream_adapter.h>
#include <brantle/cindral/socket_buffer.h>
#include <brantle/cindral/string_buffer.h>

#include "support/descriptors.h"
#include "support/overriding_streams.h"

using namespace cindral;
using support::DescriptorPair;
using support::OperationName;
using support::ReadOperation;
using support::Shifted;
using support::WriteOperation;

namespace {

class OverriddenSocketBufferFlush : public testing::TestWithParam<WriteOperation> {};

INSTANTIATE_TEST_SUITE_P(Layers, OverriddenSocketBufferFlush, testing::ValuesIn(support::WriteOperations()),
                         OperationName());

TEST_P(OverriddenSocketBufferFlush, OfASocketBufferChangesEveryByte) {
    DescriptorPair pair = DescriptorPair::Sockets();
    support::ShiftingOutput<OSocketBuffer> out;
    out.Bind(pair.Ours());
    GetParam()._write(out);
    out.Flush();
    EXPECT_EQ(pair.Received(), Shifted(GetParam()._bytes));
}

TEST_P(OverriddenSocketBufferFlush, OfASocketBufferChangesEveryByteOfTheLayerAbove) {
    DescriptorPair pair = DescriptorPair::Sockets();
    support::ShiftingOutput<OSocketBuffer> out;
    out.Bind(pair.Ours());
    std::string const& bytes = GetParam()._bytes;
    EXPECT_EQ(out.put(bytes.data(), bytes.data() + bytes.size()), static_cast<int>(bytes.size()));
    EXPECT_EQ(out.Finalize(), 0);
    EXPECT_EQ(pair.Received(), Shifted(bytes));
}

TEST_P(OverriddenSocketBufferFlush, OfAnAdapterChangesEveryByte) {
    OStringBuffer memory;
    support::ShiftingOutput<OSockStreamAdapter> out(memory);
    GetParam()._write(out);
    out.Flush();
    EXPECT_EQ(std::string(memory.Str(), memory.Len()), Shifted(GetParam()._bytes));
}

class OverriddenSocketBufferFill : public testing::TestWithParam<ReadOperation> {
protected:
    std::string const _wire = Shifted(GetParam()._bytes);
};

INSTANTIATE_TEST_SUITE_P(Layers, OverriddenSocketBufferFill, testing::ValuesIn(support::ReadOperations()),
                         OperationName());

TEST_P(OverriddenSocketBufferFill, OfASocketBufferChangesEveryByte) {
    DescriptorPair pair = DescriptorPair::Sockets();
    support::ShiftingInput<ISocketBuffer> in;
    in.Bind(pair.Ours());
    pair.Send(_wire);
    pair.ClosePeer();
    EXPECT_EQ(GetParam()._read(in), GetParam()._bytes);
}

TEST_P(OverriddenSocketBufferFill, OfASocketBufferChangesEveryByteOfTheLayerAbove) {
    DescriptorPair pair = DescriptorPair::Sockets();
    support::ShiftingInput<ISocketBuffer> in;
    in.Bind(pair.Ours());
    pair.Send(_wire);
    pair.ClosePeer();
    std::string bytes(_wire.size(), '\0');
    EXPECT_EQ(in.get(bytes.data(), bytes.data() + bytes.size()), static_cast<int>(bytes.size()));
    EXPECT_EQ(bytes, GetParam()._bytes);
}

TEST_P(OverriddenSocketBufferFill, OfAnAdapterChangesEveryByte) {
    IStringBuffer memory(_wire.data(), static_cast<unsigned int>(_wire.size()));
    support::ShiftingInput<ISockStreamAdapter> in(memory);
    EXPECT_EQ(GetParam()._read(in), GetParam()._bytes);
}

} // namespace

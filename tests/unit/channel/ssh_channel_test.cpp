#include <brantle/channel/ssh_channel.h>

#include <gtest/gtest.h>

#include "support/holds_buffer.h"

namespace cindral {
namespace {

TEST(SshChannel, HoldsItsTwoStreamBuffersInItself) {
    SshChannel const channel;
    EXPECT_TRUE(support::HoldsBuffer(channel, channel._outStream));
    EXPECT_TRUE(support::HoldsBuffer(channel, channel._errStream));
    EXPECT_EQ(channel._outStream._capacity, 8192u);
    EXPECT_EQ(channel._errStream._capacity, 8192u);
}

} // namespace
} // namespace cindral

#include <brantle/channel/ssh_channel_ref.h>

#include <memory>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

#include <brantle/channel/ssh_channel_mgr.h>

namespace cindral {
namespace {

/// Makes a channel without a connection, and keeps a reference to it from then on.
class Maker : public SshChannelMakerBase {
public:
    SshChannel* operator()(unsigned int localId, unsigned int remoteId, String_t const& name,
                           unsigned int windowSize, ISshPacketStream* in,
                           OSshPacketStream* out) const override {
        auto* channel = new SshChannel(localId, remoteId, name, windowSize, -1, -1, -1, in, out);
        _made.emplace_back(channel);
        return channel;
    }

    mutable std::vector<SshChannelRef> _made;
};

class ThrowingMaker : public SshChannelMakerBase {
public:
    SshChannel* operator()(unsigned int, unsigned int, String_t const&, unsigned int, ISshPacketStream*,
                           OSshPacketStream*) const override {
        throw std::runtime_error("no channel");
    }
};

class NullMaker : public SshChannelMakerBase {
public:
    SshChannel* operator()(unsigned int, unsigned int, String_t const&, unsigned int, ISshPacketStream*,
                           OSshPacketStream*) const override {
        return nullptr;
    }
};

class ChannelRef : public testing::Test {
protected:
    SshChannel* New() { return _manager.NewChannel(9, "label", 0, nullptr, nullptr, _maker); }

    Maker _maker;
    SshChannelMgr _manager;
};

TEST_F(ChannelRef, PointsToItsChannelUntilThatIsGone) {
    auto channel = std::make_unique<SshChannel>();
    SshChannelRef const reference(channel.get());
    EXPECT_EQ(channel.get(), reference.Get());
    channel.reset();
    EXPECT_EQ(nullptr, reference.Get());
}

TEST_F(ChannelRef, EmptyReferenceStaysNull) {
    SshChannelRef const reference(nullptr);
    SshChannelRef const copy(reference);
    EXPECT_EQ(nullptr, copy.Get());
}

TEST_F(ChannelRef, CopiesMayBeDestroyedInAnyOrder) {
    for (int order = 0; order < 6; ++order) {
        auto channel = std::make_unique<SshChannel>();
        std::unique_ptr<SshChannelRef> references[3];
        references[0] = std::make_unique<SshChannelRef>(channel.get());
        references[1] = std::make_unique<SshChannelRef>(*references[0]);
        references[2] = std::make_unique<SshChannelRef>(*references[1]);
        int const first = order % 3;
        int const second = (first + 1 + order / 3) % 3;
        int const last = 3 - first - second;
        references[first].reset();
        EXPECT_EQ(channel.get(), references[second]->Get());
        references[second].reset();
        EXPECT_EQ(channel.get(), references[last]->Get());
        channel.reset();
        EXPECT_EQ(nullptr, references[last]->Get());
    }
}

TEST_F(ChannelRef, FollowsEveryReplacementUntilTheChannelIsRemoved) {
    SshChannelRef const reference(New());
    SshChannelRef const copy(reference);
    for (int i = 0; i < 3; ++i) {
        SshChannel* const made = _manager.ReplaceChannel(0, _maker);
        EXPECT_EQ(made, reference.Get());
        EXPECT_EQ(made, copy.Get());
        EXPECT_EQ(made, _maker._made.back().Get());
        EXPECT_EQ(made, _maker._made.front().Get());
    }
    _manager.RemoveChannel(0);
    EXPECT_EQ(nullptr, reference.Get());
    EXPECT_EQ(nullptr, copy.Get());
    for (SshChannelRef const& made : _maker._made) EXPECT_EQ(nullptr, made.Get());
}

TEST_F(ChannelRef, IsNullAfterAReplacementThatThrows) {
    SshChannelRef const reference(New());
    EXPECT_THROW(_manager.ReplaceChannel(0, ThrowingMaker()), std::runtime_error);
    EXPECT_EQ(nullptr, reference.Get());
    EXPECT_EQ(nullptr, _manager.Find(0));
}

TEST_F(ChannelRef, IsNullAfterAReplacementByANullChannel) {
    SshChannelRef const reference(New());
    EXPECT_EQ(nullptr, _manager.ReplaceChannel(0, NullMaker()));
    EXPECT_EQ(nullptr, reference.Get());
}

TEST_F(ChannelRef, IsNullWhenTheTableIsGone) {
    SshChannel own;
    SshChannelRef const toOwn(&own);
    auto manager = std::make_unique<SshChannelMgr>();
    SshChannelRef const reference(manager->NewChannel(9, "label", 0, nullptr, nullptr, _maker));
    manager.reset();
    EXPECT_EQ(nullptr, reference.Get());
    EXPECT_EQ(&own, toOwn.Get());
}

} // namespace
} // namespace cindral

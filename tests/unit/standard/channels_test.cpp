#include <memory>
#include <string>

#include <gtest/gtest.h>

#include <brantle/cindral/exceptions.h>

#include "standard/channels.h"
#include "support/peer/wire.h"
#include "unit/standard/connection_fakes.h"

using namespace cindral::standard;
using cindral::SshProtocolError;

namespace {

constexpr unsigned int WINDOW = 1000;
constexpr unsigned int REMOTE = 70;

class CountedEvents : public IgnoredEvents {
public:
    bool OnClosed(Channel&) override {
        ++closed;
        return true;
    }
    void OnWindow(Channel&) override { ++windows; }
    void OnForwardingRefused() override { ++forwardingsRefused; }

    int closed = 0;
    int windows = 0;
    int forwardingsRefused = 0;
};

/// Channels of a connection without keys: what is posted stays where it is.
class ChannelsOfAServer : public testing::Test {
protected:
    /// An open channel of that number.
    Channel& Open(unsigned int number) {
        Channel& channel = channels.Add(std::make_unique<Channel>(number), WINDOW, WINDOW);
        Take(peer::Writer().U8(91).U32(number).U32(REMOTE + number).U32(WINDOW).U32(WINDOW));
        return channel;
    }
    /// The numbers of the message that is passed on; empty for none.
    peer::Bytes Take(peer::Bytes const& message) {
        View view(message.data(), message.size());
        return channels.Take(view) ? peer::Bytes(view.begin(), view.end()) : peer::Bytes();
    }
    void Adjust(unsigned int number) { Take(peer::Writer().U8(93).U32(number).U32(5)); }

    Offer offer;
    NoHostKeys hostKeys;
    RekeyLimit limit;
    Connection connection{offer, hostKeys, limit};
    CountedEvents events;
    Channels channels{connection, events};
};

} // namespace

TEST_F(ChannelsOfAServer, WindowIsGranted) {
    Channel const& channel = Open(3);
    Adjust(3);
    EXPECT_EQ(channel.remoteWindow, WINDOW + 5);
    EXPECT_EQ(events.windows, 1);
}

TEST_F(ChannelsOfAServer, WindowGrantedAfterTheCloseIsIgnored) {
    Open(3);
    Take(peer::Writer().U8(97).U32(3));
    EXPECT_EQ(events.closed, 1);
    Adjust(3);
    EXPECT_EQ(events.windows, 0);
}

TEST_F(ChannelsOfAServer, WindowOfANumberThatWasNeverUsedIsAViolation) {
    Open(3);
    EXPECT_THROW(Adjust(4), SshProtocolError);
}

TEST_F(ChannelsOfAServer, UnimplementedWithAGlobalRequestThatIsNotSentYetIsIgnored) {
    channels.PostKeepalive();
    EXPECT_EQ(Take(peer::Writer().U8(3).U32(0)), peer::Bytes());
    EXPECT_EQ(channels.UnansweredKeepalives(), 1u);
}

TEST_F(ChannelsOfAServer, AnswerToAGlobalRequestThatIsNotSentYetIsAViolation) {
    channels.PostKeepalive();
    EXPECT_THROW(Take(peer::Writer().U8(82)), SshProtocolError);
}

TEST_F(ChannelsOfAServer, UnimplementedWithoutAGlobalRequestIsIgnored) {
    EXPECT_EQ(Take(peer::Writer().U8(3).U32(17)), peer::Bytes());
}

TEST_F(ChannelsOfAServer, NumberThatWaitsForAnAnswerIsNotGivenTwice) {
    peer::Bytes const opening = peer::Writer().U8(90).String("x11").U32(REMOTE).U32(WINDOW).U32(WINDOW);
    Take(opening);
    EXPECT_THROW(Take(opening), SshProtocolError);
    EXPECT_THROW(Open(0), SshProtocolError);
}

TEST_F(ChannelsOfAServer, NumberOfARefusedOpeningIsFree) {
    peer::Bytes const opening = peer::Writer().U8(90).String("x11").U32(REMOTE).U32(WINDOW).U32(WINDOW);
    Take(opening);
    OpenRequest request{};
    request.sender = REMOTE;
    channels.PostRefusal(request, 1, "no");
    EXPECT_NO_THROW(Take(opening));
}

#include <brantle/channel/ssh_channel_mgr.h>

#include <fcntl.h>

#include <brantle/cindral/exceptions.h>
#include <brantle/session/ssh_session.h>
#include <brantle/thornel/file_descriptor.h>

#include "plain_connection.h"
#include "support/descriptor_state.h"

using support::IsOpen;

namespace cindral {
namespace {

constexpr unsigned int WINDOW = 0x200000;

/// A channel class of a program, which records what reaches it.
class NotingChannel : public SshChannel {
public:
    NotingChannel(std::string& notes, unsigned int localId, unsigned int remoteId, String_t const& name,
                  unsigned int windowSize, ISshPacketStream* in, OSshPacketStream* out)
        : SshChannel(localId, remoteId, name, windowSize, 41, 42, 43, in, out), _notes(notes) {}
    ~NotingChannel() override { _notes += "gone" + std::to_string(_localId) + ";"; }

    void Forward(char const* data, unsigned int n) override {
        _notes += "plain" + std::to_string(_localId) + ":" + std::string(data, n) + ";";
    }
    void ForwardExtended(char const*, unsigned int) override { _notes += "extended;"; }
    void Flush() override { _notes += "flush" + std::to_string(_localId) + ";"; }

private:
    std::string& _notes;
};

class NotingMaker : public SshChannelMakerBase {
public:
    explicit NotingMaker(std::string& notes) : _notes(notes) {}
    SshChannel* operator()(unsigned int localId, unsigned int remoteId, String_t const& name,
                           unsigned int windowSize, ISshPacketStream* in,
                           OSshPacketStream* out) const override {
        ++_made;
        return new NotingChannel(_notes, localId, remoteId, name, windowSize, in, out);
    }

    mutable int _made = 0;

private:
    std::string& _notes;
};

class ChannelManager : public testing::Test {
protected:
    SshChannel* NewTty(unsigned int remoteId = 9) {
        return _manager.NewTtyChannel(remoteId, "client-session", WINDOW, 0, _output.WriteEnd(),
                                      _errors.WriteEnd(), &_connection._in, &_connection._out);
    }
    SshChannel* NewNoting(unsigned int remoteId) {
        return _manager.NewChannel(remoteId, "label", WINDOW, &_connection._in, &_connection._out, _maker);
    }

    PlainConnection _connection;
    OutputPipe _output;
    OutputPipe _errors;
    std::string _notes;
    NotingMaker _maker{_notes};
    SshChannelMgr _manager;
};

TEST_F(ChannelManager, NumbersCountUpFromZeroAndAreNeverReused) {
    EXPECT_EQ(0u, NewTty()->_localId);
    EXPECT_EQ(1u, NewNoting(30)->_localId);
    EXPECT_EQ(41, _manager.RemoveChannel(1));
    EXPECT_EQ(2u, NewNoting(31)->_localId);
    EXPECT_EQ(nullptr, _manager.Find(1));
}

TEST_F(ChannelManager, ChannelHasTheConstructorArguments) {
    SshChannel const* channel = NewTty(77);
    EXPECT_EQ(77u, channel->_remoteId);
    EXPECT_STREQ("client-session", channel->_name.Text());
    EXPECT_EQ(WINDOW, channel->_windowSize);
    EXPECT_EQ(0, channel->_fdIn);
    EXPECT_EQ(_output.WriteEnd(), channel->_fdOut);
    EXPECT_EQ(_errors.WriteEnd(), channel->_fdErr);
    EXPECT_EQ(0, channel->_eofSent);
}

TEST_F(ChannelManager, TerminalDataIsWrittenImmediately) {
    NewTty();
    _manager.Forward(0, "now", 3);
    EXPECT_EQ("now", _output.Written());
}

TEST_F(ChannelManager, ExtendedDataIsForwardedAsPlainData) {
    NewTty();
    _manager.ForwardExtended(0, "error", 5);
    EXPECT_EQ("error", _output.Written());
    EXPECT_EQ("", _errors.Written());
    NewNoting(1);
    _manager.ForwardExtended(1, "e", 1);
    EXPECT_EQ("plain1:e;", _notes);
}

TEST_F(ChannelManager, ForwardExtendedOfATerminalChannelWritesToItsErrorDescriptor) {
    NewTty()->ForwardExtended("error", 5);
    EXPECT_EQ("error", _errors.Written());
    EXPECT_EQ("", _output.Written());
}

TEST_F(ChannelManager, ShortTerminalWriteThrows) {
    int const fd = open("/dev/full", O_WRONLY);
    for (bool extended : {false, true}) {
        SshChannel* channel = _manager.NewTtyChannel(1, "client-session", WINDOW, 0, extended ? 1 : fd,
                                                     extended ? fd : 2, &_connection._in, &_connection._out);
        try {
            extended ? channel->ForwardExtended("x", 1) : channel->Forward("x", 1);
            ADD_FAILURE() << "no exception";
        } catch (SystemError const& failure) {
            EXPECT_STREQ("write failed", failure.Text().Text());
            EXPECT_STREQ("data", failure.Detail().Text());
            EXPECT_EQ(ENOSPC, failure.Errno());
        }
    }
    close(fd);
}

TEST_F(ChannelManager, ConnectionTakesOwnershipOfTheDescriptor) {
    FileDescriptor fd(dup(_output.WriteEnd()));
    int const number = fd._fd;
    SshChannel const* channel =
        _manager.NewTcpConnection(4, "forwarded", WINDOW, fd, &_connection._in, &_connection._out);
    EXPECT_EQ(-1, fd._fd);
    EXPECT_EQ(number, channel->_fdIn);
    EXPECT_EQ(number, channel->_fdOut);
    EXPECT_EQ(number, channel->_fdErr);
    EXPECT_TRUE(IsOpen(number));
    EXPECT_EQ(number, _manager.RemoveChannel(0));
    EXPECT_FALSE(IsOpen(number));
}

TEST_F(ChannelManager, DataOfAConnectionIsBufferedUntilAllAreFlushed) {
    FileDescriptor fd(dup(_output.WriteEnd()));
    _manager.NewTcpConnection(4, "forwarded", WINDOW, fd, &_connection._in, &_connection._out);
    _manager.Forward(0, "batch", 5);
    EXPECT_EQ("", _output.Written());
    _manager.FlushAllChannels();
    EXPECT_EQ("batch", _output.Written());
}

TEST_F(ChannelManager, ForwardExtendedOfAConnectionFlushesImmediately) {
    FileDescriptor fd(dup(_output.WriteEnd()));
    _manager.NewTcpConnection(4, "forwarded", WINDOW, fd, &_connection._in, &_connection._out)
        ->ForwardExtended("e", 1);
    EXPECT_EQ("e", _output.Written());
}

TEST_F(ChannelManager, FlushVisitsAllChannelsInAscendingOrder) {
    for (unsigned int i = 0; i < 3; ++i) NewNoting(i);
    _manager.FlushAllChannels();
    EXPECT_EQ("flush0;flush1;flush2;", _notes);
}

TEST_F(ChannelManager, RemovingAnUnknownNumberReturnsMinusOne) {
    EXPECT_EQ(-1, _manager.RemoveChannel(0));
    EXPECT_EQ(-1, _manager.RemoveChannel(-1));
}

TEST_F(ChannelManager, RemovingAChannelDeletesItAndReturnsItsInput) {
    NewNoting(8);
    EXPECT_EQ(41, _manager.RemoveChannel(0));
    EXPECT_EQ("gone0;", _notes);
}

TEST_F(ChannelManager, DataForAnUnknownNumberIsDropped) {
    NewNoting(8);
    _manager.Forward(5, "x", 1);
    _manager.ForwardExtended(5, "x", 1);
    EXPECT_EQ("", _notes);
}

TEST_F(ChannelManager, ReplacementKeepsOnlyNumbersNameAndWindow) {
    SshChannel* old = NewTty(6);
    old->_eofSent = 1;
    SshChannel const* made = _manager.ReplaceChannel(0, _maker);
    ASSERT_NE(nullptr, made);
    EXPECT_EQ(made, _manager.Find(0));
    EXPECT_EQ(0u, made->_localId);
    EXPECT_EQ(6u, made->_remoteId);
    EXPECT_STREQ("client-session", made->_name.Text());
    EXPECT_EQ(WINDOW, made->_windowSize);
    EXPECT_EQ(&_connection._in, made->_in);
    EXPECT_EQ(&_connection._out, made->_out);
    EXPECT_EQ(41, made->_fdIn);
    EXPECT_EQ(0, made->_eofSent);
    EXPECT_EQ(1u, NewNoting(2)->_localId);
}

TEST_F(ChannelManager, ReplacingDeletesTheOldChannel) {
    NewNoting(6);
    _manager.ReplaceChannel(0, _maker);
    EXPECT_EQ("gone0;", _notes);
}

TEST_F(ChannelManager, ReplacingAnUnknownNumberReturnsNullAndMakesNothing) {
    EXPECT_EQ(nullptr, _manager.ReplaceChannel(0, _maker));
    EXPECT_EQ(0, _maker._made);
}

TEST_F(ChannelManager, X11ChannelsAreCountedUntilTheyAreConnected) {
    SshSession session(SshSession::CLIENT, 22, String_t("127.0.0.1"));
    NewTty();
    NewNoting(1)->_fdIn = -1;
    EXPECT_EQ(0u, _manager.CountUnconnectedX11());
    SshChannel* channels[3];
    for (SshChannel*& channel : channels)
        channel = _manager.NewX11Connection(500, "x11", WINDOW, session, &_connection._in, &_connection._out);
    EXPECT_EQ(3u, _manager.CountUnconnectedX11());
    channels[1]->_fdIn = 9;
    EXPECT_EQ(2u, _manager.CountUnconnectedX11());
    _manager.RemoveChannel(static_cast<int>(channels[0]->_localId));
    EXPECT_EQ(1u, _manager.CountUnconnectedX11());
}

TEST_F(ChannelManager, DestructionDeletesEveryChannel) {
    {
        SshChannelMgr manager;
        for (unsigned int i = 0; i < 3; ++i)
            manager.NewChannel(i, "label", WINDOW, &_connection._in, &_connection._out, _maker);
    }
    EXPECT_EQ("gone0;gone1;gone2;", _notes);
}

} // namespace
} // namespace cindral

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include <brantle/packet/packet_stream.h>
#include <brantle/thornel/file_descriptor.h>

#include "standard/channel_loop.h"
#include "unit/standard/connection_fakes.h"

using namespace cindral;
using namespace cindral::standard;

namespace {

constexpr unsigned int REMOTE = 7;
constexpr unsigned int WINDOW = 1 << 20;

/// The session around the loop: a table, a multiplexer, and a record of what the loop reports.
class Host : public LoopHost {
public:
    SshChannelMgr& Table() override { return table; }
    IOMultiplexer& Mux() override { return mux; }
    SshChannel& NewTcpChannel(unsigned int remote, char const* type, FileDescriptor& connection) override {
        return *table.NewTcpConnection(remote, type, WINDOW, connection, &_in, &_out);
    }
    SocketAddresses const* X11Server() override { return nullptr; }
    Bytes X11Setup(View) override { return {}; }
    SocketAddresses const* FindTarget(unsigned int) override { return nullptr; }
    void OnSessionEnd() override { sessionHasEnded = true; }
    void SetLastError(std::string const& text) override { lastError = text; }

    SshChannelMgr table;
    IOMultiplexer mux;
    bool sessionHasEnded = false;
    std::string lastError;

private:
    BlockCipher _cipher;
    Mac _mac;
    ISshPacketStream _in{_cipher, _mac};
    OSshPacketStream _out{_cipher, _mac};
};

class LoopEvents : public IgnoredEvents {
public:
    void OnData(Channel& channel, View data) override { loop->OnData(channel, data, false); }
    void OnErrorData(Channel& channel, View data) override { loop->OnData(channel, data, true); }
    void OnEof(Channel& channel) override { loop->OnEof(channel); }
    bool OnClosed(Channel& channel) override {
        loop->OnClosed(channel);
        return true;
    }
    void OnWindow(Channel& channel) override { loop->OnWindow(channel); }

    ChannelLoop* loop = nullptr;
};

/// A loop with one forwarded connection, whose local end is the test's.
class ForwardedChannel : public testing::Test {
protected:
    void SetUp() override {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
        local._fd = ends[0];
        FileDescriptor forwarded(ends[1]);
        object = &host.NewTcpChannel(REMOTE, "direct-tcpip", forwarded);
        Channel& added = channels.Add(std::make_unique<Channel>(object->_localId), WINDOW, WINDOW);
        added.isConfirmed = true;
        added.remote = REMOTE;
        events.loop = &loop;
        loop.RegisterInput(object->_fdIn, *object);
    }

    /// A message of the server's, with the channel's number after its own.
    void Receive(int number, View rest = View()) {
        Writer message(number);
        message.Int(object->_localId).Fixed(rest);
        View view = message.Get();
        channels.Take(view);
    }
    void ReceiveData(std::size_t size) { Receive(94, Writer().String(std::string(size, 'x')).Get()); }
    /// Serves one of the descriptors that are ready; false if there is none.
    bool Turn() {
        IOMultiplexer::PollFds fds;
        if (host.mux.Poll(fds, IOMultiplexer::Timeval(0, 0)) <= 0) return false;
        int const fd = IOMultiplexer::Nextfd(cursor, fds);
        if (fd >= 0 && !host.mux.Dispatch(fd)) host.mux.Unregister(fd);
        return true;
    }
    void TurnUntilIdle() {
        for (int turns = 0; turns < 1000 && Turn(); ++turns) {
        }
    }

    Host host;
    Offer offer;
    NoHostKeys hostKeys;
    RekeyLimit limit;
    Connection connection{offer, hostKeys, limit};
    LoopEvents events;
    Channels channels{connection, events};
    ChannelLoop loop{host, connection, channels};
    FileDescriptor local;
    int cursor = -1;
    SshChannel* object = nullptr;
};

} // namespace

TEST_F(ForwardedChannel, ResetAfterTheServersCloseEndsOnlyThisConnection) {
    ReceiveData(WINDOW); // more than a socket takes at once
    Receive(96);
    Receive(97);
    EXPECT_EQ(channels.Count(), 0u);
    EXPECT_NE(host.table.Find(static_cast<int>(object->_localId)), nullptr)
        << "what is left is still written";
    auto const number = static_cast<int>(object->_localId);
    close(std::exchange(local._fd, -1));
    EXPECT_NO_THROW(TurnUntilIdle());
    EXPECT_EQ(host.table.Find(number), nullptr);
    EXPECT_FALSE(host.sessionHasEnded);
}

TEST_F(ForwardedChannel, ResetBeforeTheServersCloseClosesTheChannel) {
    ReceiveData(WINDOW);
    close(std::exchange(local._fd, -1));
    EXPECT_NO_THROW(TurnUntilIdle());
    EXPECT_TRUE(channels.Find(object->_localId)->closeSent);
}

TEST_F(ForwardedChannel, DataThatTheProgramDoesNotReadYetIsWrittenAfterTheClose) {
    ReceiveData(WINDOW);
    Receive(96);
    Receive(97);
    auto const number = static_cast<int>(object->_localId);
    std::size_t received = 0;
    char buffer[65536];
    for (int turns = 0; turns < 1000 && received < WINDOW; ++turns) {
        ssize_t const count = recv(local._fd, buffer, sizeof buffer, 0);
        if (count > 0) received += static_cast<std::size_t>(count);
        if (host.table.Find(number)) Turn();
    }
    EXPECT_EQ(received, WINDOW);
    EXPECT_EQ(host.table.Find(number), nullptr);
}

TEST_F(ForwardedChannel, ExtendedDataAreDroppedAndGrantedAgain) {
    for (int i = 0; i < 3; ++i) Receive(95, Writer().Int(1).String(std::string(WINDOW / 2, 'e')).Get());
    Receive(94, Writer().String("data").Get());
    char buffer[16];
    EXPECT_EQ(recv(local._fd, buffer, sizeof buffer, 0), 4);
    EXPECT_EQ(std::string(buffer, 4), "data");
}

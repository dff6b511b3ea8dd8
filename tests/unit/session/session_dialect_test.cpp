#include <brantle/session/session_dialect.h>

#include <string>

#include <gtest/gtest.h>

#include <brantle/channel/tcp_forwarding.h>
#include <brantle/cindral/exceptions.h>
#include <brantle/packet/packet_filter.h>
#include <brantle/packet/transport_messages.h>
#include <brantle/session/file_transfer.h>

namespace cindral {

namespace {

/// Records what a session asks of its dialect.
class RecordingDialect : public SessionDialect, public PacketFilter {
public:
    explicit RecordingDialect(SshSession& session) : SessionDialect(session) {}

    using SessionDialect::Attach;
    using SessionDialect::Detach;

    int Connect(unsigned int timeout) override { return Asked("Connect", static_cast<int>(timeout)); }
    int KeyExchange() override { return Asked("KeyExchange", -2); }
    int Authenticate(String_t const&, String_t const&, String_t const&, EnterPassword&,
                     KbdInteractiveCallback&) override {
        return Asked("Authenticate", -3);
    }
    int Dispatch() override { return Asked("Dispatch", 1); }
    bool HasInput() override { return Asked("HasInput", 1) != 0; }
    void RegisterInput(int, SshChannel const&) override { Asked("RegisterInput", 0); }
    void Accept(SshSession::LocalForwarding&) override { Asked("Accept", 0); }
    int ResolveTarget(String_t const&, unsigned int) override { return Asked("ResolveTarget", -1); }
    unsigned int ListeningPort(unsigned int listenPort) override { return listenPort; }
    FileTransfer& Transfer() override { throw InvalidArgument("RecordingDialect", "no transfer"); }

    ByteString Read() override {
        Asked("Read", 0);
        return ByteString("\0\x02", 2);
    }
    void Write(Packet& packet, bool) override { Asked("Write", packet._type); }

    std::string _asked;

private:
    int Asked(char const* what, int result) {
        _asked += std::string(what) + " ";
        return result;
    }
};

class Dialect : public testing::Test {
protected:
    int Authenticate() {
        EnterPassword enter(0, "");
        KbdInteractiveCallback questions;
        return _session.Authenticate("", "user", "password", enter, questions);
    }

    SshSession _session{SshSession::CLIENT, 22, "127.0.0.1"};
    RecordingDialect _dialect{_session};
};

TEST_F(Dialect, TakesOverTheStepsOfASessionOnceAttached) {
    _dialect.Attach(_dialect);
    EXPECT_EQ(_session.Connect(7), 7);
    EXPECT_EQ(_session.KeyExchange(), -2);
    EXPECT_EQ(Authenticate(), -3);
    EXPECT_EQ(_dialect._asked, "Connect KeyExchange Authenticate ");
}

TEST_F(Dialect, PacketsGoThroughItsFilter) {
    _dialect.Attach(_dialect);
    _session.Disconnect(11, "bye");
    EXPECT_EQ(_session.AuthReadPacket(), ByteString("\0\x02", 2));
    EXPECT_TRUE(_session.HasBufferedInput());
    EXPECT_EQ(_dialect._asked, "Write Read HasInput ");
}

TEST(DialectInput, WholePacketsAreThoseOfTheFilter) {
    class Open : public SshSession {
    public:
        Open() : SshSession(CLIENT, 22, "127.0.0.1") {}
        using SshSession::_in;
    } session;
    RecordingDialect dialect(session);
    dialect.Attach(dialect);
    EXPECT_TRUE(session._in.HasBufferedPacket());
    EXPECT_EQ(dialect._asked, "HasInput ");
    dialect.Detach();
    EXPECT_FALSE(session._in.HasBufferedPacket());
}

TEST_F(Dialect, SecondDialectIsRefused) {
    _dialect.Attach(_dialect);
    RecordingDialect second(_session);
    EXPECT_THROW(second.Attach(second), InvalidArgument);
    EXPECT_EQ(_session.KeyExchange(), -2);
}

TEST_F(Dialect, DetachedDialectIsNotUsed) {
    _dialect.Attach(_dialect);
    _dialect.Detach();
    EXPECT_EQ(Authenticate(), -1); // no keys are in force
    EXPECT_FALSE(_session.HasBufferedInput());
    EXPECT_EQ(_dialect._asked, "");
}

} // namespace

} // namespace cindral

#ifndef TESTS_WIRE_FORWARDING_FIXTURE_H
#define TESTS_WIRE_FORWARDING_FIXTURE_H

#include <functional>
#include <future>
#include <set>
#include <string>

#include <brantle/channel/tcp_forwarding.h>

#include "support/descriptor_state.h"
#include "wire/loop_fixture.h"
#include "wire/tcp_end.h"

using support::OpenDescriptors;

inline peer::Bytes Confirmation(std::uint32_t recipient, std::uint32_t sender) {
    return peer::Writer()
        .U8(peer::CHANNEL_OPEN_CONFIRMATION)
        .U32(recipient)
        .U32(sender)
        .U32(0x10000)
        .U32(0x4000);
}
inline peer::Bytes OpenFailure(std::uint32_t recipient) {
    return peer::Writer().U8(peer::CHANNEL_OPEN_FAILURE).U32(recipient).U32(2).String("no way").String("");
}
inline peer::Bytes ChannelFailure(std::uint32_t recipient) {
    return peer::Writer().U8(peer::CHANNEL_FAILURE).U32(recipient);
}

/// A CHANNEL_OPEN of the type "forwarded-tcpip" that ends after the connected port.
inline peer::Writer ShortOpening(std::uint32_t sender, std::uint32_t port) {
    return peer::Writer()
        .U8(peer::CHANNEL_OPEN)
        .String("forwarded-tcpip")
        .U32(sender)
        .U32(0x10000)
        .U32(0x4000)
        .String("bound")
        .U32(port);
}

inline peer::Bytes GlobalRequest(char const* type, bool wantReply, char const* address, std::uint32_t port) {
    return peer::Writer().U8(peer::GLOBAL_REQUEST).String(type).Bool(wantReply).String(address).U32(port);
}

/// What the client answers to `sender` when it opens its channel `local` for it.
inline peer::Bytes Accepted(std::uint32_t sender, std::uint32_t local) {
    return peer::Writer()
        .U8(peer::CHANNEL_OPEN_CONFIRMATION)
        .U32(sender)
        .U32(local)
        .U32(0x200000)
        .U32(0x4000);
}
inline peer::Bytes Refused(std::uint32_t sender) {
    return peer::Writer().U8(peer::CHANNEL_OPEN_FAILURE).U32(sender).U32(1).String("open failed").String("");
}

/// The answer to a "tcpip-forward", which is taken first.
inline void GrantForwarding(peer::Connection& c) {
    c.ExpectPacket(peer::GLOBAL_REQUEST);
    c.SendPacket(peer::Writer().U8(peer::REQUEST_SUCCESS));
}

/// Sessions with forwardings. A local one forwards port Listener() to "target" 8000; the channel of its
/// first connection is 1 here and 77 at the server. No test leaves a descriptor open.
class ForwardingTest : public LoopTest {
protected:
    using LocalForwarding = cindral::SshSession::LocalForwarding;

    void SetUp() override { _descriptors = OpenDescriptors(); }
    void TearDown() override {
        server.reset();
        EXPECT_EQ(OpenDescriptors(), _descriptors);
    }

    /// As in LoopTest. What the server sends only to the running session comes after AwaitRun.
    std::string Run(Script const& script, Client const& prepare = {}, Client const& inspect = {}) {
        _listening = {};
        _listener = _listening.get_future();
        _prepared = {};
        return LoopTest::Run(
            script,
            [&](LoopSession& session) {
                if (prepare) prepare(session);
                _prepared.set_value();
            },
            inspect);
    }
    void AwaitRun() { _prepared.get_future().wait(); }

    /// Starts the local forwarding; for a test's `prepare`.
    void Listen(LoopSession& session) {
        EXPECT_EQ(session.StartLocalForwarding(8000, "target", 0, "127.0.0.1"), 0);
        _listening.set_value(tcp::PortOf(Forwarding(session)->_server->Fd()));
    }
    Client Listening() {
        return [this](LoopSession& session) { Listen(session); };
    }
    static LocalForwarding* Forwarding(LoopSession& session) { return session._localForwardings.Find(0); }

    /// Its port, as soon as it listens.
    std::uint16_t Listener() const { return _listener.get(); }
    tcp::End Connect() const { return tcp::End::To(Listener()); }

    /// A connection through the forwarding that the server has attached to its channel `sender`.
    tcp::End ConnectThrough(peer::Connection& c, std::uint32_t sender = 77) const {
        tcp::End local = Connect();
        peer::ChannelOpen const open = c.ReadChannelOpen();
        c.SendPacket(Confirmation(open.sender, sender));
        return local;
    }

    using AnswerScript = std::function<void(peer::Connection&, tcp::End& local)>;

    /// Returns when the session is gone: the connection does not end before it.
    static void EndTheRun(peer::Connection& c, tcp::End const&) {
        c.SendExitStatus(0);
        ReadToTheEnd(c);
    }

    /// The outcome of AcceptLocalFwdConnection for one connection, with a server that answers by this script
    /// and goes on by the other when the call has returned. The session is then run until the server ends it.
    std::string Accept(AnswerScript const& answer, AnswerScript const& goOn = EndTheRun) {
        std::string outcome;
        std::string const run = Run(
            [&](peer::Connection& c) {
                tcp::End local = Connect();
                c.ReadChannelOpen();
                answer(c, local);
                AwaitRun();
                goOn(c, local);
            },
            [&](LoopSession& session) {
                Listen(session);
                outcome = Outcome([&] { return session.AcceptLocalFwdConnection(Forwarding(session)); });
            });
        return outcome + ", Run " + run;
    }

private:
    std::set<int> _descriptors;
    std::promise<std::uint16_t> _listening;
    std::shared_future<std::uint16_t> _listener{_listening.get_future()};
    std::promise<void> _prepared;
};

#endif

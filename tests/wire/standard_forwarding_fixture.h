#ifndef TESTS_WIRE_STANDARD_FORWARDING_FIXTURE_H
#define TESTS_WIRE_STANDARD_FORWARDING_FIXTURE_H

#include <atomic>
#include <future>
#include <string>

#include <brantle/channel/tcp_forwarding.h>

#include "wire/standard_fixture.h"
#include "wire/tcp_end.h"

/// While it is set, no descriptor is left for a connection that is to stay. The limit itself would stop the
/// sanitizers.
extern std::atomic<bool> noneToAccept;

/// Sessions with forwardings under the standard dialect: a local one to "target" 8000, and a remote one from
/// port 9000 of the server's address "bound" to a service here. The server's script makes the connections to
/// both.
class StandardForwardingTest : public StandardTest {
protected:
    static constexpr std::uint32_t REMOTE_PORT = 9000;
    static constexpr std::uint32_t MAX_PACKET = 0x8000;

    /// A command at a server that goes on from where both forwardings stand. `prepare` is called before Run.
    StandardResult Forward(Script const& script, std::uint16_t target,
                           std::function<void(StandardClient&)> const& prepare = {}) {
        _listening = {};
        _listener = _listening.get_future();
        return Run(
            [this, script](peer::StandardConnection& c) {
                c.ExpectPacket(peer::GLOBAL_REQUEST);
                c.SendPacket({peer::REQUEST_SUCCESS});
                Listener(); // waits until the client knows of both
                script(c);
            },
            [=](StandardClient& client) {
                client.beforeRun = [=, &client] {
                    LoopSession& session = client.session;
                    EXPECT_EQ(session.StartLocalForwarding(8000, "target", 0, "127.0.0.1"), 0);
                    EXPECT_EQ(session.StartRemoteForwarding(target, "127.0.0.1", REMOTE_PORT, "bound"), 0);
                    _listening.set_value(tcp::PortOf(session._localForwardings.Find(0)->_server->Fd()));
                    if (prepare) prepare(client);
                };
            });
    }

    /// The port of the local forwarding, as soon as it listens.
    std::uint16_t Listener() const { return _listener.get(); }

    /// A connection through the local forwarding; `local` is the client's number of its channel, and
    /// `remote` the server's.
    tcp::End ConnectThrough(peer::StandardConnection& c, std::uint32_t remote, std::uint32_t window,
                            std::uint32_t& local) const {
        tcp::End end = tcp::End::To(Listener());
        local = OpenedBy(c);
        c.SendPacket(Confirmation(local, remote, window));
        return end;
    }
    /// The client's number in its next CHANNEL_OPEN, before which other messages may come.
    static std::uint32_t OpenedBy(peer::StandardConnection& c) {
        peer::Reader open = c.SkipTo(peer::CHANNEL_OPEN);
        EXPECT_EQ(open.String(), "direct-tcpip");
        return open.U32();
    }
    static peer::Bytes Confirmation(std::uint32_t local, std::uint32_t remote, std::uint32_t window) {
        return peer::Writer()
            .U8(peer::CHANNEL_OPEN_CONFIRMATION)
            .U32(local)
            .U32(remote)
            .U32(window)
            .U32(MAX_PACKET);
    }
    /// The server's CHANNEL_OPEN for a connection to the forwarded port.
    static peer::Bytes Opening(std::uint32_t remote, std::uint32_t window) {
        return peer::Writer()
            .U8(peer::CHANNEL_OPEN)
            .String("forwarded-tcpip")
            .U32(remote)
            .U32(window)
            .U32(MAX_PACKET)
            .String("bound")
            .U32(REMOTE_PORT)
            .String("127.0.0.1")
            .U32(1);
    }

private:
    std::promise<std::uint16_t> _listening;
    std::shared_future<std::uint16_t> _listener{_listening.get_future()};
};

#endif

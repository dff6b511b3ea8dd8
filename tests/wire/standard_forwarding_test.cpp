// Forwarding with the standard dialect at servers and targets that are slow or wrong.

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>

#include <atomic>
#include <cstdarg>
#include <future>

#include <brantle/channel/tcp_forwarding.h>
#include <brantle/channel/x11_forwarding.h>

#include "support/next_symbol.h"
#include "support/x11/fake_xauth.h"
#include "support/x11/scripted_x_server.h"
#include "support/x11/setup_message.h"
#include "wire/standard_fixture.h"
#include "wire/tcp_end.h"

using namespace peer;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

std::atomic<bool> noneToAccept{false};

namespace {

constexpr std::uint32_t WINDOW = 0x200000;   ///< what the client grants
constexpr std::uint32_t MAX_PACKET = 0x8000; ///< likewise
constexpr std::uint32_t PORT = 7;            ///< forwarded by the server
char const COOKIE[] = "f0f1f2f3f4f5f6f7f8f9fafbfcfdfe00";

std::atomic<int> lookups{0};               ///< in the resolver
std::atomic<bool> noDescriptorLeft{false}; ///< the limit itself would stop the sanitizers
std::atomic<bool> noneToOpen{false};       ///< likewise, for the next file

Bytes Opening(char const* type, std::uint32_t sender, std::uint32_t port = PORT) {
    Writer rest;
    if (type == std::string("forwarded-tcpip")) rest.String("localhost").U32(port);
    rest.String("127.0.0.1").U32(2);
    return Writer().U8(CHANNEL_OPEN).String(type).U32(sender).U32(0x10000).U32(0x4000).Raw(rest.Data());
}

/// A server's side of a forwarded connection: opens it and gives the client's number of it.
std::uint32_t Open(StandardConnection& c, char const* type, std::uint32_t sender) {
    c.SendPacket(Opening(type, sender));
    Reader answer = c.SkipTo(CHANNEL_OPEN_CONFIRMATION);
    EXPECT_EQ(answer.U32(), sender);
    std::uint32_t const number = answer.U32();
    EXPECT_EQ(answer.U32(), WINDOW);
    EXPECT_EQ(answer.U32(), MAX_PACKET);
    return number;
}

/// Grants what the client asks for next.
void Grant(StandardConnection& c) {
    c.SkipTo(GLOBAL_REQUEST);
    c.SendPacket({REQUEST_SUCCESS});
}

/// Returns once the client's loop has answered.
void ExpectLoop(StandardConnection& c) {
    c.SendPacket(Writer().U8(GLOBAL_REQUEST).String("unknown").Bool(true));
    c.SkipTo(REQUEST_FAILURE);
}

class StandardForwarding : public StandardTest {
protected:
    /// Has the client ask for a remote forwarding to that port before its loop runs.
    Configure Forwarding(std::uint16_t port, std::string const& host = "localhost") {
        return [=](StandardClient& client) {
            client.beforeLoop = [=, &client] {
                started = client.session.StartRemoteForwarding(port, host.c_str(), PORT, "localhost");
            };
        };
    }
    /// Has the client forward X11 to a display.
    Configure Display(std::string const& display) {
        return [=](StandardClient& client) {
            client.beforeOpen = [=, &client] { client.session.StartX11Forwarding(0, display.c_str()); };
        };
    }
    /// The outcome of a command at a server that grants X11 forwarding and goes on from the command.
    StandardResult RunX11(std::string const& display, Script const& script) {
        return RunFrom(
            [&](StandardConnection& c) {
                c.WellBehaved(Stage::Opened);
                Reader request(c.ReadChannelRequest().rest);
                request.Bool();
                request.String();
                setup.data = ToText(FromHex(request.String()));
                c.ReadChannelRequest();
                script(c);
                c.ReadToTheEnd();
            },
            Display(display));
    }
    /// The client's first message as the X server gets it.
    std::string SetupWithTheCookie() const {
        x11::SetupMessage real = setup;
        real.data = ToText(FromHex(COOKIE));
        std::string text = real.Text();
        text.replace(30, 2, 2, '\0'); // padding of the name
        return text;
    }

    int started = 4711;
    x11::SetupMessage setup; ///< of a remote X client that has the server's cookie
    x11::FakeXauth xauth{std::string("host/unix:0  ") + x11::MAGIC_COOKIE + "  " + COOKIE + "\n"};
};

// --- from the server's ports

TEST_F(StandardForwarding, TargetThatIsNotKnownIsRefusedAtTheStart) {
    StandardResult const result =
        Run([](StandardConnection& c) { c.SendTogether(Ending()); }, Forwarding(1, "not a host"));
    EXPECT_EQ(started, -1);
    EXPECT_EQ(Seen().CountReceived(GLOBAL_REQUEST), 0u);
    EXPECT_THAT(result.lastError, HasSubstr("not a host"));
}

TEST_F(StandardForwarding, TargetIsLookedUpOnceAtTheStart) {
    tcp::Service const target;
    int before = -1;
    Run(
        [&](StandardConnection& c) {
            Grant(c);
            before = lookups;
            for (std::uint32_t sender : {500u, 501u}) {
                std::uint32_t const number = Open(c, "forwarded-tcpip", sender);
                c.SendPacket(Data("text", number));
                EXPECT_EQ(target.Accept().Receive(4), "text");
            }
            c.SendTogether(Ending());
        },
        Forwarding(target.Port()));
    EXPECT_EQ(started, 0);
    EXPECT_GT(before, 0);
    EXPECT_EQ(lookups, before);
}

TEST_F(StandardForwarding, OpeningUnderTheNumberOfOneThatIsBeingConnectedEndsTheSession) {
    tcp::Service const target;
    StandardResult const result = Run(
        [&](StandardConnection& c) {
            Grant(c);
            c.SendTogether({Opening("forwarded-tcpip", 500), Opening("forwarded-tcpip", 500)});
        },
        Forwarding(target.Port(), "127.0.0.1"));
    EXPECT_THAT(result.outcome, AllOf(StartsWith("Run SshProtocolError: "), HasSubstr("number twice")));
}

TEST_F(StandardForwarding, PortThatTheServerChoseIsCancelled) {
    std::string cancelled;
    std::uint32_t port = 0;
    StandardResult const result = Run(
        [&](StandardConnection& c) {
            c.SkipTo(GLOBAL_REQUEST);
            c.SendPacket(Writer().U8(REQUEST_SUCCESS).U32(4242));
            Reader request = c.SkipTo(GLOBAL_REQUEST);
            cancelled = request.String();
            request.Bool();
            request.String();
            port = request.U32();
            c.SendPacket(Opening("forwarded-tcpip", 500, 4242));
            c.SkipTo(CHANNEL_OPEN_FAILURE);
            c.SendTogether(Ending());
        },
        [&](StandardClient& client) {
            client.beforeLoop = [&] {
                client.session.StartRemoteForwarding("0:127.0.0.1:1");
                client.session.CancelRemoteForwarding(0);
            };
        });
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(cancelled, "cancel-tcpip-forward");
    EXPECT_EQ(port, 4242u);
}

TEST_F(StandardForwarding, SeveralPortsThatTheServerChoseLeadToTheirTargets) {
    tcp::Service const targets[2];
    std::vector<int> results;
    std::vector<unsigned> ports;
    StandardResult const result = Run(
        [&](StandardConnection& c) {
            for (std::uint32_t port : {4242u, 4243u}) {
                c.SkipTo(GLOBAL_REQUEST);
                c.SendPacket(Writer().U8(REQUEST_SUCCESS).U32(port));
            }
            for (std::uint32_t i : {1u, 0u}) {
                c.SendPacket(Opening("forwarded-tcpip", 500 + i, 4242 + i));
                c.SkipTo(CHANNEL_OPEN_CONFIRMATION);
                tcp::End const end = targets[i].Accept();
            }
            c.SendTogether(Ending());
        },
        [&](StandardClient& client) {
            client.beforeLoop = [&] {
                for (tcp::Service const& target : targets) {
                    std::string const spec = "0:127.0.0.1:" + std::to_string(target.Port());
                    results.push_back(client.session.StartRemoteForwarding(spec.c_str()));
                    ports.push_back(client.dialect.RemotePort());
                }
            };
        });
    EXPECT_EQ(server->Error(), "");
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_THAT(results, testing::ElementsAre(0, 0));
    EXPECT_THAT(ports, testing::ElementsAre(4242u, 4243u));
}

TEST_F(StandardForwarding, ConnectionAnnouncedUnderPort0LeadsToTheTargetOfTheChosenPort) {
    tcp::Service const target;
    int forwarded = 4711;
    StandardResult const result = Run(
        [&](StandardConnection& c) {
            c.SkipTo(GLOBAL_REQUEST);
            c.SendPacket(Writer().U8(REQUEST_SUCCESS).U32(4242));
            c.SendPacket(Opening("forwarded-tcpip", 500, 0));
            c.SkipTo(CHANNEL_OPEN_CONFIRMATION);
            tcp::End const end = target.Accept();
            c.SendTogether(Ending());
        },
        [&](StandardClient& client) {
            client.beforeLoop = [&] {
                std::string const spec = "0:127.0.0.1:" + std::to_string(target.Port());
                forwarded = client.session.StartRemoteForwarding(spec.c_str());
            };
        });
    EXPECT_EQ(server->Error(), "");
    EXPECT_EQ(forwarded, 0);
    EXPECT_EQ(result.exitStatus, 0);
}

TEST_F(StandardForwarding, EachPortThatTheServerChoseCanBeCancelled) {
    std::vector<std::uint32_t> cancelled;
    std::vector<int> results;
    Run(
        [&](StandardConnection& c) {
            for (std::uint32_t port : {4242u, 4243u, 4244u}) {
                c.SkipTo(GLOBAL_REQUEST);
                c.SendPacket(Writer().U8(REQUEST_SUCCESS).U32(port));
            }
            for (int i = 0; i < 2; ++i) {
                Reader request = c.SkipTo(GLOBAL_REQUEST);
                request.String();
                request.Bool();
                request.String();
                cancelled.push_back(request.U32());
            }
            c.SendPacket(Opening("forwarded-tcpip", 500, 4242));
            c.SkipTo(CHANNEL_OPEN_FAILURE);
            c.SendTogether(Ending());
        },
        [&](StandardClient& client) {
            client.beforeLoop = [&] {
                for (int i = 0; i < 3; ++i) client.session.StartRemoteForwarding("0:127.0.0.1:1");
                for (unsigned port : {4242u, 0u, 4244u})
                    results.push_back(client.session.CancelRemoteForwarding(port));
            };
        });
    EXPECT_THAT(results, testing::ElementsAre(0, 0, -1));
    EXPECT_THAT(cancelled, testing::ElementsAre(4242u, 4244u));
}

TEST_F(StandardForwarding, LackOfDescriptorsRefusesForwardedConnectionsAlone) {
    constexpr std::size_t SIZE = 16 << 20; // more than the sockets hold
    settings.window = 2 * SIZE;
    MemoryFile const large(std::string(SIZE, 'x'));
    tcp::Service const target;
    std::unique_ptr<AtOnce> timer;
    StandardResult const result = Run(
        [&](StandardConnection& c) {
            c.Wire().recording = false;
            Grant(c);
            c.SkipTo(CHANNEL_DATA); // no descriptor is left now
            c.SendPacket(Opening("forwarded-tcpip", 500));
            c.SkipTo(CHANNEL_OPEN_FAILURE);
            std::this_thread::sleep_for(std::chrono::milliseconds(300)); // the client can't write meanwhile
            c.SkipTo(CHANNEL_EOF);
            c.SendTogether({Data("output"), ExtendedData("errors", 1), ExitStatus(3), Close()});
        },
        [&](StandardClient& client) {
            timer = std::make_unique<AtOnce>([&] {
                noDescriptorLeft = true;
                dup2(large.Fd(), 0);
            });
            Forwarding(target.Port(), "127.0.0.1")(client);
            client.beforeRun = [&] { client.session.Multiplexer().Insert(timer.get()); };
        });
    noDescriptorLeft = false;
    EXPECT_EQ(result.outcome, RUN_ENDED);
    EXPECT_EQ(result.exitStatus, 3);
    EXPECT_EQ(result.output, "output");
    EXPECT_EQ(result.errors, "errors");
}

TEST_F(StandardForwarding, LackOfDescriptorsThatLastsRefusesFurtherConnections) {
    std::promise<std::uint16_t> port;
    StandardResult const result = Run(
        [&](StandardConnection& c) {
            tcp::End const ends[] = {tcp::End(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)),
                                     tcp::End(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))};
            sockaddr_in const address = tcp::Loopback(port.get_future().get());
            noneToAccept = noneToOpen = true; // as if another thread had taken the last descriptor
            for (tcp::End const& end : ends) {
                connect(end.Fd(), reinterpret_cast<sockaddr const*>(&address), sizeof address);
                EXPECT_TRUE(end.IsClosedByPeer());
            }
            c.SendTogether(Ending(3));
        },
        [&](StandardClient& client) {
            client.beforeRun = [&] {
                client.session.StartLocalForwarding(8000, "target", 0, "127.0.0.1");
                port.set_value(tcp::PortOf(client.session._localForwardings.Find(0)->_server->Fd()));
            };
        });
    noneToAccept = noneToOpen = false;
    EXPECT_EQ(result.exitStatus, 3);
}

// --- from remote X clients

TEST_F(StandardForwarding, RemoteXClientReachesTheDisplayWithItsCookie) {
    for (x11::Transport const transport : {x11::Transport::Unix, x11::Transport::Tcp}) {
        x11::ScriptedXServer display(transport);
        StandardResult const result = RunX11(display.Display(), [&](StandardConnection& c) {
            std::uint32_t const number = Open(c, "x11", 500);
            std::string const text = setup.Text();
            c.SendPacket(Data(text.substr(0, 20), number));
            c.SendPacket(Data(text.substr(20) + "more", number));
            x11::XConnection x = display.Accept();
            EXPECT_EQ(x.Read(text.size() + 4), SetupWithTheCookie() + "more");
            x.Write("answer");
            Reader data = c.SkipTo(CHANNEL_DATA);
            EXPECT_EQ(data.U32(), 500u);
            EXPECT_EQ(data.String(), "answer");
            c.SendPacket(Eof(number));
            EXPECT_EQ(x.ReadToTheEnd(), "");
            x.Close();
            EXPECT_EQ(c.SkipTo(CHANNEL_CLOSE).U32(), 500u);
            c.SendTogether({Close(number), Eof(), ExitStatus(3), Close()});
        });
        EXPECT_EQ(server->Error(), "");
        EXPECT_EQ(result.exitStatus, 3);
    }
}

TEST_F(StandardForwarding, RemoteXClientWithAnotherCookieIsTurnedAway) {
    x11::ScriptedXServer display(x11::Transport::Unix);
    StandardResult const result = RunX11(display.Display(), [&](StandardConnection& c) {
        std::vector<x11::SetupMessage> wrong(4, setup);
        wrong[0].data[3] ^= 1;
        wrong[1].name = "XDM-AUTHORIZATION-";
        wrong[2].major = 10;
        wrong[3].order = 'x';
        for (x11::SetupMessage const& message : wrong) {
            std::uint32_t const number = Open(c, "x11", 500);
            c.SendPacket(Data(message.Text(), number));
            EXPECT_EQ(c.SkipTo(CHANNEL_CLOSE).U32(), 500u);
            c.SendPacket(Close(number));
        }
        c.SendTogether(Ending(3));
    });
    EXPECT_EQ(server->Error(), "");
    EXPECT_EQ(result.exitStatus, 3);
    EXPECT_FALSE(display.HasVisitor());
}

TEST_F(StandardForwarding, DisplayThatDoesNotAnswerHoldsUpItsClientAlone) {
    x11::ScriptedXServer display(x11::Transport::Tcp);
    std::vector<tcp::End> queue; // of the display, which has no room then
    for (bool isFull = false; !isFull;) {
        queue.emplace_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        sockaddr_in const address = tcp::Loopback(static_cast<std::uint16_t>(6000 + display.Number()));
        connect(queue.back().Fd(), reinterpret_cast<sockaddr const*>(&address), sizeof address);
        pollfd connected{queue.back().Fd(), POLLOUT, 0};
        isFull = poll(&connected, 1, 300) == 0;
    }
    queue.pop_back();
    StandardResult const result = RunX11(display.Display(), [&](StandardConnection& c) {
        std::uint32_t const number = Open(c, "x11", 500);
        c.SendPacket(Data(setup.Text(), number));
        ExpectLoop(c);
        c.SendPacket(Data("more", number));
        ExpectLoop(c);
        for (std::size_t i = 0; i < queue.size(); ++i) display.Accept();
        x11::XConnection x = display.Accept();
        std::string const expected = SetupWithTheCookie() + "more";
        EXPECT_EQ(x.Read(expected.size()), expected);
        c.SendTogether(Ending(3));
    });
    EXPECT_EQ(server->Error(), "");
    EXPECT_EQ(result.exitStatus, 3);
}

TEST_F(StandardForwarding, DisplayThatIsNotThereClosesTheChannelOfItsClient) {
    x11::ScriptedXServer display(x11::Transport::Unix);
    display.StopListening();
    StandardResult const result = RunX11(display.Display(), [&](StandardConnection& c) {
        std::uint32_t const number = Open(c, "x11", 500);
        c.SendPacket(Data(setup.Text(), number));
        EXPECT_EQ(c.SkipTo(CHANNEL_CLOSE).U32(), 500u);
        c.SendTogether({Close(number), ExitStatus(3), Close()});
    });
    EXPECT_EQ(server->Error(), "");
    EXPECT_EQ(result.exitStatus, 3);
}

} // namespace

extern "C" {

// In place of the C library's, for the library under test too.

int getaddrinfo(char const* node, char const* service, addrinfo const* hints, addrinfo** found) {
    static auto* const next = support::NextSymbol(&getaddrinfo, "getaddrinfo");
    ++lookups;
    return next(node, service, hints, found);
}

int socket(int family, int type, int protocol) noexcept {
    static auto* const next = support::NextSymbol(&socket, "socket");
    if (!noDescriptorLeft) return next(family, type, protocol);
    errno = EMFILE;
    return -1;
}

int accept4(int fd, sockaddr* address, socklen_t* size, int flags) {
    static auto* const next = support::NextSymbol(&accept4, "accept4");
    if (!noneToAccept || !(flags & SOCK_NONBLOCK)) return next(fd, address, size, flags);
    errno = EMFILE;
    return -1;
}

int open(char const* path, int flags, ...) {
    static auto* const next = support::NextSymbol(&open, "open");
    va_list arguments;
    va_start(arguments, flags);
    int const mode = va_arg(arguments, int);
    va_end(arguments);
    if (!noneToOpen.exchange(false)) return next(path, flags, mode);
    errno = EMFILE;
    return -1;
}

int fcntl(int fd, int command, ...) {
    static auto* const next = support::NextSymbol(&fcntl, "fcntl");
    va_list arguments;
    va_start(arguments, command);
    long const argument = va_arg(arguments, long);
    va_end(arguments);
    if (!noDescriptorLeft || command != F_DUPFD_CLOEXEC) return next(fd, command, argument);
    errno = EMFILE;
    return -1;
}
}

// TCP connections forwarded through real servers, with real services after them.

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "real/server_kinds.h"
#include "support/client/forwarding_client.h"
#include "support/servers/openssh_server.h"
#include "support/servers/proftpd_server.h"
#include "support/servers/python_servers.h"
#include "support/servers/server_suite.h"
#include "wire/tcp_end.h"

using client::Forwarding;
using client::Report;
using client::SessionClient;
using testing::HasSubstr;

using namespace kinds;

namespace {

std::string Local(std::uint16_t port) { return "127.0.0.1:0:127.0.0.1:" + std::to_string(port); }

void ExpectUnharmed(Report const& report) {
    EXPECT_EQ(report["run"], "-1") << report;
    EXPECT_EQ(report["thrown"], "") << report;
    EXPECT_EQ(report["channels-left"], "0") << report;
    EXPECT_EQ(report.status, 0) << report;
}

void ExpectClean(Report const& report) {
    ExpectUnharmed(report);
    EXPECT_EQ(report.errors, "");
}

/// The two ends of a forwarded connection: that of the program here, and that of the service.
struct Attached {
    tcp::End local;
    tcp::End remote;
};

/// One server for all cases, and for each case a service of the test's own that is the target of a
/// forwarding.
template <class Kind>
class ForwardingCase : public servers::ServerSuite<typename Kind::Server> {
protected:
    /// A session that forwards to a port of 127.0.0.1, as the server sees it.
    Forwarding& ForwardTo(std::uint16_t port) {
        client.WithLocalForwarding(Local(port));
        forwarding = std::make_unique<Forwarding>(client);
        return *forwarding;
    }
    Forwarding& ForwardToService() { return ForwardTo(service.Port()); }

    tcp::End Connect() const { return tcp::End::To(forwarding->Port()); }
    Attached Join() const {
        tcp::End local = Connect();
        return {std::move(local), service.Accept()};
    }
    /// Waits for what connections that have been closed leave: nothing.
    void ExpectNothingLeft() {
        forwarding->AwaitConnections(0);
        ExpectClean(forwarding->End());
    }

    ForwardingCase() { client.WithKey("user_rsa").ReadingUnsolicited(Kind::UNSOLICITED); }

    SessionClient client{this->TheServer()};
    tcp::Service service;
    std::unique_ptr<Forwarding> forwarding;
};

template <class Kind>
class RealLocalForwarding : public ForwardingCase<Kind> {};
using AllKinds = testing::Types<Asyncssh, Paramiko, Openssh>;
TYPED_TEST_SUITE(RealLocalForwarding, AllKinds, Names);

TYPED_TEST(RealLocalForwarding, EchoServerReturnsTheBytes) {
    this->ForwardToService();
    Attached ends = this->Join();
    std::thread echo([&] {
        for (std::string bytes; !(bytes = ends.remote.Receive(1)).empty();) ends.remote.Send(bytes);
        ends.remote.Close();
    });
    for (char const* text : {"a", "few", "words"}) {
        ends.local.Send(text);
        EXPECT_EQ(ends.local.Receive(std::string(text).size()), text);
    }
    ends.local.EndSending();
    EXPECT_EQ(ends.local.ReceiveAll(), "");
    echo.join();
    this->ExpectNothingLeft();
}

TYPED_TEST(RealLocalForwarding, CurlFetchesPages) {
    support::TemporaryDirectory files;
    std::string page(3'000'000, 'p');
    page += "end";
    servers::WriteFile(files / "page", page);
    servers::ChildProcess web({{"/usr/bin/python3", "-u", "-m", "http.server", "0", "--bind", "127.0.0.1",
                                "--directory", files.Path().string()},
                               {},
                               {},
                               files / "output"});
    std::string announced;
    client::WaitUntil(web, [&] {
        announced = servers::ReadFile(files / "output");
        return announced.find(" (") != std::string::npos;
    });
    std::string const mark = " port ";
    this->ForwardTo(
        static_cast<std::uint16_t>(std::stoul(announced.substr(announced.find(mark) + mark.size()))));
    std::string const url = "http://127.0.0.1:" + std::to_string(this->forwarding->Port()) + "/";
    for (int fetched = 0; fetched < 3; ++fetched) {
        EXPECT_TRUE(servers::RunOrThrow({"curl", "--silent", "--fail", "--noproxy", "*", url + "page"}) ==
                    page);
        this->forwarding->AwaitConnections(0);
    }
    EXPECT_EQ(servers::Run({"curl", "--silent", "--fail", "--noproxy", "*", url + "none"}).status, 22);
    this->ExpectNothingLeft();
}

TYPED_TEST(RealLocalForwarding, RefusedConnectionIsClosed) {
    this->ForwardTo(tcp::FreePort());
    for (int tried = 0; tried < 3; ++tried) {
        tcp::End const local = this->Connect();
        EXPECT_TRUE(local.IsClosedByPeer());
        this->forwarding->AwaitConnections(0);
    }
    this->ExpectNothingLeft();
}

TYPED_TEST(RealLocalForwarding, ServiceThatResetsEndsTheConnection) {
    this->ForwardToService();
    Attached ends = this->Join();
    ends.local.Send("request");
    EXPECT_EQ(ends.remote.Receive(7), "request");
    ends.remote.Reset();
    EXPECT_TRUE(ends.local.IsClosedByPeer());
    ends.local.Close();
    this->ExpectNothingLeft();
}

TYPED_TEST(RealLocalForwarding, ProgramThatResetsEndsTheConnection) {
    this->ForwardToService();
    Attached ends = this->Join();
    ends.local.Send("request");
    EXPECT_EQ(ends.remote.Receive(7), "request");
    ends.local.Reset();
    EXPECT_TRUE(ends.remote.IsClosedByPeer());
    ends.remote.Close();
    this->forwarding->AwaitConnections(0);
    Report const report = this->forwarding->End();
    ExpectUnharmed(report);
    EXPECT_THAT(report.errors, HasSubstr("Connection reset by peer"));
}

TYPED_TEST(RealLocalForwarding, ReplyArrivesAfterTheProgramsEof) {
    this->ForwardToService();
    Attached ends = this->Join();
    ends.local.Send("request");
    ends.local.EndSending();
    EXPECT_EQ(ends.remote.ReceiveAll(), "request");
    std::string const answer(500'000, 'a');
    std::thread answering([&] {
        ends.remote.Send(answer);
        ends.remote.Close();
    });
    EXPECT_TRUE(ends.local.ReceiveAll() == answer);
    answering.join();
    this->ExpectNothingLeft();
}

TYPED_TEST(RealLocalForwarding, EofOfTheServiceEndsBothDirections) {
    this->ForwardToService();
    Attached ends = this->Join();
    ends.remote.Send("goodbye");
    ends.remote.EndSending();
    EXPECT_EQ(ends.local.ReceiveAll(), "goodbye");
    EXPECT_TRUE(ends.remote.IsClosedByPeer());
    this->ExpectNothingLeft();
}

TYPED_TEST(RealLocalForwarding, SilentConnectionEndsWithTheProgram) {
    this->ForwardToService();
    Attached ends = this->Join();
    ends.local.Close();
    EXPECT_TRUE(ends.remote.IsClosedByPeer());
    ends.remote.Close();
    this->ExpectNothingLeft();
}

TYPED_TEST(RealLocalForwarding, SilentConnectionEndsWithTheService) {
    this->ForwardToService();
    Attached ends = this->Join();
    ends.remote.Close();
    EXPECT_TRUE(ends.local.IsClosedByPeer());
    this->ExpectNothingLeft();
}

TYPED_TEST(RealLocalForwarding, SilentConnectionEndsWithTheSession) {
    this->ForwardToService();
    Attached ends = this->Join();
    this->forwarding->AwaitConnections(1);
    Report const report = this->forwarding->End();
    EXPECT_EQ(report["run"], "-1") << report;
    EXPECT_EQ(report["channels-left"], "1") << report;
    EXPECT_EQ(report.status, 0);
    EXPECT_TRUE(ends.local.IsClosedByPeer());
    EXPECT_TRUE(ends.remote.IsClosedByPeer());
}

constexpr std::size_t MEBIBYTE = std::size_t{1} << 20;

std::string Noise(unsigned int seed, std::size_t count) {
    std::mt19937 generator(seed);
    std::string bytes(count, '\0');
    for (char& byte : bytes) byte = static_cast<char>(generator());
    return bytes;
}

/// Sends back what comes, until the end.
void Echo(tcp::End& end) {
    std::array<char, 65536> piece;
    for (ssize_t count; (count = recv(end.Fd(), piece.data(), piece.size(), 0)) > 0;)
        end.Send(std::string(piece.data(), static_cast<std::size_t>(count)));
    end.Close();
}

/// Sends a mebibyte through an echo service; whether it comes back.
bool ComesBack(Attached& ends, unsigned int seed) {
    std::string const sent = Noise(seed, MEBIBYTE);
    std::thread echo([&] { Echo(ends.remote); });
    std::thread sender([&] {
        ends.local.Send(sent);
        ends.local.EndSending();
    });
    std::string const received = ends.local.ReceiveAll();
    sender.join();
    echo.join();
    ends.local.Close();
    return received == sent;
}

template <class Kind>
class ManyForwardings : public ForwardingCase<Kind> {
protected:
    /// Opens so many connections while nothing flows, then uses them all at once.
    void ExpectRound(unsigned int round, unsigned int count) {
        std::vector<Attached> connections;
        for (unsigned int i = 0; i < count; ++i) connections.push_back(this->Join());
        this->forwarding->AwaitConnections(count);
        std::atomic<unsigned int> right{0};
        std::vector<std::thread> users;
        for (unsigned int i = 0; i < count; ++i)
            users.emplace_back([&, i] { right += ComesBack(connections[i], round * count + i); });
        for (std::thread& user : users) user.join();
        EXPECT_EQ(right, count);
        this->forwarding->AwaitConnections(0);
    }
};
using LargeKinds = testing::Types<Asyncssh, Openssh>;
TYPED_TEST_SUITE(ManyForwardings, LargeKinds, Names);

TYPED_TEST(ManyForwardings, FourRoundsOfFiftyConnectionsLeaveNothing) {
    this->ForwardToService();
    for (unsigned int round = 0; round < 4; ++round) this->ExpectRound(round, 50);
    this->ExpectNothingLeft();
}

/// Keeps a connection busy: its service sends without a pause until it is stopped.
class Flood {
public:
    explicit Flood(Attached ends) : _ends(std::move(ends)) {
        _sender = std::thread([this] {
            std::string const piece(65536, 'f');
            for (; !_isOver; _sent += piece.size()) _ends.remote.Send(piece);
            _ends.remote.Close();
        });
        _receiver = std::thread([this] {
            std::array<char, 65536> piece;
            for (ssize_t count; (count = recv(_ends.local.Fd(), piece.data(), piece.size(), 0)) > 0;)
                _received += static_cast<std::size_t>(count);
            _ends.local.Close();
        });
    }
    ~Flood() { End(); }

    void End() {
        _isOver = true;
        if (_sender.joinable()) _sender.join();
        if (_receiver.joinable()) _receiver.join();
    }
    std::size_t Sent() const { return _sent; }
    std::size_t Received() const { return _received; }

private:
    Attached _ends;
    std::atomic<bool> _isOver{false};
    std::atomic<std::size_t> _sent{0};
    std::atomic<std::size_t> _received{0};
    std::thread _sender;
    std::thread _receiver;
};

/// Whether a byte of the program reaches the service, rather than that the program's end is closed.
bool IsAttached(Attached const& ends) {
    send(ends.local.Fd(), "x", 1, MSG_NOSIGNAL);
    std::array<pollfd, 2> records{pollfd{ends.remote.Fd(), POLLIN, 0}, pollfd{ends.local.Fd(), POLLIN, 0}};
    if (poll(records.data(), records.size(), 30'000) < 1)
        throw std::runtime_error("neither attached nor dropped");
    return records[0].revents & POLLIN;
}

TYPED_TEST(ManyForwardings, ConnectionDuringTrafficIsDroppedCleanly) {
    this->ForwardToService();
    std::vector<Attached> connections; // the server keeps its half of those that are dropped
    Attached quiet = this->Join();
    Flood flood(this->Join());
    client::WaitUntil(this->forwarding->Process(), [&] { return flood.Received() > MEBIBYTE; });
    unsigned int attached = 0, dropped = 0;
    while (dropped == 0 && attached < 100) {
        connections.push_back(this->Join());
        ++(IsAttached(connections.back()) ? attached : dropped);
    }
    EXPECT_EQ(dropped, 1u);
    EXPECT_TRUE(connections.back().local.IsClosedByPeer());
    this->forwarding->AwaitConnections(2 + attached);
    flood.End();
    EXPECT_EQ(flood.Received(), flood.Sent());
    this->forwarding->AwaitConnections(1 + attached);
    EXPECT_TRUE(ComesBack(quiet, 1));
    for (unsigned int i = 0; i < attached; ++i) connections[i].local.Close();
    for (unsigned int i = 0; i < attached; ++i) connections[i].remote.Close();
    this->forwarding->AwaitConnections(0);
    Attached late = this->Join();
    EXPECT_TRUE(ComesBack(late, 2));
    this->forwarding->AwaitConnections(0);
    Report const report = this->forwarding->End();
    ExpectUnharmed(report);
    EXPECT_EQ(report.errors, "ignore packet SSH_MSG_CHANNEL_OPEN_CONFIRMATION\n");
}

template <class Kind>
class RealRemoteForwarding : public ForwardingCase<Kind> {
protected:
    RealRemoteForwarding() {
        this->client.WithRemoteForwarding("127.0.0.1:" + std::to_string(port) +
                                          ":127.0.0.1:" + std::to_string(this->service.Port()));
    }
    std::uint16_t const port = tcp::FreePort();
};
TYPED_TEST_SUITE(RealRemoteForwarding, LargeKinds, Names);

TYPED_TEST(RealRemoteForwarding, ChannelWithTheOriginatorsAddressEndsTheRun) {
    Forwarding session(this->client);
    tcp::End const caller = tcp::End::To(this->port);
    Report const report = session.Await();
    EXPECT_EQ(report["remote"], "0") << report;
    EXPECT_EQ(report["thrown"],
              "SshProtocolError: additional characters in packet after padding: SSH_MSG_CHANNEL_OPEN")
        << report;
    EXPECT_EQ(report["end"], "reached");
    EXPECT_EQ(report.errors, "");
    EXPECT_EQ(report.status, 0);
    EXPECT_TRUE(caller.IsClosedByPeer());
}

TYPED_TEST(RealRemoteForwarding, PortInUseIsRefusedAndTheSessionContinues) {
    tcp::Service const taken;
    this->client.WithRemoteForwarding("127.0.0.1:" + std::to_string(taken.Port()) + ":127.0.0.1:1");
    this->ForwardToService();
    EXPECT_EQ(this->client.ReportSoFar()["remote"], "-1");
    Attached ends = this->Join();
    EXPECT_TRUE(ComesBack(ends, 3));
    this->ExpectNothingLeft();
}

} // namespace

TEST(RealRemoteForwardingParamiko, AnswerWithAPortIsRefusedByTheDecoder) {
    servers::ParamikoServer const server;
    SessionClient client(server);
    client.WithKey("user_rsa")
        .WithRemoteForwarding("127.0.0.1:" + std::to_string(tcp::FreePort()) + ":127.0.0.1:1");
    Report const report = client.ReportOf(*client.StartForwarding());
    EXPECT_EQ(report["authenticate"], "0") << report;
    EXPECT_EQ(report["remote"], "");
    EXPECT_EQ(report["thrown"],
              "SshProtocolError: additional characters in packet after padding: SSH_MSG_REQUEST_SUCCESS")
        << report;
    EXPECT_EQ(report["end"], "reached");
    EXPECT_EQ(report.status, 0);
}

// It denies the channel with CHANNEL_OPEN_FAILURE, and then ends its connection.
TEST(RealForwardingProftpd, ConnectionIsRefusedAndDropped) {
    servers::ProftpdServer const server;
    SessionClient client(server);
    tcp::Service const service;
    client.WithKey("user_rsa").WithLocalForwarding(Local(service.Port()));
    Forwarding forwarding(client);
    tcp::End const local = tcp::End::To(forwarding.Port());
    EXPECT_TRUE(local.IsClosedByPeer());
    Report const report = forwarding.Await();
    ExpectUnharmed(report);
    EXPECT_EQ(report.errors, "connection closed by peer, Application disconnected\r\n");
    EXPECT_THAT(servers::ReadFile(server.File("mod_sftp.log")),
                HasSubstr("unsupported channel type 'direct-tcpip' requested, denying"));
}

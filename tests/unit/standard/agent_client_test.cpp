#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "standard/agent_client.h"
#include "support/agent/raw_agent.h"
#include "support/descriptors.h"
#include "support/peer/wire.h"

using cindral::standard::AgentClient;
using cindral::standard::Bytes;
using support::RawAgent;

namespace {

Bytes const KEY = peer::ToBytes("key blob");
Bytes const DATA = peer::ToBytes("data");

std::string Text(peer::Bytes const& bytes) { return peer::ToText(bytes); }

/// A reply with its length.
std::string Reply(peer::Bytes const& body) { return Text(peer::Writer().String(body)); }

std::string Failure(unsigned int number) { return Reply(peer::Writer().U8(number)); }

peer::Writer Identities(unsigned int count) { return peer::Writer().U8(12).U32(count); }

std::string SignResponse(std::string const& signature) {
    return Reply(peer::Writer().U8(14).String(signature));
}

/// The agent is closed and stays so, with a reason.
void ExpectAbsent(AgentClient& agent, unsigned int requests, RawAgent const& server,
                  std::string const& reason) {
    EXPECT_FALSE(agent.IsPresent());
    EXPECT_EQ(agent.Error(), reason);
    Bytes signature;
    EXPECT_FALSE(agent.Sign(KEY, DATA, 0, signature));
    EXPECT_TRUE(agent.List().empty());
    EXPECT_EQ(agent.Error(), reason);
    EXPECT_EQ(server.Requests().size(), requests);
}

/// The descriptor of this process that is connected to the agent; -1 if there is none.
int DescriptorTo(RawAgent const& server) {
    for (int fd = 0; fd < 256; ++fd) {
        sockaddr_un name{};
        socklen_t size = sizeof name;
        if (getpeername(fd, reinterpret_cast<sockaddr*>(&name), &size) == 0 && server.Path() == name.sun_path)
            return fd;
    }
    return -1;
}

/// While it lives, the input of descriptors seems to end after so many bytes.
class CutInput {
public:
    explicit CutInput(std::size_t size) : _before(DescriptorIO::SystemCalls().recv) {
        _left = size;
        DescriptorIO::SystemCalls().recv = Recv;
    }
    ~CutInput() { DescriptorIO::SystemCalls().recv = _before; }
    CutInput(CutInput const&) = delete;
    CutInput& operator=(CutInput const&) = delete;

private:
    static ssize_t Recv(int fd, void* to, std::size_t size, int flags) {
        if (_left == 0) return 0;
        ssize_t const got = recv(fd, to, std::min(size, _left), flags);
        if (got > 0) _left -= static_cast<std::size_t>(got);
        return got;
    }

    decltype(DescriptorIO::Calls::recv) _before;
    static inline std::size_t _left;
};

} // namespace

TEST(RawAgent, IsAbsentWithoutTheVariable) {
    unsetenv("SSH_AUTH_SOCK");
    AgentClient agent;
    EXPECT_FALSE(agent.IsPresent());
    EXPECT_EQ(agent.Error(), "");
    Bytes signature;
    EXPECT_TRUE(agent.List().empty());
    EXPECT_FALSE(agent.Sign(KEY, DATA, 0, signature));
    EXPECT_EQ(agent.Error(), "there is no agent");
    setenv("SSH_AUTH_SOCK", "", 1);
    EXPECT_EQ(AgentClient().Error(), "");
    unsetenv("SSH_AUTH_SOCK");
}

TEST(RawAgent, ConnectsToTheSocketOfTheVariable) {
    RawAgent const server(Reply(Identities(0)));
    setenv("SSH_AUTH_SOCK", server.Path().c_str(), 1);
    AgentClient agent;
    unsetenv("SSH_AUTH_SOCK");
    EXPECT_TRUE(agent.IsPresent());
    EXPECT_TRUE(agent.List().empty());
    EXPECT_EQ(agent.Error(), "");
    EXPECT_EQ(server.Connections(), 1u);
}

TEST(RawAgent, ReportsASocketThatCannotBeReached) {
    support::TemporaryDirectory const directory;
    std::string const path = directory / "none";
    EXPECT_FALSE(AgentClient(path).IsPresent());
    EXPECT_EQ(AgentClient(path).Error(), path + ": No such file or directory");
    std::string const longPath(200, 'x');
    EXPECT_EQ(AgentClient(longPath).Error(), longPath + ": File name too long");
}

TEST(RawAgent, DescriptorIsCloseOnExecAndClosedAtTheEnd) {
    RawAgent const server(Reply(Identities(0)));
    {
        AgentClient const agent(server.Path());
        int const fd = DescriptorTo(server);
        ASSERT_GE(fd, 0);
        EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
    }
    EXPECT_EQ(DescriptorTo(server), -1);
}

TEST(RawAgent, ListsTheKeysInTheAgentsOrder) {
    RawAgent const server(Reply(Identities(2).String("second").String("comment").String("first").String("")));
    AgentClient agent(server.Path());
    auto const keys = agent.List();
    ASSERT_EQ(keys.size(), 2u);
    EXPECT_EQ(keys[0].blob, peer::ToBytes("second"));
    EXPECT_EQ(keys[0].comment, "comment");
    EXPECT_EQ(keys[1].blob, peer::ToBytes("first"));
    EXPECT_EQ(keys[1].comment, "");
    EXPECT_EQ(agent.Error(), "");
    EXPECT_EQ(server.Requests(), std::vector<std::string>{"\x0b"});
}

TEST(RawAgent, SignsWithTheFlagsGiven) {
    RawAgent const server(SignResponse("signature"));
    AgentClient agent(server.Path());
    Bytes signature;
    ASSERT_TRUE(agent.Sign(KEY, DATA, AgentClient::RSA_SHA2_512, signature));
    EXPECT_EQ(signature, peer::ToBytes("signature"));
    ASSERT_TRUE(agent.Sign(KEY, DATA, AgentClient::RSA_SHA2_256, signature));
    std::vector<std::string> expected;
    for (unsigned int flags : {4u, 2u})
        expected.push_back(Text(peer::Writer().U8(13).String(KEY).String(DATA).U32(flags)));
    EXPECT_EQ(server.Requests(), expected);
    EXPECT_EQ(server.Connections(), 1u);
}

TEST(RawAgent, RefusalKeepsTheAgent) {
    for (unsigned int number : {5u, 30u, 102u}) {
        RawAgent const server([number, first = true](std::string const&) mutable {
            std::string const answer = first ? Failure(number) : SignResponse("signature");
            first = false;
            return answer;
        });
        AgentClient agent(server.Path());
        Bytes signature;
        EXPECT_FALSE(agent.Sign(KEY, DATA, 0, signature));
        EXPECT_EQ(agent.Error(), "the agent refused");
        EXPECT_TRUE(agent.IsPresent());
        EXPECT_TRUE(agent.Sign(KEY, DATA, 0, signature));
        EXPECT_EQ(agent.Error(), "");
    }
    RawAgent const server(Failure(5));
    AgentClient agent(server.Path());
    EXPECT_TRUE(agent.List().empty());
    EXPECT_EQ(agent.Error(), "the agent refused");
    EXPECT_TRUE(agent.IsPresent());
}

TEST(RawAgent, AgentThatClosesIsAbsent) {
    RawAgent const server([](std::string const&) { return std::string(); });
    AgentClient agent(server.Path());
    Bytes signature;
    EXPECT_FALSE(agent.Sign(KEY, DATA, 0, signature));
    ExpectAbsent(agent, 1, server, "the agent closed the connection");
    EXPECT_EQ(DescriptorTo(server), -1);
}

TEST(RawAgent, AgentThatClosesWithinAReplyIsAbsent) {
    std::string const reply = SignResponse("signature");
    for (std::size_t size = 1; size < reply.size(); ++size) {
        RawAgent const server(reply);
        AgentClient agent(server.Path());
        CutInput const cut(size);
        Bytes signature;
        EXPECT_FALSE(agent.Sign(KEY, DATA, 0, signature));
        ExpectAbsent(agent, 1, server, "the agent closed the connection");
    }
}

TEST(RawAgent, InterruptedAndShortTransfersAreContinued) {
    RawAgent const server(SignResponse("signature"));
    AgentClient agent(server.Path());
    support::FaultyCalls const faults(1);
    Bytes signature;
    ASSERT_TRUE(agent.Sign(KEY, DATA, 0, signature)) << agent.Error();
    EXPECT_EQ(signature, peer::ToBytes("signature"));
    EXPECT_GT(faults.Interrupted(), 0);
}

TEST(RawAgent, BrokenReplyToSignMakesTheAgentAbsent) {
    struct {
        std::string reply;
        char const* reason;
    } const cases[] = {
        {Reply(peer::Writer().U8(6)), "the agent answered with message 6"},
        {Reply(peer::Writer().U8(12).U32(0)), "the agent answered with message 12"},
        {std::string(4, '\0'), "the agent's reply is empty or exceeds 256 KiB"},
        {std::string("\0\x04\0\x01", 4), "the agent's reply is empty or exceeds 256 KiB"},
        {std::string(4, '\xff'), "the agent's reply is empty or exceeds 256 KiB"},
        {Reply(peer::Writer().U8(14)), "agent's SIGN_RESPONSE message ends too early"},
        {Reply(peer::Writer().U8(14).U32(2).U8(1)), "agent's SIGN_RESPONSE message ends too early"},
        {Reply(peer::Writer().U8(14).String("x").U8(0)),
         "agent's SIGN_RESPONSE message has bytes after its last field"},
    };
    for (auto const& one : cases) {
        RawAgent const server(one.reply);
        AgentClient agent(server.Path());
        Bytes signature;
        EXPECT_FALSE(agent.Sign(KEY, DATA, 0, signature)) << one.reason;
        ExpectAbsent(agent, 1, server, one.reason);
    }
}

TEST(RawAgent, BrokenListMakesTheAgentAbsent) {
    struct {
        peer::Writer reply;
        char const* reason;
    } const cases[] = {
        {peer::Writer().U8(14).String("x"), "the agent answered with message 14"},
        {peer::Writer().U8(12), "agent's IDENTITIES message ends too early"},
        {Identities(1), "agent's IDENTITIES message ends too early"},
        {Identities(2).String("a").String("b"), "agent's IDENTITIES message ends too early"},
        {Identities(1).String("a").U32(7), "agent's IDENTITIES message ends too early"},
        {Identities(0).U8(0), "agent's IDENTITIES message has bytes after its last field"},
        {Identities(1025), "agent's IDENTITIES message has too many keys"},
        {Identities(0xffffffff), "agent's IDENTITIES message has too many keys"},
    };
    for (auto const& one : cases) {
        RawAgent const server(Reply(one.reply));
        AgentClient agent(server.Path());
        EXPECT_TRUE(agent.List().empty()) << one.reason;
        ExpectAbsent(agent, 1, server, one.reason);
    }
}

TEST(RawAgent, ReplyOf256KiBIsAccepted) {
    std::string const signature(256 * 1024 - 5, 's');
    RawAgent const server(SignResponse(signature));
    AgentClient agent(server.Path());
    Bytes received;
    ASSERT_TRUE(agent.Sign(KEY, DATA, 0, received)) << agent.Error();
    EXPECT_EQ(Text(received), signature);
}

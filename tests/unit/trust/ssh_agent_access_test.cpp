#include <brantle/trust/ssh_agent_access.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <brantle/cindral/exceptions.h>
#include <brantle/thornel/sock_stream.h>

#include "support/agent/raw_agent.h"
#include "support/descriptor_state.h"
#include "support/temporary_directory.h"
#include "wire_text.h"

using cindral::BadInput;
using cindral::PrivateKey;
using cindral::PublicKey;
using cindral::Signature;
using cindral::SshAgentAccess;
using cindral::SshProtocolError;
using support::OpenDescriptors;
using support::RawAgent;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr unsigned int MAX_REPLY = 262144;

std::string Message(std::string const& body) { return Field(body); }

/// A reply of exactly `size` bytes of body that begins with `front`.
std::string LongMessage(std::string front, unsigned int size) {
    front.resize(size, '\0');
    return Message(front);
}

std::string Identities(unsigned int count, std::string const& entries) {
    return Message(Byte(12) + Number(count) + entries);
}

std::string Identity(int mark, std::string const& comment) { return Field(RsaBlob(mark)) + Field(comment); }

/// A signature blob (RFC 4253, section 6.6).
std::string SignatureBlob(std::string const& signature) { return Field("ssh-rsa") + Field(signature); }

/// What an operation throws, as "text: detail".
template <class E>
std::string ThrownBy(std::function<void()> const& operation) {
    try {
        operation();
    } catch (E const& e) {
        return e.what();
    }
    return "nothing";
}

class Agent : public testing::Test {
protected:
    ~Agent() override {
        unsetenv("SSH_AUTH_SOCK");
        unsetenv("SSH_AGENT_PID");
        unsetenv("OTHER_AGENT");
    }

    /// Starts an agent, and lets SSH_AUTH_SOCK name its socket.
    template <class Answer>
    void Answering(Answer const& answer) {
        agent = std::make_unique<RawAgent>(answer);
        setenv("SSH_AUTH_SOCK", agent->Path().c_str(), 1);
    }

    std::unique_ptr<RawAgent> agent;
    PublicKey const key = RsaKey(17);
    PrivateKey const noPrivateKey;
    ByteString const data = Bytes("data to sign");
    Signature signature{cindral::KEY_RSA};
};

std::string const SUCCESS = Message(Byte(6));

} // namespace

TEST_F(Agent, VariablesHaveTheirNames) {
    EXPECT_STREQ(SshAgentAccess::SSH_AUTH_SOCK, "SSH_AUTH_SOCK");
    EXPECT_STREQ(SshAgentAccess::SSH_AGENT_PID, "SSH_AGENT_PID");
}

TEST_F(Agent, PidIsReadFromTheEnvironment) {
    EXPECT_EQ(SshAgentAccess::GetAgentPid(), -1);
    setenv("SSH_AGENT_PID", "", 1);
    EXPECT_EQ(SshAgentAccess::GetAgentPid(), -1);
    setenv("SSH_AGENT_PID", "4321", 1);
    EXPECT_EQ(SshAgentAccess::GetAgentPid(), 4321);
    setenv("SSH_AGENT_PID", "12x", 1);
    EXPECT_EQ(SshAgentAccess::GetAgentPid(), 12);
    setenv("SSH_AGENT_PID", "x", 1);
    EXPECT_EQ(SshAgentAccess::GetAgentPid(), 0);
}

TEST_F(Agent, DefaultHandleHasNoConnection) {
    Answering(SUCCESS);
    SshAgentAccess access;
    EXPECT_EQ(access.Add(noPrivateKey, "comment"), -1);
    EXPECT_EQ(access.Remove(key), -1);
    EXPECT_EQ(access.Clear(), -1);
    EXPECT_EQ(access.Sign(key, data, cindral::DIGEST_SHA1, signature), -1);
    EXPECT_EQ(access.IsAvailable(key), 0);
    SshAgentAccess::Iterator identity(access);
    EXPECT_FALSE(identity);
    EXPECT_EQ(identity.Err(), 0);
    EXPECT_THAT(agent->Requests(), IsEmpty());
}

TEST_F(Agent, MissingConnectionIsAFailureResult) {
    std::string const tooLong = "/tmp/" + std::string(200, 'x');
    for (char const* path : {static_cast<char const*>(nullptr), "", "/nowhere/agent", tooLong.c_str()}) {
        if (path) setenv("SSH_AUTH_SOCK", path, 1);
        SshAgentAccess access(nullptr);
        EXPECT_EQ(access.Add(noPrivateKey, "comment"), -5);
        EXPECT_EQ(access.Remove(key), -5);
        EXPECT_EQ(access.Clear(), -5);
        EXPECT_EQ(access.Sign(key, data, cindral::DIGEST_SHA1, signature), -5);
        EXPECT_EQ(access.IsAvailable(key), 0);
        EXPECT_THROW(SshAgentAccess::Iterator{access}, BadInput);
    }
}

TEST_F(Agent, FailedConnectionIsNotRetried) {
    setenv("SSH_AUTH_SOCK", "/nowhere/agent", 1);
    auto first = std::make_unique<SshAgentAccess>(nullptr);
    Answering(SUCCESS);
    {
        SshAgentAccess second(nullptr);
        EXPECT_EQ(second.Clear(), -5);
    }
    EXPECT_EQ(first->Clear(), -5);
    first.reset();
    SshAgentAccess third(nullptr);
    EXPECT_EQ(third.Clear(), 0);
}

TEST_F(Agent, SocketIsReadFromTheNamedVariable) {
    Answering(SUCCESS);
    setenv("OTHER_AGENT", agent->Path().c_str(), 1);
    setenv("SSH_AUTH_SOCK", "/nowhere/agent", 1);
    SshAgentAccess access("OTHER_AGENT");
    EXPECT_EQ(access.Clear(), 0);
}

TEST_F(Agent, HandlesShareOneConnection) {
    Answering(SUCCESS);
    auto first = std::make_unique<SshAgentAccess>(nullptr);
    setenv("SSH_AUTH_SOCK", "/nowhere/agent", 1);
    EXPECT_EQ(first->Clear(), 0); // so that the agent has accepted the connection
    std::set<int> const before = OpenDescriptors();
    SshAgentAccess second(nullptr), third("OTHER_AGENT");
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_EQ(second.Clear(), 0);
    first.reset();
    EXPECT_EQ(second.Clear(), 0);
    EXPECT_EQ(third.Clear(), 0);
    EXPECT_EQ(agent->Connections(), 1u);
}

TEST_F(Agent, LastHandleClosesTheConnection) {
    Answering(SUCCESS);
    for (int i = 0; i < 3; ++i) {
        SshAgentAccess access(nullptr);
        EXPECT_EQ(access.Clear(), 0);
    }
    EXPECT_THAT(agent->Requests(), SizeIs(3));
    agent.reset();
    SshAgentAccess access(nullptr);
    EXPECT_EQ(access.Clear(), -5);
}

TEST_F(Agent, ConnectionIsClosedOnExec) {
    Answering(SUCCESS);
    std::set<int> const before = OpenDescriptors();
    SshAgentAccess access(nullptr);
    EXPECT_EQ(access.Clear(), 0);
    int found = 0;
    for (int fd : OpenDescriptors()) {
        if (before.count(fd)) continue;
        ++found;
        EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC) << fd;
    }
    EXPECT_EQ(found, 2); // both ends are in this process
}

TEST_F(Agent, DescriptorZeroIsClosedAndNotUsed) {
    // No accept here, as that would use the free number too.
    support::TemporaryDirectory const directory;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (directory / "agent").copy(address.sun_path, sizeof address.sun_path - 1);
    int const listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr const*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listener, 1), 0);
    setenv("SSH_AUTH_SOCK", address.sun_path, 1);
    int const saved = dup(0);
    close(0);
    {
        SshAgentAccess access(nullptr);
        EXPECT_FALSE(support::IsOpen(0));
        EXPECT_EQ(access.Clear(), -5);
    }
    if (saved >= 0) {
        dup2(saved, 0);
        close(saved);
    }
    close(listener);
}

TEST_F(Agent, RequestsAreExact) {
    Answering([](std::string const& request) {
        switch (request[0]) {
        case 11:
            return Identities(0, "");
        case 13:
            return Message(Byte(14) + Field(SignatureBlob(std::string(128, 's'))));
        default:
            return SUCCESS;
        }
    });
    SshAgentAccess access(nullptr);
    EXPECT_EQ(access.Add(noPrivateKey, "a comment"), 0);
    EXPECT_EQ(access.Add(noPrivateKey, nullptr), 0);
    EXPECT_EQ(access.Remove(key), 0);
    EXPECT_EQ(access.Clear(), 0);
    EXPECT_EQ(access.Sign(key, data, cindral::DIGEST_SHA1, signature), 0);
    EXPECT_EQ(access.IsAvailable(key), 0);
    EXPECT_THAT(agent->Requests(),
                ElementsAre(Byte(17) + Field("a comment"), Byte(17) + Field(""),
                            Byte(18) + Field(RsaBlob(17)), Byte(19),
                            Byte(13) + Field(RsaBlob(17)) + Field("data to sign") + Number(0), Byte(11)));
}

TEST_F(Agent, RequestOfAnySizeReachesTheAgentWhole) {
    Answering(SUCCESS);
    std::string const comment(100000, 'c');
    SshAgentAccess access(nullptr);
    EXPECT_EQ(access.Add(noPrivateKey, comment.c_str()), 0);
    EXPECT_THAT(agent->Requests(), ElementsAre(Byte(17) + Field(comment)));
}

TEST_F(Agent, RefusalIsTheNegatedMessageNumber) {
    for (int number : {5, 30, 102}) {
        Answering(Message(Byte(number)));
        SshAgentAccess access(nullptr);
        EXPECT_EQ(access.Add(noPrivateKey, "comment"), -number);
        EXPECT_EQ(access.Remove(key), -number);
        EXPECT_EQ(access.Clear(), -number);
        EXPECT_EQ(access.Sign(key, data, cindral::DIGEST_SHA1, signature), -number);
        EXPECT_EQ(signature._rep->Encode().Length(), 0u);
        EXPECT_EQ(access.IsAvailable(key), 0);
        SshAgentAccess::Iterator identity(access);
        EXPECT_FALSE(identity);
        EXPECT_EQ(identity.Err(), number);
    }
}

TEST_F(Agent, UnexpectedAnswerIsAProtocolError) {
    for (int number : {0, 4, 7, 11, 12, 13, 14, 103, 255}) {
        Answering(Message(Byte(number)));
        std::string const words = "Bad authentication response: " + std::to_string(number);
        SshAgentAccess access(nullptr);
        EXPECT_EQ(ThrownBy<SshProtocolError>([&] { access.Add(noPrivateKey, "comment"); }), words);
        EXPECT_EQ(ThrownBy<SshProtocolError>([&] { access.Remove(key); }), words);
        EXPECT_EQ(ThrownBy<SshProtocolError>([&] { access.Clear(); }), words);
    }
}

TEST_F(Agent, UnexpectedAnswerToASignRequestIsAProtocolError) {
    for (int number : {6, 12, 13}) {
        Answering(Message(Byte(number)));
        SshAgentAccess access(nullptr);
        EXPECT_EQ(
            ThrownBy<SshProtocolError>([&] { access.Sign(key, data, cindral::DIGEST_SHA1, signature); }),
            "Bad authentication response: " + std::to_string(number));
        EXPECT_EQ(signature._rep->Encode().Length(), 0u);
    }
}

TEST_F(Agent, UnexpectedAnswerToAListRequestIsAProtocolError) {
    for (int number : {6, 11, 14}) {
        Answering(Message(Byte(number)));
        std::string const words = "Bad authentication response: " + std::to_string(number);
        SshAgentAccess access(nullptr);
        EXPECT_EQ(ThrownBy<SshProtocolError>([&] { SshAgentAccess::Iterator identity(access); }), words);
        EXPECT_EQ(ThrownBy<SshProtocolError>([&] { access.IsAvailable(key); }), words);
    }
}

TEST_F(Agent, ReplyOfTheLargestSizeIsAccepted) {
    Answering(LongMessage(Byte(6), MAX_REPLY));
    SshAgentAccess access(nullptr);
    EXPECT_EQ(access.Clear(), 0);
    EXPECT_EQ(access.Clear(), 0);
}

TEST_F(Agent, ReplyOneByteTooLongIsRefused) {
    Answering(LongMessage(Byte(6), MAX_REPLY + 1));
    SshAgentAccess access(nullptr);
    char const* const words = "response of ssh-agent too long";
    EXPECT_EQ(ThrownBy<SshProtocolError>([&] { access.Add(noPrivateKey, "comment"); }), words);
    EXPECT_EQ(ThrownBy<SshProtocolError>([&] { access.Remove(key); }), words);
    EXPECT_EQ(ThrownBy<SshProtocolError>([&] { access.Clear(); }), words);
    EXPECT_EQ(ThrownBy<SshProtocolError>([&] { access.Sign(key, data, cindral::DIGEST_SHA1, signature); }),
              words);
    EXPECT_EQ(ThrownBy<SshProtocolError>([&] { access.IsAvailable(key); }), words);
    EXPECT_EQ(ThrownBy<SshProtocolError>([&] { SshAgentAccess::Iterator identity(access); }), words);
}

TEST_F(Agent, ListOfTheLargestSizeIsAccepted) {
    Answering(LongMessage(Byte(12) + Number(0), MAX_REPLY));
    SshAgentAccess access(nullptr);
    SshAgentAccess::Iterator identity(access);
    EXPECT_FALSE(identity);
    EXPECT_EQ(identity.Err(), 0);
}

TEST_F(Agent, EmptyReplyIsBadInput) {
    Answering(Message(""));
    SshAgentAccess access(nullptr);
    EXPECT_THROW(access.Clear(), BadInput);
    EXPECT_THROW(access.Sign(key, data, cindral::DIGEST_SHA1, signature), BadInput);
    EXPECT_THROW(access.IsAvailable(key), BadInput);
    EXPECT_THROW(SshAgentAccess::Iterator{access}, BadInput);
}

TEST_F(Agent, TruncatedReplyIsBadInput) {
    std::string const reply = Message(Byte(6) + "filler");
    for (std::size_t length = 1; length < reply.size(); ++length) {
        bool answered = false;
        Answering([&](std::string const&) {
            std::string const part = answered ? "" : reply.substr(0, length);
            answered = true;
            return part;
        });
        SshAgentAccess access(nullptr);
        std::thread closer([&] {
            while (agent->Requests().empty()) std::this_thread::yield();
            agent.reset();
        });
        EXPECT_THROW(access.Clear(), BadInput) << length;
        closer.join();
    }
}

TEST_F(Agent, EveryLengthAboveTheLargestIsTooLong) {
    constexpr unsigned int MAX_READ = ISockStream::MAX_FRAME;
    for (std::string const& reply : {LongMessage(Byte(6), MAX_READ), Number(MAX_READ + 1) + "x",
                                     Number(0x80000000u) + "x", Number(0xffffffffu)}) {
        Answering(reply);
        SshAgentAccess access(nullptr);
        EXPECT_EQ(ThrownBy<SshProtocolError>([&] { access.Clear(); }), "response of ssh-agent too long");
    }
}

TEST_F(Agent, ConnectionEndsWithAReplyThatIsNotReadWhole) {
    // What follows the length would be taken for replies.
    Answering(Number(ISockStream::MAX_FRAME + 1) + SUCCESS + SUCCESS + Identities(1, Identity(17, "name")));
    SshAgentAccess access(nullptr);
    EXPECT_THROW(access.Clear(), SshProtocolError);
    EXPECT_EQ(access.Clear(), -5);
    EXPECT_EQ(access.Sign(key, data, cindral::DIGEST_SHA1, signature), -5);
    EXPECT_EQ(access.IsAvailable(key), 0);
    EXPECT_THROW(SshAgentAccess::Iterator{access}, BadInput);
    EXPECT_THAT(agent->Requests(), SizeIs(1));
}

TEST_F(Agent, ConnectionEndsForAnIteratorToo) {
    Answering(Number(ISockStream::MAX_FRAME + 1) + SUCCESS);
    SshAgentAccess access(nullptr);
    EXPECT_EQ(ThrownBy<SshProtocolError>([&] { SshAgentAccess::Iterator identity(access); }),
              "response of ssh-agent too long");
    EXPECT_EQ(access.Clear(), -5);
}

TEST_F(Agent, SilentAgentHoldsUpEveryUserOfTheConnection) {
    using namespace std::chrono_literals;
    std::atomic<bool> isSilent{true};
    Answering([&](std::string const&) {
        while (isSilent) std::this_thread::yield();
        return SUCCESS;
    });
    SshAgentAccess first(nullptr), second(nullptr);
    auto cleared = std::async(std::launch::async, [&] { return first.Clear(); });
    while (agent->Requests().empty()) std::this_thread::yield();
    auto removed = std::async(std::launch::async, [&] { return second.Remove(key); });
    EXPECT_EQ(removed.wait_for(100ms), std::future_status::timeout);
    EXPECT_EQ(cleared.wait_for(0ms), std::future_status::timeout);
    EXPECT_THAT(agent->Requests(), SizeIs(1));
    isSilent = false;
    EXPECT_EQ(cleared.get(), 0);
    EXPECT_EQ(removed.get(), 0);
}

TEST_F(Agent, DeadAgentLeavesTheConnectionUnlocked) {
    Answering(std::string());
    SshAgentAccess access(nullptr);
    for (int i = 0; i < 5; ++i) EXPECT_THROW(access.Clear(), BadInput);
    EXPECT_THROW(access.Sign(key, data, cindral::DIGEST_SHA1, signature), BadInput);
    EXPECT_THROW(access.IsAvailable(key), BadInput);
    EXPECT_THROW(access.Add(noPrivateKey, std::string(100000, 'c').c_str()), BadInput);
}

TEST_F(Agent, IdentitiesAreListedInOrder) {
    Answering(Identities(3, Identity(1, "first") + Identity(2, "") + Identity(3, "third")));
    SshAgentAccess access(nullptr);
    SshAgentAccess::Iterator identity(access);
    std::vector<std::string> seen;
    for (; identity; ++identity) {
        seen.push_back(Text((*identity)._rep->EncodeSSH()) + identity.Name().Text());
        EXPECT_EQ(Text(identity.Key()._rep->EncodeSSH()), Text((*identity)._rep->EncodeSSH()));
    }
    EXPECT_THAT(seen, ElementsAre(RsaBlob(1) + "first", RsaBlob(2), RsaBlob(3) + "third"));
    EXPECT_EQ(identity.Err(), 0);
    EXPECT_THAT(agent->Requests(), SizeIs(1));
    ++identity;
    EXPECT_FALSE(identity);
}

TEST_F(Agent, EmptyListIsAtItsEnd) {
    Answering(Identities(0, ""));
    SshAgentAccess access(nullptr);
    SshAgentAccess::Iterator identity(access);
    EXPECT_FALSE(identity);
    EXPECT_EQ(identity.Err(), 0);
    EXPECT_EQ(identity.Key()._rep, nullptr);
}

TEST_F(Agent, IdentityOfAnUnknownKindIsNoKey) {
    Answering(Identities(2, Field(Field("ssh-other") + "bytes") + Field("odd") + Identity(17, "good")));
    SshAgentAccess access(nullptr);
    SshAgentAccess::Iterator identity(access);
    ASSERT_TRUE(identity);
    EXPECT_EQ((*identity)._rep, nullptr);
    EXPECT_STREQ(identity.Name().Text(), "odd");
    EXPECT_EQ(access.IsAvailable(key), 1);
}

TEST_F(Agent, LargestNumberOfIdentitiesIsAccepted) {
    std::string entries;
    for (int i = 0; i < 1024; ++i) entries += Field("") + Field("c");
    Answering(Identities(1024, entries));
    SshAgentAccess access(nullptr);
    int count = 0;
    for (SshAgentAccess::Iterator identity(access); identity; ++identity) ++count;
    EXPECT_EQ(count, 1024);
}

TEST_F(Agent, OneIdentityTooManyIsRefused) {
    std::string entries;
    for (int i = 0; i < 1025; ++i) entries += Field("") + Field("c");
    Answering(Identities(1025, entries));
    SshAgentAccess access(nullptr);
    char const* const words = "Too many identities in authentication reply: 1025";
    EXPECT_EQ(ThrownBy<SshProtocolError>([&] { SshAgentAccess::Iterator identity(access); }), words);
    EXPECT_EQ(ThrownBy<SshProtocolError>([&] { access.IsAvailable(key); }), words);
}

TEST_F(Agent, ListShorterThanItsCountIsBadInput) {
    Answering(Identities(2, Identity(1, "first")));
    SshAgentAccess access(nullptr);
    SshAgentAccess::Iterator identity(access);
    EXPECT_TRUE(identity);
    EXPECT_THROW(++identity, BadInput);
    EXPECT_THROW(access.IsAvailable(key), BadInput);
    EXPECT_THROW(access.IsAvailable(key), BadInput);
}

TEST_F(Agent, IdentityLongerThanTheReplyIsRefused) {
    Answering(Identities(1, Number(1000000) + "x"));
    SshAgentAccess access(nullptr);
    EXPECT_EQ(ThrownBy<SshProtocolError>([&] { SshAgentAccess::Iterator identity(access); }),
              "string length exceeds packet length");
}

TEST_F(Agent, KeyIsAvailableAtAnyPositionInTheList) {
    Answering(Identities(3, Identity(1, "first") + Identity(2, "") + Identity(17, "third")));
    SshAgentAccess access(nullptr);
    EXPECT_EQ(access.IsAvailable(key), 1);
    EXPECT_EQ(access.IsAvailable(RsaKey(1)), 1);
    EXPECT_EQ(access.IsAvailable(RsaKey(2)), 1);
    EXPECT_EQ(access.IsAvailable(RsaKey(4)), 0);
    EXPECT_EQ(access.IsAvailable(PublicKey()), 0);
}

TEST_F(Agent, ReceivedSignatureIsStored) {
    std::string const blob = SignatureBlob(std::string(128, 's'));
    Answering(Message(Byte(14) + Field(blob)));
    SshAgentAccess access(nullptr);
    EXPECT_EQ(access.Sign(key, data, cindral::DIGEST_SHA1, signature), 0);
    EXPECT_EQ(Text(signature._rep->Encode()), blob);
}

TEST_F(Agent, MalformedSignatureReturnsTheResultOfDecoding) {
    Answering(Message(Byte(14) + Field("nonsense")));
    SshAgentAccess access(nullptr);
    EXPECT_LT(access.Sign(key, data, cindral::DIGEST_SHA1, signature), 0);
    EXPECT_EQ(signature._rep->Encode().Length(), 0u);
}

TEST_F(Agent, TruncatedSignatureIsBadInput) {
    Answering(Message(Byte(14)));
    SshAgentAccess access(nullptr);
    EXPECT_THROW(access.Sign(key, data, cindral::DIGEST_SHA1, signature), BadInput);
    EXPECT_THROW(access.Sign(key, data, cindral::DIGEST_SHA1, signature), BadInput);
}

TEST_F(Agent, ThreadsDoNotMixTheirReplies) {
    // Signs by returning the data, which precede the flags, as part of the signature.
    Answering([](std::string const& request) {
        if (request[0] != 13) return SUCCESS;
        std::string const signedData = request.substr(request.size() - 8, 4);
        return Message(Byte(14) + Field(SignatureBlob(signedData + std::string(124, 's'))));
    });
    SshAgentAccess shared(nullptr);
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            PublicKey const own = RsaKey(20 + t);
            std::string const text(4, static_cast<char>('a' + t));
            for (int i = 0; i < 50; ++i) {
                SshAgentAccess access(nullptr);
                Signature made(cindral::KEY_RSA);
                if (shared.Sign(own, Bytes(text), cindral::DIGEST_SHA1, made) != 0) ++wrong;
                if (Text(made._rep->Encode()) != SignatureBlob(text + std::string(124, 's'))) ++wrong;
                if (access.Clear() != 0) ++wrong;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
}

TEST_F(Agent, ThreadsMayCreateAndDestroyHandlesConcurrently) {
    Answering(SUCCESS);
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 200; ++i) {
                SshAgentAccess access(nullptr);
                if (access.Clear() != 0) ++wrong;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
}

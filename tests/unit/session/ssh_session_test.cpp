// The session as an object: what it starts with, what it refuses and how it goes. No network.

#include <brantle/session/ssh_session.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <brantle/cindral/exceptions.h>

#include "support/descriptor_state.h"
#include "support/holds_buffer.h"

using cindral::SshSession;
using cindral::SystemError;
using support::IsOpen;

namespace {

class OpenSession : public SshSession {
public:
    explicit OpenSession(Mode mode = CLIENT) : SshSession(mode, 22, String_t("127.0.0.1")) {}

    using SshSession::_authenticated;
    using SshSession::_banner;
    using SshSession::_channels;
    using SshSession::_cipherNames;
    using SshSession::_ciphers;
    using SshSession::_clientVersion;
    using SshSession::_defaultClientVersion;
    using SshSession::_defaultDhGexParameters;
    using SshSession::_defaultKexAlgorithms;
    using SshSession::_eol;
    using SshSession::_fd;
    using SshSession::_handlers;
    using SshSession::_in;
    using SshSession::_kexFuncs;
    using SshSession::_kexType;
    using SshSession::_keyNeed;
    using SshSession::_localForwardings;
    using SshSession::_macNames;
    using SshSession::_macs;
    using SshSession::_mode;
    using SshSession::_mux;
    using SshSession::_out;
    using SshSession::_remoteChannel;
    using SshSession::_remoteForwardings;
    using SshSession::_serverVersion;
    using SshSession::_sessionId;
    using SshSession::_socket;
    using SshSession::_task;
    using SshSession::_windowSize;
    using SshSession::_x11;
    using SshSession::KexGex;
    using SshSession::KexGroup1;
    using SshSession::KexGroup14;
};

/// The words, errno and detail of the SystemError that a call throws.
template <class Call>
std::string Failure(Call const& call) {
    try {
        call();
    } catch (SystemError const& error) {
        return std::string(error.Text().Text()) + "|" + std::to_string(error.Errno()) + "|" +
               error.Detail().Text();
    }
    return "nothing thrown";
}

std::string Invalid(char const* host) {
    return "initialize client socket failed|" + std::to_string(EINVAL) + "|" + host;
}

char const* Place(void const* member) { return static_cast<char const*>(member); }

/// Notes its own end and whether a descriptor was still open then.
class Witness {
public:
    Witness(std::vector<std::string>& log, std::string name, int fd)
        : _log(log), _name(std::move(name)), _fd(fd) {}
    void Note() const { _log.push_back(_name + (IsOpen(_fd) ? " open" : " closed")); }

private:
    std::vector<std::string>& _log;
    std::string _name;
    int _fd;
};

class WitnessChannel : public cindral::SshChannel {
public:
    explicit WitnessChannel(Witness const& witness) : _witness(witness) {}
    ~WitnessChannel() override { _witness.Note(); }

private:
    Witness _witness;
};

class WitnessChannelMaker : public cindral::SshChannelMakerBase {
public:
    explicit WitnessChannelMaker(Witness const& witness) : _witness(witness) {}
    cindral::SshChannel* operator()(unsigned int, unsigned int, String_t const&, unsigned int,
                                    cindral::ISshPacketStream*, cindral::OSshPacketStream*) const override {
        return new WitnessChannel(_witness);
    }

private:
    Witness _witness;
};

class WitnessDispatcher : public IOMultiplexerDispatcher {
public:
    explicit WitnessDispatcher(Witness const& witness)
        : IOMultiplexerDispatcher(IOMultiplexerRead), _witness(witness) {}
    ~WitnessDispatcher() override { _witness.Note(); }
    IOMultiplexerDispatcher* Clone() const override { return new WitnessDispatcher(*this); }

private:
    Witness _witness;
};

} // namespace

TEST(SessionConstruction, MalformedTargetTextThrows) {
    for (char const* target :
         {"", "host-without-port", "127.0.0.1:", "127.0.0.1:65536", "127.0.0.1:ssh", "[::1", "[::1]", ":22"})
        EXPECT_EQ(Failure([&] { SshSession session(SshSession::CLIENT, String_t(target)); }),
                  Invalid(target));
}

TEST(SessionConstruction, EmptyHostWithAPortThrows) {
    EXPECT_EQ(Failure([] { SshSession session(SshSession::CLIENT, 22, String_t("")); }), Invalid(""));
    EXPECT_EQ(Failure([] { SshSession session(SshSession::CLIENT, 22, String_t("[::1")); }), Invalid("[::1"));
}

TEST(SessionConstruction, BothFormsOfTheTargetAreEquivalent) {
    class Named : public SshSession {
    public:
        using SshSession::_socket;
        using SshSession::SshSession;
    };
    Named const byPort(SshSession::CLIENT, 2222, String_t("127.0.0.1"));
    Named const byText(SshSession::CLIENT, String_t("127.0.0.1:2222"));
    EXPECT_STREQ(byPort._socket.RefString().Text(), "127.0.0.1:2222");
    EXPECT_STREQ(byText._socket.RefString().Text(), "127.0.0.1:2222");
    Named const sixth(SshSession::CLIENT, String_t("[::1]:2222"));
    EXPECT_STREQ(sixth._socket.RefString().Text(), "[::1]:2222");
    EXPECT_STREQ(sixth._socket.Addr().Host().Text(), "::1");
    EXPECT_EQ(sixth._socket.Addr().Port(), 2222);
}

TEST(SessionConstruction, FieldsHaveTheirInitialValues) {
    OpenSession const session;
    EXPECT_EQ(session._mode, SshSession::CLIENT);
    EXPECT_EQ(session._fd, -1);
    EXPECT_EQ(session.Fd(), -1);
    EXPECT_EQ(session._kexType, cindral::KEX_NONE);
    EXPECT_STREQ(session._clientVersion.Text(), "SSH-2.0-libbrantle_0.1");
    EXPECT_TRUE(session._serverVersion == "");
    EXPECT_TRUE(session._banner == "");
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(session._cipherNames[i] == "");
        EXPECT_TRUE(session._macNames[i] == "");
        EXPECT_EQ(session._ciphers[i]._rep->Kind(), cindral::BlockCipher::NONE);
        EXPECT_EQ(session._macs[i]._rep, nullptr);
    }
    EXPECT_EQ(session._sessionId.Length(), 0u);
    EXPECT_EQ(session._keyNeed, 16u);
    EXPECT_EQ(session._authenticated, 0);
    EXPECT_FALSE(session.IsAuthenticated());
    EXPECT_EQ(session._remoteChannel, 0u);
    EXPECT_EQ(session._windowSize, 0u);
    EXPECT_EQ(session._remoteForwardings.Root(), nullptr);
    EXPECT_EQ(session._localForwardings.Root(), nullptr);
    EXPECT_EQ(session._x11.Get(), nullptr);
}

TEST(SessionConstruction, BuffersOfBothDirectionsAreEmbeddedInTheSession) {
    OpenSession const session;
    EXPECT_TRUE(support::HoldsBuffer(session, session._out._socketBuffer));
    EXPECT_TRUE(support::HoldsBuffer(session, session._out._sshBuffer));
    EXPECT_TRUE(support::HoldsBuffer(session, session._out._adapter));
    EXPECT_TRUE(support::HoldsBuffer(session, session._in._socketBuffer));
    EXPECT_TRUE(support::HoldsBuffer(session, session._in._sshBuffer));
    EXPECT_TRUE(support::HoldsBuffer(session, session._in._adapter));
}

TEST(SessionConstruction, ModeSelectsTheAlgorithmsOfEachDirection) {
    OpenSession const client(SshSession::CLIENT);
    EXPECT_EQ(&client._out._sshBuffer._cipher, &client._ciphers[0]);
    EXPECT_EQ(&client._out._sshBuffer._mac, &client._macs[0]);
    EXPECT_EQ(&client._in._sshBuffer._cipher, &client._ciphers[1]);
    EXPECT_EQ(&client._in._sshBuffer._mac, &client._macs[1]);
    OpenSession const server(SshSession::SERVER);
    EXPECT_EQ(&server._out._sshBuffer._cipher, &server._ciphers[1]);
    EXPECT_EQ(&server._out._sshBuffer._mac, &server._macs[1]);
    EXPECT_EQ(&server._in._sshBuffer._cipher, &server._ciphers[0]);
    EXPECT_EQ(&server._in._sshBuffer._mac, &server._macs[0]);
}

TEST(SessionConstants, HaveTheirValues) {
    EXPECT_STREQ(OpenSession::_defaultClientVersion, "SSH-2.0-libbrantle_0.1");
    EXPECT_STREQ(OpenSession::_defaultKexAlgorithms,
                 "diffie-hellman-group-exchange-sha1,diffie-hellman-group14-sha1,diffie-hellman-group1-sha1");
    EXPECT_EQ(OpenSession::_defaultDhGexParameters.min, 1024);
    EXPECT_EQ(OpenSession::_defaultDhGexParameters.pref, 1024);
    EXPECT_EQ(OpenSession::_defaultDhGexParameters.max, 8192);
    EXPECT_STREQ(OpenSession::_eol, "\r\n");
    EXPECT_EQ(SshSession::CLIENT, 0);
    EXPECT_EQ(SshSession::SERVER, 1);
    EXPECT_EQ(cindral::KEX_NONE, 0);
    EXPECT_EQ(cindral::KEX_GROUP1, 1);
    EXPECT_EQ(cindral::KEX_GROUP14, 2);
    EXPECT_EQ(cindral::KEX_GEX, 3);
    EXPECT_TRUE(OpenSession::_kexFuncs[cindral::KEX_NONE] == nullptr);
    EXPECT_TRUE(OpenSession::_kexFuncs[cindral::KEX_GROUP1] == &OpenSession::KexGroup1);
    EXPECT_TRUE(OpenSession::_kexFuncs[cindral::KEX_GROUP14] == &OpenSession::KexGroup14);
    EXPECT_TRUE(OpenSession::_kexFuncs[cindral::KEX_GEX] == &OpenSession::KexGex);
}

TEST(SessionDestruction, MembersAreDeclaredInReverseDestructionOrder) {
    OpenSession const s;
    std::vector<char const*> const places{Place(&s._mode),
                                          Place(&s._socket),
                                          Place(&s._fd),
                                          Place(&s._out),
                                          Place(&s._in),
                                          Place(&s._kexType),
                                          Place(&s._clientVersion),
                                          Place(&s._serverVersion),
                                          Place(&s._banner),
                                          Place(&s._cipherNames),
                                          Place(&s._macNames),
                                          Place(&s._ciphers),
                                          Place(&s._macs),
                                          Place(&s._sessionId),
                                          Place(&s._keyNeed),
                                          Place(&s._authenticated),
                                          Place(&s._remoteChannel),
                                          Place(&s._windowSize),
                                          Place(&s._handlers),
                                          Place(&s._channels),
                                          Place(&s._remoteForwardings),
                                          Place(&s._localForwardings),
                                          Place(&s._x11),
                                          Place(&s._mux),
                                          Place(&s._task)};
    for (std::size_t i = 1; i < places.size(); ++i) EXPECT_LT(places[i - 1], places[i]) << "member " << i;
}

TEST(SessionDestruction, LoopIsDestroyedBeforeTheChannelsAndTheDescriptorLast) {
    std::vector<std::string> log;
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    {
        OpenSession session;
        session._fd = ends[1];
        session._channels.NewChannel(0, "witness", 0, nullptr, nullptr,
                                     WitnessChannelMaker(Witness(log, "channel", ends[1])));
        ASSERT_EQ(session._mux.Register(ends[0], WitnessDispatcher(Witness(log, "dispatcher", ends[1]))), 0);
        log.clear();
    }
    EXPECT_THAT(log, testing::ElementsAre("dispatcher open", "channel open"));
    EXPECT_FALSE(IsOpen(ends[1]));
    close(ends[0]);
}

TEST(SessionDescriptor, IsAPlainIntToDerivedClasses) {
    static_assert(std::is_same_v<decltype(OpenSession::_fd), int>);
    auto const exchange = [](int& place, int fd) { return std::exchange(place, fd); };
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    {
        OpenSession session;
        session._fd = ends[0];
        int& bound = session._fd;
        EXPECT_EQ(exchange(bound, ends[1]), ends[0]);
        EXPECT_EQ(session.Fd(), ends[1]);
    }
    EXPECT_TRUE(IsOpen(ends[0])); // as for any int: what is overwritten is not closed
    EXPECT_FALSE(IsOpen(ends[1]));
    close(ends[0]);
}

TEST(SetNodelay, SetsTheOption) {
    int const fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(fd, 0);
    SshSession::SetNodelay(fd);
    int value = 0;
    socklen_t length = sizeof value;
    ASSERT_EQ(getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &value, &length), 0);
    EXPECT_NE(value, 0);
    close(fd);
}

TEST(SetNodelay, FailureNamesTheDescriptor) {
    EXPECT_EQ(Failure([] { SshSession::SetNodelay(-1); }), "setsockopt|" + std::to_string(EBADF) + "|-1");
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    EXPECT_EQ(Failure([&] { SshSession::SetNodelay(ends[0]); }),
              "setsockopt|" + std::to_string(ENOTSOCK) + "|" + std::to_string(ends[0]));
    close(ends[0]);
    close(ends[1]);
}

TEST(SessionTermination, StopReturnsThePreviousFlag) {
    OpenSession session;
    EXPECT_EQ(session.Terminate(), 0);
    EXPECT_EQ(session.Terminate(), 1);
}

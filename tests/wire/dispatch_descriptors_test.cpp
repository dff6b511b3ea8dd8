// Local descriptors of the loop: standard input, forwarded connections, the window counts, and a program's
// own descriptors.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>

#include <brantle/thornel/file_descriptor.h>

#include "support/descriptor_state.h"
#include "support/pattern.h"
#include "unit/event/pipes.h"
#include "wire/loop_fixture.h"

using support::ClosesOnExec;
using support::IsSet;
using support::Pattern;
using namespace peer;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr std::uint32_t TWO_THIRDS = 1398102; // of the window 0x200000, by integer division

/// Reads the client's packets up to and with its CHANNEL_EOF.
void ReadToEof(Connection& c) {
    while (c.ReadPacket().at(0) != CHANNEL_EOF) continue;
}

/// Two ends of a TCP connection.
class TcpPair {
public:
    TcpPair() {
        int const listener = Checked(socket(AF_INET, SOCK_STREAM, 0), "socket");
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* const generic = reinterpret_cast<sockaddr*>(&address);
        Checked(bind(listener, generic, size), "bind");
        Checked(listen(listener, 1), "listen");
        Checked(getsockname(listener, generic, &size), "getsockname");
        far = Checked(socket(AF_INET, SOCK_STREAM, 0), "socket");
        Checked(connect(far, generic, size), "connect");
        near = Checked(accept(listener, nullptr, nullptr), "accept");
        close(listener);
    }
    ~TcpPair() {
        close(far);
        CloseNear();
    }
    TcpPair(TcpPair const&) = delete;
    TcpPair& operator=(TcpPair const&) = delete;

    void CloseNear() {
        if (near >= 0) close(near);
        near = -1;
    }
    void ResetByFarEnd() const {
        linger const reset{1, 0};
        setsockopt(far, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
        int const null = open("/dev/null", O_RDONLY | O_CLOEXEC);
        dup2(null, far);
        close(null);
    }

    int near;
    int far;
};

/// Enters `fd` as channel 1, 77 at the server, and gives its descriptor.
int Forward(LoopSession& session, int fd) {
    FileDescriptor owned(dup(fd));
    cindral::SshChannel* channel =
        session._channels.NewTcpConnection(77, "forwarded", 0x200000, owned, &session._in, &session._out);
    session.RegisterFdDispatcher(channel);
    return channel->_fdIn;
}

/// A channel that keeps what is to go to the server. Its number need not be that of the table.
class KeepingChannel : public cindral::SshChannel {
public:
    KeepingChannel(std::string& kept, unsigned int localId, int fd)
        : SshChannel(localId, 77, "kept", 0, fd, -1, -1, nullptr, nullptr), _kept(kept) {}
    void ForwardToSshd(char const* data, unsigned int n) override { _kept.append(data, n); }

private:
    std::string& _kept;
};

/// Makes such a channel, regardless of its number in the table.
class KeepingMaker : public cindral::SshChannelMakerBase {
public:
    KeepingMaker(std::string& kept, unsigned int localId, int fd) : _kept(kept), _localId(localId), _fd(fd) {}
    cindral::SshChannel* operator()(unsigned int, unsigned int, String_t const&, unsigned int,
                                    cindral::ISshPacketStream*, cindral::OSshPacketStream*) const override {
        return new KeepingChannel(_kept, _localId, _fd);
    }

private:
    std::string& _kept;
    unsigned int _localId;
    int _fd;
};

class ThrowingMaker : public cindral::SshChannelMakerBase {
public:
    cindral::SshChannel* operator()(unsigned int, unsigned int, String_t const&, unsigned int,
                                    cindral::ISshPacketStream*, cindral::OSshPacketStream*) const override {
        throw cindral::BadInput("no channel");
    }
};

using LoopDescriptors = LoopTest;
using WindowOnTheWire = LoopTest;

/// Channels of the program's own on a TCP connection, into which "text" is written before each dispatch.
class OwnChannel : public LoopTest {
protected:
    /// A session that only executes `use`.
    void Use(Client const& use) { EXPECT_EQ(Receive({ExitStatus(0)}, use), "-1"); }

    /// What the loop would do with the connection's descriptor now.
    int Dispatch(LoopSession& session) const {
        Checked(static_cast<int>(write(pair.far, "text", 4)), "write");
        return session._mux.Dispatch(pair.near);
    }

    /// Enters a channel under the next number, which is not its own, and registers it.
    cindral::SshChannel* Enter(LoopSession& session, unsigned int ownNumber = 4711) {
        cindral::SshChannel* const channel = session._channels.NewChannel(
            77, "kept", 0, &session._in, &session._out, KeepingMaker(kept, ownNumber, pair.near));
        session.RegisterFdDispatcher(channel);
        return channel;
    }

    TcpPair pair;
    std::string kept;
};

} // namespace

// --- standard input

TEST_F(LoopDescriptors, InputIsSentInMessagesOf8192Bytes) {
    std::string const text = Pattern(20000);
    MemoryFile const input(text);
    EXPECT_EQ(RunFrom(input.Fd(),
                      [](Connection& c) {
                          ReadToEof(c);
                          c.SendExitStatus(0);
                      }),
              "-1");
    EXPECT_THAT(Sent(), ElementsAre(Data(text.substr(0, 8192), 42), Data(text.substr(8192, 8192), 42),
                                    Data(text.substr(16384), 42), Eof(42)));
}

TEST_F(LoopDescriptors, InputOfExactlyOneBufferIsOneMessage) {
    for (std::size_t size : {8191u, 8192u, 8193u}) {
        MemoryFile const input(Pattern(size));
        EXPECT_EQ(RunFrom(input.Fd(),
                          [](Connection& c) {
                              ReadToEof(c);
                              c.SendExitStatus(0);
                          }),
                  "-1");
        EXPECT_EQ(Sent().size(), size > 8192 ? 3u : 2u) << size;
    }
}

TEST_F(LoopDescriptors, EndOfInputSendsOneEofAndEndsNothing) {
    EXPECT_EQ(Run([&](Connection& c) {
                  silence.Write("last words");
                  c.ExpectPacket(CHANNEL_DATA);
                  silence.End();
                  c.ExpectPacket(CHANNEL_EOF);
                  c.SendTogether({Data("still here"), Eof()});
                  c.ExpectPacket(CHANNEL_CLOSE);
                  c.SendExitStatus(0);
              }),
              "-1");
    EXPECT_THAT(Sent(), ElementsAre(Data("last words", 42), Eof(42), Close(42)));
    EXPECT_EQ(output.Text(), "still here");
    EXPECT_FALSE(inputStays);
}

TEST_F(LoopDescriptors, InputAfterTheServersEofIsNotRead) {
    EXPECT_EQ(Run([&](Connection& c) {
                  c.SendEof();
                  c.ExpectPacket(CHANNEL_EOF);
                  c.ExpectPacket(CHANNEL_CLOSE);
                  silence.Write("too late");
                  c.SendEof();
                  c.ExpectPacket(CHANNEL_EOF);
                  c.ExpectPacket(CHANNEL_CLOSE);
                  c.SendExitStatus(0);
              }),
              "-1");
}

TEST_F(LoopDescriptors, PersistentReadErrorIsReportedInEveryCycle) {
    int const directory = open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    class ThreeLines : public std::stringbuf {
    public:
        explicit ThreeLines(LoopSession& session) : _session(session) {}

    protected:
        int sync() override {
            std::string const text = str();
            if (std::count(text.begin(), text.end(), '\n') == 3) _session.Terminate();
            return 0;
        }

    private:
        LoopSession& _session;
    };
    std::unique_ptr<ThreeLines> lines;
    std::streambuf* captured = nullptr;
    bool stays = false;
    EXPECT_EQ(RunFrom(
                  directory, [](Connection&) {},
                  [&](LoopSession& session) {
                      lines = std::make_unique<ThreeLines>(session);
                      captured = std::cerr.rdbuf(lines.get());
                  },
                  [&](LoopSession& session) {
                      std::cerr.rdbuf(captured);
                      stays = session.IsRegistered(0);
                  }),
              "-1");
    std::string const line = "error on 0 Is a directory\r\n";
    EXPECT_EQ(lines->str(), line + line + line);
    EXPECT_TRUE(stays);
    EXPECT_THAT(Sent(), IsEmpty());
    close(directory);
}

TEST_F(LoopDescriptors, SpuriousReadinessIsAReadError) {
    fcntl(silence.Fd(), F_SETFL, O_NONBLOCK);
    int result = -1;
    EXPECT_EQ(Receive({ExitStatus(0)}, [&](LoopSession& session) { result = session._mux.Dispatch(0); }),
              "-1");
    EXPECT_EQ(result, 1);
    EXPECT_EQ(messages, "error on 0 Resource temporarily unavailable\r\n");
    EXPECT_THAT(Sent(), IsEmpty());
}

TEST_F(LoopDescriptors, InputOfARemovedChannelEndsItsRegistration) {
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      silence.Write("for nobody");
                      c.SendExitStatus(0);
                  },
                  [](LoopSession& session) { session._channels.RemoveChannel(0); },
                  [](LoopSession& session) {
                      if (session._mux.Dispatch(0) != 0) throw std::runtime_error("served");
                  }),
              "-1");
    EXPECT_THAT(Sent(), IsEmpty());
}

TEST_F(LoopDescriptors, SocketHasNodelayAndCloseOnExecAndStandardInputHasNot) {
    TcpPair input; // an option that could be set, were it tried
    bool nodelay = false;
    bool closes = false;
    bool inputNodelay = true;
    bool inputCloses = true;
    EXPECT_EQ(RunFrom(
                  input.near, [](Connection& c) { c.SendExitStatus(0); },
                  [&](LoopSession& session) {
                      nodelay = IsSet(session.Fd(), IPPROTO_TCP, TCP_NODELAY);
                      closes = ClosesOnExec(session.Fd());
                      inputNodelay = IsSet(0, IPPROTO_TCP, TCP_NODELAY);
                      inputCloses = ClosesOnExec(0);
                  }),
              "-1");
    EXPECT_TRUE(nodelay);
    EXPECT_TRUE(closes);
    EXPECT_FALSE(inputNodelay);
    EXPECT_FALSE(inputCloses);
}

TEST_F(LoopDescriptors, SessionChannelIsTheFirstAndAttachedToTheProcessesDescriptors) {
    unsigned int next = 0;
    EXPECT_EQ(Receive({ExitStatus(0)}, {},
                      [&](LoopSession& session) {
                          cindral::SshChannel const* channel = session._channels.Find(0);
                          ASSERT_NE(channel, nullptr);
                          EXPECT_EQ(channel->_localId, 0u);
                          EXPECT_EQ(channel->_remoteId, 42u);
                          EXPECT_STREQ(channel->_name.Text(), "client-session");
                          EXPECT_EQ(channel->_windowSize, 0x200000u);
                          EXPECT_EQ(channel->_fdIn, 0);
                          EXPECT_EQ(channel->_fdOut, 1);
                          EXPECT_EQ(channel->_fdErr, 2);
                          FileDescriptor none;
                          next = session._channels
                                     .NewTcpConnection(1, "next", 0, none, &session._in, &session._out)
                                     ->_localId;
                      }),
              "-1");
    EXPECT_EQ(next, 1u);
}

// --- forwarded connections

TEST_F(LoopDescriptors, ForwardedConnectionHasNodelayAndIsServedInBothDirections) {
    TcpPair pair;
    Checked(static_cast<int>(write(pair.far, "request", 7)), "write");
    bool nodelay = false;
    bool closes = false;
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      c.ExpectPacket(CHANNEL_DATA);
                      c.SendData("reply", 1);
                      char reply[5];
                      EXPECT_EQ(recv(pair.far, reply, 5, MSG_WAITALL), 5);
                      EXPECT_EQ(std::string(reply, 5), "reply");
                      shutdown(pair.far, SHUT_WR);
                      c.ExpectPacket(CHANNEL_EOF);
                      c.SendTogether({Eof(1), Close(1), ExitStatus(0)});
                  },
                  [&](LoopSession& session) {
                      int const fd = Forward(session, pair.near);
                      nodelay = IsSet(fd, IPPROTO_TCP, TCP_NODELAY);
                      closes = ClosesOnExec(fd);
                  }),
              "-1");
    EXPECT_TRUE(nodelay);
    EXPECT_TRUE(closes);
    EXPECT_THAT(Sent(), ElementsAre(Data("request", 77), Eof(77), Close(77)));
    EXPECT_TRUE(inputStays);
}

TEST_F(LoopDescriptors, ReadErrorOfAForwardedConnectionIsReported) {
    TcpPair pair;
    int fd = -1;
    EXPECT_EQ(Run(
                  [](Connection& c) {
                      c.ExpectPacket(
                          CHANNEL_EOF); // once the reset has been reported, the stream is at its end
                      c.SendExitStatus(0);
                  },
                  [&](LoopSession& session) {
                      fd = Forward(session, pair.near);
                      pair.ResetByFarEnd();
                  }),
              "-1");
    EXPECT_EQ(messages, "error on " + std::to_string(fd) + " Connection reset by peer\r\n");
    EXPECT_THAT(Sent(), ElementsAre(Eof(77)));
}

TEST_F(LoopDescriptors, EofOfTheServerStopsReadingThatConnection) {
    TcpPair pair;
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      c.SendEof(1);
                      c.ExpectPacket(CHANNEL_EOF);
                      c.ExpectPacket(CHANNEL_CLOSE);
                      Checked(static_cast<int>(write(pair.far, "too late", 8)), "write");
                      c.SendEof();
                      c.ExpectPacket(CHANNEL_EOF);
                      c.ExpectPacket(CHANNEL_CLOSE);
                      c.SendExitStatus(0);
                  },
                  [&](LoopSession& session) { Forward(session, pair.near); }),
              "-1");
    EXPECT_THAT(Sent(), ElementsAre(Eof(77), Close(77), Eof(42), Close(42)));
}

TEST_F(LoopDescriptors, CloseOfTheServerClosesThatConnectionAfterItsData) {
    TcpPair pair;
    std::string before;
    ssize_t atTheEnd = -1;
    int fd = -1;
    bool stays = true;
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      c.SendTogether({Data("data", 1), Close(1)});
                      char bytes[4];
                      before.assign(bytes, static_cast<std::size_t>(recv(pair.far, bytes, 4, MSG_WAITALL)));
                      atTheEnd = recv(pair.far, bytes, 4, MSG_WAITALL);
                      c.SendExitStatus(0);
                  },
                  [&](LoopSession& session) {
                      fd = Forward(session, pair.near);
                      pair.CloseNear();
                  },
                  [&](LoopSession& session) { stays = session.IsRegistered(fd); }),
              "-1");
    EXPECT_FALSE(stays);
    EXPECT_THAT(Sent(), IsEmpty());
    EXPECT_EQ(before, "data");
    EXPECT_EQ(atTheEnd, 0);
}

TEST_F(LoopDescriptors, DataForAResetConnectionIsDroppedSilently) {
    TcpPair pair;
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      for (int i = 0; i < 5; ++i) c.SendData("lost", 1);
                      c.SendTogether({Data("kept"), ExitStatus(0)});
                  },
                  [&](LoopSession& session) {
                      FileDescriptor fd(dup(pair.near));
                      session._channels.NewTcpConnection(77, "forwarded", 0x200000, fd, &session._in,
                                                         &session._out);
                      pair.ResetByFarEnd();
                  }),
              "-1");
    EXPECT_EQ(output.Text(), "kept");
    EXPECT_EQ(messages, "");
    EXPECT_THAT(Sent(), IsEmpty());
}

TEST_F(LoopDescriptors, ForwardingADescriptorThatIsNoTcpSocketThrows) {
    std::string what;
    int error = 0;
    EXPECT_EQ(Receive({ExitStatus(0)},
                      [&](LoopSession& session) {
                          try {
                              Forward(session, silence.Fd());
                          } catch (cindral::SystemError const& failure) {
                              int const fd = session._channels.Find(1)->_fdIn;
                              what = failure.what();
                              error = failure.Errno();
                              if (what != "setsockopt: " + std::to_string(fd)) what += " for another";
                              if (session.IsRegistered(fd)) what += " but registered";
                          }
                      }),
              "-1");
    EXPECT_THAT(what, testing::MatchesRegex("setsockopt: [0-9]+"));
    EXPECT_EQ(error, ENOTSOCK);
}

// --- channels of the program's own

TEST_F(OwnChannel, OutsideTheTableIsServed) {
    std::unique_ptr<cindral::SshChannel> channel;
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      c.Wire().waitLimit = std::chrono::seconds(5);
                      Checked(static_cast<int>(write(pair.far, "request", 7)), "write");
                      c.ExpectPacket(CHANNEL_DATA);
                      c.SendExitStatus(0);
                  },
                  [&](LoopSession& session) {
                      channel = std::make_unique<cindral::SshChannel>(5, 77, "own", 0x200000, pair.near, -1,
                                                                      -1, &session._in, &session._out);
                      session.RegisterFdDispatcher(channel.get());
                      EXPECT_EQ(session._channels.Find(5), nullptr);
                  }),
              "-1");
    EXPECT_THAT(Sent(), ElementsAre(Data("request", 77)));
}

TEST_F(OwnChannel, ThatItsMakerNumberedOtherwiseIsServed) {
    Use([&](LoopSession& session) {
        Enter(session);
        EXPECT_EQ(Dispatch(session), 1);
        EXPECT_EQ(kept, "text");
    });
}

TEST_F(OwnChannel, WithTheNumberOfAnotherIsServedInItsPlace) {
    Use([&](LoopSession& session) {
        Enter(session, 0); // the number of the session channel
        EXPECT_EQ(Dispatch(session), 1);
        EXPECT_EQ(kept, "text");
    });
    EXPECT_THAT(Sent(), IsEmpty());
}

TEST_F(OwnChannel, ThatIsGoneEndsItsRegistrationUnread) {
    Use([&](LoopSession& session) {
        {
            KeepingChannel channel(kept, 0, pair.near); // the number of the session channel
            session.RegisterFdDispatcher(&channel);
        }
        EXPECT_EQ(Dispatch(session), 0);
    });
    char bytes[4];
    EXPECT_EQ(recv(pair.near, bytes, 4, MSG_DONTWAIT), 4);
    EXPECT_EQ(kept, "");
    EXPECT_THAT(Sent(), IsEmpty());
}

TEST_F(OwnChannel, ThatOutlivesTheSessionIsNotTouched) {
    KeepingChannel channel(kept, 5, pair.near);
    Use([&](LoopSession& session) { session.RegisterFdDispatcher(&channel); });
    channel.ForwardToSshd("x", 1);
    EXPECT_EQ(kept, "x");
}

TEST_F(OwnChannel, ThatReplacesAnotherIsServedOnTheDescriptorOfThatOne) {
    std::string first;
    Use([&](LoopSession& session) {
        session.RegisterFdDispatcher(session._channels.NewChannel(77, "kept", 0, &session._in, &session._out,
                                                                  KeepingMaker(first, 4711, pair.near)));
        session.ReplaceChannel(1, KeepingMaker(kept, 4712, -1));
        EXPECT_EQ(Dispatch(session), 1);
        session._channels.RemoveChannel(1);
        EXPECT_EQ(Dispatch(session), 0);
    });
    EXPECT_EQ(first, "");
    EXPECT_EQ(kept, "text");
}

TEST_F(OwnChannel, WhoseReplacementThrowsEndsItsRegistration) {
    Use([&](LoopSession& session) {
        Enter(session);
        EXPECT_THROW(session.ReplaceChannel(1, ThrowingMaker()), cindral::BadInput);
        EXPECT_EQ(Dispatch(session), 0);
    });
    EXPECT_EQ(kept, "");
}

TEST_F(OwnChannel, ThatTheServerClosesEndsItsRegistration) {
    EXPECT_EQ(Receive(
                  {Close(1), ExitStatus(0)}, [&](LoopSession& session) { Enter(session); },
                  [&](LoopSession& session) { EXPECT_EQ(Dispatch(session), 0); }),
              "-1");
    EXPECT_EQ(kept, "");
}

TEST_F(OwnChannel, ThatTheServerClosesLeavesItsOtherDescriptorsUnread) {
    EXPECT_EQ(Receive(
                  {Close(1), ExitStatus(0)},
                  [&](LoopSession& session) {
                      Enter(session);
                      session.ReplaceChannel(1, KeepingMaker(kept, 4712, -1)); // no descriptor to unregister
                  },
                  [&](LoopSession& session) {
                      EXPECT_TRUE(session.IsRegistered(pair.near));
                      EXPECT_EQ(Dispatch(session), 0);
                  }),
              "-1");
    EXPECT_EQ(kept, "");
}

TEST_F(OwnChannel, ThatIsNullIsRefused) {
    Use([&](LoopSession& session) {
        EXPECT_EQ(Outcome([&] {
                      session.RegisterFdDispatcher(nullptr);
                      return 0;
                  }),
                  "InvalidArgument: SshSession::RegisterFdDispatcher: no channel");
    });
}

// --- a program's own descriptors and timers

TEST_F(LoopDescriptors, DescriptorOfTheProgramIsServedDuringTheSession) {
    Pipe own;
    int served = 0;
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      own.Fill();
                      c.ExpectPacket(CHANNEL_DATA);
                      c.SendExitStatus(0);
                  },
                  [&](LoopSession& session) {
                      session.Multiplexer().Register(own.Reader(), TestDispatcher([&](int) {
                                                         own.Drain();
                                                         ++served;
                                                         session._channels.Find(0)->ForwardToSshd("own", 3);
                                                         return 0;
                                                     }));
                  },
                  [&](LoopSession& session) {
                      if (session.IsRegistered(own.Reader())) served = -1;
                  }),
              "-1");
    EXPECT_EQ(served, 1);
    EXPECT_THAT(Sent(), ElementsAre(Data("own", 42)));
}

TEST_F(LoopDescriptors, TimerOfTheProgramFiresDuringTheSession) {
    class Ticks : public IOMultiplexer::PeriodicTimer {
    public:
        explicit Ticks(LoopSession& session)
            : PeriodicTimer(IOMultiplexer::Timeval(0, 5)), _session(session) {}
        void Fire(IOMultiplexer::Timeval const&) override {
            if (++_count <= 3) _session._channels.Find(0)->ForwardToSshd("tick", 4);
        }

    private:
        LoopSession& _session;
        int _count = 0;
    };
    std::unique_ptr<Ticks> ticks;
    EXPECT_EQ(Run(
                  [](Connection& c) {
                      for (int i = 0; i < 3; ++i) c.ExpectPacket(CHANNEL_DATA);
                      c.SendExitStatus(0);
                  },
                  [&](LoopSession& session) {
                      ticks = std::make_unique<Ticks>(session);
                      session.Multiplexer().Insert(ticks.get());
                  }),
              "-1");
    EXPECT_EQ(Sent().size(), 3u);
}

// --- window counts

TEST_F(WindowOnTheWire, InputIsGrantedByTheCountOfAllPacketsRead) {
    std::string const piece(32000, 'i');
    EXPECT_EQ(Run([&](Connection& c) {
                  for (int i = 0; i < 100; ++i) c.SendData(piece);
                  c.SendExitStatus(0);
              }),
              "-1");
    std::vector<Bytes> expected;
    std::uint32_t count = 0;
    for (PacketRecord const& record : server->At(0).sent) {
        count += record.packetLength + 4;
        if (record.Type() != CHANNEL_DATA || count <= TWO_THIRDS) continue;
        expected.push_back(WindowAdjust(42, count));
        count = 0;
    }
    EXPECT_EQ(expected.size(), 2u);
    EXPECT_EQ(Sent(), expected);
    EXPECT_EQ(output.Text().size(), 100u * 32000);
}

TEST_F(WindowOnTheWire, ThresholdIsExactForInput) {
    // One CHANNEL_DATA of one byte is 32 bytes long under a block size of 16.
    for (std::uint32_t const count : {TWO_THIRDS, TWO_THIRDS + 1}) {
        EXPECT_EQ(Receive({Data("x"), ExitStatus(0)},
                          [&](LoopSession& session) { session._in._byteCount = count - 32; }),
                  "-1");
        if (count == TWO_THIRDS)
            EXPECT_THAT(Sent(), IsEmpty());
        else
            EXPECT_THAT(Sent(), ElementsAre(WindowAdjust(42, TWO_THIRDS + 1)));
    }
}

TEST_F(WindowOnTheWire, ThresholdIsExactForOutput) {
    for (std::uint32_t const count : {TWO_THIRDS, TWO_THIRDS + 1}) {
        EXPECT_EQ(Run(
                      [&](Connection& c) {
                          silence.Write("x");
                          c.ExpectPacket(CHANNEL_DATA);
                          if (count > TWO_THIRDS) c.ExpectPacket(CHANNEL_WINDOW_ADJUST);
                          c.SendExitStatus(0);
                      },
                      [&](LoopSession& session) { session._out._byteCount = count - 32; }),
                  "-1");
        if (count == TWO_THIRDS)
            EXPECT_THAT(Sent(), ElementsAre(Data("x", 42)));
        else
            EXPECT_THAT(Sent(), ElementsAre(Data("x", 42), WindowAdjust(42, TWO_THIRDS + 1)));
    }
}

TEST_F(WindowOnTheWire, GrantIsForTheChannelThatChecks) {
    TcpPair pair;
    EXPECT_EQ(Receive({Data("x", 1), Data("y"), ExitStatus(0)},
                      [&](LoopSession& session) {
                          Forward(session, pair.near);
                          session._in._byteCount = TWO_THIRDS + 1 - 32;
                      }),
              "-1");
    EXPECT_THAT(Sent(), ElementsAre(WindowAdjust(77, TWO_THIRDS + 1)));
}

TEST_F(WindowOnTheWire, CountAboveTheWindowIsNeverGrantedAgain) {
    std::string const chunk(0x30000, 'n');
    EXPECT_EQ(Run([&](Connection& c) {
                  for (int i = 0; i < 11; ++i) c.SendIgnore(chunk); // passes the window without a check
                  for (int i = 0; i < 50; ++i) c.SendData(std::string(32000, 'd'));
                  c.SendExitStatus(0);
              }),
              "-1");
    EXPECT_THAT(Sent(), IsEmpty());
    EXPECT_EQ(output.Text().size(), 50u * 32000);
}

TEST_F(WindowOnTheWire, DataForAnUnknownChannelIsCountedButNotChecked) {
    std::string const piece(32000, 'u');
    EXPECT_EQ(Run([&](Connection& c) {
                  for (int i = 0; i < 45; ++i) c.SendData(piece, 9);
                  c.SendData("x");
                  c.SendExitStatus(0);
              }),
              "-1");
    std::uint32_t count = 0;
    auto const& sent = server->At(0).sent;
    for (std::size_t i = 0; i + 1 < sent.size(); ++i) count += sent[i].packetLength + 4;
    ASSERT_GT(count, TWO_THIRDS + 32000);
    EXPECT_THAT(Sent(), ElementsAre(WindowAdjust(42, count)));
}

TEST_F(WindowOnTheWire, OutputIsGrantedByTheCountOfAllPacketsWritten) {
    std::string const text = Pattern(3 << 20);
    MemoryFile const input(text);
    EXPECT_EQ(RunFrom(input.Fd(),
                      [](Connection& c) {
                          ReadToEof(c);
                          c.SendExitStatus(0);
                      }),
              "-1");
    std::string arrived;
    std::uint32_t count = 0;
    std::size_t adjustments = 0;
    Bytes due;
    for (PacketRecord const& record : server->At(0).received) {
        EXPECT_EQ(!due.empty(), record.Type() == CHANNEL_WINDOW_ADJUST);
        if (record.Type() == CHANNEL_WINDOW_ADJUST) {
            EXPECT_EQ(record.payload, due);
            due.clear();
            count = 0; // the adjustment itself is not counted
            ++adjustments;
            continue;
        }
        count += record.packetLength + 4;
        if (record.Type() != CHANNEL_DATA) continue;
        arrived.append(record.payload.begin() + 9, record.payload.end());
        if (count > TWO_THIRDS) due = WindowAdjust(42, count);
    }
    EXPECT_EQ(adjustments, 2u);
    EXPECT_TRUE(arrived == text);
}

TEST_F(WindowOnTheWire, DataIsSentWithoutAGrantOfTheServer) {
    settings.window = 0;
    settings.maxPacket = 0;
    std::string const text = Pattern(10000);
    MemoryFile const input(text);
    EXPECT_EQ(RunFrom(input.Fd(),
                      [](Connection& c) {
                          ReadToEof(c);
                          c.SendExitStatus(0);
                      }),
              "-1");
    EXPECT_THAT(Sent(), ElementsAre(Data(text.substr(0, 8192), 42), Data(text.substr(8192), 42), Eof(42)));
}

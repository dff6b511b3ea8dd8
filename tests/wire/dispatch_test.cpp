// What the loop does with each message of the server.

#include <fcntl.h>

#include <brantle/thornel/file_descriptor.h>

#include "wire/loop_fixture.h"

using namespace peer;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using Dispatch = LoopTest;

Bytes Refusal(std::uint32_t channel) {
    return Writer().U8(CHANNEL_OPEN_FAILURE).U32(channel).U32(1).String("open failed").String("");
}

Writer ChannelOpenHead(std::string_view type, std::uint32_t sender) {
    return Writer().U8(CHANNEL_OPEN).String(type).U32(sender).U32(0x200000).U32(0x8000);
}

Writer RequestHead(std::string_view type, bool wantReply = false, std::uint32_t channel = 0) {
    return Writer().U8(CHANNEL_REQUEST).U32(channel).String(type).Bool(wantReply);
}

Bytes Longer(Bytes payload) {
    payload.push_back(0);
    return payload;
}

std::string ExtraBytes(std::string const& name) {
    return "SshProtocolError: additional characters in packet after padding: " + name;
}

/// A channel class of a program that records its calls.
class NotingChannel : public cindral::SshChannel {
public:
    NotingChannel(std::string& log, unsigned int localId, unsigned int remoteId, String_t const& name,
                  unsigned int windowSize, cindral::ISshPacketStream* in, cindral::OSshPacketStream* out,
                  int fdIn)
        : SshChannel(localId, remoteId, name, windowSize, fdIn, -1, -1, in, out), _log(log) {}
    void Forward(char const* data, unsigned int n) override { _log += "data " + std::string(data, n) + ";"; }
    void Flush() override { _log += "flush;"; }

private:
    std::string& _log;
};

class NotingMaker : public cindral::SshChannelMakerBase {
public:
    explicit NotingMaker(std::string& log, int fdIn = -1) : _log(log), _fdIn(fdIn) {}
    cindral::SshChannel* operator()(unsigned int localId, unsigned int remoteId, String_t const& name,
                                    unsigned int windowSize, cindral::ISshPacketStream* in,
                                    cindral::OSshPacketStream* out) const override {
        return new NotingChannel(_log, localId, remoteId, name, windowSize, in, out, _fdIn);
    }

private:
    std::string& _log;
    int _fdIn;
};

/// Adds channel 1, which records its calls; its number at the server is 77.
Client NotedChannel(std::string& log) {
    return [&log](LoopSession& session) {
        session._channels.NewChannel(77, "noted", 0x200000, &session._in, &session._out, NotingMaker(log));
    };
}

} // namespace

TEST_F(Dispatch, OtherDescriptorIsRefused) {
    for (int offset : {-1, 1}) {
        int error = 0;
        int fd = 0;
        std::string detail;
        auto const dispatch = [&](LoopSession& session) {
            fd = session.Fd() + offset;
            try {
                session.Dispatch(fd);
            } catch (cindral::SystemError const& failure) {
                EXPECT_STREQ(failure.Text().Text(), "invalid input");
                error = failure.Errno();
                detail = Text(failure.Detail());
            }
        };
        EXPECT_EQ(Receive({ExitStatus(0)}, dispatch), "-1");
        EXPECT_EQ(error, 22);
        EXPECT_EQ(detail, std::to_string(fd));
    }
}

TEST_F(Dispatch, NegativeDescriptorIsReportedInDecimal) {
    std::string what;
    auto const dispatch = [&](LoopSession& session) { what = Outcome([&] { return session.Dispatch(-7); }); };
    EXPECT_EQ(Receive({ExitStatus(0)}, dispatch), "-1");
    EXPECT_EQ(what, "SystemError: invalid input: -7");
}

TEST_F(Dispatch, DebugIsReportedAndDropped) {
    EXPECT_EQ(Receive({Debug("look"), Data("on"), ExitStatus(0)}), "-1");
    EXPECT_EQ(messages, "ignore packet SSH_MSG_DEBUG\n");
    EXPECT_EQ(output.Text(), "on");
    EXPECT_THAT(Sent(), IsEmpty());
    EXPECT_FALSE(messagesFailed);
}

TEST_F(Dispatch, MessagesWithoutHandlerAreReportedByNameAndGetNoAnswer) {
    std::vector<std::pair<unsigned, char const*>> const ignored{
        {3, "SSH_MSG_UNIMPLEMENTED"},
        {4, "SSH_MSG_DEBUG"},
        {5, "SSH_MSG_SERVICE_REQUEST"},
        {6, "SSH_MSG_SERVICE_ACCEPT"},
        {20, "SSH_MSG_KEXINIT"},
        {21, "SSH_MSG_NEWKEYS"},
        {30, "SSH_MSG_KEXDH_INIT"},
        {31, "SSH_MSG_KEXDH_REPLY"},
        {34, "SSH_MSG_KEX_DH_GEX_REQUEST"},
        {51, "SSH_MSG_USERAUTH_FAILURE"},
        {53, "SSH_MSG_USERAUTH_BANNER"},
        {80, "SSH_MSG_GLOBAL_REQUEST"},
        {81, "SSH_MSG_REQUEST_SUCCESS"},
        {91, "SSH_MSG_CHANNEL_OPEN_CONFIRMATION"},
        {92, "SSH_MSG_CHANNEL_OPEN_FAILURE"},
        {99, "SSH_MSG_CHANNEL_SUCCESS"},
        {100, "SSH_MSG_CHANNEL_FAILURE"},
        {101, "UNKNOWN_MESSAGE"},
        {255, "UNKNOWN_MESSAGE"},
    };
    std::vector<Bytes> payloads;
    std::string expected;
    for (auto const& [number, name] : ignored) {
        payloads.push_back(Writer().U8(number).String("not even decoded"));
        expected += std::string("ignore packet ") + name + "\n";
    }
    payloads.push_back(ExitStatus(0));
    EXPECT_EQ(Receive(payloads), "-1");
    EXPECT_EQ(messages, expected);
    EXPECT_THAT(Sent(), IsEmpty());
}

TEST_F(Dispatch, GlobalRequestThatWantsAReplyGetsNone) {
    Bytes const request = Writer().U8(GLOBAL_REQUEST).String("keepalive@example.org").Bool(true);
    EXPECT_EQ(Receive({request, ExitStatus(0)}), "-1");
    EXPECT_EQ(messages, "ignore packet SSH_MSG_GLOBAL_REQUEST\n");
    EXPECT_THAT(Sent(), IsEmpty());
}

TEST_F(Dispatch, KexInitForRekeyingGetsNoAnswer) {
    EXPECT_EQ(Run([](Connection& c) {
                  c.SendTogether({KexInitLists().Payload(), Eof()});
                  c.ExpectPacket(CHANNEL_EOF);
                  c.ExpectPacket(CHANNEL_CLOSE);
                  c.SendExitStatus(0);
              }),
              "-1");
    EXPECT_EQ(messages, "ignore packet SSH_MSG_KEXINIT\n");
}

TEST_F(Dispatch, NumberWithoutANameFailsTheErrorStream) {
    for (unsigned number : {0u, 7u, 19u, 35u, 79u, 89u}) {
        EXPECT_EQ(Receive({Bytes{static_cast<std::uint8_t>(number)}, Debug(), ExitStatus(0)}), "-1")
            << number;
        EXPECT_EQ(messages, "ignore packet ") << number;
        EXPECT_TRUE(messagesFailed) << number;
    }
}

TEST_F(Dispatch, PacketsOfOneSegmentAreHandledInOneDispatch) {
    EXPECT_EQ(Receive({Data("a"), Ignore("drop"), Data("b"), Debug(), Data("c"), ExitStatus(0)}), "-1");
    EXPECT_EQ(output.Text(), "abc");
    EXPECT_EQ(dispatches, 1);
}

TEST_F(Dispatch, PartialPacketIsCompletedInTheSameDispatch) {
    for (std::size_t first : {1u, 4u, 16u, 20u}) {
        EXPECT_EQ(Run([&](Connection& c) {
                      Bytes const eof = c.Encode(Eof());
                      Bytes const last = c.Encode(ExitStatus(0));
                      c.SendRaw(Concat({eof, Slice(last, 0, first)}));
                      c.ExpectPacket(CHANNEL_EOF); // so that the first packet has been handled
                      c.ExpectPacket(CHANNEL_CLOSE);
                      c.SendRaw(Slice(last, first, last.size() - first));
                  }),
                  "-1")
            << first;
        EXPECT_EQ(dispatches, 1) << first;
    }
}

TEST_F(Dispatch, IgnoreIsDroppedSilently) {
    EXPECT_EQ(Receive({Ignore(), Ignore(std::string(1000, 'x')), ExitStatus(0)}), "-1");
    EXPECT_EQ(messages, "");
    EXPECT_EQ(output.Text(), "");
    EXPECT_THAT(Sent(), IsEmpty());
}

// --- data

TEST_F(Dispatch, DataIsWrittenToDescriptorOne) {
    std::string const binary("\0\r\n\xff", 4);
    EXPECT_EQ(Receive({Data("text "), Data(""), Data(binary), ExitStatus(0)}), "-1");
    EXPECT_EQ(output.Text(), "text " + binary);
    EXPECT_EQ(errorOutput.Text(), "");
}

TEST_F(Dispatch, ExtendedDataOfAnyTypeIsWrittenToDescriptorOne) {
    EXPECT_EQ(Receive({ExtendedData("error", 1), Data("-"), ExtendedData("other", 0xfffffffe),
                       ExtendedData("", 1), ExitStatus(0)}),
              "-1");
    EXPECT_EQ(output.Text(), "error-other");
    EXPECT_EQ(errorOutput.Text(), "");
    EXPECT_EQ(messages, "");
}

TEST_F(Dispatch, DataForUnknownChannelsIsDroppedSilently) {
    EXPECT_EQ(Receive({Data("x", 1), Data("x", 0xffffffff), Data("x", 42), ExtendedData("x", 1, 1),
                       Data("kept"), ExitStatus(0)}),
              "-1");
    EXPECT_EQ(output.Text(), "kept");
    EXPECT_EQ(messages, "");
    EXPECT_THAT(Sent(), IsEmpty());
}

TEST_F(Dispatch, ChannelsAreFlushedOncePerDispatch) {
    std::string log;
    EXPECT_EQ(
        Receive({Data("a", 1), ExtendedData("b", 1, 1), Data("c", 1), ExitStatus(0)}, NotedChannel(log)),
        "-1");
    EXPECT_EQ(log, "data a;data b;data c;flush;");
}

TEST_F(Dispatch, ExceptionSkipsTheFlush) {
    std::string log;
    EXPECT_EQ(Receive({Data("a", 1), Longer(Eof(1))}, NotedChannel(log)), ExtraBytes("SSH_MSG_CHANNEL_EOF"));
    EXPECT_EQ(log, "data a;");
}

TEST_F(Dispatch, DataOfAForwardedConnectionIsFlushedByTheEndOfTheDispatch) {
    MemoryFile forwarded;
    auto const prepare = [&](LoopSession& session) {
        FileDescriptor fd(dup(forwarded.Fd()));
        session._channels.NewTcpConnection(77, "forwarded", 0x200000, fd, &session._in, &session._out);
    };
    std::string text;
    EXPECT_EQ(Receive({Data("one ", 1), Data("two", 1), ExitStatus(0)}, prepare,
                      [&](LoopSession&) { text = forwarded.Text(); }),
              "-1");
    EXPECT_EQ(text, "one two");
}

TEST_F(Dispatch, FailedOutputEndsTheRun) {
    int const full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    EXPECT_EQ(Receive({Data("x")}, [&](LoopSession&) { dup2(full, 1); }), "SystemError: write failed: data");
    close(full);
}

TEST_F(Dispatch, PartialOutputEndsTheRun) {
    int ends[2];
    Checked(pipe2(ends, O_CLOEXEC | O_NONBLOCK), "pipe2");
    std::string const tooMuch(200000, 'x');
    EXPECT_EQ(Receive({Data(tooMuch)}, [&](LoopSession&) { dup2(ends[1], 1); }),
              "SystemError: write failed: data");
    for (int fd : ends) close(fd);
}

TEST_F(Dispatch, WindowAdjustOfTheServerChangesNothing) {
    EXPECT_EQ(Receive({WindowAdjust(0, 0xffffffff), WindowAdjust(0, 0), WindowAdjust(9, 1), Data("on"),
                       ExitStatus(0)}),
              "-1");
    EXPECT_EQ(output.Text(), "on");
    EXPECT_EQ(messages, "");
    EXPECT_THAT(Sent(), IsEmpty());
}

// --- requests

TEST_F(Dispatch, ExitMessageEndsTheRunOnAnyChannelAndGetsNoReply) {
    for (bool wantReply : {false, true}) {
        for (std::uint32_t channel : {0u, 1u, 42u, 0xffffffffu}) {
            for (Bytes const& exit :
                 {ExitStatus(3, wantReply, channel), ExitSignal("TERM", wantReply, channel)}) {
                EXPECT_EQ(Receive({exit}), "-1") << Hex(exit);
                EXPECT_THAT(Sent(), IsEmpty());
                EXPECT_EQ(messages, "");
                EXPECT_EQ(terminations, 1); // through the virtual operation
                EXPECT_FALSE(socketStays);
            }
        }
    }
}

TEST_F(Dispatch, MessagesAfterAnExitMessageAreDropped) {
    std::string log;
    EXPECT_EQ(Receive({Data("a", 1), ExitStatus(0), Data("b", 1), Data("late"), Debug()}, NotedChannel(log)),
              "-1");
    EXPECT_EQ(log, "data a;flush;"); // what came before is flushed all the same
    EXPECT_EQ(output.Text(), "");
    EXPECT_EQ(messages, "");
}

TEST_F(Dispatch, CallbacksRunWhenTheSocketIsUnregistered) {
    class Callback : public IOMultiplexerCallback {
    public:
        int operator()(int fd) override {
            fds.push_back(fd);
            return 0;
        }
        std::vector<int> fds;
    } callback;
    int fd = -1;
    EXPECT_EQ(Receive({ExitStatus(0)},
                      [&](LoopSession& session) {
                          fd = session.Fd();
                          session.Multiplexer().Append(&callback);
                      }),
              "-1");
    EXPECT_THAT(callback.fds, ElementsAre(fd));
}

TEST_F(Dispatch, OtherRequestsAreDroppedWithoutReply) {
    EXPECT_EQ(Receive({RequestHead("keepalive@example.org", true), RequestHead("", true),
                       RequestHead("exit-statu", true), RequestHead("exit-status2"),
                       RequestHead("eow@example.org", false, 5), ExitStatus(0)}),
              "-1");
    EXPECT_THAT(Sent(), IsEmpty());
    EXPECT_EQ(messages, "");
    EXPECT_EQ(dispatches, 1);
    EXPECT_EQ(terminations, 1);
}

TEST_F(Dispatch, OtherRequestsWithDataAfterThemAreAViolation) {
    EXPECT_EQ(Receive({RequestHead("xon-xoff").Bool(true)}), ExtraBytes("SSH_MSG_CHANNEL_REQUEST"));
    EXPECT_EQ(terminations, 0);
}

// --- end of file and close

TEST_F(Dispatch, EofIsAnsweredByEofAndClose) {
    EXPECT_EQ(Run([](Connection& c) {
                  c.SendEof();
                  c.ExpectPacket(CHANNEL_EOF);
                  c.ExpectPacket(CHANNEL_CLOSE);
                  c.SendTogether({Data("still delivered"), ExitStatus(0)});
              }),
              "-1");
    EXPECT_THAT(Sent(), ElementsAre(Eof(42), Close(42)));
    EXPECT_FALSE(inputStays);
    EXPECT_EQ(output.Text(), "still delivered");
}

TEST_F(Dispatch, FurtherEofSendsAFurtherClose) {
    EXPECT_EQ(Receive({Eof(), Eof(), ExitStatus(0)}), "-1");
    EXPECT_THAT(Sent(), ElementsAre(Eof(42), Close(42), Eof(42), Close(42)));
}

TEST_F(Dispatch, EofAfterTheLocalOneIsAnsweredByCloseOnly) {
    EXPECT_EQ(Receive({Eof(), Eof(), ExitStatus(0)}, [](LoopSession& session) { session.CloseChannel(0); }),
              "-1");
    EXPECT_THAT(Sent(), ElementsAre(Eof(42), Close(42), Close(42)));
}

TEST_F(Dispatch, CloseChannelSendsEofOnEachCall) {
    EXPECT_EQ(Receive(
                  {ExitStatus(0)},
                  [](LoopSession& session) {
                      for (unsigned int id : {0u, 1u, 0u, 0xffffffffu}) session.CloseChannel(id);
                  },
                  [](LoopSession& session) { EXPECT_NE(session._channels.Find(0)->_eofSent, 0); }),
              "-1");
    EXPECT_THAT(Sent(), ElementsAre(Eof(42), Eof(42)));
}

TEST_F(Dispatch, EofCarriesTheServersNumberOfThatChannel) {
    std::string log;
    EXPECT_EQ(Receive({Eof(1), ExitStatus(0)}, NotedChannel(log)), "-1");
    EXPECT_THAT(Sent(), ElementsAre(Eof(77), Close(77)));
    EXPECT_TRUE(inputStays);
}

TEST_F(Dispatch, EofAndCloseOfUnknownChannelsChangeNothing) {
    EXPECT_EQ(Receive({Eof(1), Eof(42), Close(1), Close(42), Close(0xffffffff), Data("on"), ExitStatus(0)}),
              "-1");
    EXPECT_THAT(Sent(), IsEmpty());
    EXPECT_TRUE(inputStays);
    EXPECT_EQ(output.Text(), "on");
    EXPECT_EQ(messages, "");
}

TEST_F(Dispatch, CloseDeletesTheChannelAndIsNotAnswered) {
    bool found = true;
    EXPECT_EQ(Receive({Close(), Data("gone"), Close(), Eof(), Disconnect("end")}, {},
                      [&](LoopSession& session) { found = session._channels.Find(0) != nullptr; }),
              "-1");
    EXPECT_FALSE(found);
    EXPECT_FALSE(inputStays);
    EXPECT_EQ(output.Text(), "");
    EXPECT_THAT(Sent(), IsEmpty());
}

TEST_F(Dispatch, CloseOfTheSessionChannelDoesNotEndTheLoop) {
    EXPECT_EQ(Run([](Connection& c) {
                  c.SendClose();
                  c.SendPacket(ChannelOpenHead("x11", 9).String("host").U32(1)); // for a sign of life
                  c.ExpectPacket(CHANNEL_OPEN_FAILURE);
                  c.SendExitStatus(0);
              }),
              "-1");
    EXPECT_GE(dispatches, 2);
}

// --- opening

TEST_F(Dispatch, ChannelsOfAnyTypeAreRefused) {
    EXPECT_EQ(Receive({ChannelOpenHead("session", 5).String("").U32(0),
                       ChannelOpenHead("x11", 6).String("127.0.0.1").U32(4711),
                       ChannelOpenHead("forwarded-tcpip", 7).String("host").U32(80),
                       ChannelOpenHead("direct-tcpip", 8).String("host").U32(80).String("origin").U32(1),
                       ChannelOpenHead("", 0xffffffff).String("").U32(0), ExitStatus(0)}),
              "-1");
    EXPECT_THAT(Sent(), ElementsAre(Refusal(5), Refusal(6), Refusal(7), Refusal(8), Refusal(0xffffffff)));
    EXPECT_EQ(messages, "");
    EXPECT_EQ(dispatches, 1);
}

TEST_F(Dispatch, ForwardedConnectionWithAnOriginatorIsAViolation) {
    EXPECT_EQ(Receive({ChannelOpenHead("forwarded-tcpip", 7).String("host").U32(80).String("origin").U32(1)}),
              ExtraBytes("SSH_MSG_CHANNEL_OPEN"));
    EXPECT_THAT(Sent(), IsEmpty());
}

TEST_F(Dispatch, SessionWithoutAnAddressIsRefusedWhateverItsPadding) {
    for (unsigned const value : {0u, 0xffu}) {
        EXPECT_EQ(Run([&](Connection& c) {
                      SendOptions options;
                      options.padding = Bytes(19, static_cast<std::uint8_t>(value));
                      c.SendPacket(ChannelOpenHead("session", 5), options);
                      c.SendExitStatus(0);
                  }),
                  "-1");
        EXPECT_THAT(Sent(), ElementsAre(Refusal(5)));
    }
}

TEST_F(Dispatch, AnyOtherOpeningWithoutAnAddressEndsTheRun) {
    for (char const* type : {"x11", "auth-agent@example.org"}) {
        EXPECT_EQ(Run([&](Connection& c) {
                      SendOptions options;
                      options.padding = Bytes(19, 0xff);
                      c.SendPacket(ChannelOpenHead(type, 5), options);
                      c.ExpectClosed();
                  }),
                  "SshProtocolError: string length exceeds packet length")
            << type;
        EXPECT_THAT(Sent(), IsEmpty());
    }
}

// --- violations

TEST_F(Dispatch, MessageWithAnExtraByteEndsTheRun) {
    std::vector<std::pair<Bytes, char const*>> const known{
        {Data("x"), "SSH_MSG_CHANNEL_DATA"},
        {ExtendedData("x", 1), "SSH_MSG_CHANNEL_EXTENDED_DATA"},
        {WindowAdjust(0, 1), "SSH_MSG_CHANNEL_WINDOW_ADJUST"},
        {ExitStatus(0), "SSH_MSG_CHANNEL_REQUEST"},
        {ExitSignal("TERM"), "SSH_MSG_CHANNEL_REQUEST"},
        {ChannelOpenHead("x11", 6).String("h").U32(1), "SSH_MSG_CHANNEL_OPEN"},
        {Close(), "SSH_MSG_CHANNEL_CLOSE"},
        {Eof(), "SSH_MSG_CHANNEL_EOF"},
        {Ignore("x"), "SSH_MSG_IGNORE"},
        {Disconnect("x"), "SSH_MSG_DISCONNECT"},
    };
    for (auto const& [payload, name] : known) {
        EXPECT_EQ(Receive({Longer(payload)}), ExtraBytes(name));
        EXPECT_THAT(Sent(), IsEmpty()) << name;
        EXPECT_EQ(messages, "") << name;
        EXPECT_EQ(output.Text(), "") << name;
    }
}

TEST_F(Dispatch, MessageWithATooLongTextEndsTheRun) {
    for (Bytes const& payload :
         {Bytes(Writer().U8(CHANNEL_DATA).U32(0).U32(0xffffffff)), Bytes(Writer().U8(IGNORE).U32(0x10000)),
          Bytes(Writer().U8(DISCONNECT).U32(11).U32(0x80000000)),
          Bytes(Writer().U8(CHANNEL_REQUEST).U32(0).U32(0x7fffffff))})
        EXPECT_EQ(Receive({payload}), "SshProtocolError: string length exceeds packet length")
            << Hex(payload);
}

// --- a program's own channels

TEST_F(Dispatch, ReplacementServesTheDescriptorsOfTheOldChannel) {
    class Upper : public NotingChannel {
    public:
        using NotingChannel::NotingChannel;
        void ForwardToSshd(char const* data, unsigned int n) override {
            std::string text = "<" + std::string(data, n) + ">";
            SshChannel::ForwardToSshd(text.data(), static_cast<unsigned int>(text.size()));
        }
    };
    class Maker : public cindral::SshChannelMakerBase {
    public:
        explicit Maker(std::string& log) : _log(log) {}
        cindral::SshChannel* operator()(unsigned int localId, unsigned int remoteId, String_t const& name,
                                        unsigned int windowSize, cindral::ISshPacketStream* in,
                                        cindral::OSshPacketStream* out) const override {
            return new Upper(_log, localId, remoteId, name, windowSize, in, out, 0);
        }

    private:
        std::string& _log;
    };
    std::string log;
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      silence.Write("typed");
                      Reader data = c.ExpectPacket(CHANNEL_DATA);
                      data.U32();
                      EXPECT_EQ(data.String(), "<typed>");
                      c.SendTogether({Data("shown"), Eof(), ExitStatus(0)});
                  },
                  [&](LoopSession& session) {
                      cindral::SshChannel const* made = session.ReplaceChannel(0, Maker(log));
                      if (made != session._channels.Find(0)) throw std::runtime_error("not entered");
                  }),
              "-1");
    EXPECT_EQ(log, "data shown;flush;");
    EXPECT_EQ(output.Text(), "");
    EXPECT_FALSE(inputStays);
    EXPECT_EQ(Sent().back(), Close(42));
}

TEST_F(Dispatch, ReplacingAnUnknownChannelReturnsNull) {
    std::string log;
    bool replaced = true;
    EXPECT_EQ(Receive({ExitStatus(0)},
                      [&](LoopSession& session) {
                          replaced = session.ReplaceChannel(1, NotingMaker(log)) != nullptr;
                      }),
              "-1");
    EXPECT_FALSE(replaced);
}

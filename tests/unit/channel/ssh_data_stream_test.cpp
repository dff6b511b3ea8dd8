#include <brantle/channel/ssh_data_stream.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <brantle/cindral/exceptions.h>

#include "plain_connection.h"
#include "support/descriptors.h"
#include "support/overriding_streams.h"

namespace cindral {
namespace {

constexpr unsigned int WINDOW = 0x200000;

void AppendInt(Bytes& bytes, unsigned int value) {
    for (int shift = 24; shift >= 0; shift -= 8) bytes.push_back(static_cast<unsigned char>(value >> shift));
}

/// The payload of a CHANNEL_DATA.
Bytes Data(std::string const& text, unsigned int channel = 0) {
    Bytes payload{94};
    AppendInt(payload, channel);
    AppendInt(payload, static_cast<unsigned int>(text.size()));
    payload.insert(payload.end(), text.begin(), text.end());
    return payload;
}

/// That many characters, no two neighbours of which are the same.
std::string Text(std::size_t size) {
    std::string text(size, '\0');
    for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>('a' + i % 23);
    return text;
}

/// A MAC that fails from its n-th packet on.
class FailingMac : public Mac::Rep {
public:
    explicit FailingMac(int packets) : _packets(packets) {}

    unsigned int Length() const override { return 0; }
    unsigned char const* Value() const override { return nullptr; }
    void Reset() override {
        if (_packets-- == 0) throw OpenSSLError("EVP_MAC_init");
    }
    void Update(unsigned char const*, unsigned int) override {}
    void Finish() override {}

private:
    int _packets;
};

class DataOutput : public testing::Test {
protected:
    int Write(std::string const& text) {
        _stream.Write(text.data(), static_cast<int>(text.size()));
        return static_cast<int>(_stream.Status());
    }
    unsigned int Buffered() const { return static_cast<unsigned int>(_stream._pos - _stream._start); }

    PlainConnection _connection;
    unsigned int _window = WINDOW;
    OSshDataStream _stream{_connection._out, 0, _window};
};

TEST_F(DataOutput, HasNoDescriptorAndKeeps48BytesOfItsBufferFree) {
    EXPECT_LT(_stream.Fd(), 0);
    EXPECT_EQ(8192u, _stream._capacity);
    EXPECT_EQ(8144, _stream._end - _stream._start);
}

TEST_F(DataOutput, FlushSendsWhatIsBufferedAsOneMessageAndCountsIt) {
    Write("hel");
    Write("lo");
    EXPECT_TRUE(_connection.Sent().empty());
    EXPECT_EQ(5, _stream.Flush());
    EXPECT_EQ((std::vector<Bytes>{{94, 0, 0, 0, 0, 0, 0, 0, 5, 'h', 'e', 'l', 'l', 'o'}}),
              _connection.Sent());
    EXPECT_EQ(0u, Buffered());
}

TEST_F(DataOutput, FlushOfAnEmptyBufferSendsNothing) {
    EXPECT_EQ(0, _stream.Flush());
    Write("x");
    _stream.Flush();
    _connection.Sent();
    EXPECT_EQ(0, _stream.Flush());
    EXPECT_TRUE(_connection.Sent().empty());
}

TEST_F(DataOutput, FullBufferIsSentWithTheNextByteWritten) {
    std::string const full = Text(8144);
    Write(full);
    EXPECT_TRUE(_connection.Sent().empty());
    Write("y");
    EXPECT_EQ((std::vector<Bytes>{Data(full)}), _connection.Sent());
    EXPECT_EQ(1, _stream.Flush());
    EXPECT_EQ((std::vector<Bytes>{Data("y")}), _connection.Sent());
}

TEST_F(DataOutput, FullBufferIsSentWithTheNextBytePut) {
    std::string const full = Text(8144);
    for (char c : full) EXPECT_EQ(0, _stream.Put(c));
    EXPECT_TRUE(_connection.Sent().empty());
    EXPECT_EQ(8144, _stream.Put('y'));
    EXPECT_EQ((std::vector<Bytes>{Data(full)}), _connection.Sent());
    EXPECT_EQ(1u, Buffered());
}

TEST_F(DataOutput, FullBufferMayBeFlushed) {
    Write(Text(8144));
    EXPECT_EQ(8144, _stream.Flush());
    EXPECT_EQ((std::vector<Bytes>{Data(Text(8144))}), _connection.Sent());
}

TEST_F(DataOutput, LongWriteIsSentAsFullMessages) {
    std::string const text = Text(3 * 8144 + 10);
    EXPECT_EQ(0, Write(text));
    EXPECT_EQ((std::vector<Bytes>{Data(text.substr(0, 8144)), Data(text.substr(8144, 8144)),
                                  Data(text.substr(2 * 8144, 8144))}),
              _connection.Sent());
    EXPECT_EQ(10, _stream.Flush());
    EXPECT_EQ((std::vector<Bytes>{Data(text.substr(3 * 8144))}), _connection.Sent());
}

TEST_F(DataOutput, TypedOperatorsWorkAndEndmFlushes) {
    _stream << 0x01020304u << ByteString("ab", 2) << endm;
    EXPECT_EQ((std::vector<Bytes>{{94, 0, 0, 0, 0, 0, 0, 0, 10, 1, 2, 3, 4, 0, 0, 0, 2, 'a', 'b'}}),
              _connection.Sent());
}

TEST_F(DataOutput, MessagesCarryTheNumberGiven) {
    OSshDataStream stream(_connection._out, 0x01020304, _window);
    stream.Put('x');
    stream.Flush();
    _connection._out._byteCount = WINDOW;
    stream.CheckForWindowAdjust();
    EXPECT_EQ((std::vector<Bytes>{Data("x", 0x01020304), {93, 1, 2, 3, 4, 0x00, 0x20, 0x00, 0x00}}),
              _connection.Sent());
}

TEST_F(DataOutput, CountAboveTwoThirdsIsGrantedAfterTheDataAndResets) {
    _connection._out._byteCount = 1398103 - 24; // the packet below has 24 bytes
    Write("abcd");
    EXPECT_EQ(4, _stream.Flush());
    EXPECT_EQ((std::vector<Bytes>{Data("abcd"), {93, 0, 0, 0, 0, 0x00, 0x15, 0x55, 0x57}}),
              _connection.Sent());
    EXPECT_EQ(0u, _connection._out._byteCount);
}

TEST_F(DataOutput, CountOfTwoThirdsSendsOnlyData) {
    _connection._out._byteCount = 1398102 - 24;
    Write("abcd");
    EXPECT_EQ(4, _stream.Flush());
    EXPECT_EQ((std::vector<Bytes>{Data("abcd")}), _connection.Sent());
    EXPECT_EQ(1398102u, _connection._out._byteCount);
}

TEST_F(DataOutput, WindowSetLaterIsUsed) {
    _window = 0;
    _connection._out._byteCount = 1398103;
    _stream.CheckForWindowAdjust();
    EXPECT_TRUE(_connection.Sent().empty());
    _window = WINDOW;
    _stream.CheckForWindowAdjust();
    EXPECT_EQ(1u, _connection.Sent().size());
}

TEST_F(DataOutput, LostConnectionIsNotReported) {
    _connection.HangUp();
    Write("lost");
    EXPECT_EQ(4, _stream.Flush());
    EXPECT_EQ(0u, Buffered());
}

TEST_F(DataOutput, BytesStayWhenThePacketThrows) {
    _connection._outMac._rep = new FailingMac(0);
    Write("kept");
    EXPECT_THROW(_stream.Flush(), OpenSSLError);
    EXPECT_EQ(4u, Buffered());
    delete _connection._outMac._rep;
    _connection._outMac._rep = nullptr;
    EXPECT_EQ(4, _stream.Flush());
    EXPECT_EQ((std::vector<Bytes>{Data("kept")}), _connection.Sent());
}

TEST_F(DataOutput, BytesStayWhenTheAdjustmentThrows) {
    _connection._outMac._rep = new FailingMac(1);
    _connection._out._byteCount = WINDOW - 24;
    Write("kept");
    EXPECT_THROW(_stream.Flush(), OpenSSLError);
    EXPECT_EQ((std::vector<Bytes>{Data("kept")}), _connection.Sent());
    EXPECT_EQ(4u, Buffered());
    EXPECT_EQ(WINDOW, _connection._out._byteCount);
}

TEST_F(DataOutput, ExceptionPassesThroughAWriteThatFillsTheBuffer) {
    _connection._outMac._rep = new FailingMac(0);
    EXPECT_THROW(Write(Text(8145)), OpenSSLError);
    EXPECT_EQ(8144u, Buffered());
}

TEST_F(DataOutput, DestructionFlushes) {
    {
        OSshDataStream stream(_connection._out, 0, _window);
        stream.Put('x');
    }
    EXPECT_EQ((std::vector<Bytes>{Data("x")}), _connection.Sent());
    {
        OSshDataStream const empty(_connection._out, 0, _window);
    }
    EXPECT_TRUE(_connection.Sent().empty());
}

TEST_F(DataOutput, DestructionOnABrokenConnectionDoesNotThrow) {
    {
        OSshDataStream stream(_connection._out, 0, _window);
        stream.Put('x');
        _connection.HangUp();
    }
    auto stream = std::make_unique<OSshDataStream>(_connection._out, 0, _window);
    stream->Put('x');
    _connection._outMac._rep = new FailingMac(0);
    EXPECT_NO_THROW(stream.reset());
}

class DataInput : public testing::Test {
protected:
    std::string Buffered() const { return std::string(_stream._pos, _stream._end); }

    std::string Failure() {
        try {
            return "filled " + std::to_string(_stream.Fill());
        } catch (SshProtocolError const& error) {
            return error.what();
        } catch (BadInput const& error) {
            return std::string("BadInput: ") + error.what();
        }
    }

    PlainConnection _connection;
    unsigned int _window = WINDOW;
    ISshDataStream _stream{_connection._in, _connection._out, 0, _window};
};

TEST_F(DataInput, StartsEmptyAndUntiedWithoutADescriptor) {
    EXPECT_LT(_stream.Fd(), 0);
    EXPECT_EQ(8192u, _stream._capacity);
    EXPECT_EQ(0u, _stream._pending.Length());
}

TEST_F(DataInput, LongMessageIsReadInPiecesOfTheBufferSize) {
    std::string const text = Text(10000);
    _connection.Receive(Data(text));
    EXPECT_EQ(8192, _stream.Fill());
    EXPECT_EQ(text.substr(0, 8192), Buffered());
    EXPECT_TRUE(_stream._pending == ByteString(text.data() + 8192, 1808));
    _connection.HangUp(); // another read would throw
    EXPECT_EQ(1808, _stream.Fill());
    EXPECT_EQ(text.substr(8192), Buffered());
    EXPECT_EQ(0u, _stream._pending.Length());
}

TEST_F(DataInput, MessageOfBufferSizeIsOnePieceAndOneByteMoreIsTwo) {
    _connection.Receive(Data(Text(8192)));
    EXPECT_EQ(8192, _stream.Fill());
    EXPECT_EQ(0u, _stream._pending.Length());
    _connection.Receive(Data(Text(8193)));
    EXPECT_EQ(8192, _stream.Fill());
    EXPECT_EQ(1, _stream.Fill());
    EXPECT_EQ(Text(8193).substr(8192), Buffered());
}

TEST_F(DataInput, LargestMessageTakesFourFills) {
    std::string const text = Text(32768);
    _connection.Receive(Data(text));
    std::string whole;
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(8192, _stream.Fill());
        whole += Buffered();
    }
    EXPECT_EQ(text, whole);
    EXPECT_EQ(0u, _stream._pending.Length());
}

TEST_F(DataInput, AdjustmentsAndRequestsAreSkippedButCounted) {
    _connection.Receive(Data("ab"));
    _connection.Receive({93, 0, 0, 0, 0, 0, 0, 1, 0});
    _connection.Receive(
        {98, 0, 0, 0, 0, 0, 0, 0, 11, 'e', 'x', 'i', 't', '-', 's', 't', 'a', 't', 'u', 's', 0, 0, 0, 0, 5});
    _connection.Receive({98}); // not decoded
    _connection.Receive({93});
    _connection.Receive(Data("cd"));
    EXPECT_EQ(2, _stream.Fill());
    EXPECT_EQ("ab", Buffered());
    EXPECT_EQ(20u, _connection._in._byteCount); // 9 bytes of framing and 11 of payload
    EXPECT_EQ(2, _stream.Fill());
    EXPECT_EQ("cd", Buffered());
    EXPECT_EQ(20u + 18 + 34 + 10 + 10 + 20, _connection._in._byteCount);
    EXPECT_TRUE(_connection.Sent().empty());
}

TEST_F(DataInput, EmptyDataMessageIsSkipped) {
    _connection.Receive(Data(""));
    _connection.Receive(Data(""));
    _connection.Receive(Data("x"));
    EXPECT_EQ(1, _stream.Fill());
    EXPECT_EQ("x", Buffered());
}

TEST_F(DataInput, ChannelNumberOfTheMessageIsIgnored) {
    _connection.Receive(Data("x", 77));
    EXPECT_EQ(1, _stream.Fill());
    EXPECT_EQ("x", Buffered());
}

TEST_F(DataInput, EveryOtherMessageThrows) {
    for (int number = 0; number < 256; ++number) {
        if (number == 93 || number == 94 || number == 98) continue;
        _connection.Receive({static_cast<unsigned char>(number), 0, 0, 0, 0});
        EXPECT_EQ("expected CHANNEL_DATA package, received: " + std::to_string(number), Failure());
    }
    EXPECT_EQ("", Buffered());
}

TEST_F(DataInput, DataMessageOfTheWrongLengthThrows) {
    Bytes surplus = Data("x");
    surplus.push_back(0);
    Bytes tooShort = Data("xyz");
    tooShort.resize(tooShort.size() - 3 - 4 - 2);
    for (Bytes const& payload : {surplus, tooShort}) {
        _connection.Receive(payload);
        EXPECT_NE(0u, Failure().find("filled"));
        EXPECT_EQ(0u, _stream._pending.Length());
    }
}

TEST_F(DataInput, ExceptionPassesThroughGetAndRead) {
    char c = 'c';
    _connection.Receive({96, 0, 0, 0, 0});
    EXPECT_THROW(_stream.Get(c), SshProtocolError);
    EXPECT_EQ('c', c);
    _connection.Receive({97, 0, 0, 0, 0});
    EXPECT_THROW(_stream.Read(&c, 1), SshProtocolError);
    EXPECT_EQ(0u, _stream.Status());
}

TEST_F(DataInput, LostConnectionThrows) {
    _connection.HangUp();
    EXPECT_EQ("packet length less than 2", Failure());
}

TEST_F(DataInput, FailureWithinAMacReadsAsEndOfInput) {
    _connection._inMac.Redefine("hmac-sha1", ByteString(20));
    _connection._in._socketBuffer._timeout = 1;
    _connection.Receive(Data("x"));
    EXPECT_EQ(0, _stream.Fill());
    EXPECT_EQ("", Buffered());
}

TEST_F(DataInput, AdjustmentIsSentBeforeThePacketIsDecoded) {
    _connection._in._byteCount = 1398103 - 14; // the packet below has 14 bytes
    _connection._out._byteCount = 100;
    _connection.Receive({96, 0, 0, 0, 0});
    EXPECT_EQ("expected CHANNEL_DATA package, received: 96", Failure());
    EXPECT_EQ((std::vector<Bytes>{{93, 0, 0, 0, 0, 0x00, 0x15, 0x55, 0x57}}), _connection.Sent());
    EXPECT_EQ(0u, _connection._in._byteCount);
    EXPECT_EQ(124u, _connection._out._byteCount); // the adjustment itself has been counted
}

TEST_F(DataInput, CountOfTwoThirdsIsNotGranted) {
    _connection._in._byteCount = 1398102 - 20;
    _connection.Receive(Data("ab"));
    EXPECT_EQ(2, _stream.Fill());
    EXPECT_TRUE(_connection.Sent().empty());
    EXPECT_EQ(1398102u, _connection._in._byteCount);
}

TEST_F(DataInput, AdjustmentUsesTheGivenNumberAndTheCurrentWindow) {
    ISshDataStream stream(_connection._in, _connection._out, 7, _window);
    _window = 0;
    _connection._in._byteCount = 300;
    stream.CheckForWindowAdjust();
    EXPECT_TRUE(_connection.Sent().empty());
    _window = 300;
    stream.CheckForWindowAdjust();
    EXPECT_EQ((std::vector<Bytes>{{93, 0, 0, 0, 7, 0, 0, 1, 44}}), _connection.Sent());
}

TEST_F(DataInput, LinesAndNumbersMaySpanMessages) {
    _connection.Receive(Data("fir"));
    _connection.Receive(Data(std::string("st\n\x01\x02", 5)));
    _connection.Receive(Data("\x03\x04!"));
    String_t line;
    unsigned int number = 0;
    _stream.Readln(line, "\n") >> number;
    EXPECT_STREQ("first", line.Text());
    EXPECT_EQ(0x01020304u, number);
    EXPECT_EQ("!", Buffered());
    EXPECT_EQ(0u, _stream.Status());
}

TEST_F(DataInput, LongReadsGatherMessagesOfAllSizes) {
    for (int size : {1, 8191, 8192, 8193, 20000, 32786}) {
        std::string text;
        for (std::size_t piece : {3000u, 20000u, 1u, 8192u, 30000u}) {
            std::string const data = Text(piece);
            _connection.Receive(Data(data));
            text += data;
        }
        std::string whole(text.size(), '\0');
        for (std::size_t at = 0; at < whole.size(); at += static_cast<std::size_t>(_stream.Gcount())) {
            auto const left = static_cast<int>(whole.size() - at);
            _stream.Read(whole.data() + at, std::min(size, left));
            ASSERT_EQ(std::min(size, left), _stream.Gcount());
        }
        EXPECT_EQ(text, whole) << size;
    }
    EXPECT_EQ(0u, _stream.Status());
}

TEST_F(DataInput, LongReadEndsWithTheInput) {
    _connection.Receive(Data(Text(100)));
    std::string bytes(10000, '\0');
    _connection._in._socketBuffer._timeout = 1;
    _stream.Get(bytes[0]);
    _connection._inMac.Redefine("hmac-sha1", ByteString(20));
    _connection.Receive(Data("x"));
    _stream.Read(bytes.data() + 1, 9999);
    EXPECT_EQ(99, _stream.Gcount());
    EXPECT_EQ(SockStream::END_OF_INPUT, _stream.Status());
}

TEST_F(DataInput, TiedOutputIsFlushedBeforeAReadBlocks) {
    OSshDataStream out(_connection._out, 0, _window);
    _stream.Tie(&out);
    std::string bytes(8192, '\0');
    for (int size : {1, 8192}) {
        out.Put('x');
        _connection.Receive(Data(Text(static_cast<std::size_t>(size))));
        _stream.Read(bytes.data(), size);
        EXPECT_EQ((std::vector<Bytes>{Data("x")}), _connection.Sent());
    }
}

TEST_F(DataInput, TiedOutputIsFlushedOnceForEachReadThatWaits) {
    support::CountingOutput<OSshDataStream> out(_connection._out, 0, _window);
    _stream.Tie(&out);
    std::string bytes(8192, '\0');
    for (int size : {1, 8191, 8192}) {
        _connection.Receive(Data(Text(static_cast<std::size_t>(size))));
        out._flushes = 0;
        _stream.Read(bytes.data(), size);
        EXPECT_EQ(1, out._flushes) << size;
    }
    _connection.Receive(Data("x"));
    out._flushes = 0;
    EXPECT_EQ(1, _stream.Fill());
    EXPECT_EQ(1, out._flushes);
}

TEST_F(DataInput, DestructionSendsNothing) {
    {
        ISshDataStream stream(_connection._in, _connection._out, 0, _window);
        _connection.Receive(Data(Text(9000)));
        stream.Fill();
    }
    EXPECT_TRUE(_connection.Sent().empty());
}

using Sends = std::vector<bool>;

/// Of each send(2) since the last call, whether it was handed over as bytes that others follow.
Sends TakeMore(support::SendRecorder& recorder) {
    Sends more;
    for (auto const& sent : recorder.Take()) more.push_back(sent._more);
    return more;
}

TEST_F(DataOutput, AllButTheLastMessageOfARequestAreSentWithMsgMore) {
    support::SendRecorder recorder;
    Write(Text(3 * 8144 + 10));
    _stream.Flush();
    EXPECT_EQ(TakeMore(recorder), (Sends{true, true, true, false}));
    for (char c : Text(8145)) _stream.Put(c);
    _stream.Flush();
    EXPECT_EQ(TakeMore(recorder), (Sends{true, false}));
}

TEST_F(DataOutput, LastFullMessageOfARequestIsSentWithoutMsgMore) {
    support::SendRecorder recorder;
    Write(Text(2 * 8144));
    _stream.Flush();
    EXPECT_EQ(TakeMore(recorder), (Sends{true, false}));
}

TEST_F(DataOutput, AdjustmentIsSentWithMsgMoreUnlessItIsLast) {
    _window = 9000;
    support::SendRecorder recorder;
    Write(Text(8000));
    _stream.Flush(); // data, adjustment
    EXPECT_EQ(TakeMore(recorder), (Sends{true, false}));
    Write(Text(8145)); // data, adjustment
    EXPECT_EQ(TakeMore(recorder), (Sends{true, true}));
    _stream.Flush();
    EXPECT_EQ(TakeMore(recorder), (Sends{false}));
    EXPECT_EQ(5u, _connection.Sent().size());
}

TEST_F(DataInput, AdjustmentIsHeldUntilTheNextRequestOrABlockingRead) {
    _window = 9000;
    support::SendRecorder recorder;
    _connection.Receive(Data(Text(7000)));
    EXPECT_EQ(7000, _stream.Fill());
    EXPECT_EQ(TakeMore(recorder), (Sends{true}));
    EXPECT_EQ(1u, _connection.Sent().size());
    EXPECT_TRUE(_connection._out._socketBuffer.IsCorked());

    _connection.Receive(Data("x"));
    EXPECT_EQ(1, _stream.Fill()); // without blocking
    EXPECT_TRUE(_connection._out._socketBuffer.IsCorked());

    auto const before = DescriptorIO::SystemCalls();
    static PlainConnection* connection;
    connection = &_connection;
    DescriptorIO::SystemCalls().poll = [](pollfd* records, nfds_t count, int limit) {
        if (limit != 0) {
            EXPECT_FALSE(connection->_out._socketBuffer.IsCorked());
            connection->Receive(Data("y"));
        }
        return poll(records, count, limit);
    };
    EXPECT_EQ(1, _stream.Fill());
    DescriptorIO::SystemCalls() = before;
    EXPECT_EQ("y", Buffered());
}

} // namespace
} // namespace cindral

#include <brantle/packet/ssh_buffer.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <brantle/cindral/exceptions.h>

using namespace cindral;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr int BELOW_FAILS = -7;

/// What the layers of a test were asked to do, in order.
using Log = std::vector<std::string>;

/// Adds 1 to each byte.
class PlusOne : public BlockCipher::Rep {
public:
    explicit PlusOne(Log& log) : _log(log) {}
    unsigned int BlockSize() const override { return 8; }
    int Kind() const override { return BlockCipher::NONE + 1; }
    int Process(unsigned char const* source, unsigned int length, unsigned char* destination) override {
        _log.push_back("cipher " + std::to_string(length));
        errno = EIO;
        if (_fails) return -1;
        std::transform(source, source + length, destination,
                       [](unsigned char byte) { return static_cast<unsigned char>(byte + 1); });
        return static_cast<int>(length);
    }
    int SetPadding(int) override { return 0; }

    bool _fails = false;

private:
    Log& _log;
};

/// Is always "MAC".
class Constant : public Mac::Rep {
public:
    explicit Constant(Log& log) : _log(log) {}
    unsigned int Length() const override { return 3; }
    unsigned char const* Value() const override { return reinterpret_cast<unsigned char const*>("MAC"); }
    void Reset() override { _log.push_back("reset"); }
    void Update(unsigned char const* bytes, unsigned int length) override {
        _log.push_back("update " + std::string(reinterpret_cast<char const*>(bytes), length));
    }
    void Finish() override { _log.push_back("finish"); }

private:
    Log& _log;
};

class Sink : public CascadableOStreamBuf {
public:
    explicit Sink(Log& log) : _log(log) {}
    int put(char const* begin, char const* end) override {
        _log.push_back("put " + std::string(begin, end));
        errno = ENOSPC;
        return _left-- > 0 ? static_cast<int>(end - begin) : BELOW_FAILS;
    }

    int _left = 100; ///< calls that succeed

private:
    Log& _log;
};

/// Gives what it holds, and then its result.
class Source : public CascadableIStreamBuf {
public:
    explicit Source(Log& log) : _log(log) {}
    int get(char* begin, char* end) override {
        _log.push_back("get " + std::to_string(end - begin));
        if (_bytes.empty()) return _result;
        std::size_t const count = std::min(static_cast<std::size_t>(end - begin), _bytes.size());
        std::copy_n(_bytes.begin(), count, begin);
        _bytes.erase(0, count);
        return static_cast<int>(count);
    }

    std::string _bytes;
    int _result = 0;

private:
    Log& _log;
};

class SshBuffer : public testing::Test {
protected:
    SshBuffer() {
        _cipher._rep = _plusOne = new PlusOne(_log);
        _mac._rep = new Constant(_log);
    }

    /// The log since the last look at it.
    Log News() {
        Log news;
        news.swap(_log);
        return news;
    }

    Log _log;
    BlockCipher _cipher;
    Mac _mac;
    PlusOne* _plusOne;
};

class OSshBufferOutput : public SshBuffer {
protected:
    void Put(std::string const& text) { _out.put(text.data(), text.data() + text.size()); }
    long Held() const { return _out._pos - _out._start; }

    Sink _below{_log};
    OSshBuffer _out{&_below, _cipher, _mac};
};

class ISshBufferInput : public SshBuffer {
protected:
    std::string Readable() const { return std::string(_in._pos, _in._end); }

    Source _below{_log};
    ISshBuffer _in{&_below, _cipher, _mac};
};

} // namespace

TEST_F(OSshBufferOutput, FlushOfAnEmptyBufferDoesNothing) {
    EXPECT_EQ(_out.Flush(), 0);
    EXPECT_THAT(_log, IsEmpty());
    EXPECT_EQ(_out._plainBytes, 0u);
}

TEST_F(OSshBufferOutput, FlushPassesCipherTextOnAndFeedsPlainTextToTheMac) {
    Put("abc");
    EXPECT_EQ(_out.Flush(), 0);
    EXPECT_THAT(_log, ElementsAre("cipher 3", "put bcd", "update abc"));
    EXPECT_EQ(Held(), 0);
    EXPECT_EQ(_out._plainBytes, 3u);
}

TEST_F(OSshBufferOutput, PlainBytesStayWhenTheLayerBelowFails) {
    Put("abc");
    _below._left = 0;
    EXPECT_EQ(_out.Flush(), BELOW_FAILS);
    EXPECT_THAT(News(), ElementsAre("cipher 3", "put bcd"));
    EXPECT_EQ(Held(), 3);
    EXPECT_EQ(_out._plainBytes, 0u);
    EXPECT_EQ(_out.FinalizePacket(), BELOW_FAILS);
    EXPECT_EQ(_out._sequence, 0u);
}

TEST_F(OSshBufferOutput, FailedCipherIsItsErrnoAfterTheLayerBelowWasCalled) {
    Put("abc");
    _plusOne->_fails = true;
    EXPECT_EQ(_out.Flush(), EIO);
    EXPECT_THAT(News(), ElementsAre("cipher 3", "put ", "update abc"));
    EXPECT_EQ(Held(), 0);
    EXPECT_EQ(_out._plainBytes, 3u);
    Put("abc");
    _below._left = 0;
    EXPECT_EQ(_out.Flush(), BELOW_FAILS);
}

TEST_F(OSshBufferOutput, MacIsAppendedUnencrypted) {
    _out.StartPacket();
    Put("abc");
    EXPECT_EQ(_out.FinalizePacket(), 0);
    EXPECT_THAT(_log, ElementsAre("reset", "update " + std::string(4, '\0'), "cipher 3", "put bcd",
                                  "update abc", "finish", "put MAC"));
    EXPECT_EQ(_out._sequence, 1u);
}

TEST_F(OSshBufferOutput, FailedWriteOfTheMacKeepsTheSequenceNumber) {
    Put("abc");
    _below._left = 1;
    EXPECT_EQ(_out.FinalizePacket(), BELOW_FAILS);
    EXPECT_EQ(_out._sequence, 0u);
}

TEST_F(OSshBufferOutput, SequenceNumberWrapsAround) {
    _out._sequence = 0xffffffff;
    _out.StartPacket();
    EXPECT_EQ(_out.FinalizePacket(), 0);
    EXPECT_THAT(_log, ElementsAre("reset", "update \xff\xff\xff\xff", "finish", "put MAC"));
    EXPECT_EQ(_out._sequence, 0u);
}

TEST_F(ISshBufferInput, FillReadsNoMoreThanAllowed) {
    _below._bytes = "abcdef";
    _in.StartPacket(2);
    News();
    EXPECT_EQ(_in.Fill(), 2);
    EXPECT_EQ(Readable(), "bc");
    EXPECT_THAT(News(), ElementsAre("get 2", "cipher 2", "update bc"));
    EXPECT_EQ(_in.Fill(), 0);
    EXPECT_THAT(News(), IsEmpty());
    _in.ContinuePacket(3);
    EXPECT_EQ(_in.Fill(), 3);
    EXPECT_EQ(Readable(), "def");
    EXPECT_EQ(_in._remaining, 0u);
    EXPECT_EQ(_in._plainBytes, 0u);
}

TEST_F(ISshBufferInput, FillReadsAtMostABuffer) {
    _below._bytes = std::string(20000, 'x');
    _in.ContinuePacket(10000);
    EXPECT_EQ(_in.Fill(), 8192);
    EXPECT_EQ(_in._remaining, 1808u);
    EXPECT_EQ(_in.Fill(), 1808);
    EXPECT_EQ(_in.Fill(), 0);
}

TEST_F(ISshBufferInput, EndOfTheStreamIsRemembered) {
    _in.ContinuePacket(5);
    EXPECT_EQ(_in._eof, 0);
    EXPECT_EQ(_in.Fill(), 0);
    EXPECT_EQ(_in._eof, 1);
    EXPECT_THAT(News(), ElementsAre("get 5"));
    _below._bytes = "abc";
    _in.ContinuePacket(5);
    EXPECT_EQ(_in.Fill(), 0);
    EXPECT_THAT(News(), IsEmpty());
}

TEST_F(ISshBufferInput, FailureOfTheLayerBelowIsReturned) {
    _below._result = BELOW_FAILS;
    _in.ContinuePacket(5);
    EXPECT_EQ(_in.Fill(), BELOW_FAILS);
    EXPECT_EQ(_in._eof, 0);
    EXPECT_EQ(_in._remaining, 5u);
}

TEST_F(ISshBufferInput, FailedCipherIsReturned) {
    _below._bytes = "abc";
    _plusOne->_fails = true;
    _in.ContinuePacket(3);
    EXPECT_EQ(_in.Fill(), -1);
    EXPECT_THAT(News(), ElementsAre("get 3", "cipher 3"));
    EXPECT_EQ(Readable(), "");
}

TEST_F(ISshBufferInput, MacIsReadUnencryptedAndCompared) {
    _below._bytes = "MACrest";
    EXPECT_EQ(_in.FinalizePacket(), 0);
    EXPECT_THAT(News(), ElementsAre("finish", "get 3"));
    EXPECT_EQ(_in._sequence, 1u);
    EXPECT_EQ(_below._bytes, "rest");
}

TEST_F(ISshBufferInput, TruncatedMacIsComparedAsFarAsReceived) {
    for (char const* part : {"MA", ""}) {
        _below._bytes = part;
        EXPECT_EQ(_in.FinalizePacket(), 0) << part;
    }
    EXPECT_EQ(_in._sequence, 2u);
    _below._bytes = "MX";
    EXPECT_THROW(_in.FinalizePacket(), SshProtocolError);
    EXPECT_EQ(_in._sequence, 2u);
}

TEST_F(ISshBufferInput, FailedReadOfTheMacKeepsTheSequenceNumber) {
    _below._result = BELOW_FAILS;
    EXPECT_EQ(_in.FinalizePacket(), BELOW_FAILS);
    EXPECT_EQ(_in._sequence, 0u);
}

TEST_F(ISshBufferInput, SequenceNumberWrapsAround) {
    _in._sequence = 0xffffffff;
    _in.StartPacket(0);
    EXPECT_THAT(_log, ElementsAre("reset", "update \xff\xff\xff\xff"));
    EXPECT_EQ(_in.FinalizePacket(), 0);
    EXPECT_EQ(_in._sequence, 0u);
}

TEST_F(ISshBufferInput, RangeLargerThanTheBufferIsDecryptedInPlace) {
    _below._bytes = std::string(20000, 'x');
    _in.ContinuePacket(10001);
    std::string range(20000, '-');
    EXPECT_EQ(_in.get(range.data(), range.data() + 20000), 10001);
    EXPECT_EQ(range, std::string(10001, 'y') + std::string(9999, '-'));
    EXPECT_EQ(_in._remaining, 0u);
    EXPECT_THAT(News(), ElementsAre("get 10001", "cipher 8192", "update " + std::string(8192, 'y'),
                                    "cipher 1809", "update " + std::string(1809, 'y')));
}

TEST_F(ISshBufferInput, LargeRangeStartsWithTheBufferedBytes) {
    _below._bytes = "abcdefgh" + std::string(9000, 'x');
    _in.StartPacket(8);
    char first[4];
    EXPECT_EQ(_in.get(first, first + 4), 4);
    _in.ContinuePacket(9000);
    std::string range(9004, '-');
    EXPECT_EQ(_in.get(range.data(), range.data() + 9004), 9004);
    EXPECT_EQ(range, "fghi" + std::string(9000, 'y'));
}

TEST_F(ISshBufferInput, LargeRangeEndsAtEndOfInputAndAtAFailure) {
    std::string range(20000, '-');
    _below._bytes = std::string(100, 'x');
    _in.ContinuePacket(20000);
    EXPECT_EQ(_in.get(range.data(), range.data() + 20000), 100);
    EXPECT_EQ(_in._eof, 1);
    _in._eof = 0;
    _below._result = BELOW_FAILS;
    EXPECT_EQ(_in.get(range.data(), range.data() + 20000), BELOW_FAILS);
    _below._bytes = std::string(9000, 'x');
    _plusOne->_fails = true;
    EXPECT_EQ(_in.get(range.data(), range.data() + 20000), -1);
}

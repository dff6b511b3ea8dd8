#include <brantle/cindral/cascadable_stream.h>

#include <cerrno>
#include <string>

#include <gtest/gtest.h>

#include <brantle/cindral/string_buffer.h>

using namespace cindral;

namespace {

/// Passes bytes on in upper case, or fails.
class Louder : public CascadableOStreamBuffer {
public:
    Louder(CascadableOStreamBuf* next, unsigned int size) : CascadableOStreamBuffer(next, size) {}
    int Flush() override {
        ++_flushes;
        if (_failing) return -5;
        for (char* byte = _start; byte != _pos; ++byte) {
            if (*byte >= 'a' && *byte <= 'z') *byte = static_cast<char>(*byte - 'a' + 'A');
        }
        int put = _next->put(_start, _pos);
        _pos = _start;
        return put < 0 ? put : 0;
    }
    int _flushes = 0;
    bool _failing = false;
};

/// Fetches at most three bytes at a time, and fails after a number of fills.
class Dribble : public CascadableIStreamBuffer {
public:
    explicit Dribble(CascadableIStreamBuf* next) : CascadableIStreamBuffer(next, 8) {}
    int Fill() override {
        if (_fillsLeft-- < 1) {
            errno = EIO;
            return -9;
        }
        int count = _next->get(_start, _start + 3);
        _pos = _start;
        _end = _start + (count > 0 ? count : 0);
        return count;
    }
    int _fillsLeft = 1000;
};

std::string Content(OStringBuffer const& buffer) { return std::string(buffer.Str(), buffer.Len()); }

TEST(CascadableStreamBuf, WrongDirectionFails) {
    CascadableStreamBuf layer;
    char byte = 'x';
    for (int result :
         {layer.putchr(byte), layer.getchr(byte), layer.put(&byte, &byte + 1), layer.get(&byte, &byte + 1)}) {
        EXPECT_EQ(result, -1);
    }
    EXPECT_EQ(errno, ENOTSUP);
}

TEST(CascadableOStreamBuffer, BytesAreBufferedUntilTheBufferIsFull) {
    OStringBuffer memory;
    Louder layer(&memory, 4);
    for (char byte : std::string("abcd")) EXPECT_EQ(layer.putchr(byte), 0);
    EXPECT_EQ(memory.Len(), 0u);
    EXPECT_EQ(layer.putchr('e'), 0);
    EXPECT_EQ(Content(memory), "ABCD");
}

TEST(CascadableOStreamBuffer, RangesArePassedOneFullBufferAtATime) {
    OStringBuffer memory;
    Louder layer(&memory, 4);
    std::string const text = "abcdefghij";
    EXPECT_EQ(layer.put(text.data(), text.data() + text.size()), 10);
    EXPECT_EQ(layer._flushes, 2);
    EXPECT_EQ(Content(memory), "ABCDEFGH");
}

TEST(CascadableOStreamBuffer, FinalizeReachesAllLayers) {
    OStringBuffer memory;
    Louder lower(&memory, 64);
    Louder upper(&lower, 64);
    std::string const text = "abc";
    upper.put(text.data(), text.data() + text.size());
    EXPECT_EQ(upper.Finalize(), 0);
    EXPECT_EQ(lower._flushes, 1);
    EXPECT_EQ(Content(memory), "ABC");
    upper._failing = true;
    EXPECT_EQ(upper.Finalize(), -5);
}

TEST(CascadableOStreamBuffer, FailedFlushIsReturned) {
    OStringBuffer memory;
    Louder layer(&memory, 2);
    layer._failing = true;
    std::string const text = "abc";
    EXPECT_EQ(layer.put(text.data(), text.data() + 3), -5);
    EXPECT_EQ(layer.putchr('x'), -5);
    layer._failing = false;
    layer.Flush();
    EXPECT_EQ(Content(memory), "AB");
}

TEST(CascadableIStreamBuffer, RangeIsFilledBySeveralFills) {
    IStringBuffer memory("abcdefgh");
    Dribble layer(&memory);
    char bytes[8];
    EXPECT_EQ(layer.get(bytes, bytes + 5), 5);
    EXPECT_EQ(std::string(bytes, 5), "abcde");
    EXPECT_EQ(layer.getchr(bytes[0]), 1);
    EXPECT_EQ(bytes[0], 'f');
    EXPECT_EQ(layer.get(bytes, bytes + 8), 2);
    EXPECT_EQ(layer.get(bytes, bytes + 8), 0);
    EXPECT_EQ(layer.get(bytes, bytes), 0);
    EXPECT_EQ(layer.getchr(bytes[0]), 0);
}

TEST(CascadableIStreamBuffer, FailureIsReturnedAfterTheBytesReceived) {
    IStringBuffer memory("abcdefgh");
    Dribble layer(&memory);
    layer._fillsLeft = 1;
    char bytes[8];
    EXPECT_EQ(layer.get(bytes, bytes + 8), 3);
    EXPECT_EQ(layer.get(bytes, bytes + 8), -9);
    EXPECT_EQ(layer.getchr(bytes[0]), -9);
}

} // namespace

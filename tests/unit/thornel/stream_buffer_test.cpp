#include <brantle/thornel/stream_buffer.h>

#include <functional>
#include <string>

#include <gtest/gtest.h>

namespace {

class Source : public InputBuffer<char> {
public:
    explicit Source(std::string const& text) : InputBuffer(4), _text(text) {}
    int Fill() override {
        ++_fills;
        if (_failing) return -7;
        std::size_t count = _text.copy(_start, _capacity, _used);
        _used += count;
        _pos = _start;
        _end = _start + count;
        return static_cast<int>(count);
    }
    std::string _text;
    std::size_t _used = 0;
    int _fills = 0;
    bool _failing = false;
};

class Sink : public OutputBuffer<char> {
public:
    Sink() : OutputBuffer(4) {}
    int Flush() override {
        ++_flushes;
        if (_stuck) return _stuck;
        _text.append(_start, _pos);
        int count = static_cast<int>(_pos - _start);
        _pos = _start;
        return count;
    }
    std::string _text;
    int _flushes = 0;
    int _stuck = 0;
};

template <class Buffer>
void ExpectFieldsInOrder(Buffer const& buffer) {
    std::less<void const*> const before;
    EXPECT_TRUE(before(&buffer._start, &buffer._end));
    EXPECT_TRUE(before(&buffer._end, &buffer._pos));
    EXPECT_TRUE(before(&buffer._pos, &buffer._capacity));
}

TEST(StreamBuffers, WorkInAnArrayThatTheDerivedClassHolds) {
    class Held : public InputBuffer<char> {
    public:
        Held() : InputBuffer(_array, sizeof _array) {}
        int Fill() override {
            *_start = 'x';
            _end = _start + 1;
            return 1;
        }
        char _array[4];
    } in;
    EXPECT_EQ(in._start, in._array);
    EXPECT_EQ(in._end, in._array);
    EXPECT_EQ(in._capacity, 4u);
    char byte = 0;
    EXPECT_EQ(in.Get(byte), 1);
    EXPECT_EQ(byte, 'x');

    class Kept : public OutputBuffer<char> {
    public:
        Kept() : OutputBuffer(_array, sizeof _array) {}
        int Flush() override { return 0; }
        char _array[4];
    } out;
    EXPECT_EQ(out._end, out._array + 4);
    EXPECT_EQ(out.Put('y'), 0);
    EXPECT_EQ(out._array[0], 'y');
}

TEST(IsExactly, HoldsForTheClassesListedAndNoClassDerivedFromThem) {
    class Louder : public Sink {};
    Source const source("");
    Sink const sink;
    Louder const louder;
    OutputBuffer<char> const& base = louder;
    EXPECT_TRUE(IsExactly<Sink>(sink));
    EXPECT_TRUE((IsExactly<Source, Sink>(sink)));
    EXPECT_TRUE((IsExactly<Source, Sink>(source)));
    EXPECT_FALSE(IsExactly<Sink>(base));
    EXPECT_FALSE((IsExactly<OutputBuffer<char>, Sink>(base)));
    EXPECT_TRUE(IsExactly<Louder>(base));
}

TEST(StreamBuffers, FieldsAreStartEndPositionAndCapacity) {
    ExpectFieldsInOrder(Source(""));
    ExpectFieldsInOrder(Sink());
}

TEST(InputBuffer, GetFillsOnlyWhenTheReadableRangeIsUsedUp) {
    Source source("abcdef");
    std::string got;
    for (char byte; source.Get(byte) == 1;) got += byte;
    EXPECT_EQ(got, "abcdef");
    EXPECT_EQ(source._fills, 3); // four bytes, two bytes, the end
}

TEST(InputBuffer, GetReturnsTheResultOfAFailedFill) {
    Source source("a");
    source._failing = true;
    char byte = 'x';
    EXPECT_EQ(source.Get(byte), -7);
    EXPECT_EQ(byte, 'x');
}

TEST(InputBuffer, GetReturnsZeroAtTheEnd) {
    Source source("");
    char byte;
    EXPECT_EQ(source.Get(byte), 0);
}

TEST(InputBuffer, TakeBufferedStopsAtTheEndOfEitherRange) {
    Source source("abcd");
    char bytes[8];
    EXPECT_EQ(source.TakeBuffered(bytes, bytes + 8), 0u);
    source.Fill();
    EXPECT_EQ(source.TakeBuffered(bytes, bytes + 3), 3u);
    EXPECT_EQ(source.TakeBuffered(bytes, bytes + 8), 1u);
    EXPECT_EQ(source._fills, 1);
}

TEST(OutputBuffer, PutFlushesWhenTheBufferIsFull) {
    Sink sink;
    for (char byte : std::string("abcd")) EXPECT_EQ(sink.Put(byte), 0);
    EXPECT_EQ(sink._flushes, 0);
    EXPECT_EQ(sink.Put('e'), 4);
    EXPECT_EQ(sink._text, "abcd");
    EXPECT_EQ(sink._pos - sink._start, 1);
}

TEST(OutputBuffer, PutDropsTheByteWhenFlushMakesNoRoom) {
    for (int result : {-3, 5}) {
        Sink sink;
        for (char byte : std::string("abcd")) sink.Put(byte);
        sink._stuck = result;
        EXPECT_EQ(sink.Put('e'), result);
        sink._stuck = 0;
        sink.Flush();
        EXPECT_EQ(sink._text, "abcd");
    }
}

TEST(OutputBuffer, PutRangeFlushesInBetweenButNotAtTheEnd) {
    Sink sink;
    std::string const text = "abcdefgh";
    EXPECT_EQ(sink.PutRange(text.data(), text.data() + 8), 8);
    EXPECT_EQ(sink._text, "abcd");
    EXPECT_EQ(sink._flushes, 1);
}

TEST(OutputBuffer, PutRangeRespectsALoweredEnd) {
    Sink sink;
    sink._end = sink._start + 3;
    std::string const text = "abcdefg";
    EXPECT_EQ(sink.PutRange(text.data(), text.data() + 7), 7);
    EXPECT_EQ(sink._flushes, 2);
    EXPECT_EQ(sink._text, "abcdef");
}

TEST(OutputBuffer, PutRangeReportsAFailedFlush) {
    std::string const text = "abcdef";
    Sink failing;
    failing._stuck = -3;
    EXPECT_EQ(failing.PutRange(text.data(), text.data() + 6), -3);
    Sink stuck;
    stuck._stuck = 5;
    EXPECT_EQ(stuck.PutRange(text.data(), text.data() + 6), -1);
}

} // namespace

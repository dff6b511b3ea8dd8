#ifndef BRANTLE_TESTS_SUPPORT_OVERRIDING_STREAMS_H
#define BRANTLE_TESTS_SUPPORT_OVERRIDING_STREAMS_H

#include <cstddef>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include <brantle/thornel/byte_string.h>
#include <brantle/thornel/sock_stream.h>
#include <brantle/thornel/string_t.h>

/// Streams derived by a program, which override Flush() or Fill(), and everything that can be done with them.
namespace support {

/// Every byte `by` higher.
inline std::string Shifted(std::string bytes, int by = 1) {
    for (char& byte : bytes) byte = static_cast<char>(byte + by);
    return bytes;
}

/// Counts the bytes that its Flush() sees, and its calls. `Side` is the one of its bases that has the buffer.
template <class Stream, class Side = Stream>
class CountingOutput : public Stream {
public:
    using Stream::Stream;
    int Flush() override {
        ++_flushes;
        _bytes += static_cast<std::size_t>(this->Side::_pos - this->Side::_start);
        return Stream::Flush();
    }
    int _flushes = 0;
    std::size_t _bytes = 0;
};

/// Passes each byte on one higher.
template <class Stream>
class ShiftingOutput : public Stream {
public:
    using Stream::Stream;
    int Flush() override {
        for (char* byte = this->_start; byte != this->_pos; ++byte) *byte = static_cast<char>(*byte + 1);
        return Stream::Flush();
    }
};

/// Counts the bytes that its Fill() brings.
template <class Stream>
class CountingInput : public Stream {
public:
    using Stream::Stream;
    int Fill() override {
        int const filled = Stream::Fill();
        if (filled > 0) _bytes += static_cast<std::size_t>(filled);
        return filled;
    }
    std::size_t _bytes = 0;
};

/// Gives each byte one lower.
template <class Stream>
class ShiftingInput : public Stream {
public:
    using Stream::Stream;
    int Fill() override {
        int const filled = Stream::Fill();
        if (filled < 1) return filled;
        for (char* byte = this->_pos; byte != this->_end; ++byte) *byte = static_cast<char>(*byte - 1);
        return filled;
    }
};

/// That many characters, no two neighbours of which are the same and none a line end.
inline std::string Letters(std::size_t size) {
    std::string text(size, '\0');
    for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>('a' + i % 23);
    return text;
}

/// A 32-bit number as the typed operators write it.
inline std::string WireNumber(std::size_t value) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(value >> shift & 0xff);
    return bytes;
}

/// Something to be done with an output stream.
struct WriteOperation {
    char const* _name;
    std::string _bytes; ///< that it writes
    std::function<void(OSockStream&)> _write;

    friend std::ostream& operator<<(std::ostream& out, WriteOperation const& operation) {
        return out << operation._name;
    }
};

inline std::vector<WriteOperation> WriteOperations() {
    std::string const large = Letters(20000);
    auto const write = [](char const* name, std::size_t size) {
        return WriteOperation{name, Letters(size), [size](OSockStream& out) {
                                  out.Write(Letters(size).data(), static_cast<int>(size));
                              }};
    };
    return {
        write("WriteSmall", 3),
        write("WriteBuffer", 8192),
        write("WriteOneMoreThanTheBuffer", 8193),
        write("WriteLarge", 20000),
        {"WriteSmallThenLarge", "abc" + large,
         [large](OSockStream& out) { out.Write("abc", 3).Write(large.data(), 20000); }},
        {"Put", large,
         [large](OSockStream& out) {
             for (char byte : large) out.Put(byte);
         }},
        {"Writeln", large + "\n", [large](OSockStream& out) { out.Writeln(String_t(large.data()), "\n"); }},
        {"Byte", "x", [](OSockStream& out) { out << static_cast<unsigned char>('x'); }},
        {"UnsignedInt", "abcd", [](OSockStream& out) { out << 0x61626364u; }},
        {"Int", "abcd", [](OSockStream& out) { out << 0x61626364; }},
        {"UnsignedLongLong", "abcdefgh", [](OSockStream& out) { out << 0x6162636465666768ull; }},
        {"LongLong", "abcdefgh", [](OSockStream& out) { out << 0x6162636465666768ll; }},
        {"SmallByteString", WireNumber(3) + "abc",
         [](OSockStream& out) { out << ByteString("abc", 3) << endm; }},
        {"LargeByteString", WireNumber(20000) + large,
         [large](OSockStream& out) { out << ByteString(large.data(), 20000) << endm; }},
    };
}

/// Something to be done with an input stream.
struct ReadOperation {
    char const* _name;
    std::string _bytes;                             ///< that it finds
    std::function<std::string(ISockStream&)> _read; ///< gives the bytes back that it has read

    friend std::ostream& operator<<(std::ostream& out, ReadOperation const& operation) {
        return out << operation._name;
    }
};

template <class Number>
std::string ReadBack(ISockStream& in) {
    Number number{};
    in >> number;
    std::string bytes(sizeof number, '\0');
    for (std::size_t i = bytes.size(); i-- > 0; number = static_cast<Number>(number >> 7 >> 1))
        bytes[i] = static_cast<char>(number & 0xff);
    return bytes;
}

inline std::vector<ReadOperation> ReadOperations() {
    std::string const large = Letters(20000);
    auto const read = [](char const* name, std::vector<int> sizes) {
        std::size_t all = 0;
        for (int size : sizes) all += static_cast<std::size_t>(size);
        return ReadOperation{name, Letters(all), [sizes, all](ISockStream& in) {
                                 std::string bytes(all, '\0');
                                 char* next = bytes.data();
                                 for (int size : sizes) next += in.Read(next, size).Gcount();
                                 return bytes;
                             }};
    };
    auto const readFrame = [](ISockStream& in) {
        ByteString frame;
        in >> frame;
        return WireNumber(frame.Length()) +
               std::string(reinterpret_cast<char const*>(frame.Data()), frame.Length());
    };
    auto const readLine = [](ISockStream& in) {
        String_t line;
        in.Readln(line, "\n");
        return std::string(line.Text()) + "\n";
    };
    return {
        read("ReadSmall", {3}),
        read("ReadBuffer", {8192}),
        read("ReadOneMoreThanTheBuffer", {8193}),
        read("ReadLarge", {20000}),
        read("ReadSmallThenLarge", {3, 20000}),
        {"Get", Letters(9000),
         [](ISockStream& in) {
             std::string bytes(9000, '\0');
             for (char& byte : bytes) in.Get(byte);
             return bytes;
         }},
        {"ReadlnShort", "line\n", readLine},
        {"ReadlnLong", Letters(9000) + "\n", readLine},
        {"Byte", "x", ReadBack<unsigned char>},
        {"UnsignedInt", "abcd", ReadBack<unsigned int>},
        {"Int", "abcd", ReadBack<int>},
        {"UnsignedLongLong", "abcdefgh", ReadBack<unsigned long long>},
        {"LongLong", "abcdefgh", ReadBack<long long>},
        {"SmallByteString", WireNumber(3) + "abc", readFrame},
        {"LargeByteString", WireNumber(20000) + large, readFrame},
    };
}

/// Names a parameterised test after its operation.
struct OperationName {
    template <class Info>
    std::string operator()(Info const& info) const {
        return info.param._name;
    }
};

} // namespace support

#endif

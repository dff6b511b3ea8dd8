#ifndef BRANTLE_STANDARD_BYTES_H
#define BRANTLE_STANDARD_BYTES_H

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <brantle/cindral/exceptions.h>

#include "foundations/cindral/secret_bytes.h"

namespace cindral::standard {

// The data types of RFC 4251, section 5, in memory.

using Bytes = std::vector<unsigned char>;

/// Bytes owned elsewhere, such as those of a packet; valid as long as their owner does not change them.
class View {
public:
    View() = default;
    View(unsigned char const* data, std::size_t size) : _data(data), _size(size) {}
    View(Bytes const& bytes) : View(bytes.data(), bytes.size()) {}
    View(SecretBytes const& bytes) : View(bytes.data(), bytes.size()) {}
    View(std::string_view text) : View(reinterpret_cast<unsigned char const*>(text.data()), text.size()) {}
    View(std::string const& text) : View(std::string_view(text)) {}
    View(char const* text) : View(std::string_view(text)) {}

    unsigned char const* data() const { return _data; }
    std::size_t size() const { return _size; }
    bool empty() const { return _size == 0; }
    unsigned char const* begin() const { return _data; }
    unsigned char const* end() const { return _data + _size; }
    /// REQUIRES: i < size().
    unsigned char operator[](std::size_t i) const { return _data[i]; }

    std::string_view Text() const { return {reinterpret_cast<char const*>(_data), _size}; }
    std::string Str() const { return std::string(Text()); }
    Bytes Copy() const { return Bytes(begin(), end()); }

private:
    unsigned char const* _data = nullptr;
    std::size_t _size = 0;
};

inline bool operator==(View const& a, View const& b) { return a.Text() == b.Text(); }
inline bool operator!=(View const& a, View const& b) { return !(a == b); }

/// The fields of a message, which follow its number. REQUIRES: the message is not empty.
inline View Fields(View message) { return View(message.begin() + 1, message.size() - 1); }

/// Reads the fields of a message in wire order. A field that runs past the end, and bytes after the last
/// field in End(), are an SshProtocolError that names the message.
class Reader {
public:
    /// `name` outlives the reader and is that of the message, such as "KEXINIT".
    Reader(View message, char const* name) : _pos(message.begin()), _end(message.end()), _name(name) {}

    unsigned char Byte() { return *Take(1); }
    bool Bool() { return Byte() != 0; }
    unsigned int Int() {
        unsigned char const* const p = Take(4);
        return static_cast<unsigned int>(p[0]) << 24 | static_cast<unsigned int>(p[1]) << 16 |
               static_cast<unsigned int>(p[2]) << 8 | static_cast<unsigned int>(p[3]);
    }
    View Fixed(std::size_t size) { return View(Take(size), size); }
    View String() {
        unsigned int const size = Int();
        return View(Take(size), size);
    }
    /// The body of an mpint, as received (RFC 4251, section 5).
    View Mpint() { return String(); }

    std::size_t Left() const { return static_cast<std::size_t>(_end - _pos); }
    View Rest() const { return View(_pos, Left()); }
    void End() const {
        if (_pos != _end) Fail("has bytes after its last field");
    }
    [[noreturn]] void Fail(char const* what) const {
        throw SshProtocolError((std::string(_name) + " message " + what).c_str());
    }

private:
    unsigned char const* Take(std::size_t size) {
        if (size > Left()) Fail("ends too early");
        unsigned char const* const taken = _pos;
        _pos += size;
        return taken;
    }

    unsigned char const* _pos;
    unsigned char const* _end;
    char const* _name;
};

inline void StoreInt(unsigned char* to, unsigned int value) {
    for (int i = 3; i >= 0; --i, value >>= 8) to[i] = static_cast<unsigned char>(value);
}

inline unsigned int LoadInt(unsigned char const* from) { return Reader(View(from, 4), "number").Int(); }

/// Appends fields in wire order to a byte array, Bytes or SecretBytes.
template <class Array>
class BasicWriter {
public:
    BasicWriter() = default;
    /// Starts with a message number.
    explicit BasicWriter(int number) { Byte(static_cast<unsigned char>(number)); }

    BasicWriter& Byte(unsigned char value) {
        _bytes.push_back(value);
        return *this;
    }
    BasicWriter& Bool(bool value) { return Byte(value ? 1 : 0); }
    BasicWriter& Int(unsigned int value) {
        unsigned char bytes[4];
        StoreInt(bytes, value);
        return Fixed(View(bytes, 4));
    }
    BasicWriter& Fixed(View bytes) {
        _bytes.insert(_bytes.end(), bytes.begin(), bytes.end());
        return *this;
    }
    BasicWriter& String(View bytes) { return Int(static_cast<unsigned int>(bytes.size())).Fixed(bytes); }
    /// A number from its big-endian magnitude, with or without leading zeros, as an mpint.
    BasicWriter& Mpint(View magnitude) {
        unsigned char const* first = magnitude.begin();
        while (first != magnitude.end() && *first == 0) ++first;
        auto const size = static_cast<std::size_t>(magnitude.end() - first);
        bool const sign = size > 0 && (*first & 0x80);
        Int(static_cast<unsigned int>(size + (sign ? 1 : 0)));
        if (sign) Byte(0);
        return Fixed(View(first, size));
    }

    Array const& Get() const { return _bytes; }
    Array&& Take() { return std::move(_bytes); }

private:
    Array _bytes;
};

using Writer = BasicWriter<Bytes>;
using SecretWriter = BasicWriter<SecretBytes>;

} // namespace cindral::standard

#endif

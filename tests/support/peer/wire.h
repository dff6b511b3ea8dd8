#ifndef TESTS_SUPPORT_PEER_WIRE_H
#define TESTS_SUPPORT_PEER_WIRE_H

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

/// The server's side of the wire for tests, written against only libcrypto and POSIX: it shares no code with
/// the library, so that no mistake is on both sides.
namespace peer {

using Bytes = std::vector<std::uint8_t>;

/// A failure at the peer: the client violated the protocol, closed, or a wait took too long.
class PeerError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

Bytes ToBytes(std::string_view text);
std::string ToText(Bytes const& bytes);
Bytes Concat(std::initializer_list<Bytes> parts);
Bytes Slice(Bytes const& bytes, std::size_t from, std::size_t count);
std::string Hex(Bytes const& bytes);
Bytes FromHex(std::string_view hex);

/// Empty if both are the same, else the first differing index with a few bytes of each side around it.
std::string Difference(Bytes const& expected, Bytes const& actual);

/// Builds the wire types of RFC 4251, section 5.
class Writer {
public:
    Writer& U8(unsigned value);
    Writer& U32(std::uint32_t value);
    Writer& U64(std::uint64_t value);
    Writer& Bool(bool value) { return U8(value ? 1 : 0); }
    Writer& Raw(Bytes const& bytes);
    Writer& Raw(std::string_view text) { return Raw(ToBytes(text)); }
    Writer& String(Bytes const& bytes);
    Writer& String(std::string_view text) { return String(ToBytes(text)); }
    /// A non-negative number given as its big-endian bytes, with or without leading zeros.
    Writer& Mpint(Bytes const& magnitude);
    Writer& NameList(std::vector<std::string> const& names);

    Bytes const& Data() const { return _data; }
    operator Bytes const&() const { return _data; }

private:
    Bytes _data;
};

/// Reads them back. Every operation throws PeerError at a premature end.
class Reader {
public:
    explicit Reader(Bytes data) : _data(std::move(data)) {}

    std::uint8_t U8();
    std::uint32_t U32();
    std::uint64_t U64();
    bool Bool() { return U8() != 0; }
    Bytes Raw(std::size_t count);
    Bytes Blob();
    std::string String() { return ToText(Blob()); }
    /// The big-endian bytes without leading zeros; a negative or not minimal number throws.
    Bytes Mpint();
    std::vector<std::string> NameList();

    std::size_t Left() const { return _data.size() - _at; }
    Bytes Rest() { return Raw(Left()); }
    /// Throws if anything is left.
    void End() const;

private:
    Bytes _data;
    std::size_t _at = 0;
};

std::vector<std::string> SplitNames(std::string_view list);
std::string JoinNames(std::vector<std::string> const& names);
bool HasName(std::string_view list, std::string_view name);
/// The first name of the client's list that is in the server's, too (RFC 4253, section 7.1).
std::string FirstCommon(std::string_view client, std::string_view server);

} // namespace peer

#endif

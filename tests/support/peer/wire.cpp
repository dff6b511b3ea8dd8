#include <algorithm>

#include "support/peer/wire.h"

namespace peer {

namespace {

unsigned HexDigit(char c) {
    if (c >= '0' && c <= '9') return static_cast<unsigned>(c - '0');
    if (c >= 'a' && c <= 'f') return static_cast<unsigned>(c - 'a') + 10;
    if (c >= 'A' && c <= 'F') return static_cast<unsigned>(c - 'A') + 10;
    throw PeerError(std::string("not a hexadecimal digit: ") + c);
}

} // namespace

Bytes ToBytes(std::string_view text) { return Bytes(text.begin(), text.end()); }

std::string ToText(Bytes const& bytes) { return std::string(bytes.begin(), bytes.end()); }

Bytes Concat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (Bytes const& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

Bytes Slice(Bytes const& bytes, std::size_t from, std::size_t count) {
    from = std::min(from, bytes.size());
    count = std::min(count, bytes.size() - from);
    auto const start = bytes.begin() + static_cast<std::ptrdiff_t>(from);
    return Bytes(start, start + static_cast<std::ptrdiff_t>(count));
}

std::string Hex(Bytes const& bytes) {
    static char const digits[] = "0123456789abcdef";
    std::string text;
    for (std::uint8_t byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

Bytes FromHex(std::string_view hex) {
    if (hex.size() % 2 != 0) throw PeerError("odd number of hexadecimal digits");
    Bytes bytes;
    for (std::size_t i = 0; i < hex.size(); i += 2)
        bytes.push_back(static_cast<std::uint8_t>(HexDigit(hex[i]) << 4 | HexDigit(hex[i + 1])));
    return bytes;
}

std::string Difference(Bytes const& expected, Bytes const& actual) {
    if (expected == actual) return "";
    auto const [here, there] = std::mismatch(expected.begin(), expected.end(), actual.begin(), actual.end());
    auto const at = static_cast<std::size_t>(here - expected.begin());
    std::size_t const from = at < 8 ? 0 : at - 8;
    return "byte " + std::to_string(at) + " differs (expected " + std::to_string(expected.size()) +
           " bytes, got " + std::to_string(actual.size()) + "); from byte " + std::to_string(from) +
           ": expected " + Hex(Slice(expected, from, 24)) + ", got " + Hex(Slice(actual, from, 24));
}

Writer& Writer::U8(unsigned value) {
    _data.push_back(static_cast<std::uint8_t>(value));
    return *this;
}

Writer& Writer::U32(std::uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) U8(value >> shift & 0xff);
    return *this;
}

Writer& Writer::U64(std::uint64_t value) {
    return U32(static_cast<std::uint32_t>(value >> 32)).U32(static_cast<std::uint32_t>(value));
}

Writer& Writer::Raw(Bytes const& bytes) {
    _data.insert(_data.end(), bytes.begin(), bytes.end());
    return *this;
}

Writer& Writer::String(Bytes const& bytes) {
    return U32(static_cast<std::uint32_t>(bytes.size())).Raw(bytes);
}

Writer& Writer::Mpint(Bytes const& magnitude) {
    auto const first = std::find_if(magnitude.begin(), magnitude.end(), [](auto byte) { return byte != 0; });
    Bytes number(first, magnitude.end());
    if (!number.empty() && (number[0] & 0x80) != 0) number.insert(number.begin(), 0);
    return String(number);
}

Writer& Writer::NameList(std::vector<std::string> const& names) { return String(JoinNames(names)); }

std::uint8_t Reader::U8() { return Raw(1)[0]; }

std::uint32_t Reader::U32() {
    std::uint32_t value = 0;
    for (std::uint8_t byte : Raw(4)) value = value << 8 | byte;
    return value;
}

std::uint64_t Reader::U64() {
    std::uint64_t const high = U32();
    return high << 32 | U32();
}

Bytes Reader::Raw(std::size_t count) {
    if (count > Left())
        throw PeerError("message ends early: " + std::to_string(count) + " bytes wanted, " +
                        std::to_string(Left()) + " left");
    Bytes bytes = Slice(_data, _at, count);
    _at += count;
    return bytes;
}

Bytes Reader::Blob() { return Raw(U32()); }

Bytes Reader::Mpint() {
    Bytes number = Blob();
    if (number.empty()) return number;
    if ((number[0] & 0x80) != 0) throw PeerError("negative mpint");
    if (number[0] != 0) return number;
    if (number.size() == 1 || (number[1] & 0x80) == 0) throw PeerError("mpint with a needless leading zero");
    number.erase(number.begin());
    return number;
}

std::vector<std::string> Reader::NameList() { return SplitNames(String()); }

void Reader::End() const {
    if (Left() != 0) throw PeerError(std::to_string(Left()) + " bytes after the last field");
}

std::vector<std::string> SplitNames(std::string_view list) {
    std::vector<std::string> names;
    while (!list.empty()) {
        std::size_t const comma = list.find(',');
        names.emplace_back(list.substr(0, comma));
        if (comma == std::string_view::npos) break;
        list.remove_prefix(comma + 1);
    }
    return names;
}

std::string JoinNames(std::vector<std::string> const& names) {
    std::string list;
    for (std::string const& name : names) {
        if (!list.empty()) list += ',';
        list += name;
    }
    return list;
}

bool HasName(std::string_view list, std::string_view name) {
    auto const names = SplitNames(list);
    return std::find(names.begin(), names.end(), name) != names.end();
}

std::string FirstCommon(std::string_view client, std::string_view server) {
    for (std::string const& name : SplitNames(client))
        if (HasName(server, name)) return name;
    throw PeerError("nothing common in \"" + std::string(client) + "\" and \"" + std::string(server) + "\"");
}

} // namespace peer

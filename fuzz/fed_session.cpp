#include <algorithm>

#include "fed_session.h"

namespace fuzz {

namespace {

constexpr std::size_t PIECE = 1000; ///< so that long inputs are cut within what belongs together
constexpr unsigned int BLOCK = 8;
constexpr unsigned int LEAST_PADDING = 4;

std::string Number(std::size_t number) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(number >> shift & 0xff);
    return bytes;
}

/// RFC 4253, section 6.
std::string Packet(std::string const& payload) {
    std::size_t const padding = BLOCK + LEAST_PADDING - (payload.size() + LEAST_PADDING + 5) % BLOCK;
    return Number(1 + payload.size() + padding) + static_cast<char>(padding) + payload +
           std::string(padding, '\0');
}

} // namespace

std::string ChannelPackets(std::string const& bytes) {
    std::string const channel = Number(0);
    std::string packets = Packet('\x5b' + channel + Number(7) + Number(1 << 20) + Number(1 << 15));
    for (std::size_t at = 0; at < bytes.size(); at += PIECE) {
        std::string const piece = bytes.substr(at, PIECE);
        packets += Packet('\x5e' + channel + Number(piece.size()) + piece);
    }
    return packets;
}

} // namespace fuzz

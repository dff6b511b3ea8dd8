// What comes from the socket of a connection with the standard dialect, in packets of RFC 4253, section 6.
//
// The first byte of the input chooses the cipher and whether the peer has the keys. One that has them sends
// each packet with a tag that is right and a content of its choice: its size in two bytes, then the packet
// from its length field on. Of one that has none no packet may ever be taken.

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>

#include <brantle/cindral/exceptions.h>

#include "finding.h"
#include "standard/transport.h"

using namespace cindral::standard;
using cindral::SshProtocolError;
using fuzz::Require;

namespace {

constexpr std::size_t LARGEST_INPUT = 0x8000; ///< what a socket takes without a reader

struct Algorithms {
    char const* cipher;
    char const* mac;
};

constexpr Algorithms CIPHERS[] = {
    {nullptr, nullptr},
    {"aes128-gcm@openssh.com", ""},
    {"chacha20-poly1305@openssh.com", ""},
    {"aes128-ctr", "hmac-sha2-256"},
    {"aes256-ctr", "hmac-sha2-512-etm@openssh.com"},
};
constexpr unsigned int KINDS = sizeof CIPHERS / sizeof *CIPHERS;

cindral::SecretBytes Secret() { return cindral::SecretBytes(64, 7); }
DirectionKeys Keys() { return {Secret(), Secret(), Secret()}; }

/// The packets that a peer with the keys makes of the input.
Bytes Seal(PacketSealer& sealer, View input) {
    Bytes wire;
    for (unsigned int sequence = 0; input.size() > 2; ++sequence) {
        auto const wanted = static_cast<std::size_t>(input[0] << 8 | input[1]);
        std::size_t size = std::min<std::size_t>(wanted, input.size() - 2);
        std::size_t const outside = sealer.LengthIsOutside() ? 4 : 0;
        if (size < outside + sealer.Alignment()) break;
        std::size_t const aligned = size - (size - outside) % sealer.Alignment();
        std::size_t const at = wire.size();
        wire.insert(wire.end(), input.data() + 2, input.data() + 2 + aligned);
        wire.resize(wire.size() + sealer.TagSize());
        sealer.Seal(sequence, wire.data() + at, aligned);
        input = View(input.data() + 2 + size, input.size() - 2 - size);
    }
    return wire;
}

void ReadAll(Transport& transport, bool mayHavePackets) {
    View message;
    for (;;) {
        while (transport.Next(message)) {
            Require(mayHavePackets, "Next", "takes a forged packet");
            Require(message.size() > 0, "Next", "gives an empty message");
            volatile unsigned char const last = message[message.size() - 1]; // is there, says the sanitizer
            (void)last;
        }
        transport.Fill(); // throws at the end
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size == 0 || size > LARGEST_INPUT) return 0;
    Algorithms const& chosen = CIPHERS[data[0] % KINDS];
    bool const hasKeys = data[0] / KINDS % 2 == 1;
    Bytes wire(data + 1, data + size);
    Transport transport;
    if (chosen.cipher) {
        auto const sealer = PacketSealer::Create(chosen.cipher, chosen.mac, Keys());
        if (hasKeys) wire = Seal(*sealer, View(data + 1, size - 1));
        transport.SetInputKeys(PacketOpener::Create(chosen.cipher, chosen.mac, Keys()), true);
    }
    int ends[2];
    Require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "socketpair", "failed");
    Require(write(ends[1], wire.data(), wire.size()) == static_cast<ssize_t>(wire.size()), "write", "failed");
    close(ends[1]);
    transport.Attach(ends[0]);
    try {
        ReadAll(transport, !chosen.cipher || hasKeys);
    } catch (SshProtocolError const&) {
    }
    close(ends[0]);
    return 0;
}

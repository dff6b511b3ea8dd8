// Packets of a server with lengths, padding and tags that RFC 4253, section 6, does not permit, under each
// cipher of the standard dialect.

#include "wire/standard_fixture.h"

using namespace peer;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

struct Cipher {
    char const* name;
    char const* cipher; ///< null: none, as before the first keys
    char const* mac;
};

constexpr std::uint32_t LARGEST = 0x40000; ///< packet length that is accepted

class StandardFraming : public StandardTest, public testing::WithParamInterface<Cipher> {
protected:
    /// The outcome at a server that goes on with these bytes, sealed as a packet. It then waits.
    std::string After(Bytes const& plain) {
        return AfterScript([plain](StandardConnection& c) { c.SendSealed(plain); });
    }
    std::string AfterScript(Script const& script) {
        if (GetParam().cipher) settings.Pin(GetParam().cipher, GetParam().mac);
        settings.strict = false;
        StandardResult const result = RunFrom([script](StandardConnection& c) {
            c.Identify();
            if (GetParam().cipher) c.Exchange();
            script(c);
            c.ReadToTheEnd();
        });
        EXPECT_EQ(server->Error(), "");
        EXPECT_FALSE(result.isAuthenticated);
        return result.outcome;
    }
    std::size_t Block() const {
        bool const isWide = GetParam().cipher && std::string(GetParam().cipher)[0] == 'a';
        return isWide ? 16 : 8;
    }
    /// Whether the length field doesn't count for the alignment.
    bool LengthIsOutside() const {
        std::string const cipher = GetParam().cipher ? GetParam().cipher : "";
        return cipher.find("gcm") != std::string::npos || cipher[0] == 'c' ||
               std::string(GetParam().mac).find("etm") != std::string::npos;
    }
    /// A packet of that size, the length field not counted, which announces that padding.
    Bytes Packet(std::size_t length, unsigned padding) const {
        Bytes plain = Writer().U32(static_cast<std::uint32_t>(length)).U8(padding).U8(IGNORE).U32(0);
        plain.resize(4 + length);
        return plain;
    }
    std::size_t AlignedLength() const { return LengthIsOutside() ? 2 * Block() : 2 * Block() - 4; }
};

TEST_P(StandardFraming, LengthOutOfBoundsIsRefusedAtOnce) {
    std::vector<std::uint32_t> lengths{0, 1, 4, 5, 0x7fffffff, 0x80000000, 0xffffffff};
    auto const aligned = static_cast<std::uint32_t>(LengthIsOutside() ? 0 : Block() - 4);
    lengths.push_back(LARGEST + static_cast<std::uint32_t>(LengthIsOutside() ? Block() : Block() - 4));
    lengths.push_back(0x10000000 + aligned);
    lengths.push_back(0x80000000 + aligned);
    lengths.push_back(0 - static_cast<std::uint32_t>(LengthIsOutside() ? Block() : 4));
    for (std::uint32_t const length : lengths) {
        Bytes plain = Packet(AlignedLength(), 4);
        Bytes const field = Writer().U32(length);
        std::copy(field.begin(), field.end(), plain.begin());
        EXPECT_THAT(After(plain), HasSubstr("SshProtocolError: packet length out of bounds")) << length;
    }
}

TEST_P(StandardFraming, LengthThatIsNoMultipleOfTheBlockIsRefused) {
    for (std::size_t off = 1; off < Block(); ++off) {
        Bytes plain = Packet(AlignedLength(), 4);
        plain[3] = static_cast<std::uint8_t>(plain[3] + off);
        EXPECT_THAT(After(plain), HasSubstr("SshProtocolError: packet length out of bounds")) << off;
    }
}

TEST_P(StandardFraming, PaddingOutOfBoundsIsRefused) {
    auto const length = static_cast<unsigned>(AlignedLength());
    for (unsigned padding : {0u, 1u, 2u, 3u, length - 1, length, length + 1, 255u})
        EXPECT_THAT(After(Packet(length, padding)), HasSubstr("SshProtocolError: padding out of bounds"))
            << padding;
}

TEST_P(StandardFraming, LargestPacketIsAccepted) {
    std::string const outcome = AfterScript([&](StandardConnection& c) {
        std::size_t const length = LengthIsOutside() ? LARGEST : LARGEST - 4;
        Bytes plain = Packet(length, 255);
        plain[9] = 0; // an IGNORE, whose fields are not looked at
        c.SendSealed(plain);
        c.SendPacket(Disconnect("the packet was taken"));
    });
    EXPECT_THAT(outcome, HasSubstr("the packet was taken"));
}

INSTANTIATE_TEST_SUITE_P(Ciphers, StandardFraming,
                         testing::Values(Cipher{"none", nullptr, ""},
                                         Cipher{"ctr", "aes128-ctr", "hmac-sha2-256"},
                                         Cipher{"etm", "aes128-ctr", "hmac-sha2-256-etm@openssh.com"},
                                         Cipher{"gcm", "aes128-gcm@openssh.com", ""},
                                         Cipher{"chacha", "chacha20-poly1305@openssh.com", ""}),
                         [](auto const& param) { return std::string(param.param.name); });

} // namespace

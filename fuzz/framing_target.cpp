// The framing of packets.
//
// The first byte of the input chooses the keys; what follows is what comes from the socket. Without a cipher
// the packets read are compared with a second reading. Then the same bytes go through the framing as the
// data of a message, and have to come out of it unchanged.

#include <cstring>
#include <string>
#include <string_view>

#include <brantle/cindral/exceptions.h>
#include <brantle/packet/packet_decoder.h>
#include <brantle/packet/packet_stream.h>
#include <brantle/packet/transport_messages.h>

#include "finding.h"
#include "memory_file.h"

using namespace cindral;
using fuzz::Require;

namespace {

constexpr std::uint32_t LONGEST_PACKET = 0x40000;
constexpr std::size_t LENGTH_FIELD = 4;

enum Keys { NO_KEYS, CIPHER, CIPHER_AND_MAC, KINDS };

/// The keys of one direction.
struct Direction {
    Direction(Keys keys, BlockCipher::Mode mode) {
        unsigned char const secret[32] = {1, 2, 3};
        ByteString const key(secret, sizeof(secret));
        if (keys != NO_KEYS) cipher.Redefine("aes128-ctr", mode, key, key);
        if (keys == CIPHER_AND_MAC) mac.Redefine("hmac-sha1", key);
    }
    BlockCipher cipher;
    Mac mac;
};

/// Cuts unencrypted bytes into packets.
class Cutter {
public:
    explicit Cutter(std::string_view bytes) : _rest(bytes) {}

    /// Whether the next packet can be read, as `_packet`.
    bool Next() {
        std::uint32_t length = 0;
        if (_rest.size() < LENGTH_FIELD) return false;
        for (char const byte : _rest.substr(0, LENGTH_FIELD))
            length = length << 8 | static_cast<unsigned char>(byte);
        if (length < 2 || length > LONGEST_PACKET) return false;
        // Bytes of the first block that do not belong to so short a packet go to the next one.
        _isUsual = length >= LENGTH_FIELD;
        _rest.remove_prefix(LENGTH_FIELD);
        _packet = _rest.substr(0, length);
        _rest.remove_prefix(_packet.size());
        _packet.resize(length); // what is missing reads as zeros
        return true;
    }

    std::string _packet;
    bool _isUsual = true;

private:
    std::string_view _rest;
};

bool Read(ISshPacketStream& in, ByteString& packet) {
    try {
        packet = in.ReadPacket();
        return packet.Length() > 0;
    } catch (SshProtocolError const&) {
        return false;
    }
}

void ReadAll(Keys keys, std::string const& bytes) {
    Direction direction(keys, BlockCipher::DECRYPT);
    ISshPacketStream in(direction.cipher, direction.mac);
    in._socketBuffer.Bind(fuzz::MemoryFile(bytes));
    Cutter cutter(bytes);
    bool compare = keys == NO_KEYS;
    ByteString packet;
    while (Read(in, packet)) {
        compare = compare && cutter.Next() && cutter._isUsual;
        if (!compare) {
            Require(keys != NO_KEYS || !cutter._isUsual, "ReadPacket", "a packet where there is none");
            continue;
        }
        Require(packet.Length() == cutter._packet.size() &&
                    std::memcmp(packet.Data(), cutter._packet.data(), packet.Length()) == 0,
                "ReadPacket", "other bytes than were sent");
    }
    Require(!compare || !cutter.Next(), "ReadPacket", "a packet is missing");
}

void WriteAndRead(Keys keys, std::string const& bytes) {
    ByteString const data(bytes.data(), static_cast<unsigned int>(bytes.size()));
    Direction sending(keys, BlockCipher::ENCRYPT);
    OSshPacketStream out(sending.cipher, sending.mac);
    int const file = fuzz::MemoryFile("");
    out._socketBuffer.Bind(file);
    for (int i = 0; i < 2; ++i) {
        PacketIgnore message(data);
        out.WritePacket(message);
    }
    fuzz::Rewind(file);

    Direction receiving(keys, BlockCipher::DECRYPT);
    ISshPacketStream in(receiving.cipher, receiving.mac);
    in._socketBuffer.Bind(file);
    for (int i = 0; i < 2; ++i) {
        PacketDecoder decoder(in.ReadPacket());
        Require(PacketIgnore(decoder)._data == data, "WritePacket", "the message has changed on its way");
    }
    Require(in._byteCount == out._byteCount, "ReadPacket", "counts other than WritePacket");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size == 0) return 0;
    auto const keys = static_cast<Keys>(data[0] % KINDS);
    std::string const bytes(reinterpret_cast<char const*>(data) + 1, size - 1);
    ReadAll(keys, bytes);
    WriteAndRead(keys, bytes);
    return 0;
}

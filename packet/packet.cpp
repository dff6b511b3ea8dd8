#include <brantle/packet/packet.h>

#include <brantle/cindral/block_cipher.h>
#include <brantle/cindral/exceptions.h>
#include <brantle/packet/packet_decoder.h>
#include <brantle/packet/packet_encoder.h>

namespace cindral {

// Some numbers mean two or three messages, each in its own stage of the protocol; one name is used for all.
// clang-format off
char const* const Packet::_messages[101] = {
    nullptr, // 0
    "SSH_MSG_DISCONNECT",
    "SSH_MSG_IGNORE",
    "SSH_MSG_UNIMPLEMENTED",
    "SSH_MSG_DEBUG",
    "SSH_MSG_SERVICE_REQUEST",
    "SSH_MSG_SERVICE_ACCEPT",
    nullptr, nullptr, nullptr,
    nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, // 10
    "SSH_MSG_KEXINIT", // 20
    "SSH_MSG_NEWKEYS",
    nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
    "SSH_MSG_KEXDH_INIT", // 30
    "SSH_MSG_KEXDH_REPLY",
    "SSH_MSG_KEX_DH_GEX_INIT",
    "SSH_MSG_KEX_DH_GEX_REPLY",
    "SSH_MSG_KEX_DH_GEX_REQUEST",
    nullptr, nullptr, nullptr, nullptr, nullptr,
    nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, // 40
    "SSH_MSG_USERAUTH_REQUEST", // 50
    "SSH_MSG_USERAUTH_FAILURE",
    "SSH_MSG_USERAUTH_SUCCESS",
    "SSH_MSG_USERAUTH_BANNER",
    nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
    "SSH_MSG_USERAUTH_INFO_REQUEST", // 60
    "SSH_MSG_USERAUTH_INFO_RESPONSE",
    nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
    nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, // 70
    "SSH_MSG_GLOBAL_REQUEST", // 80
    "SSH_MSG_REQUEST_SUCCESS",
    "SSH_MSG_REQUEST_FAILURE",
    nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
    "SSH_MSG_CHANNEL_OPEN", // 90
    "SSH_MSG_CHANNEL_OPEN_CONFIRMATION",
    "SSH_MSG_CHANNEL_OPEN_FAILURE",
    "SSH_MSG_CHANNEL_WINDOW_ADJUST",
    "SSH_MSG_CHANNEL_DATA",
    "SSH_MSG_CHANNEL_EXTENDED_DATA",
    "SSH_MSG_CHANNEL_EOF",
    "SSH_MSG_CHANNEL_CLOSE",
    "SSH_MSG_CHANNEL_REQUEST",
    "SSH_MSG_CHANNEL_SUCCESS",
    "SSH_MSG_CHANNEL_FAILURE", // 100
};
// clang-format on

Packet::Packet(int type) : _padLen(0), _type(type) {}

Packet::Packet(int type, ByteString const& raw) : _payload(raw), _padLen(0), _type(type) {
    if (raw.Length() == 0) return;
    _padLen = *raw.Data();
    // The length wraps where the padding exceeds the packet; SubStr takes it as "all the rest".
    _payload = raw.SubStr(1, raw.Length() - 1 - static_cast<unsigned int>(_padLen));
}

Packet::~Packet() = default;

ByteString Packet::Payload(BlockCipher&) { return _payload; }

char const* Packet::MsgName(unsigned int number) {
    return number > 100 ? "UNKNOWN_MESSAGE" : _messages[number];
}

ByteString Packet::EncodeOnce(BlockCipher& cipher, unsigned int capacity, void const* writer,
                              void (*write)(void const*, PacketEncoder&)) {
    if (_payload.Length() > 0) return _payload;
    PacketEncoder encoder(capacity);
    encoder.WriteTypeCode(_type);
    write(writer, encoder);
    _padLen = encoder.PadLen(cipher._rep->BlockSize());
    _payload = encoder.Release();
    return _payload;
}

unsigned int Packet::BeginDecode(PacketDecoder& decoder, char const* wrongType) {
    unsigned int const padding = decoder.ReadByte();
    int const type = decoder.ReadTypeCode();
    if (wrongType && type != _type) throw SshProtocolError(wrongType, type);
    _type = type;
    return padding;
}

void Packet::EndDecode(PacketDecoder& decoder, unsigned int padding) { decoder.Skip(padding); }

} // namespace cindral

#ifndef BRANTLE_PACKET_PACKET_H
#define BRANTLE_PACKET_PACKET_H

#include <brantle/export.h>
#include <brantle/thornel/byte_string.h>

namespace cindral {

class BlockCipher;
class PacketDecoder;
class PacketEncoder;

/// Base of all SSH messages (RFC 4250, section 4.1).
///
/// A message is built from its fields and encoded once by `Payload`, or built from a received packet through
/// a `PacketDecoder`. A derived class declares its fields in wire order; this class handles the message
/// number, the padding, the storage of the encoded bytes and the check that decoding consumes the whole
/// packet.
///
/// A message must be used on one thread.
class BRANTLE_API Packet {
public:
    static constexpr int SSH_MSG_DISCONNECT = 1;
    static constexpr int SSH_MSG_IGNORE = 2;
    static constexpr int SSH_MSG_UNIMPLEMENTED = 3;
    static constexpr int SSH_MSG_DEBUG = 4;
    static constexpr int SSH_MSG_SERVICE_REQUEST = 5;
    static constexpr int SSH_MSG_SERVICE_ACCEPT = 6;
    static constexpr int SSH_MSG_KEXINIT = 20;
    static constexpr int SSH_MSG_NEWKEYS = 21;
    static constexpr int SSH_MSG_KEXDH_INIT = 30;
    static constexpr int SSH_MSG_KEX_DH_GEX_REQUEST_OLD = 30;
    static constexpr int SSH_MSG_KEXDH_REPLY = 31;
    static constexpr int SSH_MSG_KEX_DH_GEX_GROUP = 31;
    static constexpr int SSH_MSG_KEX_DH_GEX_INIT = 32;
    static constexpr int SSH_MSG_KEX_DH_GEX_REPLY = 33;
    static constexpr int SSH_MSG_KEX_DH_GEX_REQUEST = 34;
    static constexpr int SSH_MSG_USERAUTH_REQUEST = 50;
    static constexpr int SSH_MSG_USERAUTH_FAILURE = 51;
    static constexpr int SSH_MSG_USERAUTH_SUCCESS = 52;
    static constexpr int SSH_MSG_USERAUTH_BANNER = 53;
    static constexpr int SSH_MSG_USERAUTH_PK_OK = 60;
    static constexpr int SSH_MSG_USERAUTH_PASSWD_CHANGEREQ = 60;
    static constexpr int SSH_MSG_USERAUTH_INFO_REQUEST = 60;
    static constexpr int SSH_MSG_USERAUTH_INFO_RESPONSE = 61;
    static constexpr int SSH_MSG_GLOBAL_REQUEST = 80;
    static constexpr int SSH_MSG_REQUEST_SUCCESS = 81;
    static constexpr int SSH_MSG_REQUEST_FAILURE = 82;
    static constexpr int SSH_MSG_CHANNEL_OPEN = 90;
    static constexpr int SSH_MSG_CHANNEL_OPEN_CONFIRMATION = 91;
    static constexpr int SSH_MSG_CHANNEL_OPEN_FAILURE = 92;
    static constexpr int SSH_MSG_CHANNEL_WINDOW_ADJUST = 93;
    static constexpr int SSH_MSG_CHANNEL_DATA = 94;
    static constexpr int SSH_MSG_CHANNEL_EXTENDED_DATA = 95;
    static constexpr int SSH_MSG_CHANNEL_EOF = 96;
    static constexpr int SSH_MSG_CHANNEL_CLOSE = 97;
    static constexpr int SSH_MSG_CHANNEL_REQUEST = 98;
    static constexpr int SSH_MSG_CHANNEL_SUCCESS = 99;
    static constexpr int SSH_MSG_CHANNEL_FAILURE = 100;

    /// Reasons of SSH_MSG_DISCONNECT (RFC 4253, section 11.1).
    static constexpr int SSH_DISCONNECT_HOST_NOT_ALLOWED_TO_CONNECT = 1;
    static constexpr int SSH_DISCONNECT_PROTOCOL_ERROR = 2;
    static constexpr int SSH_DISCONNECT_KEY_EXCHANGE_FAILED = 3;
    static constexpr int SSH_DISCONNECT_RESERVED = 4;
    static constexpr int SSH_DISCONNECT_MAC_ERROR = 5;
    static constexpr int SSH_DISCONNECT_COMPRESSION_ERROR = 6;
    static constexpr int SSH_DISCONNECT_SERVICE_NOT_AVAILABLE = 7;
    static constexpr int SSH_DISCONNECT_PROTOCOL_VERSION_NOT_SUPPORTED = 8;
    static constexpr int SSH_DISCONNECT_HOST_KEY_NOT_VERIFIABLE = 9;
    static constexpr int SSH_DISCONNECT_CONNECTION_LOST = 10;
    static constexpr int SSH_DISCONNECT_BY_APPLICATION = 11;
    static constexpr int SSH_DISCONNECT_TOO_MANY_CONNECTIONS = 12;
    static constexpr int SSH_DISCONNECT_AUTH_CANCELLED_BY_USER = 13;
    static constexpr int SSH_DISCONNECT_NO_MORE_AUTH_METHODS_AVAILABLE = 14;
    static constexpr int SSH_DISCONNECT_ILLEGAL_USER_NAME = 15;

    /// Reasons of SSH_MSG_CHANNEL_OPEN_FAILURE (RFC 4254, section 5.1).
    static constexpr int SSH_OPEN_ADMINISTRATIVELY_PROHIBITED = 1;
    static constexpr int SSH_OPEN_CONNECT_FAILED = 2;
    static constexpr int SSH_OPEN_UNKNOWN_CHANNEL_TYPE = 3;
    static constexpr int SSH_OPEN_RESOURCE_SHORTAGE = 4;

    /// Data type of SSH_MSG_CHANNEL_EXTENDED_DATA (RFC 4254, section 5.2).
    static constexpr int SSH_EXTENDED_DATA_STDERR = 1;

    /// Name of each message number; null for a number that has none.
    static char const* const _messages[101];

    /// A message with that number, not encoded yet.
    explicit Packet(int type);

    /// A received message: `raw` is padding length, payload and padding, as `ISshPacketStream::ReadPacket`
    /// returns it. Its payload is stored in `_payload`; if `raw` is empty, so is the payload. If the padding
    /// length exceeds the packet, the payload is everything after the first byte.
    Packet(int type, ByteString const& raw);

    virtual ~Packet();

    /// The encoded message, shared: message number and fields, without framing. The first call encodes, with
    /// padding for the block size of `cipher`; later calls return the same bytes. A class that is only
    /// received returns the payload stored from the packet.
    virtual ByteString Payload(BlockCipher& cipher);

    /// Name of a message number; null for a number up to 100 without a name, "UNKNOWN_MESSAGE" above 100.
    static char const* MsgName(unsigned int number);

    ByteString _payload; ///< the encoded message; empty before it is encoded
    int _padLen;         ///< bytes of padding; only the low 8 bits are used
    int _type;           ///< message number

protected:
    /// Initial size of the encoder's buffer: for most messages, and for those with long texts.
    static constexpr unsigned int SMALL = 256;
    static constexpr unsigned int LARGE = 1024;

    /// Passed as `wrongType`: every message number is accepted and stored in `_type`.
    static constexpr char const* ANY_TYPE = nullptr;

    /// The body of a `Payload` function: encodes the message number and what `fields(PacketEncoder&)` writes,
    /// unless the message has already been encoded.
    template <typename Fields>
    ByteString Encode(BlockCipher& cipher, unsigned int capacity, Fields const& fields) {
        return EncodeOnce(cipher, capacity, &fields, [](void const* writer, PacketEncoder& encoder) {
            (*static_cast<Fields const*>(writer))(encoder);
        });
    }

    /// The body of a decoding constructor: checks the message number, calls `fields(PacketDecoder&)` to read,
    /// and refuses anything after fields and padding. A wrong number throws an `SshProtocolError` with the
    /// text `wrongType` and the number received.
    template <typename Fields>
    void Decode(PacketDecoder& decoder, char const* wrongType, Fields const& fields) {
        unsigned int const padding = BeginDecode(decoder, wrongType);
        fields(decoder);
        EndDecode(decoder, padding);
    }

private:
    ByteString EncodeOnce(BlockCipher& cipher, unsigned int capacity, void const* writer,
                          void (*write)(void const*, PacketEncoder&));
    unsigned int BeginDecode(PacketDecoder& decoder, char const* wrongType);
    static void EndDecode(PacketDecoder& decoder, unsigned int padding);
};

} // namespace cindral

#endif

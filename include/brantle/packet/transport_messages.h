#ifndef BRANTLE_PACKET_TRANSPORT_MESSAGES_H
#define BRANTLE_PACKET_TRANSPORT_MESSAGES_H

#include <brantle/export.h>
#include <brantle/packet/packet.h>
#include <brantle/thornel/byte_string.h>
#include <brantle/thornel/string_t.h>

namespace cindral {

/// Ends the connection (RFC 4253, section 11.1).
class BRANTLE_API PacketDisconnect : public Packet {
public:
    PacketDisconnect(int reason, String_t const& description, String_t const& language);
    explicit PacketDisconnect(PacketDecoder& decoder);
    ByteString Payload(BlockCipher& cipher) override;

    int _reason = 0; ///< one of `SSH_DISCONNECT_...`
    String_t _description;
    String_t _language;
};

/// Data that the receiver ignores (RFC 4253, section 11.2).
class BRANTLE_API PacketIgnore : public Packet {
public:
    explicit PacketIgnore(ByteString const& data);
    explicit PacketIgnore(PacketDecoder& decoder);
    ByteString Payload(BlockCipher& cipher) override;

    ByteString _data;
};

/// Requests a service by name (RFC 4253, section 10).
class BRANTLE_API PacketServiceRequest : public Packet {
public:
    explicit PacketServiceRequest(String_t const& service);
    explicit PacketServiceRequest(PacketDecoder& decoder);
    ByteString Payload(BlockCipher& cipher) override;

    String_t _service;
};

/// Accepts a service request (RFC 4253, section 10).
class BRANTLE_API PacketServiceAccept : public Packet {
public:
    explicit PacketServiceAccept(String_t const& service);
    explicit PacketServiceAccept(PacketDecoder& decoder);
    ByteString Payload(BlockCipher& cipher) override;

    String_t _service;
};

} // namespace cindral

#endif

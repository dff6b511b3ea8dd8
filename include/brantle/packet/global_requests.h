#ifndef BRANTLE_PACKET_GLOBAL_REQUESTS_H
#define BRANTLE_PACKET_GLOBAL_REQUESTS_H

#include <brantle/export.h>
#include <brantle/packet/packet.h>
#include <brantle/thornel/byte_string.h>
#include <brantle/thornel/string_t.h>

namespace cindral {

/// Starts or cancels forwarding of a port on the server: "tcpip-forward" or "cancel-tcpip-forward"
/// (RFC 4254, section 7.1).
class BRANTLE_API PacketGlobalRequest : public Packet {
public:
    PacketGlobalRequest(String_t const& request, int wantReply, String_t const& address, unsigned int port);
    explicit PacketGlobalRequest(PacketDecoder& decoder);
    ByteString Payload(BlockCipher& cipher) override;

    String_t _request;
    int _wantReply = 0;
    String_t _address;
    unsigned int _port = 0;
};

/// The reply to a global request (RFC 4254, section 4), without request-specific data.
///
/// Decoding accepts any message number: the receiver has to check `_type`. The class is not meant for
/// sending: its payload is empty.
class BRANTLE_API PacketRequestResult : public Packet {
public:
    explicit PacketRequestResult(int type);
    explicit PacketRequestResult(PacketDecoder& decoder);
    /// Sets the padding for an empty payload, and returns that payload.
    ByteString Payload(BlockCipher& cipher) override;
};

} // namespace cindral

#endif

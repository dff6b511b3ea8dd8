#ifndef BRANTLE_PACKET_KEX_MESSAGES_H
#define BRANTLE_PACKET_KEX_MESSAGES_H

#include <brantle/cindral/big_num.h>
#include <brantle/cindral/public_key.h>
#include <brantle/export.h>
#include <brantle/kex/dh_gex_parameters.h>
#include <brantle/packet/packet.h>
#include <brantle/thornel/byte_string.h>
#include <brantle/thornel/string_t.h>

namespace cindral {

/// Offers algorithms (RFC 4253, section 7.1). The cipher, MAC and compression lists are the same for both
/// directions.
///
/// The exchange hash covers the payload, cookie included: it has to be the payload of the same object that
/// was sent or received.
class BRANTLE_API PacketKexInit : public Packet {
public:
    /// The client's offer with a new random cookie; `kexAlgorithms` is a comma-separated list.
    explicit PacketKexInit(char const* kexAlgorithms);
    explicit PacketKexInit(PacketDecoder& decoder);
    ByteString Payload(BlockCipher& cipher) override;

    ByteString _cookie; ///< 16 bytes
    String_t _kexAlgorithms;
    String_t _hostKeyAlgorithms;
    String_t _ciphersClientToServer;
    String_t _ciphersServerToClient;
    String_t _macsClientToServer;
    String_t _macsServerToClient;
    String_t _compressionClientToServer;
    String_t _compressionServerToClient;
    String_t _languagesClientToServer;
    String_t _languagesServerToClient;
    int _firstKexPacketFollows = 0; ///< the byte as received
};

/// Puts the new keys into use (RFC 4253, section 7.3).
class BRANTLE_API PacketNewKeys : public Packet {
public:
    PacketNewKeys();
    explicit PacketNewKeys(PacketDecoder& decoder);
    ByteString Payload(BlockCipher& cipher) override;
};

/// The client's public value for a fixed group (RFC 4253, section 8).
class BRANTLE_API PacketKexDhInit : public Packet {
public:
    explicit PacketKexDhInit(BigNum const& e);
    ByteString Payload(BlockCipher& cipher) override;

    BigNum _e;
};

/// The server's reply for a fixed group: host key, public value, signature (RFC 4253, section 8).
class BRANTLE_API PacketKexDhReply : public Packet {
public:
    explicit PacketKexDhReply(PacketDecoder& decoder);

    PublicKey _hostKey;
    BigNum _f;
    ByteString _signature;
};

/// Requests a group by its size in bits (RFC 4419, section 3).
class BRANTLE_API PacketDhGexReq : public Packet {
public:
    /// Throws what `DhGexParameters` throws.
    PacketDhGexReq(int min, int preferred, int max);
    explicit PacketDhGexReq(DhGexParameters const& parameters);
    ByteString Payload(BlockCipher& cipher) override;

    /// 1 if the size of `modulus` is between the two requested limits, both inclusive; otherwise 0.
    int CheckNBits(BigNum const& modulus) const;

    DhGexParameters _parameters;
};

/// The group that the server chose (RFC 4419, section 3).
class BRANTLE_API PacketDhGexGroup : public Packet {
public:
    explicit PacketDhGexGroup(PacketDecoder& decoder);

    BigNum _p;
    BigNum _g;
};

/// The client's public value for the server's group (RFC 4419, section 3).
class BRANTLE_API PacketDhGexInit : public Packet {
public:
    explicit PacketDhGexInit(BigNum const& e);
    ByteString Payload(BlockCipher& cipher) override;

    BigNum _e;
};

/// The server's reply for its group: host key, public value, signature (RFC 4419, section 3).
class BRANTLE_API PacketDhGexReply : public Packet {
public:
    explicit PacketDhGexReply(PacketDecoder& decoder);

    PublicKey _hostKey;
    BigNum _f;
    ByteString _signature;
};

} // namespace cindral

#endif

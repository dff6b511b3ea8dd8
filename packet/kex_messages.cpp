#include <brantle/packet/kex_messages.h>

#include <openssl/bn.h>

#include <brantle/cindral/block_cipher.h>
#include <brantle/cindral/key_types.h>
#include <brantle/cindral/mac.h>
#include <brantle/cindral/random.h>
#include <brantle/packet/packet_decoder.h>
#include <brantle/packet/packet_encoder.h>

namespace cindral {

PacketKexInit::PacketKexInit(char const* kexAlgorithms)
    : Packet(SSH_MSG_KEXINIT), _cookie(RandomBytes(16)), _kexAlgorithms(kexAlgorithms),
      _hostKeyAlgorithms(HOST_KEY_ALGORITHMS), _ciphersClientToServer(BlockCipher::AvailableCiphers()),
      _ciphersServerToClient(_ciphersClientToServer), _macsClientToServer(Mac::AvailableMacs()),
      _macsServerToClient(_macsClientToServer), _compressionClientToServer("none"),
      _compressionServerToClient(_compressionClientToServer), _languagesClientToServer(""),
      _languagesServerToClient(_languagesClientToServer) {}

ByteString PacketKexInit::Payload(BlockCipher& cipher) {
    return Encode(cipher, LARGE, [this](PacketEncoder& out) {
        out.WriteBytesRaw(_cookie);
        out.WriteString(_kexAlgorithms.Text());
        out.WriteString(_hostKeyAlgorithms.Text());
        out.WriteString(_ciphersClientToServer.Text());
        out.WriteString(_ciphersServerToClient.Text());
        out.WriteString(_macsClientToServer.Text());
        out.WriteString(_macsServerToClient.Text());
        out.WriteString(_compressionClientToServer.Text());
        out.WriteString(_compressionServerToClient.Text());
        out.WriteString(_languagesClientToServer.Text());
        out.WriteString(_languagesServerToClient.Text());
        out.WriteBool(_firstKexPacketFollows);
        out.WriteInt(0); // reserved
    });
}

PacketKexInit::PacketKexInit(PacketDecoder& decoder) : Packet(SSH_MSG_KEXINIT, decoder._data) {
    Decode(decoder, "expected KEXINIT package, received", [this](PacketDecoder& in) {
        _cookie = in.ReadBytes(16);
        _kexAlgorithms = in.ReadString();
        _hostKeyAlgorithms = in.ReadString();
        _ciphersClientToServer = in.ReadString();
        _ciphersServerToClient = in.ReadString();
        _macsClientToServer = in.ReadString();
        _macsServerToClient = in.ReadString();
        _compressionClientToServer = in.ReadString();
        _compressionServerToClient = in.ReadString();
        _languagesClientToServer = in.ReadString();
        _languagesServerToClient = in.ReadString();
        _firstKexPacketFollows = in.ReadBool();
        in.ReadInt(); // reserved
    });
}

PacketNewKeys::PacketNewKeys() : Packet(SSH_MSG_NEWKEYS) {}

ByteString PacketNewKeys::Payload(BlockCipher& cipher) {
    return Encode(cipher, SMALL, [](PacketEncoder&) {});
}

PacketNewKeys::PacketNewKeys(PacketDecoder& decoder) : Packet(SSH_MSG_NEWKEYS, decoder._data) {
    Decode(decoder, "expected NEWKEYS package, received", [](PacketDecoder&) {});
}

PacketKexDhInit::PacketKexDhInit(BigNum const& e) : Packet(SSH_MSG_KEXDH_INIT), _e(e) {}

ByteString PacketKexDhInit::Payload(BlockCipher& cipher) {
    return Encode(cipher, SMALL, [this](PacketEncoder& out) { out.WriteBignum2(_e._bn); });
}

PacketKexDhReply::PacketKexDhReply(PacketDecoder& decoder) : Packet(SSH_MSG_KEXDH_REPLY, decoder._data) {
    Decode(decoder, "expected KEXDH_REPLY package, received", [this](PacketDecoder& in) {
        _hostKey = in.ReadBytes();
        _f = in.ReadBignum2();
        _signature = in.ReadBytes();
    });
}

PacketDhGexReq::PacketDhGexReq(int min, int preferred, int max)
    : Packet(SSH_MSG_KEX_DH_GEX_REQUEST), _parameters(min, preferred, max) {}

PacketDhGexReq::PacketDhGexReq(DhGexParameters const& parameters)
    : Packet(SSH_MSG_KEX_DH_GEX_REQUEST), _parameters(parameters) {}

ByteString PacketDhGexReq::Payload(BlockCipher& cipher) {
    return Encode(cipher, SMALL, [this](PacketEncoder& out) {
        out.WriteInt(static_cast<unsigned int>(_parameters.min));
        out.WriteInt(static_cast<unsigned int>(_parameters.pref));
        out.WriteInt(static_cast<unsigned int>(_parameters.max));
    });
}

int PacketDhGexReq::CheckNBits(BigNum const& modulus) const {
    int const bits = modulus._bn ? BN_num_bits(modulus._bn) : 0;
    return bits >= _parameters.min && bits <= _parameters.max;
}

PacketDhGexGroup::PacketDhGexGroup(PacketDecoder& decoder) : Packet(SSH_MSG_KEX_DH_GEX_GROUP) {
    Decode(decoder, "expected KEX_DH_GEX_GROUP package, received", [this](PacketDecoder& in) {
        _p = in.ReadBignum2();
        _g = in.ReadBignum2();
    });
}

PacketDhGexInit::PacketDhGexInit(BigNum const& e) : Packet(SSH_MSG_KEX_DH_GEX_INIT), _e(e) {}

ByteString PacketDhGexInit::Payload(BlockCipher& cipher) {
    return Encode(cipher, SMALL, [this](PacketEncoder& out) { out.WriteBignum2(_e._bn); });
}

PacketDhGexReply::PacketDhGexReply(PacketDecoder& decoder) : Packet(SSH_MSG_KEX_DH_GEX_REPLY) {
    Decode(decoder, "expected KEX_DH_GEX_REPLY package, received", [this](PacketDecoder& in) {
        _hostKey = in.ReadBytes();
        _f = in.ReadBignum2();
        _signature = in.ReadBytes();
    });
}

} // namespace cindral

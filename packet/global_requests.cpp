#include <brantle/packet/global_requests.h>

#include <brantle/cindral/block_cipher.h>
#include <brantle/packet/packet_decoder.h>
#include <brantle/packet/packet_encoder.h>

namespace cindral {

PacketGlobalRequest::PacketGlobalRequest(String_t const& request, int wantReply, String_t const& address,
                                         unsigned int port)
    : Packet(SSH_MSG_GLOBAL_REQUEST), _request(request), _wantReply(wantReply), _address(address),
      _port(port) {}

ByteString PacketGlobalRequest::Payload(BlockCipher& cipher) {
    return Encode(cipher, SMALL, [this](PacketEncoder& out) {
        out.WriteString(_request.Text());
        out.WriteBool(_wantReply);
        out.WriteString(_address.Text());
        out.WriteInt(_port);
    });
}

PacketGlobalRequest::PacketGlobalRequest(PacketDecoder& decoder) : Packet(SSH_MSG_GLOBAL_REQUEST) {
    Decode(decoder, "expected GLOBAL_REQUEST package, received", [this](PacketDecoder& in) {
        _request = in.ReadString();
        _wantReply = in.ReadBool();
        _address = in.ReadString();
        _port = in.ReadInt();
    });
}

PacketRequestResult::PacketRequestResult(int type) : Packet(type) {}

ByteString PacketRequestResult::Payload(BlockCipher& cipher) {
    PacketEncoder encoder(SMALL);
    _padLen = encoder.PadLen(cipher._rep->BlockSize());
    return _payload;
}

PacketRequestResult::PacketRequestResult(PacketDecoder& decoder) : Packet(0) {
    Decode(decoder, ANY_TYPE, [](PacketDecoder&) {});
}

} // namespace cindral

#include <brantle/packet/transport_messages.h>

#include <brantle/packet/packet_decoder.h>
#include <brantle/packet/packet_encoder.h>

namespace cindral {

PacketDisconnect::PacketDisconnect(int reason, String_t const& description, String_t const& language)
    : Packet(SSH_MSG_DISCONNECT), _reason(reason), _description(description), _language(language) {}

ByteString PacketDisconnect::Payload(BlockCipher& cipher) {
    return Encode(cipher, LARGE, [this](PacketEncoder& out) {
        out.WriteInt(static_cast<unsigned int>(_reason));
        out.WriteString(_description.Text());
        out.WriteString(_language.Text());
    });
}

PacketDisconnect::PacketDisconnect(PacketDecoder& decoder) : Packet(SSH_MSG_DISCONNECT, decoder._data) {
    Decode(decoder, "expected DISCONNECT package, received", [this](PacketDecoder& in) {
        _reason = static_cast<int>(in.ReadInt());
        _description = in.ReadString();
        _language = in.ReadString();
    });
}

PacketIgnore::PacketIgnore(ByteString const& data) : Packet(SSH_MSG_IGNORE), _data(data) {}

ByteString PacketIgnore::Payload(BlockCipher& cipher) {
    return Encode(cipher, SMALL, [this](PacketEncoder& out) { out.WriteBytes(_data); });
}

PacketIgnore::PacketIgnore(PacketDecoder& decoder) : Packet(SSH_MSG_IGNORE) {
    Decode(decoder, "expected IGNORE package, received",
           [this](PacketDecoder& in) { _data = in.ReadBytes(); });
}

PacketServiceRequest::PacketServiceRequest(String_t const& service)
    : Packet(SSH_MSG_SERVICE_REQUEST), _service(service) {}

ByteString PacketServiceRequest::Payload(BlockCipher& cipher) {
    return Encode(cipher, SMALL, [this](PacketEncoder& out) { out.WriteString(_service.Text()); });
}

PacketServiceRequest::PacketServiceRequest(PacketDecoder& decoder) : Packet(SSH_MSG_SERVICE_REQUEST) {
    Decode(decoder, "expected SERVICE_REQUEST package, received",
           [this](PacketDecoder& in) { _service = in.ReadString(); });
}

PacketServiceAccept::PacketServiceAccept(String_t const& service)
    : Packet(SSH_MSG_SERVICE_ACCEPT), _service(service) {}

ByteString PacketServiceAccept::Payload(BlockCipher& cipher) {
    return Encode(cipher, SMALL, [this](PacketEncoder& out) { out.WriteString(_service.Text()); });
}

PacketServiceAccept::PacketServiceAccept(PacketDecoder& decoder) : Packet(SSH_MSG_SERVICE_ACCEPT) {
    Decode(decoder, "expected SERVICE_ACCEPT package, received",
           [this](PacketDecoder& in) { _service = in.ReadString(); });
}

} // namespace cindral

#include <brantle/packet/channel_messages.h>

#include <brantle/packet/packet_decoder.h>
#include <brantle/packet/packet_encoder.h>

namespace cindral {

namespace {

constexpr char const* WRONG_TYPE_OF_DATA = "expected CHANNEL_DATA package, received";

} // namespace

PacketOpenSessionChannel::PacketOpenSessionChannel(unsigned int senderChannel, unsigned int windowSize,
                                                   unsigned int maxPacketSize)
    : Packet(SSH_MSG_CHANNEL_OPEN), _channelType("session"), _senderChannel(senderChannel),
      _windowSize(windowSize), _maxPacketSize(maxPacketSize) {}

ByteString PacketOpenSessionChannel::Payload(BlockCipher& cipher) {
    return Encode(cipher, SMALL, [this](PacketEncoder& out) {
        out.WriteString(_channelType.Text());
        out.WriteInt(_senderChannel);
        out.WriteInt(_windowSize);
        out.WriteInt(_maxPacketSize);
    });
}

PacketOpenSessionChannel::PacketOpenSessionChannel(PacketDecoder& decoder)
    : Packet(SSH_MSG_CHANNEL_OPEN, decoder._data) {
    Decode(decoder, "expected CHANNEL_OPEN package, received", [this](PacketDecoder& in) {
        _channelType = in.ReadString();
        _senderChannel = in.ReadInt();
        _windowSize = in.ReadInt();
        _maxPacketSize = in.ReadInt();
    });
}

PacketOpenTcpChannel::PacketOpenTcpChannel(unsigned int senderChannel, unsigned int windowSize,
                                           unsigned int maxPacketSize, String_t const& host,
                                           unsigned int port, String_t const& originatorHost,
                                           unsigned int originatorPort)
    : Packet(SSH_MSG_CHANNEL_OPEN), _channelType("direct-tcpip"), _senderChannel(senderChannel),
      _windowSize(windowSize), _maxPacketSize(maxPacketSize), _host(host), _port(port),
      _originatorHost(originatorHost), _originatorPort(originatorPort) {}

ByteString PacketOpenTcpChannel::Payload(BlockCipher& cipher) {
    return Encode(cipher, SMALL, [this](PacketEncoder& out) {
        out.WriteString(_channelType.Text());
        out.WriteInt(_senderChannel);
        out.WriteInt(_windowSize);
        out.WriteInt(_maxPacketSize);
        out.WriteString(_host.Text());
        out.WriteInt(_port);
        out.WriteString(_originatorHost.Text());
        out.WriteInt(_originatorPort);
    });
}

PacketOpenTcpChannel::PacketOpenTcpChannel(PacketDecoder& decoder)
    : Packet(SSH_MSG_CHANNEL_OPEN, decoder._data) {
    Decode(decoder, "expected CHANNEL_OPEN package, received", [this](PacketDecoder& in) {
        _channelType = in.ReadString();
        _senderChannel = in.ReadInt();
        _windowSize = in.ReadInt();
        _maxPacketSize = in.ReadInt();
        _host = in.ReadString();
        _port = in.ReadInt();
        // Deliberate: not for "forwarded-tcpip", whose originator (RFC 4254, section 7.2) is refused as
        // surplus data. Pinned by RemoteForwarding.OpeningWithTheOriginatorsAddressEndsTheRun.
        if (_channelType == "direct-tcpip") {
            _originatorHost = in.ReadString();
            _originatorPort = in.ReadInt();
        }
    });
}

PacketChannelOpenConfirmation::PacketChannelOpenConfirmation(unsigned int recipientChannel,
                                                             unsigned int senderChannel,
                                                             unsigned int windowSize,
                                                             unsigned int maxPacketSize)
    : Packet(SSH_MSG_CHANNEL_OPEN_CONFIRMATION), _recipientChannel(recipientChannel),
      _senderChannel(senderChannel), _windowSize(windowSize), _maxPacketSize(maxPacketSize) {}

ByteString PacketChannelOpenConfirmation::Payload(BlockCipher& cipher) {
    return Encode(cipher, SMALL, [this](PacketEncoder& out) {
        out.WriteInt(_recipientChannel);
        out.WriteInt(_senderChannel);
        out.WriteInt(_windowSize);
        out.WriteInt(_maxPacketSize);
    });
}

PacketChannelOpenConfirmation::PacketChannelOpenConfirmation(PacketDecoder& decoder)
    : Packet(SSH_MSG_CHANNEL_OPEN_CONFIRMATION, decoder._data) {
    Decode(decoder, "expected CHANNEL_OPEN_CONFIRMATION package, received", [this](PacketDecoder& in) {
        _recipientChannel = in.ReadInt();
        _senderChannel = in.ReadInt();
        _windowSize = in.ReadInt();
        _maxPacketSize = in.ReadInt();
    });
}

PacketChannelOpenFailure::PacketChannelOpenFailure(unsigned int recipientChannel, unsigned int reason,
                                                   String_t const& description, String_t const& language)
    : Packet(SSH_MSG_CHANNEL_OPEN_FAILURE), _recipientChannel(recipientChannel), _reason(reason),
      _description(description), _language(language) {}

ByteString PacketChannelOpenFailure::Payload(BlockCipher& cipher) {
    return Encode(cipher, SMALL, [this](PacketEncoder& out) {
        out.WriteInt(_recipientChannel);
        out.WriteInt(_reason);
        out.WriteString(_description.Text());
        out.WriteString(_language.Text());
    });
}

PacketChannelOpenFailure::PacketChannelOpenFailure(PacketDecoder& decoder)
    : Packet(SSH_MSG_CHANNEL_OPEN_FAILURE, decoder._data) {
    Decode(decoder, "expected CHANNEL_OPEN_FAILURE package, received", [this](PacketDecoder& in) {
        _recipientChannel = in.ReadInt();
        _reason = in.ReadInt();
        _description = in.ReadString();
        _language = in.ReadString();
    });
}

PacketChannelWindowAdjust::PacketChannelWindowAdjust(unsigned int recipientChannel, unsigned int bytesToAdd)
    : Packet(SSH_MSG_CHANNEL_WINDOW_ADJUST), _recipientChannel(recipientChannel), _bytesToAdd(bytesToAdd) {}

ByteString PacketChannelWindowAdjust::Payload(BlockCipher& cipher) {
    return Encode(cipher, SMALL, [this](PacketEncoder& out) {
        out.WriteInt(_recipientChannel);
        out.WriteInt(_bytesToAdd);
    });
}

PacketChannelWindowAdjust::PacketChannelWindowAdjust(PacketDecoder& decoder)
    : Packet(SSH_MSG_CHANNEL_WINDOW_ADJUST, decoder._data) {
    Decode(decoder, "expected CHANNEL_WINDOW_ADJUST package, received", [this](PacketDecoder& in) {
        _recipientChannel = in.ReadInt();
        _bytesToAdd = in.ReadInt();
    });
}

PacketChannelData::PacketChannelData(unsigned int recipientChannel, char const* data, unsigned int length)
    : PacketChannelData(recipientChannel, ByteString(data, length)) {}

PacketChannelData::PacketChannelData(unsigned int recipientChannel, ByteString const& bytes)
    : Packet(SSH_MSG_CHANNEL_DATA), _recipientChannel(recipientChannel), _bytes(bytes) {}

ByteString PacketChannelData::Payload(BlockCipher& cipher) {
    return Encode(cipher, SMALL, [this](PacketEncoder& out) {
        out.WriteInt(_recipientChannel);
        out.WriteBytes(_bytes);
    });
}

PacketChannelData::PacketChannelData(PacketDecoder& decoder) : Packet(SSH_MSG_CHANNEL_DATA, decoder._data) {
    Decode(decoder, WRONG_TYPE_OF_DATA, [this](PacketDecoder& in) {
        _recipientChannel = in.ReadInt();
        _bytes = in.ReadBytes();
    });
}

PacketChannelData::PacketChannelData(PacketDecoder& decoder, PacketDecoder::View& bytes)
    : Packet(SSH_MSG_CHANNEL_DATA) {
    Decode(decoder, WRONG_TYPE_OF_DATA, [&](PacketDecoder& in) {
        _recipientChannel = in.ReadInt();
        bytes = in.ReadView();
    });
}

PacketChannelExtendedData::PacketChannelExtendedData(unsigned int recipientChannel, unsigned int dataType,
                                                     ByteString const& bytes)
    : Packet(SSH_MSG_CHANNEL_EXTENDED_DATA), _recipientChannel(recipientChannel), _dataType(dataType),
      _bytes(bytes) {}

ByteString PacketChannelExtendedData::Payload(BlockCipher& cipher) {
    return Encode(cipher, SMALL, [this](PacketEncoder& out) {
        out.WriteInt(_recipientChannel);
        out.WriteInt(_dataType);
        out.WriteBytes(_bytes);
    });
}

PacketChannelExtendedData::PacketChannelExtendedData(PacketDecoder& decoder)
    : Packet(SSH_MSG_CHANNEL_EXTENDED_DATA, decoder._data) {
    Decode(decoder, "expected CHANNEL_EXTENDEDDATA package, received", [this](PacketDecoder& in) {
        _recipientChannel = in.ReadInt();
        _dataType = in.ReadInt();
        _bytes = in.ReadBytes();
    });
}

PacketChannelEof::PacketChannelEof(unsigned int recipientChannel)
    : Packet(SSH_MSG_CHANNEL_EOF), _recipientChannel(recipientChannel) {}

ByteString PacketChannelEof::Payload(BlockCipher& cipher) {
    return Encode(cipher, SMALL, [this](PacketEncoder& out) { out.WriteInt(_recipientChannel); });
}

PacketChannelEof::PacketChannelEof(PacketDecoder& decoder) : Packet(SSH_MSG_CHANNEL_EOF, decoder._data) {
    Decode(decoder, "expected CHANNEL_EOF package, received",
           [this](PacketDecoder& in) { _recipientChannel = in.ReadInt(); });
}

PacketChannelClose::PacketChannelClose(unsigned int recipientChannel)
    : Packet(SSH_MSG_CHANNEL_CLOSE), _recipientChannel(recipientChannel) {}

ByteString PacketChannelClose::Payload(BlockCipher& cipher) {
    return Encode(cipher, SMALL, [this](PacketEncoder& out) { out.WriteInt(_recipientChannel); });
}

PacketChannelClose::PacketChannelClose(PacketDecoder& decoder)
    : Packet(SSH_MSG_CHANNEL_CLOSE, decoder._data) {
    Decode(decoder, "expected CHANNEL_CLOSE package, received",
           [this](PacketDecoder& in) { _recipientChannel = in.ReadInt(); });
}

PacketChannelResponse::PacketChannelResponse(int type, unsigned int recipientChannel)
    : Packet(type), _recipientChannel(recipientChannel) {}

ByteString PacketChannelResponse::Payload(BlockCipher& cipher) {
    return Encode(cipher, SMALL, [this](PacketEncoder& out) { out.WriteInt(_recipientChannel); });
}

PacketChannelResponse::PacketChannelResponse(PacketDecoder& decoder) : Packet(SSH_MSG_CHANNEL_SUCCESS) {
    Decode(decoder, ANY_TYPE, [this](PacketDecoder& in) { _recipientChannel = in.ReadInt(); });
}

} // namespace cindral

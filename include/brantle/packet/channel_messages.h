#ifndef BRANTLE_PACKET_CHANNEL_MESSAGES_H
#define BRANTLE_PACKET_CHANNEL_MESSAGES_H

#include <brantle/export.h>
#include <brantle/packet/packet.h>
#include <brantle/packet/packet_decoder.h>
#include <brantle/thornel/byte_string.h>
#include <brantle/thornel/string_t.h>

namespace cindral {

/// Opens a session channel (RFC 4254, section 6.1). Windows and packet sizes are in bytes, here and below.
class BRANTLE_API PacketOpenSessionChannel : public Packet {
public:
    PacketOpenSessionChannel(unsigned int senderChannel, unsigned int windowSize, unsigned int maxPacketSize);
    explicit PacketOpenSessionChannel(PacketDecoder& decoder);
    ByteString Payload(BlockCipher& cipher) override;

    String_t _channelType;
    unsigned int _senderChannel = 0;
    unsigned int _windowSize = 0;
    unsigned int _maxPacketSize = 0;
};

/// Opens a channel for a TCP connection (RFC 4254, section 7.2), or for one of X11 (section 6.3.2).
///
/// Decoding reads the originator only for "direct-tcpip". An "x11" open therefore fits, with the originator
/// in `_host` and `_port`; a "forwarded-tcpip" open contains another address and port and is refused.
class BRANTLE_API PacketOpenTcpChannel : public Packet {
public:
    /// A "direct-tcpip" open.
    PacketOpenTcpChannel(unsigned int senderChannel, unsigned int windowSize, unsigned int maxPacketSize,
                         String_t const& host, unsigned int port, String_t const& originatorHost,
                         unsigned int originatorPort);
    explicit PacketOpenTcpChannel(PacketDecoder& decoder);
    ByteString Payload(BlockCipher& cipher) override;

    String_t _channelType;
    unsigned int _senderChannel = 0;
    unsigned int _windowSize = 0;
    unsigned int _maxPacketSize = 0;
    String_t _host;
    unsigned int _port = 0;
    String_t _originatorHost;
    unsigned int _originatorPort = 0;
};

/// Confirms that a channel is open (RFC 4254, section 5.1).
class BRANTLE_API PacketChannelOpenConfirmation : public Packet {
public:
    PacketChannelOpenConfirmation(unsigned int recipientChannel, unsigned int senderChannel,
                                  unsigned int windowSize, unsigned int maxPacketSize);
    explicit PacketChannelOpenConfirmation(PacketDecoder& decoder);
    ByteString Payload(BlockCipher& cipher) override;

    unsigned int _recipientChannel = 0;
    unsigned int _senderChannel = 0;
    unsigned int _windowSize = 0;
    unsigned int _maxPacketSize = 0;
};

/// Refuses a channel (RFC 4254, section 5.1).
class BRANTLE_API PacketChannelOpenFailure : public Packet {
public:
    PacketChannelOpenFailure(unsigned int recipientChannel, unsigned int reason, String_t const& description,
                             String_t const& language);
    explicit PacketChannelOpenFailure(PacketDecoder& decoder);
    ByteString Payload(BlockCipher& cipher) override;

    unsigned int _recipientChannel = 0;
    unsigned int _reason = 0; ///< one of `SSH_OPEN_...`
    String_t _description;
    String_t _language;
};

/// Permits the receiver to send more (RFC 4254, section 5.2).
class BRANTLE_API PacketChannelWindowAdjust : public Packet {
public:
    PacketChannelWindowAdjust(unsigned int recipientChannel, unsigned int bytesToAdd);
    explicit PacketChannelWindowAdjust(PacketDecoder& decoder);
    ByteString Payload(BlockCipher& cipher) override;

    unsigned int _recipientChannel = 0;
    unsigned int _bytesToAdd = 0;
};

/// Data of a channel (RFC 4254, section 5.2).
class BRANTLE_API PacketChannelData : public Packet {
public:
    /// Copies the bytes.
    PacketChannelData(unsigned int recipientChannel, char const* data, unsigned int length);
    /// Shares the value.
    PacketChannelData(unsigned int recipientChannel, ByteString const& bytes);
    explicit PacketChannelData(PacketDecoder& decoder);
    /// Decodes without copying: sets `data` to the position of the bytes in the decoder's data, and stores
    /// none.
    PacketChannelData(PacketDecoder& decoder, PacketDecoder::View& bytes);
    ByteString Payload(BlockCipher& cipher) override;

    unsigned int _recipientChannel = 0;
    ByteString _bytes;
};

/// Extended data of a channel, such as standard error (RFC 4254, section 5.2).
class BRANTLE_API PacketChannelExtendedData : public Packet {
public:
    PacketChannelExtendedData(unsigned int recipientChannel, unsigned int dataType, ByteString const& bytes);
    explicit PacketChannelExtendedData(PacketDecoder& decoder);
    ByteString Payload(BlockCipher& cipher) override;

    unsigned int _recipientChannel = 0;
    unsigned int _dataType = 0; ///< `SSH_EXTENDED_DATA_STDERR` is the one defined
    ByteString _bytes;
};

/// Signals that no more data follows (RFC 4254, section 5.3).
class BRANTLE_API PacketChannelEof : public Packet {
public:
    explicit PacketChannelEof(unsigned int recipientChannel);
    explicit PacketChannelEof(PacketDecoder& decoder);
    ByteString Payload(BlockCipher& cipher) override;

    unsigned int _recipientChannel = 0;
};

/// Closes a channel (RFC 4254, section 5.3).
class BRANTLE_API PacketChannelClose : public Packet {
public:
    explicit PacketChannelClose(unsigned int recipientChannel);
    explicit PacketChannelClose(PacketDecoder& decoder);
    ByteString Payload(BlockCipher& cipher) override;

    unsigned int _recipientChannel = 0;
};

/// The reply to a channel request (RFC 4254, section 5.4).
///
/// It represents both replies, and decoding accepts any message number: the receiver has to check `_type`.
class BRANTLE_API PacketChannelResponse : public Packet {
public:
    PacketChannelResponse(int type, unsigned int recipientChannel);
    explicit PacketChannelResponse(PacketDecoder& decoder);
    ByteString Payload(BlockCipher& cipher) override;

    unsigned int _recipientChannel = 0;
};

} // namespace cindral

#endif

#ifndef TESTS_SUPPORT_PEER_PEER_CONNECTION_H
#define TESTS_SUPPORT_PEER_PEER_CONNECTION_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/peer/link.h"
#include "support/peer/wire.h"

namespace peer {

/// Message numbers of RFC 4250, section 4.1, and RFC 4419.
enum Message : std::uint8_t {
    DISCONNECT = 1,
    IGNORE = 2,
    UNIMPLEMENTED = 3,
    DEBUG = 4,
    SERVICE_REQUEST = 5,
    SERVICE_ACCEPT = 6,
    KEXINIT = 20,
    NEWKEYS = 21,
    KEXDH_INIT = 30,
    KEXDH_REPLY = 31,
    GEX_GROUP = 31,
    GEX_INIT = 32,
    GEX_REPLY = 33,
    GEX_REQUEST = 34,
    USERAUTH_REQUEST = 50,
    USERAUTH_FAILURE = 51,
    USERAUTH_SUCCESS = 52,
    USERAUTH_BANNER = 53,
    USERAUTH_PK_OK = 60,
    USERAUTH_PASSWD_CHANGEREQ = 60,
    USERAUTH_INFO_REQUEST = 60,
    USERAUTH_INFO_RESPONSE = 61,
    GLOBAL_REQUEST = 80,
    REQUEST_SUCCESS = 81,
    REQUEST_FAILURE = 82,
    CHANNEL_OPEN = 90,
    CHANNEL_OPEN_CONFIRMATION = 91,
    CHANNEL_OPEN_FAILURE = 92,
    CHANNEL_WINDOW_ADJUST = 93,
    CHANNEL_DATA = 94,
    CHANNEL_EXTENDED_DATA = 95,
    CHANNEL_EOF = 96,
    CHANNEL_CLOSE = 97,
    CHANNEL_REQUEST = 98,
    CHANNEL_SUCCESS = 99,
    CHANNEL_FAILURE = 100,
};

/// One packet as it passed, in either direction.
struct PacketRecord {
    std::uint32_t sequence = 0;
    bool encrypted = false;
    std::size_t blockSize = 8;
    std::uint32_t packetLength = 0;
    std::uint8_t paddingLength = 0;
    Bytes payload;
    Bytes padding;
    Bytes plain; ///< packet_length to padding, as the MAC covers it
    Bytes raw;   ///< the same as on the wire
    Bytes mac;
    bool macValid = true;
    std::size_t streamOffset = 0; ///< of the first byte of raw in its direction

    std::uint8_t Type() const { return payload.empty() ? std::uint8_t{0} : payload[0]; }
};

/// What one SendPacket does differently. What is not set follows RFC 4253, section 6.
struct SendOptions {
    std::optional<std::uint32_t> packetLength; ///< written in place of the true length
    std::optional<std::uint8_t> paddingLength; ///< written in place of the true number of padding bytes
    std::optional<Bytes> padding;              ///< padding bytes that are sent
    std::optional<std::size_t> flipMacByte;    ///< this byte of the MAC is changed
    std::optional<std::size_t> macBytes; ///< that many MAC bytes are sent, then the connection is closed
};

struct AuthRequest {
    Bytes payload;
    std::string user;
    std::string service;
    std::string method;
    bool flag = false; ///< publickey: a signature follows; password: a change
    std::string algorithm;
    Bytes key;
    Bytes signature;
    std::string password;
    std::string language;
    std::string submethods;
};

struct Prompt {
    std::string text;
    bool echo;
};

struct ChannelOpen {
    std::string type;
    std::uint32_t sender;
    std::uint32_t window;
    std::uint32_t maxPacket;
    Bytes rest;
};

struct ChannelRequest {
    std::uint32_t recipient;
    std::string type;
    bool wantReply;
    Bytes rest;
};

/// What the settings of both kinds of server have in common.
struct PeerSettings {
    /// Listen on ::1 in place of 127.0.0.1; to be set before the peer starts.
    bool ipv6 = false;
    std::string user = "tester";
    std::string password = "secret";
    std::uint32_t channel = 42; ///< the server's number of the session channel
    std::uint32_t window = 0x200000;
    std::uint32_t maxPacket = 0x8000;
};

/// What both kinds of server, Connection and StandardConnection, have in common: the stream, the records of
/// packets, and the messages of authentication and channels. How packets are protected, and how keys are
/// exchanged, is theirs.
class PeerConnection {
public:
    virtual ~PeerConnection() = default;

    std::vector<PacketRecord> received;
    std::vector<PacketRecord> sent;
    std::size_t const index; ///< 0 for the first connection accepted by this peer
    /// Payloads of the packets received after the first one of that message number; none if it never came.
    std::vector<Bytes> ReceivedAfter(std::uint8_t type) const;
    /// How many packets of that number have come.
    std::size_t CountReceived(std::uint8_t type) const;

    // --- bytes
    Link& Wire() { return _link; }
    Link const& Wire() const { return _link; }
    void SendRaw(Bytes const& bytes) { _link.Send(bytes); }
    void SendLine(std::string_view line) { _link.Send(ToBytes(line)); }
    /// Up to and with the line feed.
    std::string ReadLine();
    /// Waits for the end of the stream; any byte that comes before it is an error.
    void ExpectClosed();
    /// Reads and drops everything until the client closes.
    void ReadUntilClosed();

    // --- packets
    void SendPacket(Bytes const& payload, SendOptions const& options = {});
    /// The bytes SendPacket would send, MAC included, with the sending state advanced.
    Bytes Encode(Bytes const& payload, SendOptions const& options = {});
    /// Several packets in one segment.
    void SendTogether(std::vector<Bytes> const& payloads);
    /// The payload. A MAC that does not fit throws.
    virtual Bytes ReadPacket() = 0;
    /// Reads one packet of that type; the reader comes after the type byte.
    Reader ExpectPacket(std::uint8_t type) { return Fields(ReadPacket(), type); }

    // --- authentication
    void ServiceAccept();
    AuthRequest ReadAuthRequest();
    void SendAuthFailure(std::string_view methods, bool partial = false);
    void SendAuthSuccess();
    void SendBanner(std::string_view text, std::string_view language = "");
    void SendPkOk(std::string_view algorithm, Bytes const& key);
    void SendInfoRequest(std::string_view name, std::string_view instruction,
                         std::vector<Prompt> const& prompts);
    std::vector<std::string> ReadInfoResponse();

    // --- connection protocol
    ChannelOpen ReadChannelOpen();
    void SendOpenConfirmation(std::uint32_t recipient = 0);
    void SendOpenFailure(std::uint32_t reason, std::string_view text, std::uint32_t recipient = 0);
    /// CHANNEL_OPEN answered by a confirmation from the settings.
    void ConfirmOpen();
    ChannelRequest ReadChannelRequest();
    void SendChannelMessage(std::uint8_t type, std::uint32_t recipient = 0);
    void SendData(std::string_view data, std::uint32_t recipient = 0);
    void SendExtendedData(std::string_view data, std::uint32_t type = 1, std::uint32_t recipient = 0);
    void SendEof(std::uint32_t recipient = 0) { SendChannelMessage(CHANNEL_EOF, recipient); }
    void SendClose(std::uint32_t recipient = 0) { SendChannelMessage(CHANNEL_CLOSE, recipient); }
    void SendWindowAdjust(std::uint32_t bytes, std::uint32_t recipient = 0);
    void SendExitStatus(std::uint32_t status, bool wantReply = false, std::uint32_t recipient = 0);
    void SendExitSignal(std::string_view name, bool core = false, std::uint32_t recipient = 0);
    void SendDisconnect(std::uint32_t reason, std::string_view text);
    void SendIgnore(std::string_view data = "");
    void SendDebug(std::string_view text, bool show = false);

    std::uint32_t SendSequence() const { return _sendSequence; }
    std::uint32_t ReceiveSequence() const { return _receiveSequence; }

protected:
    /// What a packet is padded to, and whether its length field counts.
    struct Alignment {
        std::size_t block;
        bool lengthIsOutside;
    };

    PeerConnection(int fd, int abortFd, std::size_t number) : index(number), _link(fd, abortFd) {}

    virtual PeerSettings const& CommonSettings() const = 0;
    virtual Alignment SendingAlignment() const = 0;
    /// Protects the packet in `record.plain`: sets `raw`, `mac` and `encrypted`.
    virtual void Seal(PacketRecord& record, SendOptions const& options) = 0;
    /// Keeps the record, if records are kept. Returns its payload.
    Bytes Record(PacketRecord record);
    /// What comes after the number of a message, which must be that one.
    static Reader Fields(Bytes payload, std::uint8_t type);

    Link _link;
    std::uint32_t _sendSequence = 0;
    std::uint32_t _receiveSequence = 0;
};

} // namespace peer

#endif

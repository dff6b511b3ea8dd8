// The decoders of all SSH messages.
//
// The input is a packet as ISshPacketStream::ReadPacket returns it: padding length, payload and padding. It
// goes to each class that has its message number. What can be decoded, and what it encodes to afterwards,
// has to be what WireModel says.

#include <string>
#include <string_view>
#include <typeinfo>

#include <brantle/cindral/block_cipher.h>
#include <brantle/cindral/exceptions.h>
#include <brantle/packet/auth_messages.h>
#include <brantle/packet/channel_messages.h>
#include <brantle/packet/global_requests.h>
#include <brantle/packet/kex_messages.h>
#include <brantle/packet/packet_decoder.h>
#include <brantle/packet/packet_encoder.h>
#include <brantle/packet/packet_stream.h>
#include <brantle/packet/session_requests.h>
#include <brantle/packet/transport_messages.h>

#include "finding.h"
#include "wire_model.h"

using namespace cindral;
using fuzz::Require;
using fuzz::SshModel;

namespace {

constexpr int ANY_NUMBER = -1;

std::string Text(ByteString const& bytes) {
    return bytes.Length() > 0 ? std::string(reinterpret_cast<char const*>(bytes.Data()), bytes.Length())
                              : std::string();
}

/// Calls what may throw like a decoder, and returns whether it did not throw.
template <class Call>
bool Succeeds(Call const& call) {
    try {
        call();
        return true;
    } catch (SshProtocolError const&) {
    } catch (BadInput const&) {
    }
    return false;
}

class Input {
public:
    Input(std::uint8_t const* data, std::size_t size)
        : _packet(data, static_cast<unsigned int>(size)), _bytes(reinterpret_cast<char const*>(data), size) {}

    /// A class that encodes, too. `fields` as SshModel::Read takes them, or a function that reads.
    template <class Message, class Fields>
    void Decode(int number, Fields const& fields) const {
        Check<Message>(number, fields, [](Message& message) {
            static BlockCipher cipher;
            message._payload = ByteString();
            return Text(message.Payload(cipher));
        });
    }

    /// A class that is only received: `write(encoder, message)` writes its fields.
    template <class Message, class Fields, class Write>
    void Receive(int number, Fields const& fields, Write const& write) const {
        Check<Message>(number, fields, [&write](Message& message) {
            PacketEncoder encoder(64);
            encoder.WriteTypeCode(message._type);
            write(encoder, message);
            encoder.Terminate();
            return std::string(reinterpret_cast<char const*>(encoder.Str()), encoder._count);
        });
    }

    /// The readers that no message uses, but the agent's.
    void ReadOtherTypes() const {
        Succeeds([this] {
            PacketDecoder decoder(_packet);
            decoder.ReadStringList();
        });
        Succeeds([this] {
            PacketDecoder decoder;
            decoder.Assign(_packet);
            while (true) {
                decoder.ReadBignum();
                decoder.ReadShort();
                decoder.ReadLong();
            }
        });
    }

private:
    template <class Message, class Fields, class Encode>
    void Check(int number, Fields const& fields, Encode const& encode) const {
        if (number != ANY_NUMBER && number != MessageNumber(_packet)) return;
        SshModel model(_bytes);
        Read(model, fields);
        std::string encoded;
        bool const decoded = Succeeds([&] {
            PacketDecoder decoder(_packet);
            Message message(decoder);
            CheckPayload(message);
            encoded = encode(message);
        });
        char const* const name = typeid(Message).name();
        Require(decoded == model.Fits(), name, decoded ? "decoded from bad bytes" : "good bytes refused");
        Require(!decoded || encoded == model.Encoded(), name, "encoded to other bytes");
    }

    static void Read(SshModel& model, char const* fields) { model.Read(fields); }
    template <class Reader>
    static void Read(SshModel& model, Reader const& reader) {
        reader(model);
    }

    /// Where a message keeps what was received, that is the payload.
    void CheckPayload(Packet const& message) const {
        if (message._payload.Length() == 0) return;
        std::string_view const after = std::string_view(_bytes).substr(1);
        auto const padding = static_cast<unsigned char>(_bytes[0]);
        std::string_view const payload =
            padding <= after.size() ? after.substr(0, after.size() - padding) : after;
        Require(Text(message._payload) == payload, typeid(message).name(), "keeps another payload");
    }

    ByteString _packet;
    std::string _bytes;
};

void OpenTcpChannel(SshModel& model) {
    model.Read("s");
    bool const direct = model.Text() == "direct-tcpip";
    model.Read("uuusu");
    if (direct) model.Read("su");
}

void EncodeOpenTcpChannel(PacketEncoder& out, PacketOpenTcpChannel& message) {
    out.WriteString(message._channelType.Text());
    out.WriteInt(message._senderChannel);
    out.WriteInt(message._windowSize);
    out.WriteInt(message._maxPacketSize);
    out.WriteString(message._host.Text());
    out.WriteInt(message._port);
    if (!(message._channelType == "direct-tcpip")) return;
    out.WriteString(message._originatorHost.Text());
    out.WriteInt(message._originatorPort);
}

void ChannelRequest(SshModel& model) {
    model.Read("us");
    std::string const request = model.Text();
    model.Read("b");
    if (request == "exit-status") model.Read("u");
    if (request == "exit-signal") model.Read("sbSS");
}

void EncodeChannelRequest(PacketEncoder& out, PacketChannelRequest& message) {
    out.WriteInt(message._recipientChannel);
    out.WriteString(message._request.Text());
    out.WriteBool(message._wantReply);
    if (message._request == "exit-status") out.WriteInt(message._exitStatus);
    if (message._request == "exit-signal") {
        out.WriteString(message._signalName.Text());
        out.WriteByte(message._coreDumped);
    }
}

void InfoRequest(SshModel& model) {
    model.Read("sssu");
    for (std::uint32_t prompts = model.Number(); prompts > 0 && model.Ok(); --prompts) model.Read("sb");
}

void EncodeInfoRequest(PacketEncoder& out, PacketUserAuthInfoReq& message) {
    out.WriteString(message._name.Text());
    out.WriteString(message._instruction.Text());
    out.WriteString(message._language.Text());
    out.WriteInt(message._prompts.Len());
    for (TOListIterator<Prompt> prompt(message._prompts); prompt; ++prompt) {
        out.WriteString(prompt->_text.Text());
        out.WriteBool(prompt->_echo);
    }
}

template <class Reply>
void EncodeExchangeReply(PacketEncoder& out, Reply& message) {
    out.WritePublicKey(message._hostKey);
    out.WriteBignum2(message._f._bn);
    out.WriteBytes(message._signature);
}

void DecodeTransport(Input const& input) {
    input.Decode<PacketDisconnect>(Packet::SSH_MSG_DISCONNECT, "uss");
    input.Decode<PacketIgnore>(Packet::SSH_MSG_IGNORE, "x");
    input.Decode<PacketServiceRequest>(Packet::SSH_MSG_SERVICE_REQUEST, "s");
    input.Decode<PacketServiceAccept>(Packet::SSH_MSG_SERVICE_ACCEPT, "s");
    input.Decode<PacketKexInit>(Packet::SSH_MSG_KEXINIT, "cssssssssssbz");
    input.Decode<PacketNewKeys>(Packet::SSH_MSG_NEWKEYS, "");
    input.Receive<PacketKexDhReply>(Packet::SSH_MSG_KEXDH_REPLY, "kmx",
                                    EncodeExchangeReply<PacketKexDhReply>);
    input.Receive<PacketDhGexGroup>(Packet::SSH_MSG_KEX_DH_GEX_GROUP, "mm",
                                    [](PacketEncoder& out, PacketDhGexGroup& message) {
                                        out.WriteBignum2(message._p._bn);
                                        out.WriteBignum2(message._g._bn);
                                    });
    input.Receive<PacketDhGexReply>(Packet::SSH_MSG_KEX_DH_GEX_REPLY, "kmx",
                                    EncodeExchangeReply<PacketDhGexReply>);
}

void DecodeAuthentication(Input const& input) {
    input.Receive<PacketUserAuthFailure>(Packet::SSH_MSG_USERAUTH_FAILURE, "sb",
                                         [](PacketEncoder& out, PacketUserAuthFailure& message) {
                                             out.WriteString(message._methods.Text());
                                             out.WriteBool(message._partialSuccess);
                                         });
    input.Receive<PacketUserAuthSuccess>(Packet::SSH_MSG_USERAUTH_SUCCESS, "",
                                         [](PacketEncoder&, PacketUserAuthSuccess&) {});
    input.Receive<PacketUserAuthBanner>(Packet::SSH_MSG_USERAUTH_BANNER, "ss",
                                        [](PacketEncoder& out, PacketUserAuthBanner& message) {
                                            out.WriteString(message._message.Text());
                                            out.WriteString(message._language.Text());
                                        });
    input.Decode<PacketUserAuthPkOk>(Packet::SSH_MSG_USERAUTH_PK_OK, "sk");
    input.Receive<PacketUserAuthInfoReq>(Packet::SSH_MSG_USERAUTH_INFO_REQUEST, InfoRequest,
                                         EncodeInfoRequest);
}

void DecodeConnection(Input const& input) {
    input.Decode<PacketGlobalRequest>(Packet::SSH_MSG_GLOBAL_REQUEST, "sbsu");
    input.Receive<PacketRequestResult>(ANY_NUMBER, "", [](PacketEncoder&, PacketRequestResult&) {});
    input.Decode<PacketOpenSessionChannel>(Packet::SSH_MSG_CHANNEL_OPEN, "suuu");
    input.Receive<PacketOpenTcpChannel>(Packet::SSH_MSG_CHANNEL_OPEN, OpenTcpChannel, EncodeOpenTcpChannel);
    input.Decode<PacketChannelOpenConfirmation>(Packet::SSH_MSG_CHANNEL_OPEN_CONFIRMATION, "uuuu");
    input.Decode<PacketChannelOpenFailure>(Packet::SSH_MSG_CHANNEL_OPEN_FAILURE, "uuss");
    input.Decode<PacketChannelWindowAdjust>(Packet::SSH_MSG_CHANNEL_WINDOW_ADJUST, "uu");
    input.Decode<PacketChannelData>(Packet::SSH_MSG_CHANNEL_DATA, "ux");
    input.Decode<PacketChannelExtendedData>(Packet::SSH_MSG_CHANNEL_EXTENDED_DATA, "uux");
    input.Decode<PacketChannelEof>(Packet::SSH_MSG_CHANNEL_EOF, "u");
    input.Decode<PacketChannelClose>(Packet::SSH_MSG_CHANNEL_CLOSE, "u");
    input.Decode<PacketChannelResponse>(ANY_NUMBER, "u");
    input.Decode<PacketSessionPtyRequest>(Packet::SSH_MSG_CHANNEL_REQUEST, "usbsuuuux");
    input.Decode<PacketSessionStartShell>(Packet::SSH_MSG_CHANNEL_REQUEST, "usb");
    input.Decode<PacketSessionStartCmd>(Packet::SSH_MSG_CHANNEL_REQUEST, "usbs");
    input.Decode<PacketSessionStartSubsystem>(Packet::SSH_MSG_CHANNEL_REQUEST, "usbs");
    input.Decode<PacketSessionX11Request>(Packet::SSH_MSG_CHANNEL_REQUEST, "usbbssu");
    input.Receive<PacketChannelRequest>(Packet::SSH_MSG_CHANNEL_REQUEST, ChannelRequest,
                                        EncodeChannelRequest);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Input const input(data, size);
    DecodeTransport(input);
    DecodeAuthentication(input);
    DecodeConnection(input);
    input.ReadOtherTypes();
    return 0;
}

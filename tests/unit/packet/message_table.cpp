#include <openssl/bn.h>

#include <brantle/cindral/public_key.h>
#include <brantle/cindral/signature.h>
#include <brantle/packet/auth_messages.h>
#include <brantle/packet/channel_messages.h>
#include <brantle/packet/global_requests.h>
#include <brantle/packet/kex_messages.h>
#include <brantle/packet/session_requests.h>
#include <brantle/packet/transport_messages.h>

#include "message_table.h"
#include "wire.h"

using namespace cindral;

std::string const KEY_BLOB = Wire("00000007 'ssh-rsa' 00000003 010001 00000005 00c0ffee01");
std::string const SIGNATURE_BLOB = Wire("00000007 'ssh-rsa' 00000004 deadbeef");

namespace {

template <class Message>
DecodedMessage Decoded(char const* name, char const* wrongType, Keeps keeps, std::string const& payload) {
    return {name, wrongType, keeps, payload, [](PacketDecoder& decoder) -> std::unique_ptr<Packet> {
                return std::make_unique<Message>(decoder);
            }};
}

template <class Message, class... Arguments>
EncodedMessage Encoded(char const* name, std::string const& line, Arguments... arguments) {
    return {name, Wire(line),
            [=]() -> std::unique_ptr<Packet> { return std::make_unique<Message>(arguments...); }};
}

BigNum Number(unsigned long value) {
    BigNum number;
    BN_set_word(number._bn, value);
    return number;
}

TOList<String_t> Strings(std::initializer_list<char const*> texts) {
    TOList<String_t> list;
    for (char const* text : texts) list.Append(text);
    return list;
}

PublicKey& Key() {
    static PublicKey key(Bytes(KEY_BLOB));
    return key;
}

Signature& Signed() {
    static Signature signature(Bytes(SIGNATURE_BLOB));
    return signature;
}

} // namespace

// clang-format off
std::vector<DecodedMessage> DecodedMessages() {
    Keeps const raw = Keeps::PAYLOAD;
    Keeps const plain = Keeps::NOTHING;
    return {
        Decoded<PacketKexInit>("PacketKexInit", "expected KEXINIT package, received", raw, Wire(
            "14 000102030405060708090a0b0c0d0e0f 00000001 'a' 00000001 'b' 00000001 'c' 00000001 'd' 00000001 'e'"
            "00000001 'f' 00000001 'g' 00000001 'h' 00000001 'i' 00000001 'j' 00 00000000")),
        Decoded<PacketNewKeys>("PacketNewKeys", "expected NEWKEYS package, received", raw, Wire("15")),
        Decoded<PacketKexDhReply>("PacketKexDhReply", "expected KEXDH_REPLY package, received", raw,
            Wire("1f 0000001b") + KEY_BLOB + Wire("00000002 0080 00000013") + SIGNATURE_BLOB),
        Decoded<PacketDhGexGroup>("PacketDhGexGroup", "expected KEX_DH_GEX_GROUP package, received", plain,
            Wire("1f 00000003 00c001 00000001 02")),
        Decoded<PacketDhGexReply>("PacketDhGexReply", "expected KEX_DH_GEX_REPLY package, received", plain,
            Wire("21 0000001b") + KEY_BLOB + Wire("00000002 0080 00000013") + SIGNATURE_BLOB),
        Decoded<PacketDisconnect>("PacketDisconnect", "expected DISCONNECT package, received", raw,
            Wire("01 0000000b 00000003 'bye' 00000002 'en'")),
        Decoded<PacketIgnore>("PacketIgnore", "expected IGNORE package, received", plain, Wire("02 00000003 610062")),
        Decoded<PacketServiceRequest>("PacketServiceRequest", "expected SERVICE_REQUEST package, received", plain,
            Wire("05 0000000c 'ssh-userauth'")),
        Decoded<PacketServiceAccept>("PacketServiceAccept", "expected SERVICE_ACCEPT package, received", plain,
            Wire("06 0000000c 'ssh-userauth'")),

        Decoded<PacketUserAuthFailure>("PacketUserAuthFailure", "expected USERAUTH_FAILURE package, received", raw,
            Wire("33 00000012 'publickey,password' 00")),
        Decoded<PacketUserAuthSuccess>("PacketUserAuthSuccess", "expected USERAUTH_SUCCESS package, received", raw,
            Wire("34")),
        Decoded<PacketUserAuthBanner>("PacketUserAuthBanner", "expected USERAUTH_BANNER package, received", raw,
            Wire("35 00000005 'hello' 00000002 'en'")),
        Decoded<PacketUserAuthPkOk>("PacketUserAuthPkOk", "expected USERAUTH_PK_OK package, received", raw,
            Wire("3c 00000007 'ssh-rsa' 0000001b") + KEY_BLOB),
        Decoded<PacketUserAuthInfoReq>("PacketUserAuthInfoReq", "expected USERAUTH_INFO_REQUEST package, received", raw,
            Wire("3c 00000004 'name' 00000004 'text' 00000000 00000002 00000005 'User:' 01 00000005 'Code:' 00")),

        Decoded<PacketOpenSessionChannel>("PacketOpenSessionChannel", "expected CHANNEL_OPEN package, received", raw,
            Wire("5a 00000007 'session' 00000001 00000002 00000003")),
        Decoded<PacketOpenTcpChannel>("PacketOpenTcpChannel", "expected CHANNEL_OPEN package, received", raw,
            Wire("5a 0000000c 'direct-tcpip' 00000001 00000002 00000003"
                 "00000004 'host' 00000016 00000002 'me' 00001000")),
        Decoded<PacketChannelOpenConfirmation>("PacketChannelOpenConfirmation",
            "expected CHANNEL_OPEN_CONFIRMATION package, received", raw, Wire("5b 00000001 00000002 00000003 00000004")),
        Decoded<PacketChannelOpenFailure>("PacketChannelOpenFailure",
            "expected CHANNEL_OPEN_FAILURE package, received", raw,
            Wire("5c 00000001 00000004 00000004 'full' 00000002 'en'")),
        Decoded<PacketChannelWindowAdjust>("PacketChannelWindowAdjust",
            "expected CHANNEL_WINDOW_ADJUST package, received", raw, Wire("5d 00000001 80000000")),
        Decoded<PacketChannelData>("PacketChannelData", "expected CHANNEL_DATA package, received", raw,
            Wire("5e 00000001 00000004 64617400")),
        Decoded<PacketChannelExtendedData>("PacketChannelExtendedData",
            "expected CHANNEL_EXTENDEDDATA package, received", raw, Wire("5f 00000001 00000001 00000004 64617400")),
        Decoded<PacketChannelEof>("PacketChannelEof", "expected CHANNEL_EOF package, received", raw,
            Wire("60 00000001")),
        Decoded<PacketChannelClose>("PacketChannelClose", "expected CHANNEL_CLOSE package, received", raw,
            Wire("61 00000001")),
        Decoded<PacketChannelResponse>("PacketChannelResponse", nullptr, plain, Wire("63 00000001")),

        Decoded<PacketSessionPtyRequest>("PacketSessionPtyRequest", "expected CHANNEL_REQUEST package, received", raw,
            Wire("62 00000001 00000007 'pty-req' 01 00000005 'vt100' 00000050 00000018 00000280 000001e0"
                 "00000002 0300")),
        Decoded<PacketSessionStartShell>("PacketSessionStartShell", "expected CHANNEL_REQUEST package, received", raw,
            Wire("62 00000001 00000005 'shell' 01")),
        Decoded<PacketSessionStartCmd>("PacketSessionStartCmd", "expected CHANNEL_REQUEST package, received", raw,
            Wire("62 00000001 00000004 'exec' 01 00000002 'ls'")),
        Decoded<PacketSessionStartSubsystem>("PacketSessionStartSubsystem",
            "expected CHANNEL_REQUEST package, received", raw, Wire("62 00000001 00000009 'subsystem' 01 00000004 'sftp'")),
        Decoded<PacketSessionX11Request>("PacketSessionX11Request", "expected SERVICE_REQUEST package, received", plain,
            Wire("62 00000001 00000007 'x11-req' 01 02 00000005 'proto' 00000006 'cookie' 00000003")),
        Decoded<PacketChannelRequest>("PacketChannelRequest", "expected CHANNEL_REQUEST package, received", raw,
            Wire("62 00000001 0000000b 'exit-status' 00 00000007")),

        Decoded<PacketGlobalRequest>("PacketGlobalRequest", "expected GLOBAL_REQUEST package, received", plain,
            Wire("50 0000000d 'tcpip-forward' 01 00000007 '0.0.0.0' 00001f90")),
        Decoded<PacketRequestResult>("PacketRequestResult", nullptr, plain, Wire("51")),
    };
}

std::vector<EncodedMessage> EncodedMessages() {
    return {
        Encoded<PacketNewKeys>("NewKeys", "15"),
        Encoded<PacketKexDhInit>("KexDhInit", "1e 00000002 0080", Number(128)),
        Encoded<PacketDhGexReq>("DhGexReq", "22 00000400 00000800 00002000", 1024, 2048, 8192),
        Encoded<PacketDhGexReq>("DhGexReqOfParameters", "22 00000401 00000801 00001fff",
            DhGexParameters(1025, 2049, 8191)),
        Encoded<PacketDhGexReq>("DhGexReqOfPreferredAlone", "22 ffffffff 00000800 ffffffff", DhGexParameters(2048)),
        Encoded<PacketDhGexInit>("DhGexInit", "20 00000002 7fff", Number(0x7fff)),
        Encoded<PacketDisconnect>("Disconnect", "01 0000000b 00000003 'bye' 00000002 'en'", 11, "bye", "en"),
        Encoded<PacketDisconnect>("DisconnectWithoutTexts", "01 00000002 00000000 00000000", 2, String_t(), String_t()),
        Encoded<PacketIgnore>("Ignore", "02 00000003 610062", Bytes(Wire("610062"))),
        Encoded<PacketServiceRequest>("ServiceRequest", "05 0000000c 'ssh-userauth'", "ssh-userauth"),
        Encoded<PacketServiceAccept>("ServiceAccept", "06 0000000e 'ssh-connection'", "ssh-connection"),

        Encoded<PacketUserAuthNoneRequest>("UserAuthNoneRequest",
            "32 00000002 'me' 0000000e 'ssh-connection' 00000004 'none'", "me", "ssh-connection"),
        EncodedMessage{"UserAuthPubkeyQuery",
            Wire("32 00000002 'me' 0000000e 'ssh-connection' 00000009 'publickey' 00 00000007 'ssh-rsa' 0000001b") +
                KEY_BLOB,
            [] { return std::make_unique<PacketUserAuthPubkeyRequest>("me", "ssh-connection", "ssh-rsa", Key()); }},
        EncodedMessage{"UserAuthPubkeyRequest",
            Wire("32 00000002 'me' 0000000e 'ssh-connection' 00000009 'publickey' 01 00000007 'ssh-rsa' 0000001b") +
                KEY_BLOB + Wire("00000013") + SIGNATURE_BLOB,
            [] { return std::make_unique<PacketUserAuthPubkeyRequest>("me", "ssh-connection", "ssh-rsa", Key(),
                                                                      &Signed()); }},
        Encoded<PacketUserAuthPasswdRequest>("UserAuthPasswdRequest",
            "32 00000002 'me' 0000000e 'ssh-connection' 00000008 'password' 00 00000006 'secret'",
            "me", "ssh-connection", "secret"),
        Encoded<PacketUserAuthPasswdRequest>("UserAuthPasswdRequestWithoutPassword",
            "32 00000002 'me' 0000000e 'ssh-connection' 00000008 'password' 00 00000000",
            "me", "ssh-connection", ""),
        Encoded<PacketUserAuthInteractive>("UserAuthInteractive",
            "32 00000002 'me' 0000000e 'ssh-connection' 00000014 'keyboard-interactive' 00000000 00000003 'pam'",
            "me", "ssh-connection", "pam"),
        EncodedMessage{"UserAuthPkOk", Wire("3c 00000007 'ssh-rsa' 0000001b") + KEY_BLOB,
            [] { return std::make_unique<PacketUserAuthPkOk>("ssh-rsa", Bytes(KEY_BLOB)); }},
        Encoded<PacketUserAuthInfoResp>("UserAuthInfoResp", "3d 00000002 00000002 'me' 00000006 'secret'",
            Strings({"me", "secret"})),
        Encoded<PacketUserAuthInfoResp>("UserAuthInfoRespOfNothing", "3d 00000000", Strings({})),

        Encoded<PacketOpenSessionChannel>("OpenSessionChannel",
            "5a 00000007 'session' 00000001 00000002 00000003", 1u, 2u, 3u),
        Encoded<PacketOpenTcpChannel>("OpenTcpChannel",
            "5a 0000000c 'direct-tcpip' 00000001 00000002 00000003 00000004 'host' 00000016 00000002 'me' 00001000",
            1u, 2u, 3u, "host", 22u, "me", 4096u),
        Encoded<PacketChannelOpenConfirmation>("ChannelOpenConfirmation",
            "5b 00000001 00000002 00000003 00000004", 1u, 2u, 3u, 4u),
        Encoded<PacketChannelOpenFailure>("ChannelOpenFailure",
            "5c 00000001 00000004 00000004 'full' 00000002 'en'", 1u, 4u, "full", "en"),
        Encoded<PacketChannelWindowAdjust>("ChannelWindowAdjust", "5d 00000001 ffffffff", 1u, 4294967295u),
        Encoded<PacketChannelData>("ChannelData", "5e 00000001 00000004 64617400", 1u, Bytes(Wire("64617400"))),
        Encoded<PacketChannelData>("ChannelDataOfNothing", "5e 00000001 00000000", 1u, ByteString()),
        EncodedMessage{"ChannelDataByPointer", Wire("5e 00000001 00000003 'dat'"),
            [] { return std::make_unique<PacketChannelData>(1u, "data", 3u); }},
        EncodedMessage{"ChannelDataOfNothingByPointer", Wire("5e 00000001 00000000"),
            [] { return std::make_unique<PacketChannelData>(1u, "data", 0u); }},
        Encoded<PacketChannelExtendedData>("ChannelExtendedData",
            "5f 00000001 00000001 00000004 64617400", 1u, 1u, Bytes(Wire("64617400"))),
        Encoded<PacketChannelEof>("ChannelEof", "60 00000001", 1u),
        Encoded<PacketChannelClose>("ChannelClose", "61 00000001", 1u),
        Encoded<PacketChannelResponse>("ChannelSuccess", "63 00000001", 99, 1u),
        Encoded<PacketChannelResponse>("ChannelFailure", "64 00000001", 100, 1u),

        Encoded<PacketSessionStartShell>("SessionStartShell", "62 00000001 00000005 'shell' 01", 1u, 1),
        Encoded<PacketSessionStartCmd>("SessionStartCmd", "62 00000001 00000004 'exec' 00 00000002 'ls'", 1u, 0, "ls"),
        Encoded<PacketSessionStartSubsystem>("SessionStartSubsystem",
            "62 00000001 00000009 'subsystem' 01 00000004 'sftp'", 1u, 1, "sftp"),
        Encoded<PacketSessionX11Request>("SessionX11Request",
            "62 00000001 00000007 'x11-req' 01 00 00000005 'proto' 00000006 'cookie' 00000003",
            1u, 1, 0, "proto", "cookie", 3u),
        Encoded<PacketChannelRequest>("ChannelRequest", "62 00000001 0000000b 'exit-status' 01", 1u, "exit-status", 1),

        Encoded<PacketGlobalRequest>("GlobalRequest",
            "50 00000014 'cancel-tcpip-forward' 01 00000007 '0.0.0.0' 00001f90",
            "cancel-tcpip-forward", 1, "0.0.0.0", 8080u),
    };
}
// clang-format on

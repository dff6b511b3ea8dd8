#include <algorithm>

#include "support/peer/peer_connection.h"

namespace peer {

namespace {

/// RFC 4253, section 6: at least four bytes, up to a multiple of the block size.
std::size_t PaddingFor(std::size_t counted, std::size_t block) {
    std::size_t const padding = block - counted % block;
    return padding < 4 ? padding + block : padding;
}

} // namespace

std::vector<Bytes> PeerConnection::ReceivedAfter(std::uint8_t type) const {
    std::vector<Bytes> payloads;
    bool found = false;
    for (PacketRecord const& record : received) {
        if (found) payloads.push_back(record.payload);
        found = found || record.Type() == type;
    }
    return payloads;
}

std::size_t PeerConnection::CountReceived(std::uint8_t type) const {
    return static_cast<std::size_t>(std::count_if(received.begin(), received.end(),
                                                  [&](auto const& record) { return record.Type() == type; }));
}

std::string PeerConnection::ReadLine() {
    std::string line;
    while (line.empty() || line.back() != '\n') line += ToText(_link.Receive(1));
    return line;
}

void PeerConnection::ExpectClosed() {
    Bytes const more = _link.ReceiveUpTo(1);
    if (!more.empty()) throw PeerError("the client sends more, beginning with " + Hex(more));
}

void PeerConnection::ReadUntilClosed() {
    while (!_link.ReceiveUpTo(1).empty()) {
    }
}

Bytes PeerConnection::Encode(Bytes const& payload, SendOptions const& options) {
    Alignment const alignment = SendingAlignment();
    PacketRecord record;
    record.blockSize = alignment.block;
    record.payload = payload;
    std::size_t const counted = (alignment.lengthIsOutside ? 1 : 5) + payload.size();
    record.padding = options.padding ? *options.padding : Bytes(PaddingFor(counted, record.blockSize));
    record.paddingLength = options.paddingLength.value_or(static_cast<std::uint8_t>(record.padding.size()));
    record.packetLength =
        options.packetLength.value_or(static_cast<std::uint32_t>(1 + payload.size() + record.padding.size()));
    record.plain =
        Writer().U32(record.packetLength).U8(record.paddingLength).Raw(payload).Raw(record.padding).Data();
    record.sequence = _sendSequence++;
    Seal(record, options);
    record.streamOffset = _link.SentCount();
    Bytes bytes = Concat({record.raw, record.mac});
    if (_link.recording) sent.push_back(std::move(record));
    return bytes;
}

void PeerConnection::SendPacket(Bytes const& payload, SendOptions const& options) {
    _link.Send(Encode(payload, options));
    if (!options.macBytes) return;
    _link.ShutdownWrite();
    throw Cut("connection closed within the MAC");
}

void PeerConnection::SendTogether(std::vector<Bytes> const& payloads) {
    Bytes all;
    for (Bytes const& payload : payloads) {
        Bytes const packet = Encode(payload);
        if (_link.recording) sent.back().streamOffset += all.size();
        all.insert(all.end(), packet.begin(), packet.end());
    }
    _link.Send(all);
}

Bytes PeerConnection::Record(PacketRecord record) {
    Bytes payload = record.payload;
    if (_link.recording) received.push_back(std::move(record));
    return payload;
}

Reader PeerConnection::Fields(Bytes payload, std::uint8_t type) {
    Reader reader(std::move(payload));
    std::uint8_t const got = reader.U8();
    if (got != type)
        throw PeerError("message " + std::to_string(type) + " expected, " + std::to_string(got) + " came");
    return reader;
}

void PeerConnection::ServiceAccept() {
    Reader reader = ExpectPacket(SERVICE_REQUEST);
    std::string const service = reader.String();
    reader.End();
    if (service != "ssh-userauth") throw PeerError("service " + service);
    SendPacket(Writer().U8(SERVICE_ACCEPT).String(service));
}

AuthRequest PeerConnection::ReadAuthRequest() {
    Reader reader = ExpectPacket(USERAUTH_REQUEST);
    AuthRequest request;
    request.payload = Concat({Bytes{USERAUTH_REQUEST}, Reader(reader).Rest()});
    request.user = reader.String();
    request.service = reader.String();
    request.method = reader.String();
    if (request.method == "publickey") {
        request.flag = reader.Bool();
        request.algorithm = reader.String();
        request.key = reader.Blob();
        if (request.flag) request.signature = reader.Blob();
    } else if (request.method == "password") {
        request.flag = reader.Bool();
        request.password = reader.String();
    } else if (request.method == "keyboard-interactive") {
        request.language = reader.String();
        request.submethods = reader.String();
    }
    reader.End();
    return request;
}

void PeerConnection::SendAuthFailure(std::string_view methods, bool partial) {
    SendPacket(Writer().U8(USERAUTH_FAILURE).String(methods).Bool(partial));
}

void PeerConnection::SendAuthSuccess() { SendPacket(Writer().U8(USERAUTH_SUCCESS)); }

void PeerConnection::SendBanner(std::string_view text, std::string_view language) {
    SendPacket(Writer().U8(USERAUTH_BANNER).String(text).String(language));
}

void PeerConnection::SendPkOk(std::string_view algorithm, Bytes const& key) {
    SendPacket(Writer().U8(USERAUTH_PK_OK).String(algorithm).String(key));
}

void PeerConnection::SendInfoRequest(std::string_view name, std::string_view instruction,
                                     std::vector<Prompt> const& prompts) {
    Writer writer;
    writer.U8(USERAUTH_INFO_REQUEST).String(name).String(instruction).String("");
    writer.U32(static_cast<std::uint32_t>(prompts.size()));
    for (Prompt const& prompt : prompts) writer.String(prompt.text).Bool(prompt.echo);
    SendPacket(writer);
}

std::vector<std::string> PeerConnection::ReadInfoResponse() {
    Reader reader = ExpectPacket(USERAUTH_INFO_RESPONSE);
    std::vector<std::string> answers;
    for (std::uint32_t count = reader.U32(); count > 0; --count) answers.push_back(reader.String());
    reader.End();
    return answers;
}

ChannelOpen PeerConnection::ReadChannelOpen() {
    Reader reader = ExpectPacket(CHANNEL_OPEN);
    ChannelOpen open;
    open.type = reader.String();
    open.sender = reader.U32();
    open.window = reader.U32();
    open.maxPacket = reader.U32();
    open.rest = reader.Rest();
    return open;
}

void PeerConnection::SendOpenConfirmation(std::uint32_t recipient) {
    PeerSettings const& settings = CommonSettings();
    SendPacket(Writer()
                   .U8(CHANNEL_OPEN_CONFIRMATION)
                   .U32(recipient)
                   .U32(settings.channel)
                   .U32(settings.window)
                   .U32(settings.maxPacket));
}

void PeerConnection::SendOpenFailure(std::uint32_t reason, std::string_view text, std::uint32_t recipient) {
    SendPacket(Writer().U8(CHANNEL_OPEN_FAILURE).U32(recipient).U32(reason).String(text).String(""));
}

void PeerConnection::ConfirmOpen() { SendOpenConfirmation(ReadChannelOpen().sender); }

ChannelRequest PeerConnection::ReadChannelRequest() {
    Reader reader = ExpectPacket(CHANNEL_REQUEST);
    ChannelRequest request;
    request.recipient = reader.U32();
    request.type = reader.String();
    request.wantReply = reader.Bool();
    request.rest = reader.Rest();
    return request;
}

void PeerConnection::SendChannelMessage(std::uint8_t type, std::uint32_t recipient) {
    SendPacket(Writer().U8(type).U32(recipient));
}

void PeerConnection::SendData(std::string_view data, std::uint32_t recipient) {
    SendPacket(Writer().U8(CHANNEL_DATA).U32(recipient).String(data));
}

void PeerConnection::SendExtendedData(std::string_view data, std::uint32_t type, std::uint32_t recipient) {
    SendPacket(Writer().U8(CHANNEL_EXTENDED_DATA).U32(recipient).U32(type).String(data));
}

void PeerConnection::SendWindowAdjust(std::uint32_t bytes, std::uint32_t recipient) {
    SendPacket(Writer().U8(CHANNEL_WINDOW_ADJUST).U32(recipient).U32(bytes));
}

void PeerConnection::SendExitStatus(std::uint32_t status, bool wantReply, std::uint32_t recipient) {
    SendPacket(Writer().U8(CHANNEL_REQUEST).U32(recipient).String("exit-status").Bool(wantReply).U32(status));
}

void PeerConnection::SendExitSignal(std::string_view name, bool core, std::uint32_t recipient) {
    SendPacket(Writer()
                   .U8(CHANNEL_REQUEST)
                   .U32(recipient)
                   .String("exit-signal")
                   .Bool(false)
                   .String(name)
                   .Bool(core)
                   .String("")
                   .String(""));
}

void PeerConnection::SendDisconnect(std::uint32_t reason, std::string_view text) {
    SendPacket(Writer().U8(DISCONNECT).U32(reason).String(text).String(""));
}

void PeerConnection::SendIgnore(std::string_view data) { SendPacket(Writer().U8(IGNORE).String(data)); }

void PeerConnection::SendDebug(std::string_view text, bool show) {
    SendPacket(Writer().U8(DEBUG).Bool(show).String(text).String(""));
}

} // namespace peer

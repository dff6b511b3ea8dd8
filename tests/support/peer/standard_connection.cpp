#include <algorithm>

#include "support/peer/standard_connection.h"

namespace peer {

namespace {

std::size_t const largestPacket = 1 << 20;
std::size_t const minimumPadding = 4;
char const gexName[] = "diffie-hellman-group-exchange-sha256";
char const nistName[] = "ecdh-sha2-nistp256";

bool IsCurve(std::string const& kex) { return kex[0] == 'c' || kex == nistName; }

bool HasName(std::string const& list, std::string const& name) {
    auto const names = SplitNames(list);
    return std::find(names.begin(), names.end(), name) != names.end();
}

std::string FirstCommon(std::string const& client, std::string const& server) {
    for (std::string const& name : SplitNames(client))
        if (HasName(server, name)) return name;
    throw PeerError("nothing in common: " + client + " and " + server);
}

/// What comes after the number of a message, which must be that one.
Reader Fields(Bytes payload, std::uint8_t type) {
    Reader reader(std::move(payload));
    std::uint8_t const number = reader.U8();
    if (number != type)
        throw PeerError("message " + std::to_string(number) + " in place of " + std::to_string(type));
    return reader;
}

Bytes MpintBody(Bytes const& magnitude) {
    Bytes const field = Writer().Mpint(magnitude);
    return Slice(field, 4, field.size());
}

} // namespace

StandardSettings::StandardSettings() {
    Kex("curve25519-sha256");
    Pin("aes128-gcm@openssh.com");
}

StandardSettings& StandardSettings::Pin(std::string const& cipher, std::string const& mac) {
    kexInit.Pin(cipher, mac);
    return *this;
}

StandardSettings& StandardSettings::Kex(std::string const& kex, std::string const& hostKeyAlgorithm) {
    kexInit.kex = kex;
    kexInit.hostKey = hostKeyAlgorithm;
    return *this;
}

StandardConnection::StandardConnection(int fd, int abortFd, StandardSettings const& initial,
                                       std::size_t number)
    : settings(initial), index(number), _link(fd, abortFd) {}

std::vector<Bytes> StandardConnection::ReceivedAfter(std::uint8_t type) const {
    std::vector<Bytes> payloads;
    bool found = false;
    for (PacketRecord const& record : received) {
        if (found) payloads.push_back(record.payload);
        found = found || record.Type() == type;
    }
    return payloads;
}

std::size_t StandardConnection::CountReceived(std::uint8_t type) const {
    return static_cast<std::size_t>(std::count_if(received.begin(), received.end(),
                                                  [&](auto const& record) { return record.Type() == type; }));
}

// --- bytes and packets

std::string StandardConnection::ReadLine() {
    std::string line;
    while (line.empty() || line.back() != '\n') line += ToText(_link.Receive(1));
    return line;
}

void StandardConnection::ExpectClosed() {
    Bytes const more = _link.ReceiveUpTo(1);
    if (!more.empty()) throw PeerError("the client sends more, beginning with " + Hex(more));
}

void StandardConnection::ReadUntilClosed() {
    while (!_link.ReceiveUpTo(1).empty()) {
    }
}

Bytes StandardConnection::Encode(Bytes const& payload, SendOptions const& options) {
    PacketRecord record;
    record.blockSize = _sending.Alignment();
    record.encrypted = !_sending.IsNone();
    record.payload = payload;
    std::size_t const counted = (_sending.LengthIsOutside() ? 1 : 5) + payload.size() + minimumPadding;
    std::size_t const align = (record.blockSize - counted % record.blockSize) % record.blockSize;
    record.padding = options.padding ? *options.padding : Bytes(minimumPadding + align);
    record.paddingLength = options.paddingLength.value_or(static_cast<std::uint8_t>(record.padding.size()));
    record.packetLength =
        options.packetLength.value_or(static_cast<std::uint32_t>(1 + payload.size() + record.padding.size()));
    record.plain =
        Writer().U32(record.packetLength).U8(record.paddingLength).Raw(payload).Raw(record.padding);
    record.sequence = _sendSequence++;
    record.raw = _sending.Seal(record.sequence, record.plain);
    if (options.flipMacByte)
        record.raw.at(record.raw.size() - _sending.TagLength() + *options.flipMacByte) ^= 0x01;
    record.streamOffset = _link.SentCount();
    Bytes bytes = record.raw;
    if (_link.recording) sent.push_back(std::move(record));
    return bytes;
}

void StandardConnection::SendPacket(Bytes const& payload, SendOptions const& options) {
    _link.Send(Encode(payload, options));
}

void StandardConnection::SendSealed(Bytes const& plain) { _link.Send(_sending.Seal(_sendSequence++, plain)); }

void StandardConnection::SendTogether(std::vector<Bytes> const& payloads) {
    Bytes all;
    for (Bytes const& payload : payloads) {
        Bytes const packet = Encode(payload);
        if (_link.recording) sent.back().streamOffset += all.size();
        all.insert(all.end(), packet.begin(), packet.end());
    }
    _link.Send(all);
}

Bytes StandardConnection::TakePacket() {
    PacketRecord record;
    record.streamOffset = _link.ReceivedCount();
    record.blockSize = _receiving.Alignment();
    record.encrypted = !_receiving.IsNone();
    record.sequence = _receiveSequence;
    Bytes const head = _link.Receive(_receiving.HeadLength());
    record.packetLength = _receiving.Length(record.sequence, head);
    std::size_t const size = 4 + std::size_t{record.packetLength};
    std::size_t const aligned = size - (_receiving.LengthIsOutside() ? 4 : 0);
    if (size < head.size() || size > largestPacket || aligned % record.blockSize != 0)
        throw PeerError("packet length " + std::to_string(record.packetLength));
    Bytes const rest = _link.Receive(size - head.size() + _receiving.TagLength());
    record.plain = _receiving.Open(record.sequence, head, rest);
    ++_receiveSequence;
    record.paddingLength = record.plain.at(4);
    if (record.paddingLength < minimumPadding || std::size_t{record.paddingLength} + 5 >= size)
        throw PeerError("padding length " + std::to_string(record.paddingLength));
    record.payload = Slice(record.plain, 5, size - 5 - record.paddingLength);
    Bytes payload = record.payload;
    if (_link.recording) received.push_back(std::move(record));
    return payload;
}

Bytes StandardConnection::ReadPacket() {
    while (_kept.empty()) {
        Bytes payload = TakePacket();
        if (!answersKexInit || sessionId.empty() || payload.at(0) != KEXINIT) return payload;
        kex = StandardKex();
        kex.clientInit = std::move(payload);
        SendKexInit();
        FinishExchange();
    }
    Bytes payload = _kept.front();
    _kept.pop_front();
    return payload;
}

Reader StandardConnection::ExpectPacket(std::uint8_t type) { return Fields(ReadPacket(), type); }

Reader StandardConnection::SkipTo(std::uint8_t type) {
    for (;;) {
        Reader reader(ReadPacket());
        if (reader.U8() == type) return reader;
    }
}

void StandardConnection::ReadToTheEnd() {
    try {
        for (;;) ReadPacket();
    } catch (Closed const&) {
    }
}

// --- key exchange

void StandardConnection::Identify() {
    SendLine(settings.versionLine);
    clientVersion = ReadLine();
    if (clientVersion.size() < 2 || clientVersion.substr(clientVersion.size() - 2) != "\r\n")
        throw PeerError("no line end in " + clientVersion);
    clientVersion.resize(clientVersion.size() - 2);
}

void StandardConnection::SendKexInit() {
    KexInitLists lists = settings.kexInit;
    if (settings.strict && sessionId.empty()) lists.kex += ",kex-strict-s-v00@openssh.com";
    kex.serverInit = lists.Payload();
    SendPacket(kex.serverInit);
}

void StandardConnection::ReceiveKexInit() {
    for (;;) {
        Bytes const payload = TakePacket();
        if (payload.at(0) == KEXINIT) {
            kex.clientInit = payload;
            break;
        }
        if (sessionId.empty()) throw PeerError("message " + std::to_string(payload[0]) + " before KEXINIT");
        _kept.push_back(payload);
    }
    if (!sessionId.empty()) return;
    std::string const names = KexInitLists::Parse(kex.clientInit).kex;
    strict = settings.strict && HasName(names, "kex-strict-c-v00@openssh.com");
    _wantsExtInfo = HasName(names, "ext-info-c");
}

void StandardConnection::Negotiate() {
    KexInitLists const client = KexInitLists::Parse(kex.clientInit);
    KexInitLists const server = KexInitLists::Parse(kex.serverInit);
    kex.name = FirstCommon(client.kex, server.kex);
    kex.hostKeyAlgorithm = FirstCommon(client.hostKey, server.hostKey);
    kex.ciphers[0] = FirstCommon(client.cipherClientToServer, server.cipherClientToServer);
    kex.ciphers[1] = FirstCommon(client.cipherServerToClient, server.cipherServerToClient);
    auto const mac = [](std::string const& cipher, std::string const& ours, std::string const& theirs) {
        return cipher.find("-ctr") == std::string::npos ? "" : FirstCommon(ours, theirs);
    };
    kex.macs[0] = mac(kex.ciphers[0], client.macClientToServer, server.macClientToServer);
    kex.macs[1] = mac(kex.ciphers[1], client.macServerToClient, server.macServerToClient);
}

void StandardConnection::ReceiveKexMessage() {
    Negotiate();
    if (kex.name == gexName) {
        Reader request = Fields(TakePacket(), GEX_REQUEST);
        kex.groupRequest = request.Rest();
        Reader sizes(kex.groupRequest);
        std::uint32_t const min = sizes.U32(), preferred = sizes.U32(), max = sizes.U32();
        kex.group = settings.group ? *settings.group : DhGroup::ForRequest(min, preferred, max);
        SendPacket(Writer().U8(GEX_GROUP).Mpint(kex.group.p).Mpint(kex.group.g));
        kex.clientValue = Fields(TakePacket(), GEX_INIT).Mpint();
        return;
    }
    Reader reader = Fields(TakePacket(), KEXDH_INIT);
    if (!IsCurve(kex.name)) kex.group = DhGroup::Modp(2048);
    kex.clientValue = IsCurve(kex.name) ? reader.Blob() : reader.Mpint();
    reader.End();
}

Share StandardConnection::AgreeInGroup(Bytes const& clientValue) const {
    return {ServerPublicValue(kex.group), ModularPower(clientValue, ServerExponent(), kex.group.p)};
}

KexReply StandardConnection::MakeReply(std::optional<Share> const& given) {
    bool const isCurve = IsCurve(kex.name);
    Share const share = given                  ? *given
                        : !isCurve             ? AgreeInGroup(kex.clientValue)
                        : kex.name == nistName ? AgreeNistp256(kex.clientValue)
                                               : AgreeX25519(kex.clientValue);
    KexReply reply;
    reply.number = kex.name == gexName ? GEX_REPLY : KEXDH_REPLY;
    reply.hostKey = settings.hostKey->Blob();
    reply.value = isCurve ? share.publicValue : MpintBody(share.publicValue);
    kex.secret = share.secret;
    Writer data;
    data.String(clientVersion)
        .String(settings.versionLine.substr(0, settings.versionLine.find_first_of("\r\n")));
    data.String(kex.clientInit).String(kex.serverInit).String(reply.hostKey).Raw(kex.groupRequest);
    if (kex.name == gexName) data.Mpint(kex.group.p).Mpint(kex.group.g);
    if (isCurve)
        data.String(kex.clientValue);
    else
        data.Mpint(kex.clientValue);
    kex.hash = Sha2(EVP_sha256(), data.String(reply.value).Mpint(kex.secret));
    reply.signature = settings.hostKey->Sign(kex.hostKeyAlgorithm, kex.hash);
    return reply;
}

Bytes StandardConnection::Derive(char letter) const {
    Bytes const start = Writer().Mpint(kex.secret).Raw(kex.hash);
    Bytes key = Sha2(EVP_sha256(), Concat({start, {static_cast<std::uint8_t>(letter)}, sessionId}));
    while (key.size() < 64) key = Concat({key, Sha2(EVP_sha256(), Concat({start, key}))});
    return key;
}

/// RFC 4253, section 7.2. Direction 0 is client to server.
Protection StandardConnection::MakeProtection(int direction) const {
    char const first = direction == 0 ? 'A' : 'B';
    return Protection(kex.ciphers[direction], kex.macs[direction], Derive(first),
                      Derive(static_cast<char>(first + 2)), Derive(static_cast<char>(first + 4)),
                      direction == 1);
}

void StandardConnection::SendNewKeys() {
    SendPacket(Writer().U8(NEWKEYS));
    if (sessionId.empty()) sessionId = kex.hash;
    _sending = MakeProtection(1);
    if (strict && resets) _sendSequence = 0;
}

void StandardConnection::ReceiveNewKeys() {
    Bytes const payload = TakePacket();
    if (payload != Bytes{NEWKEYS}) throw PeerError("no NEWKEYS: " + Hex(payload));
    if (sessionId.empty()) sessionId = kex.hash;
    _receiving = MakeProtection(0);
    if (strict && resets) _receiveSequence = 0;
}

void StandardConnection::FinishExchange() {
    ReceiveKexMessage();
    SendReply(MakeReply());
    SendNewKeys();
    ReceiveNewKeys();
}

void StandardConnection::Exchange() {
    SendKexInit();
    ReceiveKexInit();
    FinishExchange();
    if (_wantsExtInfo && !settings.signatureAlgorithms.empty())
        SendPacket(
            Writer().U8(EXT_INFO).U32(1).String("server-sig-algs").String(settings.signatureAlgorithms));
}

void StandardConnection::Rekey() {
    kex = StandardKex();
    SendKexInit();
    ReceiveKexInit();
    FinishExchange();
}

// --- authentication and the session channel

void StandardConnection::ServiceAccept() {
    Reader reader = ExpectPacket(SERVICE_REQUEST);
    std::string const service = reader.String();
    reader.End();
    if (service != "ssh-userauth") throw PeerError("service " + service);
    SendPacket(Writer().U8(SERVICE_ACCEPT).String(service));
}

AuthRequest StandardConnection::ReadAuthRequest() {
    Bytes const payload = ReadPacket();
    Reader reader(payload);
    if (reader.U8() != USERAUTH_REQUEST) throw PeerError("no USERAUTH_REQUEST: " + Hex(payload));
    AuthRequest request;
    request.payload = payload;
    request.user = reader.String();
    request.service = reader.String();
    request.method = reader.String();
    if (request.method == "password") {
        request.flag = reader.Bool();
        request.password = reader.String();
    } else if (request.method == "publickey") {
        request.flag = reader.Bool();
        request.algorithm = reader.String();
        request.key = reader.Blob();
        if (request.flag) request.signature = reader.Blob();
    } else if (request.method == "keyboard-interactive") {
        request.language = reader.String();
        request.submethods = reader.String();
    }
    reader.End();
    return request;
}

void StandardConnection::SendAuthFailure(std::string_view methods, bool partial) {
    SendPacket(Writer().U8(USERAUTH_FAILURE).String(methods).Bool(partial));
}

void StandardConnection::Authenticate() {
    for (;;) {
        AuthRequest const request = ReadAuthRequest();
        bool const accepted = request.user == settings.user &&
                              ((request.method == "none" && settings.noneAccepted) ||
                               (request.method == "password" && request.password == settings.password));
        if (accepted) break;
        SendAuthFailure(settings.methods);
    }
    SendPacket(Writer().U8(USERAUTH_SUCCESS));
}

void StandardConnection::ConfirmOpen() {
    Reader reader = ExpectPacket(CHANNEL_OPEN);
    reader.String();
    std::uint32_t const recipient = reader.U32();
    SendPacket(Writer()
                   .U8(CHANNEL_OPEN_CONFIRMATION)
                   .U32(recipient)
                   .U32(settings.channel)
                   .U32(settings.window)
                   .U32(settings.maxPacket));
}

ChannelRequest StandardConnection::ReadChannelRequest(bool succeeds) {
    Reader reader = ExpectPacket(CHANNEL_REQUEST);
    ChannelRequest request;
    request.recipient = reader.U32();
    request.type = reader.String();
    request.wantReply = reader.Bool();
    request.rest = reader.Rest();
    if (request.wantReply) SendPacket(Writer().U8(succeeds ? CHANNEL_SUCCESS : CHANNEL_FAILURE).U32(0));
    return request;
}

void StandardConnection::WellBehaved(Stage stage) {
    Identify();
    if (stage == Stage::Identified) return;
    if (stage == Stage::KexInitExchanged) {
        SendKexInit();
        ReceiveKexInit();
        return;
    }
    Exchange();
    if (stage == Stage::NewKeys) return;
    ServiceAccept();
    if (stage == Stage::Service) return;
    Authenticate();
    if (stage == Stage::Authenticated) return;
    ConfirmOpen();
}

} // namespace peer

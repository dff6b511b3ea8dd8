#include <algorithm>

#include "support/peer/standard_connection.h"

namespace peer {

namespace {

std::size_t const largestPacket = 1 << 20;
std::size_t const minimumPadding = 4;
char const gexName[] = "diffie-hellman-group-exchange-sha256";
char const nistName[] = "ecdh-sha2-nistp256";

bool IsCurve(std::string const& kex) { return kex[0] == 'c' || kex == nistName; }

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
    : PeerConnection(fd, abortFd, number), settings(initial) {}

void StandardConnection::Seal(PacketRecord& record, SendOptions const& options) {
    record.encrypted = !_sending.IsNone();
    record.raw = _sending.Seal(record.sequence, record.plain);
    if (options.flipMacByte)
        record.raw.at(record.raw.size() - _sending.TagLength() + *options.flipMacByte) ^= 0x01;
}

void StandardConnection::SendSealed(Bytes const& plain) { _link.Send(_sending.Seal(_sendSequence++, plain)); }

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
    return Record(std::move(record));
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

void StandardConnection::Authenticate() {
    for (;;) {
        AuthRequest const request = ReadAuthRequest();
        bool const accepted = request.user == settings.user &&
                              ((request.method == "none" && settings.noneAccepted) ||
                               (request.method == "password" && request.password == settings.password));
        if (accepted) break;
        SendAuthFailure(settings.methods);
    }
    SendAuthSuccess();
}

ChannelRequest StandardConnection::ReadChannelRequest(bool succeeds) {
    ChannelRequest const request = PeerConnection::ReadChannelRequest();
    if (request.wantReply) SendChannelMessage(succeeds ? CHANNEL_SUCCESS : CHANNEL_FAILURE);
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

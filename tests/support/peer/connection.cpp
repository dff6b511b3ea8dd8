#include <algorithm>

#include "support/peer/connection.h"

namespace peer {

namespace {

char const gexName[] = "diffie-hellman-group-exchange-sha1";
std::size_t const largestPacket = std::size_t{64} << 20;

std::string FirstCommon(std::string const& client, std::string const& server) {
    auto const names = SplitNames(server);
    for (std::string const& name : SplitNames(client))
        if (std::find(names.begin(), names.end(), name) != names.end()) return name;
    throw PeerError("nothing common in \"" + client + "\" and \"" + server + "\"");
}

std::size_t MaterialNeed(std::string const& cipher, std::string const& mac) {
    return std::max({CipherKeyLength(cipher), CipherBlockSize(cipher), MacKeyLength(mac)});
}

/// RFC 4253, section 6: at least four bytes, up to a multiple of the block size.
std::size_t PaddingFor(std::size_t payload, std::size_t block) {
    std::size_t const padding = block - (payload + 5) % block;
    return padding < 4 ? padding + block : padding;
}

} // namespace

KexInitLists::KexInitLists() : cookie(ToBytes("0123456789abcdef")), kex(gexName), hostKey("ssh-rsa,ssh-dss") {
    cipherClientToServer = cipherServerToClient =
        "3des-cbc,aes256-cbc,aes192-cbc,aes256-ctr,aes192-ctr,aes128-cbc,aes128-ctr";
    macClientToServer = macServerToClient = "hmac-sha2-512,hmac-sha2-256,hmac-md5,hmac-sha1-96,hmac-sha1";
}

Bytes KexInitLists::Payload() const {
    return Writer()
        .U8(KEXINIT)
        .Raw(cookie)
        .String(kex)
        .String(hostKey)
        .String(cipherClientToServer)
        .String(cipherServerToClient)
        .String(macClientToServer)
        .String(macServerToClient)
        .String(compressionClientToServer)
        .String(compressionServerToClient)
        .String(languagesClientToServer)
        .String(languagesServerToClient)
        .Bool(firstKexPacketFollows)
        .U32(reserved);
}

KexInitLists KexInitLists::Parse(Bytes const& payload) {
    Reader reader(payload);
    if (reader.U8() != KEXINIT) throw PeerError("no KEXINIT");
    KexInitLists lists;
    lists.cookie = reader.Raw(16);
    for (std::string* list :
         {&lists.kex, &lists.hostKey, &lists.cipherClientToServer, &lists.cipherServerToClient,
          &lists.macClientToServer, &lists.macServerToClient, &lists.compressionClientToServer,
          &lists.compressionServerToClient, &lists.languagesClientToServer, &lists.languagesServerToClient})
        *list = reader.String();
    lists.firstKexPacketFollows = reader.Bool();
    lists.reserved = reader.U32();
    reader.End();
    return lists;
}

KexInitLists& KexInitLists::Pin(std::string const& cipher, std::string const& mac) {
    cipherClientToServer = cipherServerToClient = cipher;
    macClientToServer = macServerToClient = mac;
    return *this;
}

Bytes GroupReply::Payload() const {
    return Writer().U8(GEX_REPLY).String(hostKeyBlob).Mpint(f).String(signature);
}

Connection::Connection(int fd, int abortFd, ServerSettings const& initial, std::size_t number)
    : settings(initial), index(number), _link(fd, abortFd) {}

std::vector<Bytes> Connection::ReceivedAfter(std::uint8_t type) const {
    std::vector<Bytes> payloads;
    bool found = false;
    for (PacketRecord const& record : received) {
        if (found) payloads.push_back(record.payload);
        found = found || (!record.payload.empty() && record.payload[0] == type);
    }
    return payloads;
}

std::string Connection::ReadLine() {
    std::string line;
    while (line.empty() || line.back() != '\n') line += ToText(_link.Receive(1));
    return line;
}

void Connection::ExpectClosed() {
    Bytes const more = _link.ReceiveUpTo(1);
    if (!more.empty()) throw PeerError("the client sends more, beginning with " + Hex(more));
}

void Connection::ReadUntilClosed() {
    while (!_link.ReceiveUpTo(1).empty()) {
    }
}

Bytes Connection::Encode(Bytes const& payload, SendOptions const& options) {
    PacketRecord record;
    record.blockSize = _sendCipher.BlockSize();
    record.payload = payload;
    record.padding = options.padding ? *options.padding : Bytes(PaddingFor(payload.size(), record.blockSize));
    record.paddingLength = options.paddingLength.value_or(static_cast<std::uint8_t>(record.padding.size()));
    record.packetLength =
        options.packetLength.value_or(static_cast<std::uint32_t>(1 + payload.size() + record.padding.size()));
    record.plain =
        Writer().U32(record.packetLength).U8(record.paddingLength).Raw(payload).Raw(record.padding).Data();
    record.sequence = _sendSequence++;
    if (tamper) tamper(record.sequence, record.plain);
    record.encrypted = !_sendCipher.IsNone();
    record.mac = _sendMac.Compute(record.sequence, record.plain);
    record.raw = _sendCipher.Process(record.plain);
    if (options.flipMacByte) record.mac.at(*options.flipMacByte) ^= 0x01;
    if (options.macBytes) record.mac.resize(*options.macBytes);
    record.streamOffset = _link.SentCount();
    Bytes bytes = Concat({record.raw, record.mac});
    if (_link.recording) sent.push_back(std::move(record));
    return bytes;
}

void Connection::SendPacket(Bytes const& payload, SendOptions const& options) {
    _link.Send(Encode(payload, options));
    if (!options.macBytes) return;
    _link.ShutdownWrite();
    throw Cut("connection closed within the MAC");
}

void Connection::SendTogether(std::vector<Bytes> const& payloads) {
    Bytes all;
    for (Bytes const& payload : payloads) {
        Bytes const packet = Encode(payload);
        if (_link.recording) sent.back().streamOffset += all.size();
        all.insert(all.end(), packet.begin(), packet.end());
    }
    _link.Send(all);
}

Bytes Connection::ReadPacket() {
    PacketRecord record;
    record.streamOffset = _link.ReceivedCount();
    record.blockSize = _receiveCipher.BlockSize();
    record.encrypted = !_receiveCipher.IsNone();
    record.sequence = _receiveSequence;
    record.raw = _link.Receive(record.blockSize);
    record.plain = _receiveCipher.Process(record.raw);
    record.packetLength = Reader(record.plain).U32();
    std::size_t const size = std::size_t{record.packetLength} + 4;
    if (size < record.blockSize || size > largestPacket || (size % record.blockSize) != 0)
        throw PeerError("packet length " + std::to_string(record.packetLength) + " in packet " +
                        std::to_string(record.sequence));
    Bytes const rest = _link.Receive(size - record.blockSize);
    record.raw.insert(record.raw.end(), rest.begin(), rest.end());
    Bytes const plainRest = _receiveCipher.Process(rest);
    record.plain.insert(record.plain.end(), plainRest.begin(), plainRest.end());
    record.paddingLength = record.plain[4];
    if (std::size_t{record.paddingLength} + 5 > size)
        throw PeerError("padding length " + std::to_string(record.paddingLength) + " in packet " +
                        std::to_string(record.sequence));
    std::size_t const payloadSize = size - 5 - record.paddingLength;
    record.payload = Slice(record.plain, 5, payloadSize);
    record.padding = Slice(record.plain, 5 + payloadSize, record.paddingLength);
    record.mac = _link.Receive(_receiveMac.Length());
    record.macValid = record.mac == _receiveMac.Compute(record.sequence, record.plain);
    ++_receiveSequence;
    bool const valid = record.macValid;
    Bytes payload = record.payload;
    if (_link.recording) received.push_back(std::move(record));
    if (!valid) throw PeerError("MAC of packet " + std::to_string(_receiveSequence - 1) + " does not fit");
    return payload;
}

Reader Connection::ExpectPacket(std::uint8_t type) {
    Reader reader(ReadPacket());
    std::uint8_t const got = reader.U8();
    if (got != type)
        throw PeerError("message " + std::to_string(type) + " expected, " + std::to_string(got) + " came");
    return reader;
}

void Connection::Identify() {
    kex.serverVersion = settings.versionLine.substr(0, settings.versionLine.find_last_not_of("\r\n") + 1);
    if (settings.kexInitWithVersion) {
        kex.serverKexInit = settings.kexInit.Payload();
        _link.Send(Concat({ToBytes(settings.versionLine), Encode(kex.serverKexInit)}));
    } else {
        SendLine(settings.versionLine);
    }
    std::string const line = ReadLine();
    kex.clientVersion = line.substr(0, line.find_last_not_of("\r\n") + 1);
}

void Connection::SendKexInit() {
    if (!kex.serverKexInit.empty()) return;
    kex.serverKexInit = settings.kexInit.Payload();
    SendPacket(kex.serverKexInit);
}

void Connection::ReceiveKexInit() {
    kex.clientKexInit = ReadPacket();
    KexInitLists::Parse(kex.clientKexInit);
}

void Connection::Negotiate() {
    KexInitLists const client = KexInitLists::Parse(kex.clientKexInit);
    KexInitLists const server = KexInitLists::Parse(kex.serverKexInit);
    std::string const method = FirstCommon(client.kex, server.kex);
    if (method != gexName) throw PeerError("agreed on " + method + ", which this peer can't do");
    kex.cipherClientToServer = FirstCommon(client.cipherClientToServer, server.cipherClientToServer);
    kex.cipherServerToClient = FirstCommon(client.cipherServerToClient, server.cipherServerToClient);
    kex.macClientToServer = FirstCommon(client.macClientToServer, server.macClientToServer);
    kex.macServerToClient = FirstCommon(client.macServerToClient, server.macServerToClient);
    kex.need = std::max({std::size_t{16}, MaterialNeed(kex.cipherClientToServer, kex.macClientToServer),
                         MaterialNeed(kex.cipherServerToClient, kex.macServerToClient)});
}

void Connection::ReceiveGroupRequest() {
    Reader reader = ExpectPacket(GEX_REQUEST);
    kex.min = reader.U32();
    kex.preferred = reader.U32();
    kex.max = reader.U32();
    reader.End();
}

void Connection::SendGroup() {
    kex.group = settings.group ? *settings.group : DhGroup::ForRequest(kex.min, kex.preferred, kex.max);
    SendPacket(Writer().U8(GEX_GROUP).Mpint(kex.group.p).Mpint(kex.group.g));
}

void Connection::ReceiveGroupInit() {
    Reader reader = ExpectPacket(GEX_INIT);
    kex.e = reader.Mpint();
    reader.End();
}

GroupReply Connection::MakeGroupReply() {
    kex.f = ServerPublicValue(kex.group);
    kex.k = ModularPower(kex.e, ServerExponent(), kex.group.p);
    GroupReply reply;
    reply.hostKeyBlob = settings.hostKey->Blob();
    reply.f = kex.f;
    kex.hash = ExchangeHash({kex.clientVersion, kex.serverVersion, kex.clientKexInit, kex.serverKexInit,
                             reply.hostKeyBlob, kex.min, kex.preferred, kex.max, kex.group.p, kex.group.g,
                             kex.e, kex.f, kex.k});
    reply.signature = settings.hostKey->Sign(kex.hash);
    return reply;
}

void Connection::SendGroupReply(GroupReply const& reply) { SendPacket(reply.Payload()); }

void Connection::GroupExchange() {
    ReceiveGroupRequest();
    SendGroup();
    ReceiveGroupInit();
    SendGroupReply(MakeGroupReply());
}

void Connection::DeriveKeys() {
    if (_keysDerived) return;
    kex.keys = DeriveKeySet(settings.keyExtension, kex.k, kex.hash, kex.hash, kex.need);
    _keysDerived = true;
}

void Connection::InstallSending() {
    DeriveKeys();
    _sendCipher = Cipher(kex.cipherServerToClient, kex.keys['D'], kex.keys['B'], true);
    _sendMac = MacKey(kex.macServerToClient, kex.keys['F']);
}

void Connection::InstallReceiving() {
    DeriveKeys();
    _receiveCipher = Cipher(kex.cipherClientToServer, kex.keys['C'], kex.keys['A'], false);
    _receiveMac = MacKey(kex.macClientToServer, kex.keys['E']);
}

void Connection::SendNewKeys() {
    SendPacket(Writer().U8(NEWKEYS));
    InstallSending();
}

void Connection::ReceiveNewKeys() {
    ExpectPacket(NEWKEYS).End();
    InstallReceiving();
}

void Connection::NewKeys() {
    SendNewKeys();
    ReceiveNewKeys();
}

void Connection::ServiceAccept() {
    Reader reader = ExpectPacket(SERVICE_REQUEST);
    std::string const service = reader.String();
    reader.End();
    SendPacket(Writer().U8(SERVICE_ACCEPT).String(service));
}

AuthRequest Connection::ReadAuthRequest() {
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

bool Connection::SignatureIsValid(AuthRequest const& request) const {
    Bytes const data = Writer()
                           .String(kex.hash)
                           .U8(USERAUTH_REQUEST)
                           .String(request.user)
                           .String(request.service)
                           .String("publickey")
                           .Bool(true)
                           .String(request.algorithm)
                           .String(request.key);
    return VerifySignature(request.key, request.signature, data);
}

void Connection::SendAuthFailure(std::string_view methods, bool partial) {
    SendPacket(Writer().U8(USERAUTH_FAILURE).String(methods).Bool(partial));
}

void Connection::SendAuthSuccess() { SendPacket(Writer().U8(USERAUTH_SUCCESS)); }

void Connection::SendBanner(std::string_view text, std::string_view language) {
    SendPacket(Writer().U8(USERAUTH_BANNER).String(text).String(language));
}

void Connection::SendPkOk(std::string_view algorithm, Bytes const& key) {
    SendPacket(Writer().U8(USERAUTH_PK_OK).String(algorithm).String(key));
}

void Connection::SendInfoRequest(std::string_view name, std::string_view instruction,
                                 std::vector<Prompt> const& prompts) {
    Writer writer;
    writer.U8(USERAUTH_INFO_REQUEST).String(name).String(instruction).String("");
    writer.U32(static_cast<std::uint32_t>(prompts.size()));
    for (Prompt const& prompt : prompts) writer.String(prompt.text).Bool(prompt.echo);
    SendPacket(writer);
}

std::vector<std::string> Connection::ReadInfoResponse() {
    Reader reader = ExpectPacket(USERAUTH_INFO_RESPONSE);
    std::vector<std::string> answers;
    for (std::uint32_t count = reader.U32(); count > 0; --count) answers.push_back(reader.String());
    reader.End();
    return answers;
}

void Connection::AnswerAuth(AuthRequest const& request, bool& done) {
    bool const known = request.user == settings.user && request.service == "ssh-connection";
    if (request.method == "none") {
        done = known && settings.noneAccepted;
    } else if (request.method == "password") {
        done = known && !request.flag && request.password == settings.password;
    } else if (request.method == "keyboard-interactive") {
        SendInfoRequest("", "", {{"Password: ", false}});
        done = ReadInfoResponse() == std::vector<std::string>{settings.password} && known;
    } else if (request.method == "publickey") {
        auto const& keys = settings.authorizedKeys;
        bool const authorized = known && std::find(keys.begin(), keys.end(), request.key) != keys.end();
        if (authorized && !request.flag) {
            SendPkOk(request.algorithm, request.key);
            return;
        }
        done = authorized && SignatureIsValid(request);
    }
    if (done)
        SendAuthSuccess();
    else
        SendAuthFailure(settings.methods);
}

void Connection::Authenticate() {
    for (bool done = false; !done;) {
        AuthRequest const request = ReadAuthRequest();
        if (!settings.banner.empty()) SendBanner(settings.banner);
        settings.banner.clear();
        AnswerAuth(request, done);
    }
}

ChannelOpen Connection::ReadChannelOpen() {
    Reader reader = ExpectPacket(CHANNEL_OPEN);
    ChannelOpen open;
    open.type = reader.String();
    open.sender = reader.U32();
    open.window = reader.U32();
    open.maxPacket = reader.U32();
    open.rest = reader.Rest();
    return open;
}

void Connection::SendOpenConfirmation(std::uint32_t recipient) {
    SendPacket(Writer()
                   .U8(CHANNEL_OPEN_CONFIRMATION)
                   .U32(recipient)
                   .U32(settings.channel)
                   .U32(settings.window)
                   .U32(settings.maxPacket));
}

void Connection::SendOpenFailure(std::uint32_t reason, std::string_view text, std::uint32_t recipient) {
    SendPacket(Writer().U8(CHANNEL_OPEN_FAILURE).U32(recipient).U32(reason).String(text).String(""));
}

void Connection::ConfirmOpen() { SendOpenConfirmation(ReadChannelOpen().sender); }

ChannelRequest Connection::ReadChannelRequest() {
    Reader reader = ExpectPacket(CHANNEL_REQUEST);
    ChannelRequest request;
    request.recipient = reader.U32();
    request.type = reader.String();
    request.wantReply = reader.Bool();
    request.rest = reader.Rest();
    return request;
}

void Connection::SendChannelMessage(std::uint8_t type, std::uint32_t recipient) {
    SendPacket(Writer().U8(type).U32(recipient));
}

void Connection::SendData(std::string_view data, std::uint32_t recipient) {
    SendPacket(Writer().U8(CHANNEL_DATA).U32(recipient).String(data));
}

void Connection::SendExtendedData(std::string_view data, std::uint32_t type, std::uint32_t recipient) {
    SendPacket(Writer().U8(CHANNEL_EXTENDED_DATA).U32(recipient).U32(type).String(data));
}

void Connection::SendWindowAdjust(std::uint32_t bytes, std::uint32_t recipient) {
    SendPacket(Writer().U8(CHANNEL_WINDOW_ADJUST).U32(recipient).U32(bytes));
}

void Connection::SendExitStatus(std::uint32_t status, bool wantReply, std::uint32_t recipient) {
    SendPacket(Writer().U8(CHANNEL_REQUEST).U32(recipient).String("exit-status").Bool(wantReply).U32(status));
}

void Connection::SendExitSignal(std::string_view name, bool core, std::uint32_t recipient) {
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

void Connection::SendDisconnect(std::uint32_t reason, std::string_view text) {
    SendPacket(Writer().U8(DISCONNECT).U32(reason).String(text).String(""));
}

void Connection::SendIgnore(std::string_view data) { SendPacket(Writer().U8(IGNORE).String(data)); }

void Connection::SendDebug(std::string_view text, bool show) {
    SendPacket(Writer().U8(DEBUG).Bool(show).String(text).String(""));
}

void Connection::WellBehaved(Stage stage) {
    Identify();
    if (stage == Stage::Identified) return;
    SendKexInit();
    ReceiveKexInit();
    if (stage == Stage::KexInitExchanged) return;
    Negotiate();
    GroupExchange();
    NewKeys();
    if (stage == Stage::NewKeys) return;
    ServiceAccept();
    if (stage == Stage::Service) return;
    Authenticate();
    if (stage == Stage::Authenticated) return;
    ConfirmOpen();
}

} // namespace peer

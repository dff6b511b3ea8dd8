#include <algorithm>

#include "support/peer/connection.h"

namespace peer {

namespace {

char const gexName[] = "diffie-hellman-group-exchange-sha1";
std::size_t const largestPacket = std::size_t{64} << 20;

std::size_t MaterialNeed(std::string const& cipher, std::string const& mac) {
    return std::max({CipherKeyLength(cipher), CipherBlockSize(cipher), MacKeyLength(mac)});
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
    : PeerConnection(fd, abortFd, number), settings(initial) {}

void Connection::Seal(PacketRecord& record, SendOptions const& options) {
    if (tamper) tamper(record.sequence, record.plain);
    record.encrypted = !_sendCipher.IsNone();
    record.mac = _sendMac.Compute(record.sequence, record.plain);
    record.raw = _sendCipher.Process(record.plain);
    if (options.flipMacByte) record.mac.at(*options.flipMacByte) ^= 0x01;
    if (options.macBytes) record.mac.resize(*options.macBytes);
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
    Bytes payload = Record(std::move(record));
    if (!valid) throw PeerError("MAC of packet " + std::to_string(_receiveSequence - 1) + " does not fit");
    return payload;
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

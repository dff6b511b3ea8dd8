// Key exchange: RFC 4253, sections 7 and 8, and RFC 4419.

#include <algorithm>

#include <brantle/cindral/digest.h>
#include <brantle/cindral/signature.h>
#include <brantle/session/session_dialect.h>
#include <brantle/thornel/split.h>
#include <brantle/trust/known_hosts.h>

namespace cindral {

char const* const SshSession::_defaultKexAlgorithms =
    "diffie-hellman-group-exchange-sha1,diffie-hellman-group14-sha1,diffie-hellman-group1-sha1";

DhGexParameters const SshSession::_defaultDhGexParameters;

SshSession::KexFunction const SshSession::_kexFuncs[4] = {nullptr, &SshSession::KexGroup1,
                                                          &SshSession::KexGroup14, &SshSession::KexGex};

namespace {

constexpr unsigned int KEY_TRIES = 10;

String_t FirstCommonName(String_t const& own, String_t const& peer) {
    TOList<String_t> ownNames;
    TOList<String_t> peerNames;
    Split(own.Text(), ownNames, ",");
    Split(peer.Text(), peerNames, ",");
    TOListIterator<String_t> next(ownNames);
    while (String_t const* name = next()) {
        TOListIterator<String_t> nextPeer(peerNames);
        while (String_t const* candidate = nextPeer())
            if (*name == candidate->Text()) return *name;
    }
    return String_t();
}

bool Agree(String_t& agreed, String_t const& own, String_t const& peer) {
    agreed = FirstCommonName(own, peer);
    return !(agreed == "");
}

unsigned int KeyMaterialNeed(String_t const& cipher, String_t const& mac) {
    return std::max({BlockCipher::KeyLen(cipher.Text()), BlockCipher::BlockSize(cipher.Text()),
                     Mac::KeyLength(mac.Text())});
}

void UpdateRaw(Digest& digest, ByteString const& bytes) { digest._rep->Update(bytes.Data(), bytes.Length()); }

} // namespace

int SshSession::KeyExchange() {
    if (_dialect) return _dialect->KeyExchange();
    PacketKexInit own(_defaultKexAlgorithms);
    _out.WritePacket(own);
    PacketDecoder decoder(_in.ReadPacket());
    PacketKexInit peer(decoder);
    int result = NegotiateAlgorithms(own, peer);
    if (result < 0) return result;
    KexFunction const exchangeKeys = _kexFuncs[_kexType];
    result = (this->*exchangeKeys)(own, peer);
    return std::min(result, 0);
}

int SshSession::NegotiateAlgorithms(PacketKexInit const& own, PacketKexInit const& peer) {
    _kexType = ChooseKex(own._kexAlgorithms, peer._kexAlgorithms);
    if (_kexType == KEX_NONE) return -1;
    if (!Agree(_cipherNames[0], own._ciphersClientToServer, peer._ciphersClientToServer)) return -1;
    if (!Agree(_cipherNames[1], own._ciphersServerToClient, peer._ciphersServerToClient)) return -1;
    if (!Agree(_macNames[0], own._macsClientToServer, peer._macsClientToServer)) return -1;
    if (!Agree(_macNames[1], own._macsServerToClient, peer._macsServerToClient)) return -1;
    _keyNeed = std::max({_keyNeed, KeyMaterialNeed(_cipherNames[0], _macNames[0]),
                         KeyMaterialNeed(_cipherNames[1], _macNames[1])});
    return 0;
}

KexType SshSession::ChooseKex(String_t const& own, String_t const& peer) {
    String_t const name = FirstCommonName(own, peer);
    if (name == "diffie-hellman-group-exchange-sha1") return KEX_GEX;
    if (name == "diffie-hellman-group14-sha1") return KEX_GROUP14;
    if (name == "diffie-hellman-group1-sha1") return KEX_GROUP1;
    return KEX_NONE;
}

int SshSession::KexGroup1(PacketKexInit& own, PacketKexInit& peer) {
    DhExchange exchange(KEX_GROUP1);
    return Kex(exchange, own, peer);
}

int SshSession::KexGroup14(PacketKexInit& own, PacketKexInit& peer) {
    DhExchange exchange(KEX_GROUP14);
    return Kex(exchange, own, peer);
}

int SshSession::Kex(DhExchange& exchange, PacketKexInit& own, PacketKexInit& peer) {
    exchange.GenerateKey(static_cast<int>(_keyNeed * 8), KEY_TRIES);
    PacketKexDhInit init{BigNum(exchange.PubKey())};
    _out.WritePacket(init);
    PacketDecoder decoder(_in.ReadPacket());
    PacketKexDhReply const reply(decoder);
    return KexHandleReply(exchange, reply, own, peer, [&](auto const&... inputs) {
        return exchange.Hash(_clientVersion, _serverVersion, inputs...);
    });
}

int SshSession::KexGex(PacketKexInit& own, PacketKexInit& peer) {
    PacketDhGexReq request(_defaultDhGexParameters.min, static_cast<int>(DhExchange::Estimate(_keyNeed * 8)),
                           _defaultDhGexParameters.max);
    _out.WritePacket(request);
    PacketDecoder groupDecoder(_in.ReadPacket());
    PacketDhGexGroup group(groupDecoder);
    if (!request.CheckNBits(group._p)) return -1;
    DhGroupExchange exchange(group._g, group._p);
    exchange.GenerateKey(static_cast<int>(_keyNeed * 8), KEY_TRIES);
    PacketDhGexInit init{BigNum(exchange.PubKey())};
    _out.WritePacket(init);
    PacketDecoder decoder(_in.ReadPacket());
    PacketDhGexReply const reply(decoder);
    return KexHandleReply(exchange, reply, own, peer,
                          [&](ByteString const& clientKexInit, ByteString const& serverKexInit,
                              ByteString const& hostKey, BigNum const& f, BigNum const& secret) {
                              return exchange.Hash(_clientVersion, _serverVersion, clientKexInit,
                                                   serverKexInit, hostKey, request._parameters, f, secret);
                          });
}

template <class Reply, class Hash>
int SshSession::KexHandleReply(DhExchange& exchange, Reply const& reply, PacketKexInit& own,
                               PacketKexInit& peer, Hash const& hash) {
    // Deliberate: a new host key is written to known_hosts before its signature is verified. Pinned by
    // HostKey.IsLearntBeforeItsSignatureIsChecked.
    if (!CheckServerHostKey(reply._hostKey)) return -1;
    if (!exchange.PubKeyIsValid(reply._f._bn)) return -1;
    BigNum const secret = exchange.ComputeKey(reply._f);
    ByteString const h = hash(own.Payload(_ciphers[0]), peer.Payload(_ciphers[1]),
                              reply._hostKey._rep->EncodeSSH(), reply._f, secret);
    if (Signature(reply._signature).Verify(h, DIGEST_SHA1, reply._hostKey) != 1) return -1;
    KexFinish(h, secret);
    return 0;
}

int SshSession::CheckServerHostKey(PublicKey const& key) const {
    // A blob that is not a valid key can't be trusted, and the store only accepts loaded keys.
    if (!key._rep) return 0;
    SockIO::SockAddr const& address = _socket.Addr();
    return KnownHosts::IsIn(address.Host(), address.Port(), address.IpAddr(), key);
}

void SshSession::KexFinish(ByteString const& hash, BigNum const& secret) {
    _sessionId = hash;
    PacketNewKeys sent;
    _out.WritePacket(sent);
    PacketDecoder decoder(_in.ReadPacket());
    PacketNewKeys const received(decoder);
    DeriveKeys(DIGEST_SHA1, hash, secret);
}

ByteString SshSession::DeriveKey(DigestType type, unsigned char letter, ByteString const& hash,
                                 BigNum const& secret) {
    Digest first(type);
    first.Update(secret._bn);
    UpdateRaw(first, hash);
    first.UpdateByte(letter);
    UpdateRaw(first, _sessionId);
    first._rep->Finish();
    ByteString key = first._rep->_value;
    while (key.Length() < _keyNeed) {
        // Unlike in RFC 4253, section 7.2, the hash and the key so far are hashed with their length fields.
        Digest extension(type);
        extension.Update(secret._bn);
        extension.Update(hash);
        extension.Update(key);
        extension._rep->Finish();
        key.Append(extension._rep->_value.Data(), extension._rep->_value.Length());
    }
    return key;
}

void SshSession::DeriveKeys(DigestType type, ByteString const& hash, BigNum const& secret) {
    ByteString keys[6];
    for (unsigned char i = 0; i < 6; ++i)
        keys[i] = DeriveKey(type, static_cast<unsigned char>("ABCDEF"[i]), hash, secret);
    BlockCipher& output = _ciphers[_mode];
    BlockCipher& input = _ciphers[!_mode];
    output.Redefine(_cipherNames[_mode].Text(), BlockCipher::ENCRYPT, keys[2], keys[0]);
    input.Redefine(_cipherNames[!_mode].Text(), BlockCipher::DECRYPT, keys[3], keys[1]);
    _macs[_mode].Redefine(_macNames[_mode].Text(), keys[4]);
    _macs[!_mode].Redefine(_macNames[!_mode].Text(), keys[5]);
    output._rep->SetPadding(0);
    input._rep->SetPadding(0);
}

} // namespace cindral

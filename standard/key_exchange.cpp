#include <algorithm>
#include <cstring>

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <brantle/cindral/exceptions.h>
#include <brantle/packet/packet.h>

#include "foundations/cindral/openssl_ptr.h"
#include "standard/algorithms.h"
#include "standard/key_exchange.h"
#include "standard/printable.h"
#include "standard/signature_scheme.h"

namespace cindral::standard {

namespace {

constexpr std::size_t COOKIE = 16;
constexpr int FIRST_METHOD_MESSAGE = 30; // RFC 4250, section 4.1.2
constexpr char STRICT_CLIENT[] = "kex-strict-c-v00@openssh.com";
constexpr char STRICT_SERVER[] = "kex-strict-s-v00@openssh.com";
constexpr char EXT_INFO_CLIENT[] = "ext-info-c"; // RFC 8308
constexpr char NO_COMPRESSION[] = "none";

std::string First(std::string const& names) { return names.substr(0, names.find(',')); }

std::string Agree(char const* what, std::string const& client, std::string const& server) {
    std::string const name = FirstCommon(client, server);
    if (name.empty())
        throw Declined(std::string("no common ") + what + ": offered are " + client + "; the server has " +
                       Printable(View(server)));
    return name;
}

/// A digest over fields in wire format.
class Hash {
public:
    explicit Hash(char const* digest) : _context(EVP_MD_CTX_new()) {
        EVP_MD const* const md = EVP_get_digestbyname(digest);
        if (!md || !_context || EVP_DigestInit_ex(_context.get(), md, nullptr) != 1)
            throw OpenSSLError("EVP_DigestInit_ex");
    }
    Hash& Fixed(View bytes) {
        if (EVP_DigestUpdate(_context.get(), bytes.data(), bytes.size()) != 1)
            throw OpenSSLError("EVP_DigestUpdate");
        return *this;
    }
    Hash& String(View bytes) {
        unsigned char length[4];
        StoreInt(length, static_cast<unsigned int>(bytes.size()));
        return Fixed(View(length, sizeof length)).Fixed(bytes);
    }
    template <class Array>
    Array Finish() {
        Array value(EVP_MAX_MD_SIZE);
        unsigned int size = 0;
        if (EVP_DigestFinal_ex(_context.get(), value.data(), &size) != 1)
            throw OpenSSLError("EVP_DigestFinal_ex");
        value.resize(size);
        return value;
    }

private:
    MdCtxPtr _context;
};

} // namespace

KeyExchange::KeyExchange(Transport& transport, Offer const& offer, HostKeyCheck& hostKeys)
    : _transport(transport), _offer(offer), _hostKeys(hostKeys) {}

KeyExchange::~KeyExchange() = default;

void KeyExchange::SetIdentification(std::string const& client, std::string const& server) {
    _clientLine = client;
    _serverLine = server;
}

void KeyExchange::Start() {
    if (_state == State::IDLE) SendInit();
}

void KeyExchange::SendInit() {
    _sent = _offer;
    // Later the server has to show the same key again, whatever the known hosts hold by then.
    _sent.hostKeys = HasKeys() ? _agreed.hostKey : _hostKeys.Order(_offer.hostKeys);
    unsigned char cookie[COOKIE];
    if (RAND_bytes(cookie, sizeof cookie) != 1) throw OpenSSLError("RAND_bytes");
    std::string kex = _sent.kex;
    if (!HasKeys()) kex += std::string(",") + EXT_INFO_CLIENT + "," + STRICT_CLIENT;
    Writer init(Packet::SSH_MSG_KEXINIT);
    init.Fixed(View(cookie, sizeof cookie)).String(kex).String(_sent.hostKeys);
    init.String(_sent.ciphers).String(_sent.ciphers).String(_sent.macs).String(_sent.macs);
    init.String(NO_COMPRESSION).String(NO_COMPRESSION).String("").String("").Bool(false).Int(0);
    _clientInit = init.Take();
    _transport.Send(_clientInit);
    _state = State::INIT_SENT;
}

void KeyExchange::CheckStrict(int number) const {
    if (!HasKeys() && _strict) throw SshProtocolError("message within a strict key exchange", number);
}

void KeyExchange::Take(View message) {
    int const number = message[0];
    if (number == Packet::SSH_MSG_KEXINIT && (_state == State::IDLE || _state == State::INIT_SENT))
        return TakeInit(message);
    if (_state == State::NEWKEYS_SENT && number == Packet::SSH_MSG_NEWKEYS) {
        Reader(Fields(message), "NEWKEYS").End();
        return SwitchInput();
    }
    if (_state != State::AGREEING) throw SshProtocolError("message out of place in key exchange", number);
    if (_skipGuess && number >= FIRST_METHOD_MESSAGE) {
        _skipGuess = false;
        return;
    }
    SendStep(_agreement->Take(message));
    if (_agreement->IsFinished()) Conclude();
}

void KeyExchange::TakeInit(View message) {
    if (_state == State::IDLE) SendInit();
    _serverInit = message.Copy();
    Negotiate(_serverInit);
    _agreement = KeyAgreement::Create(_agreed.kex);
    _state = State::AGREEING;
    SendStep(_agreement->Begin());
}

void KeyExchange::Negotiate(View serverInit) {
    Reader fields(serverInit, "KEXINIT");
    fields.Byte();
    fields.Fixed(COOKIE);
    std::string lists[10];
    for (std::string& list : lists) list = fields.String().Str();
    bool const guess = fields.Bool();
    fields.Int();
    fields.End();

    if (!HasKeys()) {
        _strict = HasName(lists[0], STRICT_SERVER);
        if (_strict && _transport.InputSequence() != 0)
            throw SshProtocolError("message before KEXINIT in a strict key exchange");
    }
    _agreed.kex = Agree("key exchange algorithm", _sent.kex, lists[0]);
    _agreed.hostKey = Agree("host key algorithm", _sent.hostKeys, lists[1]);
    for (int direction = 0; direction < 2; ++direction) {
        std::string const& cipher = _agreed.ciphers[direction] =
            Agree("cipher", _sent.ciphers, lists[2 + direction]);
        _agreed.macs[direction] =
            FindCipher(cipher).IsAead() ? std::string() : Agree("MAC", _sent.macs, lists[4 + direction]);
        Agree("compression", NO_COMPRESSION, lists[6 + direction]);
    }
    // RFC 4253, section 7: a guess is right if both sides prefer the same two algorithms.
    _skipGuess = guess && (First(lists[0]) != First(_sent.kex) || First(lists[1]) != First(_sent.hostKeys));
}

void KeyExchange::SendStep(View message) {
    if (!message.empty()) _transport.Send(message);
}

void KeyExchange::Conclude() {
    _hash = ExchangeHash();
    View const key = _agreement->HostKey();
    if (!Verify(_agreed.hostKey, key, _hash, _agreement->Signature()))
        throw Declined("the server's signature with its " + _agreed.hostKey + " host key is wrong");
    if (HasKeys()) {
        if (key != View(_hostKey)) throw Declined("the server changed its host key within the connection");
    } else {
        std::string const refusal = _hostKeys.Refuse(_agreed.hostKey, key);
        if (!refusal.empty()) throw Declined(refusal);
        _hostKey = key.Copy();
        _sessionId = _hash;
    }
    SwitchOutput();
}

/// RFC 4253, section 8; the fields of the key agreement are those of its method.
Bytes KeyExchange::ExchangeHash() const {
    Hash hash(_agreement->Digest());
    hash.String(_clientLine).String(_serverLine).String(_clientInit).String(_serverInit);
    hash.String(_agreement->HostKey()).Fixed(_agreement->HashFields()).Fixed(_agreement->SharedSecret());
    return hash.Finish<Bytes>();
}

/// RFC 4253, section 7.2.
SecretBytes KeyExchange::Derive(char letter, std::size_t size) const {
    View const secret = _agreement->SharedSecret();
    Hash first(_agreement->Digest());
    first.Fixed(secret).Fixed(_hash).Fixed(View(std::string_view(&letter, 1))).Fixed(_sessionId);
    SecretBytes key = first.Finish<SecretBytes>();
    while (key.size() < size) {
        Hash next(_agreement->Digest());
        next.Fixed(secret).Fixed(_hash).Fixed(key);
        SecretBytes const more = next.Finish<SecretBytes>();
        key.insert(key.end(), more.begin(), more.end());
    }
    key.resize(size);
    return key;
}

DirectionKeys KeyExchange::Keys(int direction) const {
    KeySizes const sizes = KeySizesOf(_agreed.ciphers[direction], _agreed.macs[direction]);
    char const* const letters = direction == 0 ? "ACE" : "BDF";
    return {Derive(letters[0], sizes.iv), Derive(letters[1], sizes.cipher), Derive(letters[2], sizes.mac)};
}

void KeyExchange::SwitchOutput() {
    _transport.Send(Writer(Packet::SSH_MSG_NEWKEYS).Get());
    _transport.SetOutputKeys(PacketSealer::Create(_agreed.ciphers[0], _agreed.macs[0], Keys(0)), _strict);
    _state = State::NEWKEYS_SENT;
}

void KeyExchange::SwitchInput() {
    _transport.SetInputKeys(PacketOpener::Create(_agreed.ciphers[1], _agreed.macs[1], Keys(1)), _strict);
    _agreement.reset();
    _state = State::IDLE;
    ++_completed;
}

} // namespace cindral::standard

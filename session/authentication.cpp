// User authentication: RFC 4252, and RFC 4256 for keyboard-interactive.

#include <algorithm>
#include <iostream>
#include <ostream>

#include <brantle/cindral/bin_buffer.h>
#include <brantle/cindral/exceptions.h>
#include <brantle/cindral/sbuf_adapter.h>
#include <brantle/cindral/signature.h>
#include <brantle/cindral/string_buffer.h>
#include <brantle/packet/auth_messages.h>
#include <brantle/packet/transport_messages.h>
#include <brantle/session/session_dialect.h>
#include <brantle/thornel/pathname.h>
#include <brantle/thornel/split.h>
#include <brantle/thornel/text.h>
#include <brantle/trust/ssh_agent_access.h>

namespace cindral {

namespace {

char const SERVICE[] = "ssh-connection";
constexpr unsigned int MAX_TYPED_PASSWORD = 32;

Pathname DefaultIdentity(char const* name) { return Pathname::Home().Append(".ssh").Append(name); }

} // namespace

bool SshSession::HasKeys() const {
    auto const isOn = [this](int slot) {
        return _ciphers[slot]._rep->Kind() != BlockCipher::NONE && _macs[slot]._rep;
    };
    return isOn(CLIENT) && isOn(SERVER);
}

/// Returns the result of a request from the message number of the reply: 0 for success, which is recorded, -1
/// for failure, 1 for a reply that is neither.
int SshSession::HandleAuthReply(int number) {
    if (number == Packet::SSH_MSG_USERAUTH_FAILURE) return -1;
    if (number != Packet::SSH_MSG_USERAUTH_SUCCESS) return 1;
    _authenticated = 1;
    return 0;
}

int SshSession::Authenticate(String_t const& identity, String_t const& user, String_t const& password,
                             EnterPassword& enter, KbdInteractiveCallback& callback) {
    if (_dialect) return _dialect->Authenticate(identity, user, password, enter, callback);
    if (!HasKeys()) return -1; // an unknown peer would read the credentials
    InitiateAuthentication();
    PacketUserAuthNoneRequest request(user, SERVICE);
    _out.WritePacket(request);
    ByteString const reply = AuthReadPacket();
    int const number = MessageNumber(reply);
    int const verdict = HandleAuthReply(number);
    if (verdict == 0) return 0;
    if (verdict > 0)
        throw SshProtocolError("expected either USERAUTH_FAILURE or USERAUTH_SUCCESS packet", number);
    PacketDecoder decoder(reply);
    PacketUserAuthFailure const failure(decoder);
    TOList<String_t> methods;
    Split(failure._methods.Text(), methods, ",");
    TOListIterator<String_t> next(methods);
    while (String_t const* method = next()) {
        int result = -1;
        if (*method == "publickey")
            result = AuthKey(identity, user, password, enter);
        else if (*method == "password")
            result = AuthPasswd(user, password, enter);
        else if (*method == "keyboard-interactive")
            result = AuthInteractive(user, String_t(), callback);
        if (result == 0) break;
    }
    return _authenticated ? 0 : -1;
}

void SshSession::InitiateAuthentication() {
    PacketServiceRequest request("ssh-userauth");
    _out.WritePacket(request);
    PacketDecoder decoder(_in.ReadPacket());
    PacketServiceAccept const accept(decoder);
}

ByteString SshSession::AuthReadPacket() {
    for (;;) {
        ByteString const packet = _in.ReadPacket();
        if (MessageNumber(packet) != Packet::SSH_MSG_USERAUTH_BANNER) return packet;
        PacketDecoder decoder(packet);
        _banner = PacketUserAuthBanner(decoder)._message;
        // Deliberate: printed as received, control characters included. Pinned by
        // AuthBanner.ControlCharactersArePrintedAsReceived.
        std::cout << _banner << std::flush;
    }
}

int SshSession::AuthKey(String_t const& identity, String_t const& user, String_t const& password,
                        EnterPassword& enter) {
    PublicKey key;
    if (int const result = ReadPubkey(key, identity); result < 0) return result;
    String_t const algorithm(key._rep->Name());
    PacketUserAuthPubkeyRequest query(user, SERVICE, algorithm, key);
    _out.WritePacket(query);
    ByteString const reply = AuthReadPacket();
    if (MessageNumber(reply) == Packet::SSH_MSG_USERAUTH_FAILURE) return -1;

    PacketDecoder decoder(reply);
    PacketUserAuthPkOk const accepted(decoder);
    if (!accepted._key._rep || !(accepted._algorithm == accepted._key._rep->Name()) ||
        !key._rep->Equals(*accepted._key._rep))
        return -1;

    Signature signature(key._rep->Type());
    if (int const result = SignAuthData(key, identity, user, password, enter, signature); result < 0)
        return result;
    PacketUserAuthPubkeyRequest request(user, SERVICE, algorithm, key, &signature);
    _out.WritePacket(request);
    int const verdict = HandleAuthReply(MessageNumber(AuthReadPacket()));
    if (verdict > 0) throw SshProtocolError("expected either USERAUTH_SUCCESS or USERAUTH_FAILURE packet");
    return verdict;
}

int SshSession::SignAuthData(PublicKey const& key, String_t const& identity, String_t const& user,
                             String_t const& password, EnterPassword& enter, Signature& signature) {
    ByteString const data = MakeAuthData(SERVICE, user, key);
    int result = SshAgentAccess(SshAgentAccess::SSH_AUTH_SOCK).Sign(key, data, DIGEST_SHA1, signature);
    if (result >= 0) return result;
    PrivateKey privateKey;
    result = ReadIdentity(privateKey, identity, password, enter);
    if (result < 0) return result;
    // The private key need not be the other half of the public one: the server decides whether its signature
    // is valid.
    signature = Signature(privateKey._rep->Type());
    return signature.Sign(data, DIGEST_SHA1, privateKey);
}

int SshSession::AuthPasswd(String_t const& user, String_t password, EnterPassword& enter) {
    String_t subject(user);
    subject += "@";
    subject += _socket.RefString().Text();
    enter.SetPrompt("Password for", subject);
    unsigned int tries = enter._tries;
    if (tries == 0) return -1;
    for (;;) {
        // The message shares the text of the password and wipes it on destruction. Deliberate: copies remain
        // in the packet's payload and on the stack below.
        PacketUserAuthPasswdRequest request(user, SERVICE, password);
        _out.WritePacket(request);
        int const number = MessageNumber(AuthReadPacket());
        if (number == Packet::SSH_MSG_USERAUTH_PASSWD_CHANGEREQ) return -1;
        int const verdict = HandleAuthReply(number);
        if (verdict == 0) return 0;
        if (verdict > 0)
            throw SshProtocolError(
                "expected either USERAUTH_SUCCESS or USERAUTH_FAILURE or USERAUTH_PASSWD_CHANGEREQ packet");
        char typed[MAX_TYPED_PASSWORD + 1];
        int const length = enter(typed, MAX_TYPED_PASSWORD);
        if (length < 0) return length;
        typed[std::min(static_cast<unsigned int>(length), MAX_TYPED_PASSWORD)] = '\0';
        password = typed;
        if (--tries == 0) return -1;
    }
}

int SshSession::AuthInteractive(String_t const& user, String_t const& submethods,
                                KbdInteractiveCallback& callback) {
    PacketUserAuthInteractive request(user, SERVICE, submethods);
    _out.WritePacket(request);
    for (;;) {
        ByteString const reply = AuthReadPacket();
        int const number = MessageNumber(reply);
        int const verdict = HandleAuthReply(number);
        if (verdict <= 0) return verdict;
        if (number != Packet::SSH_MSG_USERAUTH_INFO_REQUEST)
            throw SshProtocolError("unexpected ssh response",
                                   String_t(Packet::MsgName(static_cast<unsigned int>(number))));
        PacketDecoder decoder(reply);
        PacketUserAuthInfoReq const info(decoder);
        PacketUserAuthInfoResp answers(callback(info._name, info._instruction, info._prompts));
        _out.WritePacket(answers);
    }
}

ByteString SshSession::MakeAuthData(char const* service, String_t const& user, PublicKey const& key) {
    OStringBuffer buffer(1024);
    SBufAdapter adapter(buffer);
    std::ostream out(&adapter);
    BinBuffer::WriteByteString(out, _sessionId);
    BinBuffer::WriteByte(out, Packet::SSH_MSG_USERAUTH_REQUEST);
    BinBuffer::WriteCharString(out, user.Text());
    BinBuffer::WriteCharString(out, service);
    BinBuffer::WriteCharString(out, "publickey");
    BinBuffer::WriteByte(out, 1);
    BinBuffer::WriteCharString(out, key._rep->Name());
    BinBuffer::WriteByteString(out, key._rep->EncodeSSH());
    out.flush();
    return ByteString(buffer.Str(), buffer.Len());
}

int SshSession::ReadPubkey(PublicKey& key, String_t const& identity) {
    if (key._rep && key._rep->Type() != KEY_NONE) return 0;
    if (str_empty(identity.Text())) {
        int const result = key.ReadSSH(DefaultIdentity("id_rsa.pub").Text());
        return result < 0 ? key.ReadSSH(DefaultIdentity("id_dsa.pub").Text()) : result;
    }
    Pathname path;
    path = identity;
    path.ChExt(".ssh");
    int const result = key.ReadSSH(path.Text());
    if (result >= 0) return result;
    path.ChExt(".pub");
    return key.ReadSSH(path.Text());
}

int SshSession::ReadIdentity(PrivateKey& privateKey, String_t const& identity, String_t const& password,
                             EnterPassword& enter) {
    if (privateKey._rep && privateKey._rep->IsLoaded()) return 0;
    enter.Preset(password);
    if (!enter.HasPreset()) enter.EnterPassword::Preset(password); // an override may not have passed it on
    auto const read = [&](String_t const& path) {
        enter.SetPrompt("Enter passphrase for", path);
        return privateKey.Read(path.Text(), enter);
    };
    int result = read(str_empty(identity.Text()) ? DefaultIdentity("id_rsa") : identity);
    if (result < 0 && str_empty(identity.Text())) result = read(DefaultIdentity("id_dsa"));
    // It was meant only for the key; a later password prompt is for the user. An override of Preset must see
    // only the one secret.
    enter.EnterPassword::Preset(String_t());
    return result;
}

} // namespace cindral

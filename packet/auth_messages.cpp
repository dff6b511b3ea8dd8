#include <brantle/packet/auth_messages.h>

#include <openssl/crypto.h>

#include <brantle/cindral/signature.h>
#include <brantle/packet/packet_decoder.h>
#include <brantle/packet/packet_encoder.h>
#include <brantle/thornel/text.h>

namespace cindral {

PacketUserAuthNoneRequest::PacketUserAuthNoneRequest(String_t const& user, String_t const& service)
    : Packet(SSH_MSG_USERAUTH_REQUEST), _user(user), _service(service), _method("none") {}

ByteString PacketUserAuthNoneRequest::Payload(BlockCipher& cipher) {
    return Encode(cipher, LARGE, [this](PacketEncoder& out) {
        out.WriteString(_user.Text());
        out.WriteString(_service.Text());
        out.WriteString(_method.Text());
    });
}

PacketUserAuthPubkeyRequest::PacketUserAuthPubkeyRequest(String_t const& user, String_t const& service,
                                                         String_t const& algorithm, PublicKey& key)
    : PacketUserAuthPubkeyRequest(user, service, algorithm, key, nullptr) {}

PacketUserAuthPubkeyRequest::PacketUserAuthPubkeyRequest(String_t const& user, String_t const& service,
                                                         String_t const& algorithm, PublicKey& key,
                                                         Signature* signature)
    : Packet(SSH_MSG_USERAUTH_REQUEST), _user(user), _service(service), _method("publickey"),
      _algorithm(algorithm), _key(&key), _signatureBlob(signature) {}

ByteString PacketUserAuthPubkeyRequest::Payload(BlockCipher& cipher) {
    return Encode(cipher, LARGE, [this](PacketEncoder& out) {
        out.WriteString(_user.Text());
        out.WriteString(_service.Text());
        out.WriteString(_method.Text());
        out.WriteBool(_signatureBlob != nullptr);
        out.WriteString(_algorithm.Text());
        out.WritePublicKey(*_key);
        if (_signatureBlob) out.WriteSignature(*_signatureBlob);
    });
}

PacketUserAuthPasswdRequest::PacketUserAuthPasswdRequest(String_t const& user, String_t const& service,
                                                         String_t const& password)
    : Packet(SSH_MSG_USERAUTH_REQUEST), _user(user), _service(service), _method("password"),
      _password(password) {}

ByteString PacketUserAuthPasswdRequest::Payload(BlockCipher& cipher) {
    return Encode(cipher, SMALL, [this](PacketEncoder& out) {
        out.WriteString(_user.Text());
        out.WriteString(_service.Text());
        out.WriteString(_method.Text());
        out.WriteBool(0); // no change of the password
        out.WriteString(_password.Text());
    });
}

PacketUserAuthPasswdRequest::~PacketUserAuthPasswdRequest() {
    // Deliberately through the shared representation, so that the caller's copy of the secret is wiped too.
    char* const text = _password._rep->_text;
    if (text) OPENSSL_cleanse(text, static_cast<unsigned int>(str_len(text)));
}

PacketUserAuthInteractive::PacketUserAuthInteractive(String_t const& user, String_t const& service,
                                                     String_t const& submethods)
    : Packet(SSH_MSG_USERAUTH_REQUEST), _user(user), _service(service), _method("keyboard-interactive"),
      _language(""), _submethods(submethods) {}

ByteString PacketUserAuthInteractive::Payload(BlockCipher& cipher) {
    return Encode(cipher, LARGE, [this](PacketEncoder& out) {
        out.WriteString(_user.Text());
        out.WriteString(_service.Text());
        out.WriteString(_method.Text());
        out.WriteString(_language.Text());
        out.WriteString(_submethods.Text());
    });
}

PacketUserAuthFailure::PacketUserAuthFailure(PacketDecoder& decoder)
    : Packet(SSH_MSG_USERAUTH_FAILURE, decoder._data) {
    Decode(decoder, "expected USERAUTH_FAILURE package, received", [this](PacketDecoder& in) {
        _methods = in.ReadString();
        _partialSuccess = in.ReadBool();
    });
}

PacketUserAuthSuccess::PacketUserAuthSuccess(PacketDecoder& decoder)
    : Packet(SSH_MSG_USERAUTH_SUCCESS, decoder._data) {
    Decode(decoder, "expected USERAUTH_SUCCESS package, received", [](PacketDecoder&) {});
}

PacketUserAuthBanner::PacketUserAuthBanner(PacketDecoder& decoder)
    : Packet(SSH_MSG_USERAUTH_BANNER, decoder._data) {
    Decode(decoder, "expected USERAUTH_BANNER package, received", [this](PacketDecoder& in) {
        _message = in.ReadString();
        _language = in.ReadString();
    });
}

PacketUserAuthPkOk::PacketUserAuthPkOk(String_t const& algorithm, ByteString const& blob)
    : Packet(SSH_MSG_USERAUTH_PK_OK), _algorithm(algorithm), _key(blob) {}

ByteString PacketUserAuthPkOk::Payload(BlockCipher& cipher) {
    return Encode(cipher, SMALL, [this](PacketEncoder& out) {
        out.WriteString(_algorithm.Text());
        out.WritePublicKey(_key);
    });
}

PacketUserAuthPkOk::PacketUserAuthPkOk(PacketDecoder& decoder)
    : Packet(SSH_MSG_USERAUTH_PK_OK, decoder._data) {
    Decode(decoder, "expected USERAUTH_PK_OK package, received", [this](PacketDecoder& in) {
        _algorithm = in.ReadString();
        _key = in.ReadBytes();
    });
}

PacketUserAuthInfoReq::PacketUserAuthInfoReq(PacketDecoder& decoder)
    : Packet(SSH_MSG_USERAUTH_INFO_REQUEST, decoder._data) {
    Decode(decoder, "expected USERAUTH_INFO_REQUEST package, received", [this](PacketDecoder& in) {
        _name = in.ReadString();
        _instruction = in.ReadString();
        _language = in.ReadString();
        for (unsigned int count = in.ReadInt(); count > 0; --count) {
            Prompt prompt;
            prompt._text = in.ReadString();
            prompt._echo = in.ReadBool();
            _prompts.Append(prompt);
        }
    });
}

PacketUserAuthInfoResp::PacketUserAuthInfoResp(TOList<String_t> const& responses)
    : Packet(SSH_MSG_USERAUTH_INFO_RESPONSE), _responses(responses) {}

ByteString PacketUserAuthInfoResp::Payload(BlockCipher& cipher) {
    return Encode(cipher, LARGE, [this](PacketEncoder& out) { out.WriteStringList(_responses); });
}

} // namespace cindral

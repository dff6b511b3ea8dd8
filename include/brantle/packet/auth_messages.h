#ifndef BRANTLE_PACKET_AUTH_MESSAGES_H
#define BRANTLE_PACKET_AUTH_MESSAGES_H

#include <brantle/cindral/public_key.h>
#include <brantle/export.h>
#include <brantle/packet/packet.h>
#include <brantle/thornel/byte_string.h>
#include <brantle/thornel/string_t.h>
#include <generic/tolist>

namespace cindral {

class Signature;

/// Requests the list of methods that can continue (RFC 4252, section 5.2).
class BRANTLE_API PacketUserAuthNoneRequest : public Packet {
public:
    PacketUserAuthNoneRequest(String_t const& user, String_t const& service);
    ByteString Payload(BlockCipher& cipher) override;

    String_t _user;
    String_t _service;
    String_t _method;
};

/// Offers a public key, or proves possession of its private half (RFC 4252, section 7).
class BRANTLE_API PacketUserAuthPubkeyRequest : public Packet {
public:
    /// The query whether the key is acceptable. `key` must outlive the message.
    PacketUserAuthPubkeyRequest(String_t const& user, String_t const& service, String_t const& algorithm,
                                PublicKey& key);
    /// The request with a signature; null makes it the query. `key` and `signature` must outlive the message.
    PacketUserAuthPubkeyRequest(String_t const& user, String_t const& service, String_t const& algorithm,
                                PublicKey& key, Signature* signature);
    ByteString Payload(BlockCipher& cipher) override;

    String_t _user;
    String_t _service;
    String_t _method;
    String_t _algorithm;
    PublicKey* _key;
    Signature* _signatureBlob; ///< null in the query
};

/// Presents a password (RFC 4252, section 8).
class BRANTLE_API PacketUserAuthPasswdRequest : public Packet {
public:
    PacketUserAuthPasswdRequest(String_t const& user, String_t const& service, String_t const& password);
    /// Overwrites the text of the password with zero bytes, in the caller's value too, since both share it.
    /// The bytes in `_payload` are not overwritten.
    ~PacketUserAuthPasswdRequest() override;
    PacketUserAuthPasswdRequest(PacketUserAuthPasswdRequest const&) = delete;
    PacketUserAuthPasswdRequest& operator=(PacketUserAuthPasswdRequest const&) = delete;
    ByteString Payload(BlockCipher& cipher) override;

    String_t _user;
    String_t _service;
    String_t _method;
    String_t _password;
};

/// Starts keyboard-interactive authentication (RFC 4256, section 3.1).
class BRANTLE_API PacketUserAuthInteractive : public Packet {
public:
    PacketUserAuthInteractive(String_t const& user, String_t const& service, String_t const& submethods);
    ByteString Payload(BlockCipher& cipher) override;

    String_t _user;
    String_t _service;
    String_t _method;
    String_t _language;
    String_t _submethods;
};

/// Refuses a request and lists the methods that can continue (RFC 4252, section 5.1).
class BRANTLE_API PacketUserAuthFailure : public Packet {
public:
    explicit PacketUserAuthFailure(PacketDecoder& decoder);

    String_t _methods; ///< comma-separated
    int _partialSuccess = 0;
};

/// Reports successful authentication (RFC 4252, section 5.1).
class BRANTLE_API PacketUserAuthSuccess : public Packet {
public:
    explicit PacketUserAuthSuccess(PacketDecoder& decoder);
};

/// Text for the user (RFC 4252, section 5.4).
class BRANTLE_API PacketUserAuthBanner : public Packet {
public:
    explicit PacketUserAuthBanner(PacketDecoder& decoder);

    String_t _message;
    String_t _language;
};

/// Reports that the offered key is acceptable (RFC 4252, section 7).
///
/// Its number is also that of `PacketUserAuthInfoReq`: the method last requested determines which one it is.
class BRANTLE_API PacketUserAuthPkOk : public Packet {
public:
    PacketUserAuthPkOk(String_t const& algorithm, ByteString const& blob);
    explicit PacketUserAuthPkOk(PacketDecoder& decoder);
    ByteString Payload(BlockCipher& cipher) override;

    String_t _algorithm;
    PublicKey _key;
};

/// One prompt of the server.
struct Prompt {
    String_t _text;
    int _echo = 0; ///< non-zero: the answer may be shown while it is typed
};

/// Asks for responses from the user (RFC 4256, section 3.2).
class BRANTLE_API PacketUserAuthInfoReq : public Packet {
public:
    explicit PacketUserAuthInfoReq(PacketDecoder& decoder);

    String_t _name;
    String_t _instruction;
    String_t _language;
    TOList<Prompt> _prompts;
};

/// The user's responses, one for each prompt, in the same order (RFC 4256, section 3.4).
class BRANTLE_API PacketUserAuthInfoResp : public Packet {
public:
    explicit PacketUserAuthInfoResp(TOList<String_t> const& responses);
    ByteString Payload(BlockCipher& cipher) override;

    TOList<String_t> _responses;
};

} // namespace cindral

#endif

#ifndef BRANTLE_STANDARD_KEY_EXCHANGE_H
#define BRANTLE_STANDARD_KEY_EXCHANGE_H

#include <memory>
#include <string>

#include "standard/bytes.h"
#include "standard/key_agreement.h"
#include "standard/transport.h"

namespace cindral::standard {

/// What one side offers: comma-separated names, most preferred first.
struct Offer {
    std::string kex;
    std::string hostKeys;
    std::string ciphers;
    std::string macs;
};

/// What has been agreed. Direction 0 is client to server, 1 is server to client.
struct Agreement {
    std::string kex;
    std::string hostKey;
    std::string ciphers[2];
    std::string macs[2]; ///< empty for a cipher that authenticates the packet
};

/// Decides whether a host key is accepted, after the server has proved that it holds the private half.
class HostKeyCheck {
public:
    virtual ~HostKeyCheck() = default;
    /// The algorithms to offer in the first exchange, out of those allowed: the types already known for the
    /// host come first.
    virtual std::string Order(std::string const& algorithms) = 0;
    /// Empty if the key is accepted, otherwise the reason.
    virtual std::string Refuse(std::string const& algorithm, View key) = 0;
};

/// A refusal by this side that is not a violation of the protocol: no common algorithm, or a host key that is
/// not trusted. The text is for the user.
class Declined {
public:
    explicit Declined(std::string text) : _text(std::move(text)) {}
    std::string const& Text() const { return _text; }

private:
    std::string _text;
};

/// Key exchange (RFC 4253, sections 7 to 9), the first one and rekeying, driven by the messages that arrive.
/// Both sides may start one at any time. Rekeying asks for the host key algorithm of the first exchange
/// alone, and accepts no other key than its.
///
/// A violation of the protocol throws SshProtocolError; a refusal by this side throws Declined. The
/// connection can't be used after either.
class KeyExchange {
public:
    /// The references must outlive the object. `offer` may change between exchanges.
    KeyExchange(Transport& transport, Offer const& offer, HostKeyCheck& hostKeys);
    ~KeyExchange();

    /// The identification lines of both sides, without line ends.
    void SetIdentification(std::string const& client, std::string const& server);

    /// Sends KEXINIT, unless an exchange is in progress.
    void Start();
    /// Handles a message of the exchange, numbers 20 to 49. In the first exchange it must be given every
    /// other message, too: with strict key exchange each of them is a violation.
    void Take(View message);

    /// Whether the first exchange is complete.
    bool HasKeys() const { return _completed > 0; }
    /// Whether messages other than those of the exchange may be sent now (RFC 4253, section 7.1).
    bool MaySend() const { return HasKeys() && (_state == State::IDLE || _state == State::NEWKEYS_SENT); }
    /// Whether an exchange is in progress.
    bool IsUnderWay() const { return _state != State::IDLE; }
    /// Whether strict key exchange (kex-strict-c-v00@openssh.com) is in force.
    bool IsStrict() const { return _strict; }
    /// Whether the message just received belongs to the part of the first exchange that strict key exchange
    /// protects.
    void CheckStrict(int number) const;

    unsigned int Completed() const { return _completed; }
    Agreement const& Agreed() const { return _agreed; }
    Bytes const& SessionId() const { return _sessionId; }

private:
    enum class State { IDLE, INIT_SENT, AGREEING, NEWKEYS_SENT };

    void SendInit();
    void TakeInit(View message);
    void Negotiate(View serverInit);
    void SendStep(View message);
    void Conclude();
    Bytes ExchangeHash() const;
    SecretBytes Derive(char letter, std::size_t size) const;
    DirectionKeys Keys(int direction) const;
    void SwitchOutput();
    void SwitchInput();

    Transport& _transport;
    Offer const& _offer;
    HostKeyCheck& _hostKeys;
    std::string _clientLine;
    std::string _serverLine;

    State _state = State::IDLE;
    bool _strict = false;
    bool _skipGuess = false; ///< the server's next packet is a wrong guess
    unsigned int _completed = 0;
    Offer _sent; ///< as sent in the KEXINIT of this exchange
    Bytes _clientInit;
    Bytes _serverInit;
    Agreement _agreed;
    std::unique_ptr<KeyAgreement> _agreement;
    Bytes _hash;
    Bytes _sessionId;
    Bytes _hostKey; ///< accepted in the first exchange
};

} // namespace cindral::standard

#endif

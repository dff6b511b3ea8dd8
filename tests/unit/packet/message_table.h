#ifndef BRANTLE_TESTS_UNIT_PACKET_MESSAGE_TABLE_H
#define BRANTLE_TESTS_UNIT_PACKET_MESSAGE_TABLE_H

#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <brantle/packet/packet.h>
#include <brantle/packet/packet_decoder.h>

/// What a decoded message keeps of its packet.
enum class Keeps { NOTHING, PAYLOAD };

/// A message class and one message of it on the wire.
struct DecodedMessage {
    char const* _class;
    char const* _wrongType; ///< null: every number is taken
    Keeps _keeps;
    std::string _payload;
    std::function<std::unique_ptr<cindral::Packet>(cindral::PacketDecoder&)> _decode;
};

struct EncodedMessage {
    char const* _name;
    std::string _payload;
    std::function<std::unique_ptr<cindral::Packet>()> _build;
};

inline void PrintTo(DecodedMessage const& message, std::ostream* out) { *out << message._class; }
inline void PrintTo(EncodedMessage const& message, std::ostream* out) { *out << message._name; }

/// The blob of a small RSA key, and that of a signature.
extern std::string const KEY_BLOB;
extern std::string const SIGNATURE_BLOB;

std::vector<DecodedMessage> DecodedMessages();
std::vector<EncodedMessage> EncodedMessages();

#endif

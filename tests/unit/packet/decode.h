#ifndef BRANTLE_TESTS_UNIT_PACKET_DECODE_H
#define BRANTLE_TESTS_UNIT_PACKET_DECODE_H

#include <string>

#include <brantle/packet/packet_decoder.h>

#include "wire.h"

/// The message in a received packet with 7 bytes of padding.
template <class Message>
Message Decode(std::string const& payload) {
    cindral::PacketDecoder decoder(Bytes(Framed(payload, 7)));
    return Message(decoder);
}

#endif

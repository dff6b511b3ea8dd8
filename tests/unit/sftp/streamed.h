#ifndef BRANTLE_TESTS_UNIT_SFTP_STREAMED_H
#define BRANTLE_TESTS_UNIT_SFTP_STREAMED_H

#include <string>

#include <brantle/sftp/sftp_packet.h>

#include "unit/packet/wire.h"

/// The bytes that the value is written as.
template <class Value>
std::string Written(Value const& value) {
    cindral::SftpPacket::EncoderStream out;
    out << value;
    return Text(out.Bytes());
}

/// Reads the value and returns the status of the stream.
template <class Value>
unsigned int Read(std::string const& bytes, Value& value) {
    ByteString const payload = Bytes(bytes);
    cindral::SftpPacket::DecoderStream in(payload);
    in >> value;
    return in.Status();
}

#endif

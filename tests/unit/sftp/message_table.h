#ifndef BRANTLE_TESTS_UNIT_SFTP_MESSAGE_TABLE_H
#define BRANTLE_TESTS_UNIT_SFTP_MESSAGE_TABLE_H

#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <brantle/sftp/sftp_name.h>
#include <brantle/sftp/sftp_packet.h>

/// Where messages store what belongs to their caller.
struct Target {
    cindral::SftpFileAttr _attrs;
    TOList<cindral::SftpName> _names;
};

using MessagePtr = std::unique_ptr<cindral::SftpPacket>;

/// A message class and one message of it on the wire, with the request id 7 if it has one.
struct SftpMessage {
    std::string _class;
    std::string _wrongType; ///< the words for another type
    std::string _badFields; ///< the words for fields that do not fit
    std::string _received;
    std::string _sent;
    std::function<MessagePtr(Target&)> _build;
    std::function<MessagePtr(ByteString const&, Target&)> _parse;
    /// Encodes the fields of a parsed message again.
    std::function<ByteString(cindral::SftpPacket const&)> _encodeFields;
};

inline void PrintTo(SftpMessage const& message, std::ostream* out) { *out << message._class; }

std::vector<SftpMessage> SftpMessages();

#endif

#ifndef BRANTLE_STANDARD_MESSAGE_PORT_H
#define BRANTLE_STANDARD_MESSAGE_PORT_H

#include "standard/bytes.h"

namespace cindral::standard {

/// Messages to and from the server, whole and one at a time, for steps that block on the caller's thread. A
/// message is its number and its fields, without padding.
class MessagePort {
public:
    virtual ~MessagePort() = default;

    /// Sends a message. Throws SshProtocolError or SystemError if the connection fails.
    virtual void Send(View message) = 0;
    /// Waits for the next message for the caller; IGNORE, DEBUG, EXT_INFO, global requests and key exchanges
    /// have already been handled. The view is valid until the next call of either operation. Throws
    /// SshProtocolError when the connection ends or the server stays silent for longer than the limit.
    virtual View Receive() = 0;
};

} // namespace cindral::standard

#endif

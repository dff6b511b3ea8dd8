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
    /// Waits for the next message that is of concern to the caller; IGNORE, DEBUG, EXT_INFO, global requests
    /// and key exchanges have been dealt with. The view is good until the next call of either operation.
    /// Throws SshProtocolError when the connection ends, or stays silent for longer than its limit.
    virtual View Receive() = 0;
};

} // namespace cindral::standard

#endif

#ifndef BRANTLE_STANDARD_DATA_PORT_H
#define BRANTLE_STANDARD_DATA_PORT_H

#include "standard/bytes.h"

namespace cindral::standard {

/// Receives the data of the session channel as it arrives, in pieces of any size.
class DataReceiver {
public:
    virtual ~DataReceiver() = default;
    /// Must not send anything: the view is valid until the next operation on the connection.
    virtual void TakeData(View data) = 0;
};

/// The data of the session channel outside the loop, without copying. Everything blocks; the end of the
/// channel throws SshProtocolError.
class DataPort {
public:
    virtual ~DataPort() = default;

    /// Directs the channel's data to a receiver; null means the session, which is the default. Data may also
    /// arrive while data is being sent.
    virtual void SetReceiver(DataReceiver* receiver) = 0;

    /// Sends data. What has not been written when it returns is written by Serve().
    virtual void Write(View data) = 0;
    /// Returns room for `size` bytes that are sent as one message, which EndWrite() has to complete at once;
    /// null if the window or the packet size has no room for them now, so that Write() has to be used.
    virtual unsigned char* BeginWrite(std::size_t size) = 0;
    virtual void EndWrite(std::size_t size) = 0;
    /// Writes pending output, and passes what arrives to the receiver; waits if nothing has arrived.
    virtual void Serve() = 0;
    /// Closes the channel, which can't be used any more then.
    virtual void Close() = 0;
};

/// Directs the channel's data to a receiver during its lifetime.
class Receiving {
public:
    Receiving(DataPort& port, DataReceiver& receiver) : _port(port) { _port.SetReceiver(&receiver); }
    ~Receiving() { _port.SetReceiver(nullptr); }
    Receiving(Receiving const&) = delete;
    Receiving& operator=(Receiving const&) = delete;

private:
    DataPort& _port;
};

} // namespace cindral::standard

#endif

#ifndef BRANTLE_STANDARD_DATA_PORT_H
#define BRANTLE_STANDARD_DATA_PORT_H

#include "standard/bytes.h"

namespace cindral::standard {

/// Takes the data of the session channel as it comes, in pieces of any size.
class DataReceiver {
public:
    virtual ~DataReceiver() = default;
    /// Must not send anything: the view is good as long as nothing else is done on the connection.
    virtual void TakeData(View data) = 0;
};

/// The data of the session channel outside the loop, without a copy on the way. Everything blocks; the end of
/// the channel is an SshProtocolError.
class DataPort {
public:
    virtual ~DataPort() = default;

    /// Leads the channel's data to a receiver, null for the session, as at first. While data are sent, too,
    /// some may come.
    virtual void SetReceiver(DataReceiver* receiver) = 0;

    /// Sends data. What has not been written when it returns leaves with Serve().
    virtual void Write(View data) = 0;
    /// Room for `size` bytes that go out as one message, to be ended by EndWrite() at once; null if the
    /// window or the packet size has no room for them now, so that Write() has to do it.
    virtual unsigned char* BeginWrite(std::size_t size) = 0;
    virtual void EndWrite(std::size_t size) = 0;
    /// Writes what waits, and lets the receiver take what comes, after a wait if that is nothing.
    virtual void Serve() = 0;
};

/// Leads the channel's data to a receiver for a while.
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

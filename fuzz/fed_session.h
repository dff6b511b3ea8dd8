#ifndef BRANTLE_FUZZ_FED_SESSION_H
#define BRANTLE_FUZZ_FED_SESSION_H

#include <cstdint>
#include <string>

#include "memory_file.h"

namespace fuzz {

/// The packets of a server that opens the channel and sends these bytes on it, before encryption.
std::string ChannelPackets(std::string const& bytes);

/// A session that is logged in to a server whose messages do not depend on the client's.
template <class Session>
class FedSession : public Session {
public:
    /// The server opens the channel and sends these bytes on it.
    explicit FedSession(std::string const& bytes) : Session(22, "127.0.0.1") {
        this->_authenticated = 1;
        this->_in._socketBuffer.Bind(MemoryFile(ChannelPackets(bytes)));
        this->_out._socketBuffer.Bind(Sink());
    }
};

} // namespace fuzz

#endif

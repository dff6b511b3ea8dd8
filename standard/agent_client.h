#ifndef BRANTLE_STANDARD_AGENT_CLIENT_H
#define BRANTLE_STANDARD_AGENT_CLIENT_H

#include <string>
#include <vector>

#include <brantle/thornel/descriptor_io.h>
#include <brantle/thornel/file_descriptor.h>

#include "foundations/thornel/deadline.h"
#include "standard/bytes.h"

namespace cindral::standard {

/// A separate connection to a key agent (draft-miller-ssh-agent), with keys and signatures as blobs.
///
/// Nothing that the agent does throws: when it answers badly, or not within 180 seconds, the connection is
/// closed and the agent counts as absent from then on.
class AgentClient {
public:
    struct Identity {
        Bytes blob;
        std::string comment;
    };

    /// Flags of Sign: the digest of an RSA signature, which is SHA-1 without any.
    static constexpr unsigned int RSA_SHA2_256 = 2;
    static constexpr unsigned int RSA_SHA2_512 = 4;

    /// Connects to the socket that SSH_AUTH_SOCK names, within 10 seconds; there is no agent if the variable
    /// is unset or empty.
    AgentClient();
    /// Connects to this socket; an empty path means no agent.
    explicit AgentClient(std::string const& path);

    bool IsPresent() const { return _fd >= 0; }

    /// The keys that the agent holds, in its order; none if it is absent or fails.
    std::vector<Identity> List();

    /// Signs `data` with the private half of the key. False if the agent is absent, refuses or fails; then
    /// Error() says why. `signature` receives the signature blob (RFC 4253, section 6.6), which is not
    /// checked.
    bool Sign(View key, View data, unsigned int flags, Bytes& signature);

    /// The reason of the last failure; empty if there was none.
    std::string const& Error() const { return _error; }

private:
    void Connect(std::string const& path);
    bool Exchange(Bytes const& request, int expected, Bytes& reply);
    bool Send(Bytes const& request, Deadline const& deadline);
    bool Receive(unsigned char* to, std::size_t size, Deadline const& deadline);
    bool Fail(std::string const& reason);
    bool Leave(std::string const& reason);

    FileDescriptor _fd;
    DescriptorIO _io;
    std::string _error;
};

} // namespace cindral::standard

#endif

#ifndef TESTS_SUPPORT_KEYED_CONNECTION_H
#define TESTS_SUPPORT_KEYED_CONNECTION_H

#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <string>

#include <brantle/thornel/file_descriptor.h>

#include "standard/connection.h"
#include "support/peer/standard_connection.h"

namespace support {

/// A connection of the standard dialect and its scripted server at the two ends of a pair of sockets, both in
/// the hands of one thread: what either sends waits in the pair until the other is asked to take it.
class KeyedConnection : private cindral::standard::HostKeyCheck {
public:
    explicit KeyedConnection(cindral::standard::RekeyLimit const& rekeyLimit = {}) : limit(rekeyLimit) {}

    /// Identification on both sides and the first key exchange.
    void Begin() {
        server.SendLine(server.settings.versionLine);
        std::string version, reason;
        Deadline const deadline(std::chrono::seconds(10));
        if (client.Identify(_sockets.client._fd, deadline, "SSH-2.0-client", version, reason) != 0)
            throw std::runtime_error("no identification: " + reason);
        server.clientVersion = server.ReadLine();
        server.clientVersion.resize(server.clientVersion.size() - 2);
        server.SendKexInit();
        FinishExchange();
    }
    /// From where the server has sent its KEXINIT.
    void FinishExchange() {
        Take();
        server.ReceiveKexInit();
        server.ReceiveKexMessage();
        server.SendReply(server.MakeReply());
        server.SendNewKeys();
        Take();
        server.ReceiveNewKeys();
    }
    /// The client takes all that has come, and sends what follows from it. Returns the number of messages for
    /// the layers above.
    int Take() {
        int messages = 0;
        client.Fill();
        for (cindral::standard::View message; client.Next(message);) ++messages;
        client.Flush();
        return messages;
    }

private:
    struct Sockets {
        Sockets() {
            int ends[2];
            if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
                throw std::runtime_error("socketpair");
            client._fd = ends[0];
            server = ends[1];
        }

        FileDescriptor client;
        int server; ///< which becomes the server's
    };

    std::string Order(std::string const& algorithms) override { return algorithms; }
    std::string Refuse(std::string const&, cindral::standard::View) override { return ""; }

    cindral::standard::Offer const _offer{"curve25519-sha256", "ssh-ed25519", "aes128-gcm@openssh.com",
                                          "hmac-sha2-256"};
    Sockets _sockets;
    FileDescriptor _abort{eventfd(0, EFD_CLOEXEC)};

public:
    cindral::standard::RekeyLimit const limit;
    cindral::standard::Connection client{_offer, *this, limit};
    peer::StandardConnection server{_sockets.server, _abort._fd, peer::StandardSettings(), 0};
};

} // namespace support

#endif

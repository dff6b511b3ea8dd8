// The messages of a server to a connection with the standard dialect that has a session channel and a
// forwarded one: transport, EXT_INFO, key exchange, requests, channels and their windows. Each message has
// its length in two bytes before it.
//
// Data must never exceed what has been granted, nor come after the end of a channel, and only the documented
// exceptions end it.

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>

#include <brantle/cindral/exceptions.h>

#include "finding.h"
#include "standard/channels.h"

using namespace cindral::standard;
using cindral::SshProtocolError;
using fuzz::Require;

namespace {

constexpr std::size_t LARGEST_INPUT = 0x8000; ///< what a socket takes without a reader
constexpr unsigned int WINDOW = 64;

class TrustingCheck : public HostKeyCheck {
public:
    std::string Order(std::string const& algorithms) override { return algorithms; }
    std::string Refuse(std::string const&, View) override { return ""; }
};

class Events : public ChannelEvents {
public:
    void OnOpened(Channel& channel) override { Require(channel.isConfirmed, "OnOpened", "is too early"); }
    void OnOpenFailed(Channel& channel, std::string const& reason) override {
        Require(!channel.isConfirmed && !reason.empty(), "OnOpenFailed", "is called for an open channel");
    }
    void OnData(Channel& channel, View data) override {
        Require(!channel.eofReceived && !channel.closeReceived, "OnData", "comes after the end");
        Require(data.size() <= WINDOW && channel.localWindow <= channel.windowSize, "OnData",
                "exceeds the window");
        channels->Consume(channel, data.size());
        Require(channel.localWindow + channel.consumed <= channel.windowSize, "Consume", "grants too much");
    }
    void OnErrorData(Channel& channel, View data) override { OnData(channel, data); }
    void OnEof(Channel& channel) override { Require(channel.eofReceived, "OnEof", "is too early"); }
    bool OnClosed(Channel& channel) override {
        Require(channel.closeSent && channel.closeReceived, "OnClosed", "is too early");
        return true;
    }
    void OnWindow(Channel& channel) override { Require(channel.remoteWindow > 0, "OnWindow", "has none"); }
    void OnOpenRequest(OpenRequest const& request) override {
        if (request.type != "x11") return channels->PostRefusal(request, 1, "no");
        unsigned int const local = _next++;
        if (local > 100) return channels->PostRefusal(request, 4, "too many");
        channels->PostConfirmation(channels->Add(std::make_unique<Channel>(local), WINDOW, WINDOW), request);
    }
    void OnRequestRefused(Channel& channel, std::string const&, bool) override {
        Require(channel.isConfirmed, "OnRequestRefused", "comes for no channel");
    }
    void OnForwardingRefused() override { Require(false, "OnForwardingRefused", "comes for no request"); }

    Channels* channels = nullptr;

private:
    unsigned int _next = 10;
};

/// Unencrypted packets of the input's messages.
Bytes Frame(View input) {
    constexpr std::size_t BLOCK = 8;
    Writer wire;
    while (input.size() > 2) {
        auto const wanted = static_cast<std::size_t>(input[0] << 8 | input[1]);
        std::size_t const size = std::min<std::size_t>(wanted, input.size() - 2);
        std::size_t const padding = 2 * BLOCK - (5 + size) % BLOCK;
        wire.Int(static_cast<unsigned int>(1 + size + padding)).Byte(static_cast<unsigned char>(padding));
        wire.Fixed(View(input.data() + 2, size)).Fixed(Bytes(padding, 0));
        input = View(input.data() + 2 + size, input.size() - 2 - size);
    }
    return wire.Take();
}

void OpenChannels(Channels& channels) {
    for (unsigned int number : {0u, 1u}) {
        Channel& channel = channels.Add(std::make_unique<Channel>(number), WINDOW, WINDOW);
        channel.isSession = number == 0;
    }
    Channel& session = *channels.Find(0);
    session.isConfirmed = true;
    session.remote = 7;
    session.remoteWindow = session.remoteMax = 0x8000;
    channels.Submit(Writer(98).Int(session.remote).String("exec").Bool(true).String("command").Get());
    channels.PostKeepalive();
}

void TakeAll(Connection& connection, Channels& channels) {
    View message;
    for (;;) {
        while (connection.Next(message)) {
            View passedOn = message;
            if (channels.Take(passedOn)) Require(passedOn.size() > 0, "Take", "passes on nothing");
        }
        connection.Fill(); // throws at the end
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size > LARGEST_INPUT) return 0;
    Bytes wire = Writer().Fixed("SSH-2.0-peer\n").Take();
    Bytes const packets = Frame(View(data, size));
    wire.insert(wire.end(), packets.begin(), packets.end());
    int ends[2];
    Require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "socketpair", "failed");
    Require(write(ends[1], wire.data(), wire.size()) == static_cast<ssize_t>(wire.size()), "write", "failed");
    shutdown(ends[1], SHUT_WR);

    Offer const offer{"curve25519-sha256", "ssh-ed25519", "aes128-ctr", "hmac-sha2-256"};
    TrustingCheck trusting;
    RekeyLimit const limit;
    Connection connection(offer, trusting, limit);
    Events events;
    Channels channels(connection, events);
    events.channels = &channels;
    std::string server, reason;
    Require(connection.Identify(ends[0], Deadline(std::chrono::seconds(10)), "SSH-2.0-me", server, reason) ==
                0,
            "Identify", "failed");
    OpenChannels(channels);
    try {
        TakeAll(connection, channels);
    } catch (SshProtocolError const&) {
    } catch (Declined const& declined) {
        Require(!declined.Text().empty(), "Declined", "says nothing");
    }
    close(ends[0]);
    close(ends[1]);
    return 0;
}

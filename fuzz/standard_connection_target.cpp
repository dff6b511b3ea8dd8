// The messages of a server to a connection with the standard dialect that has a session channel and a
// forwarded one: transport, EXT_INFO, key exchange, requests, channels and their windows. Each message has
// its length in two bytes before it. A connection that has no keys yet takes them, and one that has finished
// a key exchange with a scripted server.
//
// Data must never exceed what has been granted, nor come after the end of a channel, and only the documented
// exceptions end it. What the first message says of signature algorithms is known after it, and an unknown
// number in it is answered.

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <brantle/cindral/exceptions.h>

#include "finding.h"
#include "standard/channels.h"
#include "support/keyed_connection.h"

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

/// The input's messages.
std::vector<View> Split(View input) {
    std::vector<View> messages;
    while (input.size() > 2) {
        auto const wanted = static_cast<std::size_t>(input[0] << 8 | input[1]);
        std::size_t const size = std::min<std::size_t>(wanted, input.size() - 2);
        messages.emplace_back(input.data() + 2, size);
        input = View(input.data() + 2 + size, input.size() - 2 - size);
    }
    return messages;
}

/// Unencrypted packets of these.
Bytes Frame(std::vector<View> const& messages) {
    constexpr std::size_t BLOCK = 8;
    Writer wire;
    for (View const message : messages) {
        std::size_t const padding = 2 * BLOCK - (5 + message.size()) % BLOCK;
        wire.Int(static_cast<unsigned int>(1 + message.size() + padding));
        wire.Byte(static_cast<unsigned char>(padding)).Fixed(message).Fixed(Bytes(padding, 0));
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

void TakeWhatHasCome(Connection& connection, Channels& channels) {
    for (View message; connection.Next(message);)
        if (channels.Take(message)) Require(message.size() > 0, "Take", "passes on nothing");
}

/// Does what may end the connection.
template <class Step>
void Guarded(Step const& step) {
    try {
        step();
    } catch (SshProtocolError const&) {
    } catch (Declined const& declined) {
        Require(!declined.Text().empty(), "Declined", "says nothing");
    }
}

/// The server's messages before it has any keys.
void TakeWithoutKeys(std::vector<View> const& messages) {
    Bytes wire = Writer().Fixed("SSH-2.0-peer\n").Take();
    Bytes const packets = Frame(messages);
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
    Guarded([&] {
        for (;;) {
            TakeWhatHasCome(connection, channels);
            connection.Fill(); // throws at the end
        }
    });
    close(ends[0]);
    close(ends[1]);
}

// --- with keys

/// Numbers that RFC 4250, section 4.1 assigns to nothing.
bool IsUnassigned(int number) { return number == 0 || (number >= 8 && number <= 19) || number >= 128; }

/// What an EXT_INFO says of signature algorithms; nothing if it is none, or malformed.
std::optional<std::string> AlgorithmsIn(View message) {
    peer::Reader fields(peer::Bytes(message.begin(), message.end()));
    std::optional<std::string> algorithms;
    try {
        if (fields.U8() != peer::EXT_INFO) return std::nullopt;
        for (std::uint32_t left = fields.U32(); left > 0; --left) {
            std::string const name = fields.String();
            std::string const value = fields.String();
            if (name == "server-sig-algs") algorithms = value;
        }
        fields.End();
    } catch (peer::PeerError const&) {
        return std::nullopt;
    }
    return algorithms;
}

void TakeFirst(support::KeyedConnection& pair, Channels& channels, View message) {
    std::uint32_t const sequence = pair.server.SendSequence();
    pair.server.SendPacket(peer::Bytes(message.begin(), message.end()));
    pair.client.Fill();
    TakeWhatHasCome(pair.client, channels);
    if (auto const algorithms = AlgorithmsIn(message))
        Require(pair.client.ServerSignatureAlgorithms() == *algorithms, "EXT_INFO", "is not heard");
    if (!IsUnassigned(message[0])) return;
    Require(pair.client.HasPendingOutput(), "unknown number", "is not answered");
    pair.client.Flush();
    for (int own = 0; own < 2; ++own) pair.server.ReadPacket(); // what OpenChannels sends
    peer::Reader answer(pair.server.ReadPacket());
    Require(answer.U8() == peer::UNIMPLEMENTED && answer.U32() == sequence, "unknown number",
            "is answered by something else");
}

/// The server's messages after a key exchange, the first one alone and the others in pieces of any size.
void TakeWithKeys(std::vector<View> const& messages) {
    constexpr std::size_t PIECE = 5000;
    support::KeyedConnection pair;
    pair.Begin();
    Events events;
    Channels channels(pair.client, events);
    events.channels = &channels;
    OpenChannels(channels);
    pair.client.Flush();
    Guarded([&] {
        if (messages.empty() || messages[0].empty()) return;
        TakeFirst(pair, channels, messages[0]);
        peer::Bytes wire;
        for (std::size_t i = 1; i < messages.size(); ++i) {
            peer::Bytes const packet =
                pair.server.Encode(peer::Bytes(messages[i].begin(), messages[i].end()));
            wire.insert(wire.end(), packet.begin(), packet.end());
        }
        for (std::size_t at = 0; at < wire.size(); at += PIECE) {
            pair.server.SendRaw(peer::Slice(wire, at, PIECE));
            pair.client.Fill();
            TakeWhatHasCome(pair.client, channels);
            pair.client.Flush();
        }
    });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size > LARGEST_INPUT) return 0;
    std::vector<View> const messages = Split(View(data, size));
    TakeWithoutKeys(messages);
    TakeWithKeys(messages);
    return 0;
}

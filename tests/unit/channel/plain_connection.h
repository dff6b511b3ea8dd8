#ifndef TESTS_UNIT_CHANNEL_PLAIN_CONNECTION_H
#define TESTS_UNIT_CHANNEL_PLAIN_CONNECTION_H

#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <brantle/packet/packet_stream.h>

using Bytes = std::vector<unsigned char>;

/// A pair of packet streams without keys, and the far end of their connection.
class PlainConnection {
public:
    PlainConnection() : _out(_outCipher, _outMac), _in(_inCipher, _inMac) {
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, _fds));
        _out._socketBuffer.Bind(_fds[0]);
        _in._socketBuffer.Bind(_fds[0]);
    }
    ~PlainConnection() {
        for (int fd : _fds) close(fd);
    }
    PlainConnection(PlainConnection const&) = delete;
    PlainConnection& operator=(PlainConnection const&) = delete;

    /// Delivers a packet with that payload.
    void Receive(Bytes const& payload) {
        unsigned char const padding = 4;
        auto const length = static_cast<unsigned int>(1 + payload.size() + padding);
        Bytes packet{static_cast<unsigned char>(length >> 24), static_cast<unsigned char>(length >> 16),
                     static_cast<unsigned char>(length >> 8), static_cast<unsigned char>(length), padding};
        packet.insert(packet.end(), payload.begin(), payload.end());
        packet.insert(packet.end(), padding, 0);
        EXPECT_EQ(static_cast<ssize_t>(packet.size()), send(_fds[1], packet.data(), packet.size(), 0));
    }

    /// Lets the far end close both directions.
    void HangUp() { EXPECT_EQ(0, shutdown(_fds[1], SHUT_RDWR)); }

    /// The payloads of all packets that have been written since the last call.
    std::vector<Bytes> Sent() {
        Bytes wire(1 << 18);
        ssize_t const n = recv(_fds[1], wire.data(), wire.size(), MSG_DONTWAIT);
        wire.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
        std::vector<Bytes> payloads;
        for (auto next = wire.begin(); next != wire.end();) {
            auto const length = (next[0] << 24) + (next[1] << 16) + (next[2] << 8) + next[3];
            payloads.emplace_back(next + 5, next + 4 + length - next[4]);
            next += 4 + length;
        }
        return payloads;
    }

private:
    cindral::BlockCipher _outCipher;
    cindral::BlockCipher _inCipher;
    int _fds[2];

public:
    cindral::Mac _outMac;
    cindral::Mac _inMac;
    cindral::OSshPacketStream _out;
    cindral::ISshPacketStream _in;
};

/// A pipe, with what has been written into it.
class OutputPipe {
public:
    OutputPipe() { EXPECT_EQ(0, pipe(_fds)); }
    ~OutputPipe() {
        for (int fd : _fds) close(fd);
    }
    OutputPipe(OutputPipe const&) = delete;
    OutputPipe& operator=(OutputPipe const&) = delete;

    int WriteEnd() const { return _fds[1]; }

    std::string Written() {
        int waiting = 0;
        EXPECT_EQ(0, ioctl(_fds[0], FIONREAD, &waiting));
        std::string text(static_cast<std::size_t>(waiting), '\0');
        if (waiting > 0) {
            EXPECT_EQ(waiting, read(_fds[0], text.data(), text.size()));
        }
        return text;
    }

private:
    int _fds[2];
};

#endif

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "standard/connection.h"
#include "unit/standard/connection_fakes.h"

using namespace cindral::standard;

namespace {

std::string const LINE = "SSH-2.0-silent\r\n";

/// A connection whose server is the other end of a pair of sockets, and has sent its identification.
struct IdentifiedConnection {
    ~IdentifiedConnection() {
        for (int const end : ends) close(end);
    }

    void Begin() {
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        ASSERT_EQ(write(ends[1], LINE.data(), LINE.size()), static_cast<ssize_t>(LINE.size()));
        std::string server, reason;
        Deadline const deadline(std::chrono::seconds(10));
        ASSERT_EQ(connection.Identify(ends[0], deadline, "SSH-2.0-test", server, reason), 0);
    }

    int ends[2] = {-1, -1};
    Offer const offer{};
    NoHostKeys hostKeys;
    RekeyLimit const limit{};
    Connection connection{offer, hostKeys, limit};
};

} // namespace

TEST(Connection, WaitEndsWhenASilentServerHasTakenTheOutput) {
    IdentifiedConnection identified;
    ASSERT_NO_FATAL_FAILURE(identified.Begin());
    auto const& ends = identified.ends;
    Connection& connection = identified.connection;

    constexpr std::size_t SIZE = 30000;
    for (int i = 0; i < 40; ++i) {
        connection.BeginPost(SIZE)[0] = 2; // IGNORE
        connection.EndPost(SIZE);
    }
    // The server reads all, and says something only when it has had nothing for a while.
    std::atomic<bool> spoke{false};
    std::thread peer([&] {
        std::array<char, 65536> piece;
        timeval const silence{2, 0};
        setsockopt(ends[1], SOL_SOCKET, SO_RCVTIMEO, &silence, sizeof silence);
        while (read(ends[1], piece.data(), piece.size()) > 0) {
        }
        spoke = true;
        EXPECT_EQ(write(ends[1], LINE.data(), LINE.size()), static_cast<ssize_t>(LINE.size()));
    });
    while (connection.HasPendingOutput()) connection.WaitAndFill();
    EXPECT_FALSE(spoke);
    peer.join();
}

TEST(Connection, BufferFullOfPacketsIsNotTheEndOfTheConnection) {
    constexpr unsigned int SIZE = 32764, PACKETS = 40; // a packet with its length field has 4 bytes more
    IdentifiedConnection identified;
    ASSERT_NO_FATAL_FAILURE(identified.Begin());
    auto const& ends = identified.ends;
    Connection& connection = identified.connection;
    std::thread peer([&] {
        Writer packet;
        packet.Int(SIZE).Byte(4).Byte(80); // a global request
        Bytes bytes = packet.Take();
        bytes.resize(4 + SIZE);
        for (unsigned int i = 0; i < PACKETS; ++i)
            EXPECT_EQ(write(ends[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    });
    unsigned int received = 0;
    View message;
    while (received < PACKETS) {
        connection.WaitAndFill(); // until there is a packet
        for (int i = 0; i < 100; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            ASSERT_NO_THROW(connection.Fill());
        }
        while (connection.Next(message)) ++received;
    }
    peer.join();
    EXPECT_EQ(received, PACKETS);
}

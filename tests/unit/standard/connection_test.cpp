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

TEST(Connection, WaitEndsWhenASilentServerHasTakenTheOutput) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    std::string const line = "SSH-2.0-silent\r\n";
    ASSERT_EQ(write(ends[1], line.data(), line.size()), static_cast<ssize_t>(line.size()));
    Offer const offer;
    NoHostKeys hostKeys;
    RekeyLimit const limit;
    Connection connection(offer, hostKeys, limit);
    std::string server, reason;
    ASSERT_EQ(
        connection.Identify(ends[0], Deadline(std::chrono::seconds(10)), "SSH-2.0-test", server, reason), 0);

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
        EXPECT_EQ(write(ends[1], line.data(), line.size()), static_cast<ssize_t>(line.size()));
    });
    while (connection.HasPendingOutput()) connection.WaitAndFill();
    EXPECT_FALSE(spoke);
    peer.join();
    close(ends[0]);
    close(ends[1]);
}

TEST(Connection, BufferFullOfPacketsIsNotTheEndOfTheConnection) {
    constexpr unsigned int SIZE = 32764, PACKETS = 40; // a packet with its length field has 4 bytes more
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    std::string const line = "SSH-2.0-silent\r\n";
    ASSERT_EQ(write(ends[1], line.data(), line.size()), static_cast<ssize_t>(line.size()));
    Offer const offer;
    NoHostKeys hostKeys;
    RekeyLimit const limit;
    Connection connection(offer, hostKeys, limit);
    std::string server, reason;
    ASSERT_EQ(
        connection.Identify(ends[0], Deadline(std::chrono::seconds(10)), "SSH-2.0-test", server, reason), 0);
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
    close(ends[0]);
    close(ends[1]);
    EXPECT_EQ(received, PACKETS);
}

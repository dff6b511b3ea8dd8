// When a connection renews its keys, and how.

#include <gtest/gtest.h>

#include "support/keyed_connection.h"

using namespace cindral::standard;

namespace {

Bytes const IGNORED{2, 0, 0, 0, 0};

} // namespace

TEST(ConnectionRekeying, KeysAreRenewedAfterSoManyPacketsSent) {
    RekeyLimit limit;
    EXPECT_EQ(limit.packets, 1ull << 31);
    limit.packets = 100;
    support::KeyedConnection pair(limit);
    pair.Begin();
    for (int round = 0; round < 3; ++round) {
        for (unsigned int packets = 0; packets < limit.packets; ++packets) {
            EXPECT_FALSE(pair.client.Exchange().IsUnderWay()) << packets;
            pair.client.Post(IGNORED);
            pair.client.Flush();
        }
        EXPECT_TRUE(pair.client.Exchange().IsUnderWay());
        pair.server.kex = peer::StandardKex();
        pair.server.SendKexInit();
        pair.FinishExchange();
        EXPECT_EQ(pair.client.Exchange().Completed(), static_cast<unsigned int>(round) + 2);
    }
}

TEST(ConnectionRekeying, KeysAreRenewedAfterSoManyPacketsReceived) {
    RekeyLimit limit;
    limit.packets = 100;
    support::KeyedConnection pair(limit);
    pair.Begin();
    for (unsigned int packets = 0; packets < limit.packets; ++packets) {
        EXPECT_FALSE(pair.client.Exchange().IsUnderWay()) << packets;
        pair.server.SendIgnore();
        EXPECT_EQ(pair.Take(), 0);
    }
    EXPECT_TRUE(pair.client.Exchange().IsUnderWay());
    pair.server.kex = peer::StandardKex();
    pair.server.SendKexInit();
    pair.FinishExchange();
    EXPECT_EQ(pair.client.Exchange().Completed(), 2u);
}

/// Neither side has seen anything of the other's when it sends its own.
TEST(ConnectionRekeying, KexInitsThatCrossAreOneExchange) {
    RekeyLimit limit;
    limit.packets = 1;
    support::KeyedConnection pair(limit);
    pair.Begin();
    pair.server.kex = peer::StandardKex();
    pair.server.SendKexInit();
    pair.client.Post(IGNORED);
    pair.client.Flush();
    EXPECT_TRUE(pair.client.Exchange().IsUnderWay());
    Bytes const held{80, 0, 0, 0, 0, 0};
    pair.client.Post(held);
    pair.FinishExchange(); // where the server checks that only the exchange's messages come
    EXPECT_EQ(pair.client.Exchange().Completed(), 2u);
    EXPECT_EQ(pair.server.ReadPacket(), peer::Bytes(IGNORED.begin(), IGNORED.end())); // sent before
    EXPECT_EQ(pair.server.ReadPacket(), peer::Bytes(held.begin(), held.end()));
}

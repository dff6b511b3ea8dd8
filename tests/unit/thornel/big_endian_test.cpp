#include <brantle/thornel/big_endian.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;

TEST(BigEndian, MostSignificantByteComesFirst) {
    unsigned char bytes[4] = {};
    PutBigEndian(bytes, 0x81020384u);
    EXPECT_THAT(bytes, ElementsAre(0x81, 2, 3, 0x84));
    EXPECT_EQ(GetBigEndian<unsigned int>(bytes), 0x81020384u);
}

TEST(BigEndian, NumbersOfEveryWidthAreReadAndWritten) {
    unsigned char bytes[] = {0xff, 0x80, 1, 2, 3, 4, 5, 6, 0xff};
    EXPECT_EQ(GetBigEndian<unsigned char>(bytes + 1), 0x80);
    EXPECT_EQ(GetBigEndian<unsigned short>(bytes + 1), 0x8001);
    EXPECT_EQ(GetBigEndian<int>(bytes), static_cast<int>(0xff800102));
    EXPECT_EQ(GetBigEndian<unsigned long long>(bytes + 1), 0x80010203040506ffull);
    PutBigEndian<unsigned short>(bytes + 1, 0x1234);
    PutBigEndian<unsigned char>(bytes + 4, 0x56);
    EXPECT_THAT(bytes, ElementsAre(0xff, 0x12, 0x34, 2, 0x56, 4, 5, 6, 0xff));
}

} // namespace

#include <brantle/cindral/euc_vector.h>

#include <cstddef>

#include <gtest/gtest.h>

using namespace cindral;

namespace {

TEST(EUCVector, HasTheNumberOfBytesGiven) {
    EUCVector vector(16);
    ASSERT_NE(vector._data, nullptr);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(vector._data[i]++, 0);
}

TEST(EUCVector, DataIsItsFirstMember) { EXPECT_EQ(offsetof(EUCVector, _data), 0u); }

TEST(EUCVector, LengthBelowOneIsEmpty) {
    EXPECT_NE(EUCVector(0)._data, nullptr);
    EXPECT_EQ(EUCVector(-5)._length, 0u);
}

} // namespace

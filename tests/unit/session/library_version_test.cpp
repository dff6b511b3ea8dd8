#include <string>

#include <gtest/gtest.h>

#include <brantle/version.h>

TEST(LibraryVersion, IsThatOfTheHeadersAndOfTheProject) {
    EXPECT_STREQ(cindral::LibraryVersion(), BRANTLE_VERSION);
    EXPECT_STREQ(cindral::LibraryVersion(), VERSION_OF_THE_PROJECT);
}

TEST(LibraryVersion, TextHasTheThreeNumbers) {
    EXPECT_EQ(std::to_string(BRANTLE_VERSION_MAJOR) + "." + std::to_string(BRANTLE_VERSION_MINOR) + "." +
                  std::to_string(BRANTLE_VERSION_PATCH),
              BRANTLE_VERSION);
}

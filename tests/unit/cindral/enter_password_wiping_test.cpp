#include <gtest/gtest.h>

#include <brantle/cindral/enter_password.h>

#include "freed_memory.h"

using namespace cindral;

namespace {

std::string const SECRET = "correct horse battery staple";

} // namespace

TEST(WipedPreset, IsNotLeftInFreedMemoryByTheLastObject) {
    FreedMemory const freed(SECRET);
    {
        EnterPassword first(1, "");
        first.Preset(SECRET.c_str());
        EnterPassword const copy(first);
    }
    EXPECT_EQ(freed.OfNew()._withSecret, 0u);
    EXPECT_GT(freed.OfNew()._freed, 0u);
}

TEST(WipedPreset, IsNotLeftInFreedMemoryWhenItIsReplaced) {
    FreedMemory const freed(SECRET);
    EnterPassword enter(1, "");
    EnterPassword other(1, "");
    enter.Preset(SECRET.c_str());
    enter.Preset(String_t());
    enter.Preset(SECRET.c_str());
    enter = other;
    EXPECT_EQ(freed.OfNew()._withSecret, 0u);
    EXPECT_GT(freed.OfNew()._freed, 0u);
}

TEST(WipedPreset, TextThatTheProgramSharesIsKept) {
    String_t const secret(SECRET.c_str());
    {
        EnterPassword enter(1, "");
        enter.Preset(secret);
        enter.Preset(secret);
        EnterPassword const copy(enter);
    }
    EXPECT_STREQ(secret.Text(), SECRET.c_str());
}

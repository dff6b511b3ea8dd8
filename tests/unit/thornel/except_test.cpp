#include <brantle/thornel/except.h>

#include <gtest/gtest.h>

namespace {

class Derived : public Except {
public:
    using Except::Except;
};

TEST(Except, WhatIsTheMessage) {
    try {
        throw Derived(String_t("what happened"));
    } catch (Except& e) {
        EXPECT_STREQ(e.what(), "what happened");
    }
}

TEST(Except, IsAStandardException) { EXPECT_THROW(throw Except(String_t("x")), std::exception); }

TEST(Except, WhatIsEmptyWithoutAMessage) {
    EXPECT_STREQ(Except().what(), "");
    EXPECT_STREQ(Except(String_t()).what(), "");
}

} // namespace

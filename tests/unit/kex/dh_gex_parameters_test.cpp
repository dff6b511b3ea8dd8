#include <brantle/kex/dh_gex_parameters.h>

#include <gtest/gtest.h>

#include <brantle/cindral/exceptions.h>

#include "support/expect_error.h"

using namespace cindral;

namespace {

void ExpectSizes(DhGexParameters const& parameters, int min, int pref, int max) {
    EXPECT_EQ(parameters.min, min);
    EXPECT_EQ(parameters.pref, pref);
    EXPECT_EQ(parameters.max, max);
}

template <typename... Sizes>
void ExpectRefused(char const* word, Sizes... sizes) {
    support::ExpectError<InvalidArgument>("DhGexParameters::DhGexParameters", word,
                                          [&] { DhGexParameters const parameters(sizes...); });
}

TEST(DhGexParameters, DefaultAllowsTheWholeRange) { ExpectSizes(DhGexParameters(), 1024, 1024, 8192); }

TEST(DhGexParameters, PreferredSizeOnlyMarksTheOldForm) {
    ExpectSizes(DhGexParameters(1024), -1, 1024, -1);
    ExpectSizes(DhGexParameters(8192), -1, 8192, -1);
}

TEST(DhGexParameters, LimitsAreInclusive) {
    ExpectSizes(DhGexParameters(1024, 1024, 8192), 1024, 1024, 8192);
    ExpectSizes(DhGexParameters(1024, 1024, 1024), 1024, 1024, 1024);
    ExpectSizes(DhGexParameters(8192, 8192, 8192), 8192, 8192, 8192);
    ExpectSizes(DhGexParameters(1024, 8192, 8192), 1024, 8192, 8192);
}

TEST(DhGexParameters, CopyHasTheSameSizes) {
    DhGexParameters const parameters(1025, 2048, 4096);
    DhGexParameters const copy(parameters);
    ExpectSizes(copy, 1025, 2048, 4096);
}

TEST(DhGexParameters, SizeOutOfRangeIsNamed) {
    for (int size : {1023, 8193, 0, -1}) {
        ExpectRefused("min", size, 1024, 8192);
        ExpectRefused("pref", 1024, size, 8192);
        ExpectRefused("max", 1024, 1024, size);
        ExpectRefused("pref", size);
    }
}

TEST(DhGexParameters, FirstBadSizeIsNamed) {
    ExpectRefused("min", 1023, 1023, 1023);
    ExpectRefused("pref", 1024, 1023, 1023);
}

TEST(DhGexParameters, CrossedLimitsAreRefused) {
    ExpectRefused("max is less than min", 4096, 4096, 2048);
    ExpectRefused("max is less than min", 1025, 1024, 1024);
}

TEST(DhGexParameters, PreferredSizeOutsideTheLimitsIsRefused) {
    ExpectRefused("pref is outside the interval min/max", 2048, 1024, 4096);
    ExpectRefused("pref is outside the interval min/max", 2048, 2047, 4096);
    ExpectRefused("pref is outside the interval min/max", 2048, 4097, 4096);
}

} // namespace

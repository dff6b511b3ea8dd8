#ifndef BRANTLE_TESTS_SUPPORT_EXPECT_ERROR_H
#define BRANTLE_TESTS_SUPPORT_EXPECT_ERROR_H

#include <string>
#include <typeinfo>

#include <gtest/gtest.h>

#include <brantle/cindral/exceptions.h>

#include "support/text.h"

namespace support {

/// Expects that `action` throws exactly an `Error` with these words.
template <typename Error, typename Action>
void ExpectError(std::string const& text, std::string const& detail, Action action) {
    try {
        action();
        ADD_FAILURE() << "no error; expected \"" << text << '"';
    } catch (cindral::CryptoException const& error) {
        EXPECT_EQ(typeid(error), typeid(Error)) << error.what();
        EXPECT_EQ(Text(error.Text()), text);
        EXPECT_EQ(Text(error.Detail()), detail);
    }
}

} // namespace support

#endif

#ifndef BRANTLE_TESTS_UNIT_PACKET_WIRE_H
#define BRANTLE_TESTS_UNIT_PACKET_WIRE_H

#include <string>

#include <gtest/gtest.h>

#include <brantle/cindral/exceptions.h>

#include "support/expect_error.h"
#include "support/text.h"

/// Bytes from a line of hexadecimal digits and quoted text: "5e 00000003 'abc'". Blanks only separate.
inline std::string Wire(std::string const& line) {
    std::string bytes;
    for (std::size_t i = 0; i < line.size();) {
        if (line[i] == ' ') {
            ++i;
        } else if (line[i] == '\'') {
            std::size_t const close = line.find('\'', i + 1);
            bytes += line.substr(i + 1, close - i - 1);
            i = close + 1;
        } else {
            bytes += static_cast<char>(std::stoi(line.substr(i, 2), nullptr, 16));
            i += 2;
        }
    }
    return bytes;
}

/// A packet as it is received: padding length, payload, padding.
inline std::string Framed(std::string const& payload, unsigned int padding = 0) {
    return static_cast<char>(padding) + payload + std::string(padding, '\xa5');
}

using support::Bytes;
using support::ExpectError;
using support::Text;

/// Expects that `action` finds the end of its input too early.
template <typename Action>
void ExpectPrematureEnd(Action action) {
    EXPECT_THROW(action(), cindral::BadInput);
}

#endif

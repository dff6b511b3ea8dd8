#ifndef TESTS_WIRE_ALL_ALGORITHMS_H
#define TESTS_WIRE_ALL_ALGORITHMS_H

#include <algorithm>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

/// A cipher and a MAC name, as a test's parameter.
using Algorithms = std::tuple<char const*, char const*>;

/// Every cipher with every MAC.
inline auto AllAlgorithms() {
    return testing::Combine(
        testing::Values("aes128-ctr", "aes192-ctr", "aes256-ctr", "aes128-cbc", "aes192-cbc", "aes256-cbc",
                        "3des-cbc"),
        testing::Values("hmac-sha1", "hmac-sha1-96", "hmac-md5", "hmac-sha2-256", "hmac-sha2-512"));
}

inline std::string AlgorithmsName(testing::TestParamInfo<Algorithms> const& info) {
    std::string name = std::string(std::get<0>(info.param)) + "_" + std::get<1>(info.param);
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
}

#endif

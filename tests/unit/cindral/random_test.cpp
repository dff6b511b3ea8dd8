#include <brantle/cindral/random.h>

#include <cstddef>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "hex.h"

using namespace cindral;

namespace {

std::string Padding(int count) {
    std::string bytes;
    while (count-- > 0) bytes += static_cast<char>(PseudoRand::NextByte());
    return bytes;
}

TEST(RandomBytes, HasTheLengthRequested) {
    for (unsigned int length : {0u, 1u, 16u, 3000000u}) EXPECT_EQ(RandomBytes(length).Length(), length);
}

TEST(RandomBytes, DiffersEachTime) { EXPECT_NE(ToHex(RandomBytes(16)), ToHex(RandomBytes(16))); }

TEST(RandomBytes, MayBeCalledByConcurrentThreads) {
    constexpr std::size_t THREADS = 4;
    std::vector<std::string> drawn(THREADS);
    std::vector<std::thread> threads;
    for (std::string& bytes : drawn) threads.emplace_back([&bytes] { bytes = ToHex(RandomBytes(32)); });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(std::set<std::string>(drawn.begin(), drawn.end()).size(), THREADS);
}

TEST(PseudoRand, YieldsEveryByteValue) {
    std::string const bytes = Padding(20000);
    EXPECT_EQ(std::set<char>(bytes.begin(), bytes.end()).size(), 256u);
}

TEST(PseudoRand, ThreadsGetDifferentBytes) {
    std::string first;
    std::string second;
    std::thread one([&] { first = Padding(64); });
    std::thread two([&] { second = Padding(64); });
    one.join();
    two.join();
    EXPECT_NE(first, second);
}

} // namespace

#ifndef BRANTLE_FUZZ_FINDING_H
#define BRANTLE_FUZZ_FINDING_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

/// What every target defines: takes one input, and ends the process if the library fails on it. An exception
/// that leaves it is a failure too.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

namespace fuzz {

/// Ends the process unless the condition holds.
inline void Require(bool condition, char const* subject, char const* wrong) {
    if (condition) return;
    std::fprintf(stderr, "%s: %s\n", subject, wrong);
    std::abort();
}

} // namespace fuzz

#endif

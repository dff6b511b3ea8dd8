#ifndef BRANTLE_TESTS_UNIT_THORNEL_LARGEST_ALLOCATION_H
#define BRANTLE_TESTS_UNIT_THORNEL_LARGEST_ALLOCATION_H

#include <cstddef>

/// Size of the largest block asked of operator new since the last call, the libraries' own included.
std::size_t TakeLargestAllocation();

#endif

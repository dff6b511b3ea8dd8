#include <brantle/thornel/fatal.h>

#undef NDEBUG // <cassert> declares __assert_fail only where assert is active
#include <cassert>

void FatalAssertion(char const* expr, char const* file, unsigned int line, char const* function) {
    __assert_fail(expr, file, line, function);
}

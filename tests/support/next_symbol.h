#ifndef BRANTLE_TESTS_SUPPORT_NEXT_SYMBOL_H
#define BRANTLE_TESTS_SUPPORT_NEXT_SYMBOL_H

#include <dlfcn.h>

namespace support {

/// The function that a test program's own of that name hides, as in `NextSymbol(poll, "poll")`.
template <typename Function>
Function* NextSymbol(Function*, char const* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace support

#endif

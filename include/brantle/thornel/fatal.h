#ifndef BRANTLE_THORNEL_FATAL_H
#define BRANTLE_THORNEL_FATAL_H

#include <brantle/thornel/export.h>

/// Ends the process as a failed assert(3) does, with its message on the error stream and SIGABRT. The message
/// names the expression `expr`, which was false, and the source location. It is also active in release
/// builds: `NDEBUG` has no effect on it.
[[noreturn]] THORNEL_API void FatalAssertion(char const* expr, char const* file, unsigned int line,
                                             char const* function);

/// Checks a condition in every kind of build, reporting its source location.
#define FATAL_ASSERT(expr)                                                                                   \
    (static_cast<bool>(expr) ? static_cast<void>(0)                                                          \
                             : FatalAssertion(#expr, __FILE__, __LINE__, __PRETTY_FUNCTION__))

#endif

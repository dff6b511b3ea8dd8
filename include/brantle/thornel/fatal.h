#ifndef BRANTLE_THORNEL_FATAL_H
#define BRANTLE_THORNEL_FATAL_H

#include <brantle/thornel/export.h>

/// Ends the process as a failed assert(3) does, with its message on the error stream and SIGABRT.
/// Release builds keep it: `NDEBUG` has no part in it.
///
/// \param expr      text of the expression that did not hold
/// \param file      source file to name
/// \param line      line to name
/// \param function  function to name
[[noreturn]] THORNEL_API void FatalAssertion(char const* expr, char const* file, unsigned int line,
                                             char const* function);

/// Checks a condition in every kind of build, naming the place where it stands.
#define FATAL_ASSERT(expr)                                                                                   \
    (static_cast<bool>(expr) ? static_cast<void>(0)                                                          \
                             : FatalAssertion(#expr, __FILE__, __LINE__, __PRETTY_FUNCTION__))

#endif

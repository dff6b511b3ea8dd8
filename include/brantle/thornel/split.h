#ifndef BRANTLE_THORNEL_SPLIT_H
#define BRANTLE_THORNEL_SPLIT_H

#include <brantle/thornel/export.h>
#include <brantle/thornel/string_t.h>
#include <generic/tolist>

/// Appends each token of a text, which may be null, to a list, in order. Each character of `delimiters` ends
/// a token; consecutive delimiters count as one.
THORNEL_API void Split(char const* text, TOList<String_t>& list, char const* delimiters);

#endif

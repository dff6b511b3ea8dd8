#ifndef BRANTLE_THORNEL_SPLIT_H
#define BRANTLE_THORNEL_SPLIT_H

#include <brantle/thornel/export.h>
#include <brantle/thornel/string_t.h>
#include <generic/tolist>

/// Appends each token of a text to a list, in order. A run of delimiters counts as one.
///
/// \param text        the text, may be null
/// \param list        takes the tokens
/// \param delimiters  each of its characters ends a token
THORNEL_API void Split(char const* text, TOList<String_t>& list, char const* delimiters);

#endif

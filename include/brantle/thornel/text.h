#ifndef BRANTLE_THORNEL_TEXT_H
#define BRANTLE_THORNEL_TEXT_H

#include <cstring>

#include <brantle/thornel/export.h>

/// The text itself, or an empty one for a null pointer.
inline char const* str_text(char const* text) { return text ? text : ""; }

/// Whether a text has no characters; true for a null pointer.
inline bool str_empty(char const* text) { return !text || *text == '\0'; }

/// Length of a text in bytes; 0 for a null pointer.
inline unsigned int str_len(char const* text) {
    return text ? static_cast<unsigned int>(std::strlen(text)) : 0;
}

/// Three-way comparison by unsigned bytes: negative, 0 or positive. A null pointer is an empty text.
inline int str_cmp(char const* a, char const* b) { return std::strcmp(str_text(a), str_text(b)); }

/// Reads a decimal integer with an optional sign from the very start of a text, which may be null; white
/// space is not skipped. Returns the number of characters used, or 0 if there is no number or it does not fit
/// an int: `result` is then unchanged.
THORNEL_API unsigned int str_toint(char const* text, int* result);

/// Writes an integer as decimal text with its terminator into a buffer of `size` bytes, and returns the
/// buffer; 12 bytes suffice for every int. A text that does not fit is written as an empty one. A number of
/// fewer than `width` characters is padded on the left with `fill`, or with a blank if that is 0.
THORNEL_API char* str_int2str10(char* buffer, unsigned int size, int value, unsigned int width, char fill);

/// Name of the current user from the password database, empty if it has none. Valid until the same
/// thread calls again.
THORNEL_API char const* getusername();

#endif

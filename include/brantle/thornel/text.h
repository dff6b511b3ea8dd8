#ifndef BRANTLE_THORNEL_TEXT_H
#define BRANTLE_THORNEL_TEXT_H

#include <cstring>

#include <brantle/thornel/export.h>

/// The text itself, an empty one for a null pointer.
inline char const* str_text(char const* text) { return text ? text : ""; }

/// Length of a text in bytes; 0 for a null pointer.
inline unsigned int str_len(char const* text) {
    return text ? static_cast<unsigned int>(std::strlen(text)) : 0;
}

/// Three-way comparison by unsigned bytes: negative, 0 or positive. A null pointer is an empty text.
inline int str_cmp(char const* a, char const* b) { return std::strcmp(str_text(a), str_text(b)); }

/// Reads a decimal integer with an optional sign from the very start of a text; nothing is skipped.
///
/// \param text    the text, may be null
/// \param result  takes the value; stays as it was when nothing is read
/// \return the number of characters used; 0 if there is no number or it does not fit an int
THORNEL_API unsigned int str_toint(char const* text, int* result);

/// Writes an integer as decimal text.
///
/// \param buffer  takes the text and its terminator; 12 bytes hold every int
/// \param size    bytes in the buffer; a text that does not fit is written as an empty one
/// \param value   the number
/// \param width   least number of characters; 0 for as many as the number has
/// \param fill    character put in front of a number that is shorter; 0 for a blank
/// \return the buffer
THORNEL_API char* str_int2str10(char* buffer, unsigned int size, int value, unsigned int width, char fill);

/// Name of the current user from the password database, empty if it has none. Valid until the same
/// thread calls again.
THORNEL_API char const* getusername();

#endif

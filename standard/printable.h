#ifndef BRANTLE_STANDARD_PRINTABLE_H
#define BRANTLE_STANDARD_PRINTABLE_H

#include <string>

#include "standard/bytes.h"

namespace cindral::standard {

/// How line feeds and tabs in a text from the server are shown.
enum class Lines {
    ESCAPED, ///< one line: line feeds and tabs are escaped like everything else
    KEPT     ///< line feeds and tabs stay, "\r\n" becomes "\n"
};

/// The text with every byte of a control character (C0, DEL and C1), of a character that changes the
/// direction of writing, and of invalid UTF-8 escaped as in "\x1b".
std::string Printable(View text, Lines lines = Lines::ESCAPED);

/// Whether a name from the server may be used for a file in a local directory: it is not empty, "." or "..",
/// and has no "/" and no control characters.
bool IsSafeName(View name);

} // namespace cindral::standard

#endif

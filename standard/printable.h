#ifndef BRANTLE_STANDARD_PRINTABLE_H
#define BRANTLE_STANDARD_PRINTABLE_H

#include <string>

#include "standard/bytes.h"

namespace cindral::standard {

/// What of a text by the server may be shown on a terminal.
enum class Lines {
    ESCAPED, ///< one line: line feeds and tabs are escaped like everything else
    KEPT     ///< line feeds and tabs stay, "\r\n" becomes "\n"
};

/// The text with every byte of a control character (C0, DEL and C1), of a character that turns the direction
/// of writing, and of what is no UTF-8 in the form "\x1b".
std::string Printable(View text, Lines lines = Lines::ESCAPED);

/// Whether a name by the server may name a file in a local directory: not empty, ".", "..", no "/" and no
/// control characters.
bool IsSafeName(View name);

} // namespace cindral::standard

#endif

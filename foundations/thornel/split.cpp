#include <brantle/thornel/split.h>

#include <brantle/thornel/string_tok.h>

void Split(char const* text, TOList<String_t>& list, char const* delimiters) {
    StringTok next(text);
    while (char const* const token = next(delimiters)) list.Append(token);
}

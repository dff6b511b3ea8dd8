#ifndef BRANTLE_THORNEL_STRING_TOK_H
#define BRANTLE_THORNEL_STRING_TOK_H

#include <brantle/thornel/export.h>
#include <brantle/thornel/string_t.h>

/// Splits a text token by token, with a choice of delimiters each time. Consecutive delimiters count as one.
/// Works on a private copy; the tokens point into it and are valid as long as the tokeniser exists.
class THORNEL_API StringTok {
public:
    /// `text` may be null.
    explicit StringTok(char const* text);
    StringTok(StringTok const&) = delete;
    StringTok& operator=(StringTok const&) = delete;

    /// The next token, which any character of `delimiters` ends; null when the text is used up.
    char const* operator()(char const* delimiters);

    /// The delimiter that ended the last token; 0 at the end of the text.
    char Delimiter() const { return _delimiter; }

private:
    String_t _copy;
    char* _rest;
    char _delimiter;
};

#endif

#ifndef BRANTLE_THORNEL_STRING_SPLITTER_H
#define BRANTLE_THORNEL_STRING_SPLITTER_H

#include <brantle/thornel/export.h>
#include <brantle/thornel/string_t.h>

/// Iterates over the tokens of a text. Each delimiter ends one token, so two in a row enclose an empty one.
/// Works on a private copy; the tokens point into it and are valid as long as the splitter exists.
///
/// There is a token as long as `Current()` is not null and is before `End()`. An empty string after the last
/// delimiter is therefore not a token.
class THORNEL_API StringSplitter {
public:
    /// Starts at the first token. Each character of `delimiters` ends a token. `text` may be null; it extends
    /// to `end`, or to its NUL if `end` is null.
    StringSplitter(char const* text, char const* delimiters, char const* end);
    StringSplitter(StringSplitter const&) = delete;
    StringSplitter& operator=(StringSplitter const&) = delete;

    /// Moves to the next token.
    void Next();

    /// The token, null or `End()` when there is none.
    char const* Current() const { return _current; }
    /// The end of the copy.
    char const* End() const { return _end; }

private:
    void Terminate();

    String_t _copy;
    String_t _delimiters;
    char* _current;
    char* _next;
    char* _end;
};

#endif

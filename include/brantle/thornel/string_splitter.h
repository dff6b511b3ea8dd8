#ifndef BRANTLE_THORNEL_STRING_SPLITTER_H
#define BRANTLE_THORNEL_STRING_SPLITTER_H

#include <brantle/thornel/export.h>
#include <brantle/thornel/string_t.h>

/// Walks over the tokens of a text. Each delimiter ends one token, so two in a row enclose an empty one.
/// Works on a private copy, in which the tokens stay valid as long as the splitter.
///
/// There is a token as long as `Current()` is not null and lies before `End()`. An empty token after
/// the last delimiter is therefore none.
class THORNEL_API StringSplitter {
public:
    /// Places the splitter on the first token. Each character of `delimiters` ends a token. `text` may be
    /// null; it goes up to `end`, or to its NUL if that is null.
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

#include <brantle/thornel/string_tok.h>

#include <cstring>

StringTok::StringTok(char const* text) : _copy(text), _rest(_copy.Buffer()), _delimiter('\0') {}

char const* StringTok::operator()(char const* delimiters) {
    char const* const stops = delimiters ? delimiters : "";
    char* const token = _rest + std::strspn(_rest, stops);
    char* const end = token + std::strcspn(token, stops);
    _delimiter = *end;
    _rest = end;
    if (*end != '\0') {
        *end = '\0';
        ++_rest;
    }
    return token == end ? nullptr : token;
}

#include <brantle/thornel/string_splitter.h>

#include <algorithm>
#include <cstring>

StringSplitter::StringSplitter(char const* text, char const* delimiters, char const* end)
    : _copy(text && end ? String_t(text, static_cast<unsigned int>(end - text)) : String_t(text)),
      _delimiters(delimiters ? delimiters : ""), _current(_copy.Buffer()), _next(_current),
      _end(_current + str_len(_current)) {
    Terminate();
}

void StringSplitter::Next() {
    _current = _next;
    Terminate();
}

void StringSplitter::Terminate() {
    char* const stop = _current + std::strcspn(_current, _delimiters.Text());
    _next = std::min(stop + 1, _end);
    *stop = '\0';
}

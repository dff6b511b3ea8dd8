#include <brantle/thornel/string_t.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <istream>
#include <memory>
#include <new>
#include <ostream>
#include <string>

namespace {

using Chars = std::unique_ptr<char[]>;

/// An array of `length` + 1 bytes, all 0.
Chars Blank(unsigned int length) { return Chars(new char[std::size_t(length) + 1]()); }

/// A terminated copy of `length` bytes.
Chars Copy(char const* text, unsigned int length) {
    if (!text) return Blank(length);
    Chars copy(new char[std::size_t(length) + 1]);
    std::memcpy(copy.get(), text, length);
    copy[length] = '\0';
    return copy;
}

/// A new representation for a text.
String_t::Srep* NewRep(Chars text) {
    String_t::Srep* const rep = new String_t::Srep(text.get());
    text.release();
    return rep;
}

bool IsSpace(char c) { return c != '\0' && std::strchr(" \t\n\v\f\r", c); }

} // namespace

void* String_t::Srep::operator new(std::size_t size) { return ::operator new(size); }
void String_t::Srep::operator delete(void* rep, std::size_t) { ::operator delete(rep); }
void String_t::Destroy(Srep* rep) noexcept { delete rep; }

String_t::String_t() : _rep(new Srep(nullptr)) {}
String_t::String_t(char const* text) : _rep(NewRep(text ? Copy(text, str_len(text)) : nullptr)) {}
String_t::String_t(char const* text, unsigned int length) : _rep(NewRep(Copy(text, length))) {}
String_t::String_t(unsigned int length) : _rep(NewRep(Blank(length))) {}

String_t& String_t::operator=(String_t const& other) noexcept {
    ++other._rep->_count;
    Srep* const old = _rep;
    _rep = other._rep;
    Release(old);
    return *this;
}

String_t& String_t::operator=(char const* text) { return *this = String_t(text); }

String_t& String_t::operator+=(char const* text) {
    unsigned int const added = str_len(text);
    if (added == 0) return *this;
    unsigned int const length = str_len(Text());
    if (added > UINT_MAX - length) throw std::bad_alloc();
    String_t longer(length + added);
    if (length > 0) std::memcpy(longer._rep->_text, Text(), length);
    std::memcpy(longer._rep->_text + length, text, added);
    return *this = longer;
}

char* String_t::Buffer() {
    if (!Text() || _rep->_count > 1) Reserve(str_len(Text()));
    return _rep->_text;
}

void String_t::Reserve(unsigned int length) {
    String_t roomy(length);
    unsigned int const kept = std::min(length, str_len(Text()));
    if (kept > 0) std::memcpy(roomy._rep->_text, Text(), kept);
    *this = roomy;
}

String_t String_t::SubStr(unsigned int start, unsigned int length) const {
    unsigned int const whole = str_len(Text());
    if (start >= whole) return String_t("");
    return String_t(Text() + start, std::min(length, whole - start));
}

String_t String_t::Trim() const {
    unsigned int start = 0;
    unsigned int end = str_len(Text());
    while (start < end && IsSpace(Text()[start])) ++start;
    while (start < end && IsSpace(Text()[end - 1])) --end;
    return SubStr(start, end - start);
}

namespace {

/// Reads up to a delimiter, and returns the state of the stream after that.
std::ios_base::iostate ReadTo(std::string const& stops, std::streambuf& in, std::string& line) {
    using Traits = std::streambuf::traits_type;
    try {
        for (;;) {
            Traits::int_type const next = in.sbumpc();
            if (Traits::eq_int_type(next, Traits::eof()))
                return line.empty() ? std::ios_base::eofbit | std::ios_base::failbit : std::ios_base::eofbit;
            char const c = Traits::to_char_type(next);
            if (stops.find(c) != std::string::npos) return std::ios_base::goodbit;
            line += c;
        }
    } catch (std::ios_base::failure const&) {
        return std::ios_base::badbit;
    }
}

} // namespace

std::istream& String_t::Getline(std::istream& in, String_t& target, char const* delimiters) {
    std::string line;
    std::istream::sentry const ready(in, true);
    if (ready) in.setstate(ReadTo(delimiters ? delimiters : "", *in.rdbuf(), line));
    target = String_t(line.data(), static_cast<unsigned int>(line.size()));
    return in;
}

std::ostream& operator<<(std::ostream& out, String_t const& text) {
    if (!str_empty(text.Text())) out << text.Text();
    return out;
}

std::istream& operator>>(std::istream& in, String_t& text) {
    std::string word;
    if (in >> word) text = word.c_str();
    return in;
}

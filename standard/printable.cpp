#include <algorithm>

#include "standard/printable.h"

namespace cindral::standard {

namespace {

bool IsControl(unsigned int character) { return character < 0x20 || (character >= 0x7f && character < 0xa0); }

/// Whether it ends a line or turns the direction of writing.
bool IsLayout(unsigned int character) {
    return character == 0x061c || character == 0x200e || character == 0x200f ||
           (character >= 0x2028 && character <= 0x202e) || (character >= 0x2066 && character <= 0x2069);
}

bool IsContinuation(unsigned char byte) { return (byte & 0xc0) == 0x80; }

/// The UTF-8 character (RFC 3629) at the front of `text`: its length in bytes, or 0 if there is none.
std::size_t DecodeCharacter(View text, unsigned int& character) {
    static constexpr unsigned int SMALLEST[] = {0, 0, 0x80, 0x800, 0x10000}; // by number of bytes
    unsigned char const lead = text[0];
    std::size_t const size = lead < 0x80   ? 1
                             : lead < 0xc0 ? 0
                             : lead < 0xe0 ? 2
                             : lead < 0xf0 ? 3
                             : lead < 0xf8 ? 4
                                           : 0;
    if (size == 0 || size > text.size()) return 0;
    character = size == 1 ? lead : lead & (0x7fu >> size);
    for (std::size_t i = 1; i < size; ++i) {
        if (!IsContinuation(text[i])) return 0;
        character = character << 6 | (text[i] & 0x3fu);
    }
    bool const isSurrogate = character >= 0xd800 && character < 0xe000;
    return character < SMALLEST[size] || isSurrogate || character > 0x10ffff ? 0 : size;
}

void AppendEscaped(std::string& to, View bytes) {
    static constexpr char DIGITS[] = "0123456789abcdef";
    for (unsigned char const byte : bytes) {
        to += "\\x";
        to += DIGITS[byte >> 4];
        to += DIGITS[byte & 15];
    }
}

} // namespace

std::string Printable(View text, Lines lines) {
    std::string shown;
    while (!text.empty()) {
        unsigned int character = 0;
        std::size_t size = DecodeCharacter(text, character);
        bool const valid = size > 0;
        if (!valid) size = 1;
        View const bytes(text.data(), size);
        text = View(text.data() + size, text.size() - size);
        bool const endsLine = character == '\r' && !text.empty() && text[0] == '\n';
        if (lines == Lines::KEPT && valid && endsLine) continue;
        bool const kept = lines == Lines::KEPT && (character == '\n' || character == '\t');
        if (valid && (kept || !(IsControl(character) || IsLayout(character))))
            shown += bytes.Text();
        else
            AppendEscaped(shown, bytes);
    }
    return shown;
}

bool IsSafeName(View name) {
    if (name.empty() || name == View(".") || name == View("..")) return false;
    while (!name.empty()) {
        unsigned int character = 0;
        std::size_t const size = DecodeCharacter(name, character); // a name need not be UTF-8
        if (size > 0 && (character == '/' || IsControl(character))) return false;
        std::size_t const step = std::max<std::size_t>(size, 1);
        name = View(name.data() + step, name.size() - step);
    }
    return true;
}

} // namespace cindral::standard

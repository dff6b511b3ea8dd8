#include <brantle/thornel/text.h>

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <system_error>

#include "passwd_entry.h"

unsigned int str_toint(char const* text, int* result) {
    if (!text) return 0;
    // from_chars takes a minus sign, but no plus sign.
    bool const hasPlus = *text == '+' && text[1] != '-';
    auto const parsed = std::from_chars(text + hasPlus, text + str_len(text), *result);
    if (parsed.ec != std::errc()) return 0;
    return static_cast<unsigned int>(parsed.ptr - text);
}

char* str_int2str10(char* buffer, unsigned int size, int value, unsigned int width, char fill) {
    char digits[12];
    auto const end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    auto const length = static_cast<unsigned int>(end - digits);
    unsigned int const padding = width > length ? width - length : 0;
    if (size == 0) return buffer;
    if (padding >= size || length >= size - padding) {
        *buffer = '\0';
        return buffer;
    }
    std::fill_n(buffer, padding, fill ? fill : ' ');
    *std::copy(digits, end, buffer + padding) = '\0';
    return buffer;
}

char const* getusername() {
    thread_local PasswdEntry entry;
    entry.Read(getuid());
    return entry.Found() ? entry.Name() : "";
}

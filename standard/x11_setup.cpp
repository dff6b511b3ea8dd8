#include "standard/x11_setup.h"

namespace cindral::standard {

namespace {

constexpr std::size_t HEADER = 12;
constexpr unsigned int VERSION = 11;
constexpr std::size_t METHOD_LENGTH = 6; ///< where the lengths are in the header
constexpr std::size_t COOKIE_LENGTH = 8;

unsigned int Number(View bytes, std::size_t at) {
    unsigned int const first = bytes[at], second = bytes[at + 1];
    return bytes[0] == 'B' ? first << 8 | second : second << 8 | first;
}

void StoreNumber(Bytes& bytes, std::size_t at, std::size_t value) {
    bool const isBig = bytes[0] == 'B';
    bytes[at + (isBig ? 0 : 1)] = static_cast<unsigned char>(value >> 8);
    bytes[at + (isBig ? 1 : 0)] = static_cast<unsigned char>(value);
}

std::size_t Padded(std::size_t length) { return (length + 3) / 4 * 4; }

void AppendPadded(Bytes& bytes, View field) {
    bytes.insert(bytes.end(), field.begin(), field.end());
    bytes.resize(bytes.size() + Padded(field.size()) - field.size());
}

} // namespace

std::size_t X11SetupLength(View bytes) {
    if (bytes.size() < HEADER) return 0;
    return HEADER + Padded(Number(bytes, METHOD_LENGTH)) + Padded(Number(bytes, COOKIE_LENGTH));
}

Bytes ReplaceX11Authorization(View message, X11Authorization const& given, X11Authorization const& other) {
    if (message.empty() || (message[0] != 'B' && message[0] != 'l')) return {};
    if (X11SetupLength(message) != message.size() || Number(message, 2) != VERSION) return {};
    unsigned int const methodLength = Number(message, METHOD_LENGTH);
    if (View(message.begin() + HEADER, methodLength) != given.method ||
        View(message.begin() + HEADER + Padded(methodLength), Number(message, COOKIE_LENGTH)) != given.cookie)
        return {};
    Bytes replaced(message.begin(), message.begin() + HEADER);
    StoreNumber(replaced, METHOD_LENGTH, other.method.size());
    StoreNumber(replaced, COOKIE_LENGTH, other.cookie.size());
    AppendPadded(replaced, other.method);
    AppendPadded(replaced, other.cookie);
    return replaced;
}

} // namespace cindral::standard

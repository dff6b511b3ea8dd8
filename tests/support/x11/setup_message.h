#ifndef TESTS_SUPPORT_X11_SETUP_MESSAGE_H
#define TESTS_SUPPORT_X11_SETUP_MESSAGE_H

#include <cstddef>
#include <optional>
#include <string>

namespace x11 {

constexpr char const* MAGIC_COOKIE = "MIT-MAGIC-COOKIE-1";

/// The first message of an X client (X Window System Protocol, section 8). Unused bytes are filled, so that
/// changes to them show.
struct SetupMessage {
    char order = 'l'; ///< 'l' is least significant byte first, 'B' most
    unsigned int major = 11;
    unsigned int minor = 0;
    std::string name = MAGIC_COOKIE;
    std::string data;
    std::optional<unsigned int> nameLength{}; ///< written in place of the true one
    std::optional<unsigned int> dataLength{};

    std::string Text() const {
        return order + std::string("\x5a") + Word(major) + Word(minor) +
               Word(nameLength.value_or(static_cast<unsigned int>(name.size()))) +
               Word(dataLength.value_or(static_cast<unsigned int>(data.size()))) + "\xc3\x3c" + name +
               Padding(name) + data + Padding(data);
    }

private:
    std::string Word(unsigned int value) const {
        char const high = static_cast<char>(value >> 8), low = static_cast<char>(value);
        return order == 'B' ? std::string{high, low} : std::string{low, high};
    }
    static std::string Padding(std::string const& text) {
        return std::string("\xa1\xa2\xa3", (4 - text.size() % 4) % 4);
    }
};

} // namespace x11

#endif

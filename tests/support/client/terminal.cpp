#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "support/client/terminal.h"

namespace client {

namespace {

std::system_error LastError(char const* what) { return {errno, std::generic_category(), what}; }

} // namespace

Terminal::Terminal(unsigned short columns, unsigned short rows) {
    winsize const size{rows, columns, 0, 0};
    if (openpty(&_master, &_slave, nullptr, nullptr, &size) != 0) throw LastError("openpty");
    for (int fd : {_master, _slave}) fcntl(fd, F_SETFD, FD_CLOEXEC);
}

Terminal::~Terminal() {
    close(_master);
    close(_slave);
}

std::string Terminal::Path() const {
    std::array<char, 64> name{};
    if (ttyname_r(_slave, name.data(), name.size()) != 0) throw LastError("ttyname_r");
    return name.data();
}

termios Terminal::Settings() const {
    termios settings;
    if (tcgetattr(_slave, &settings) != 0) throw LastError("tcgetattr");
    return settings;
}

bool Terminal::Has(termios const& settings) const {
    termios const now = Settings();
    return now.c_iflag == settings.c_iflag && now.c_oflag == settings.c_oflag &&
           now.c_cflag == settings.c_cflag && now.c_lflag == settings.c_lflag &&
           std::memcmp(now.c_cc, settings.c_cc, sizeof now.c_cc) == 0;
}

bool Terminal::IsRaw() const { return !(Settings().c_lflag & (ICANON | ECHO | ISIG)); }

bool Terminal::Echoes() const { return Settings().c_lflag & ECHO; }

void Terminal::Type(std::string const& text) const {
    if (write(_master, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        throw LastError("write");
}

std::string const& Terminal::Screen() {
    pollfd ready{_master, POLLIN, 0};
    std::array<char, 4096> piece;
    while (poll(&ready, 1, 0) > 0) {
        ssize_t const count = read(_master, piece.data(), piece.size());
        if (count <= 0) throw LastError("read from a terminal");
        _screen.append(piece.data(), static_cast<std::size_t>(count));
    }
    return _screen;
}

} // namespace client

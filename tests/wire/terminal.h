#ifndef TESTS_WIRE_TERMINAL_H
#define TESTS_WIRE_TERMINAL_H

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <stdexcept>
#include <string>

/// A real pseudo-terminal: the test is the user in front of it.
class Terminal {
public:
    Terminal() {
        if (openpty(&_master, &_slave, nullptr, nullptr, nullptr) != 0) throw std::runtime_error("openpty");
        for (int fd : {_master, _slave}) fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
    ~Terminal() {
        close(_master);
        close(_slave);
    }
    Terminal(Terminal const&) = delete;
    Terminal& operator=(Terminal const&) = delete;

    /// What a program has open.
    int Fd() const { return _slave; }

    termios Settings() const {
        termios settings;
        if (tcgetattr(_slave, &settings) != 0) throw std::runtime_error("tcgetattr");
        return settings;
    }
    void Change(termios const& settings) const {
        if (tcsetattr(_slave, TCSANOW, &settings) != 0) throw std::runtime_error("tcsetattr");
    }
    void Resize(unsigned short columns, unsigned short rows, unsigned short width,
                unsigned short height) const {
        winsize const size{rows, columns, width, height};
        if (ioctl(_master, TIOCSWINSZ, &size) != 0) throw std::runtime_error("TIOCSWINSZ");
    }
    bool IsRaw() const {
        termios const now = Settings();
        return !(now.c_lflag & (ICANON | ECHO | ISIG)) && !(now.c_oflag & OPOST) && !(now.c_iflag & ICRNL);
    }
    bool Has(termios const& settings) const {
        termios const now = Settings();
        return now.c_lflag == settings.c_lflag && now.c_iflag == settings.c_iflag &&
               now.c_oflag == settings.c_oflag && now.c_cflag == settings.c_cflag &&
               std::memcmp(now.c_cc, settings.c_cc, sizeof now.c_cc) == 0;
    }

    void Type(std::string const& text) const { Write(_master, text); }

    /// All that has been written to the terminal.
    std::string Screen() {
        std::string const mark = "<end>";
        Write(_slave, mark);
        std::size_t end = 0;
        while ((end = _screen.find(mark)) == std::string::npos) {
            pollfd ready{_master, POLLIN, 0};
            std::array<char, 4096> piece;
            ssize_t const n = poll(&ready, 1, 20000) > 0 ? read(_master, piece.data(), piece.size()) : -1;
            if (n <= 0) throw std::runtime_error("on the screen: " + _screen);
            _screen.append(piece.data(), static_cast<std::size_t>(n));
        }
        _screen.erase(end);
        return _screen;
    }

private:
    static void Write(int fd, std::string const& text) {
        if (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
            throw std::runtime_error("write");
    }

    int _master = -1;
    int _slave = -1;
    std::string _screen;
};

#endif

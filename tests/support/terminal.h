#ifndef BRANTLE_TESTS_SUPPORT_TERMINAL_H
#define BRANTLE_TESTS_SUPPORT_TERMINAL_H

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string>
#include <system_error>

namespace support {

/// A pseudo-terminal. The test is its user.
class Terminal {
public:
    explicit Terminal(unsigned short columns = 0, unsigned short rows = 0) {
        winsize const size{rows, columns, 0, 0};
        Check(openpty(&_master, &_slave, nullptr, nullptr, &size), "openpty");
        for (int fd : {_master, _slave}) fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
    ~Terminal() {
        HangUp();
        close(_slave);
    }
    Terminal(Terminal const&) = delete;
    Terminal& operator=(Terminal const&) = delete;

    /// The side that a program has open. The terminal outlives the programs on it.
    int Fd() const { return _slave; }
    /// Its path, for a program to open.
    std::string Path() const {
        std::array<char, 64> name{};
        if (ttyname_r(_slave, name.data(), name.size()) != 0) Check(-1, "ttyname_r");
        return name.data();
    }

    termios Settings() const {
        termios settings{};
        Check(tcgetattr(_slave, &settings), "tcgetattr");
        return settings;
    }
    void Change(termios const& settings) const { Check(tcsetattr(_slave, TCSANOW, &settings), "tcsetattr"); }
    void Resize(unsigned short columns, unsigned short rows, unsigned short width,
                unsigned short height) const {
        winsize const size{rows, columns, width, height};
        Check(ioctl(_master, TIOCSWINSZ, &size), "TIOCSWINSZ");
    }
    bool Has(termios const& settings) const {
        termios const now = Settings();
        return now.c_lflag == settings.c_lflag && now.c_iflag == settings.c_iflag &&
               now.c_oflag == settings.c_oflag && now.c_cflag == settings.c_cflag &&
               std::memcmp(now.c_cc, settings.c_cc, sizeof now.c_cc) == 0;
    }
    bool IsRaw() const {
        termios const now = Settings();
        return !(now.c_lflag & (ICANON | ECHO | ISIG | IEXTEN)) && !(now.c_oflag & OPOST) &&
               !(now.c_iflag & ICRNL);
    }
    bool Echoes() const { return (Settings().c_lflag & ECHO) != 0; }

    void Type(std::string const& text) const { Write(_master, text); }
    /// Closes the user's side.
    void HangUp() {
        if (_master >= 0) close(_master);
        _master = -1;
    }

    /// What has been read from the screen so far, without blocking.
    std::string const& Screen() {
        while (Read(0)) continue;
        return _screen;
    }
    /// All that has been written to the terminal before this call. REQUIRES: nothing is written to it
    /// meanwhile.
    std::string WholeScreen() {
        std::string const mark = "<end>";
        Write(_slave, mark);
        std::size_t end = 0;
        while ((end = _screen.find(mark)) == std::string::npos)
            if (!Read(20000)) throw std::runtime_error("on the screen: " + _screen);
        _screen.erase(end);
        return _screen;
    }

private:
    static void Check(int result, char const* call) {
        if (result < 0) throw std::system_error(errno, std::generic_category(), call);
    }
    static void Write(int fd, std::string const& text) {
        if (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) Check(-1, "write");
    }
    bool Read(int limit) {
        pollfd ready{_master, POLLIN, 0};
        if (poll(&ready, 1, limit) <= 0) return false;
        std::array<char, 4096> piece;
        ssize_t const count = read(_master, piece.data(), piece.size());
        if (count <= 0) Check(-1, "read from a terminal");
        _screen.append(piece.data(), static_cast<std::size_t>(count));
        return true;
    }

    int _master = -1;
    int _slave = -1;
    std::string _screen;
};

} // namespace support

#endif

#ifndef BRANTLE_TESTS_SUPPORT_CLIENT_TERMINAL_H
#define BRANTLE_TESTS_SUPPORT_CLIENT_TERMINAL_H

#include <termios.h>

#include <string>

namespace client {

/// A pseudo-terminal with the test in front of it.
class Terminal {
public:
    Terminal(unsigned short columns, unsigned short rows);
    ~Terminal();
    Terminal(Terminal const&) = delete;
    Terminal& operator=(Terminal const&) = delete;

    /// The path of the side that a program opens.
    std::string Path() const;
    termios Settings() const;
    bool Has(termios const& settings) const;
    bool IsRaw() const;
    bool Echoes() const;
    void Type(std::string const& text) const;
    /// What has been written to the terminal so far.
    std::string const& Screen();

private:
    int _master = -1;
    int _slave = -1; ///< kept open, so that the terminal outlives the programs on it
    std::string _screen;
};

} // namespace client

#endif

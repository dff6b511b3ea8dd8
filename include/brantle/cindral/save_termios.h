#ifndef BRANTLE_CINDRAL_SAVE_TERMIOS_H
#define BRANTLE_CINDRAL_SAVE_TERMIOS_H

#include <termios.h>

#include <brantle/cindral/export.h>

namespace cindral {

/// Remembers the settings of a terminal and puts them back when it goes. The descriptor stays the
/// caller's and must outlive the object. On a descriptor that is no terminal the settings read as
/// zero and nothing else happens.
class CINDRAL_API SaveTermios {
public:
    explicit SaveTermios(int fd);
    ~SaveTermios();
    SaveTermios(SaveTermios const&) = delete;
    SaveTermios& operator=(SaveTermios const&) = delete;

    /// The remembered settings.
    termios const& Settings() const { return _settings; }

    /// Raw mode: every byte as typed and as written, no echo, no signals from keys. Returns 0, or
    /// minus errno.
    int SetRaw();
    /// Puts the remembered settings back. Returns 0, or minus errno.
    int LeaveRaw();

private:
    termios _settings;
    int _fd;
    bool _isTerminal;
};

} // namespace cindral

#endif

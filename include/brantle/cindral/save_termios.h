#ifndef BRANTLE_CINDRAL_SAVE_TERMIOS_H
#define BRANTLE_CINDRAL_SAVE_TERMIOS_H

#include <termios.h>

#include <brantle/cindral/export.h>

namespace cindral {

/// Saves the settings of a terminal and restores them on destruction. The descriptor remains owned by the
/// caller and must outlive the object. If the descriptor is not a terminal, the settings are all zero and
/// nothing else happens.
class CINDRAL_API SaveTermios {
public:
    explicit SaveTermios(int fd);
    ~SaveTermios();
    SaveTermios(SaveTermios const&) = delete;
    SaveTermios& operator=(SaveTermios const&) = delete;

    /// The saved settings.
    termios const& Settings() const { return _settings; }

    /// Sets raw mode: input and output bytes are not processed, no echo, no signals from keys. Returns 0 or a
    /// negated errno value.
    int SetRaw();
    /// Restores the saved settings. Returns 0 or a negated errno value.
    int LeaveRaw();

private:
    termios _settings;
    int _fd;
    bool _isTerminal;
};

} // namespace cindral

#endif

#include <brantle/cindral/save_termios.h>

#include <cerrno>
#include <cstring>

namespace cindral {

namespace {

int Apply(int fd, termios const& settings) {
    while (tcsetattr(fd, TCSADRAIN, &settings) != 0)
        if (errno != EINTR) return -errno;
    return 0;
}

bool Same(termios const& a, termios const& b) {
    return a.c_iflag == b.c_iflag && a.c_oflag == b.c_oflag && a.c_cflag == b.c_cflag &&
           a.c_lflag == b.c_lflag && std::memcmp(a.c_cc, b.c_cc, sizeof a.c_cc) == 0 &&
           cfgetispeed(&a) == cfgetispeed(&b) && cfgetospeed(&a) == cfgetospeed(&b);
}

} // namespace

SaveTermios::SaveTermios(int fd) : _settings{}, _fd(fd), _isTerminal(tcgetattr(fd, &_settings) == 0) {
    if (!_isTerminal) _settings = termios{};
}

SaveTermios::~SaveTermios() { LeaveRaw(); }

int SaveTermios::SetRaw() {
    if (!_isTerminal) return 0;
    termios raw = _settings;
    cfmakeraw(&raw);
    return Apply(_fd, raw);
}

int SaveTermios::LeaveRaw() {
    if (!_isTerminal) return 0;
    // A process in the background would be stopped for changing a terminal that needs no change.
    termios present{};
    if (tcgetattr(_fd, &present) != 0) return -errno;
    return Same(present, _settings) ? 0 : Apply(_fd, _settings);
}

} // namespace cindral

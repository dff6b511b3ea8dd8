// The progress of a copy, in one line of a terminal that is overwritten.

#ifndef EXAMPLES_PROGRESS_BAR_H
#define EXAMPLES_PROGRESS_BAR_H

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <string_view>

#include <brantle/thornel/descriptor_io.h>

#include "printable.h"

namespace examples {

struct CopyProgress {
    std::string name;
    unsigned long long done = 0;  ///< bytes
    unsigned long long total = 0; ///< bytes; 0: unknown
    double seconds = 0;           ///< since the copy began
};

/// A number of bytes in at most ten characters, as in "12.3 MiB".
inline std::string Amount(double bytes) {
    char const* const units[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    std::size_t unit = 0;
    // What would be rounded to "1024.0" is written in the next unit.
    for (; bytes >= (unit == 0 ? 1024 : 1023.95) && unit + 1 < std::size(units); ++unit) bytes /= 1024;
    char text[32];
    std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", bytes, units[unit]);
    return text;
}

/// A duration as in "05:09" or "1:05:09", in at most eight characters; 100 hours or more are not shown.
inline std::string Duration(double seconds) {
    if (!(seconds < 360000)) return "--:--";
    auto const whole = static_cast<unsigned int>(seconds);
    char text[32];
    if (whole >= 3600)
        std::snprintf(text, sizeof text, "%u:%02u:%02u", whole / 3600, whole / 60 % 60, whole % 60);
    else
        std::snprintf(text, sizeof text, "%02u:%02u", whole / 60, whole % 60);
    return text;
}

/// At least as many columns as a character takes on a terminal. Characters of three bytes and more may be
/// wide.
inline std::size_t Columns(std::size_t characterLength) { return characterLength < 3 ? 1 : 2; }

/// A printable text in exactly so many columns: with blanks after it, or cut short.
inline std::string Fitted(std::string_view text, std::size_t columns) {
    std::string fitted;
    while (!text.empty()) {
        std::size_t const length = std::max<std::size_t>(CharacterLength(text), 1);
        if (Columns(length) > columns) break;
        columns -= Columns(length);
        fitted += text.substr(0, length);
        text.remove_prefix(length);
    }
    return fitted.append(columns, ' ');
}

inline std::string RightAligned(std::string const& text, std::size_t columns) {
    return std::string(columns - std::min(columns, text.size()), ' ') + text;
}

/// The time left, or the time taken if the copy is complete.
inline std::string TimeColumn(CopyProgress const& copy) {
    if (copy.total > 0 && copy.done >= copy.total) return Duration(copy.seconds) + "    ";
    if (copy.total == 0 || copy.done == 0) return "--:-- ETA";
    double const left = static_cast<double>(copy.total - copy.done);
    return Duration(left * copy.seconds / static_cast<double>(copy.done)) + " ETA";
}

/// The line for a terminal of that width: the file's name, how much is done, the rate, the time left. It
/// leaves the last column free, where some terminals go on to the next line. On a narrow one first the rate
/// is omitted, then the time.
inline std::string ProgressLine(CopyProgress const& copy, std::size_t width) {
    constexpr std::size_t NAME = 10; // columns that the other parts leave for it if possible
    auto const done = static_cast<double>(copy.done);
    std::string const percent = std::to_string(copy.done >= copy.total ? 100 : copy.done * 100 / copy.total);
    std::string const amount =
        "  " + (copy.total > 0 ? RightAligned(percent + "%", 4) : RightAligned(Amount(done), 10));
    std::string rate = "  " + RightAligned(copy.seconds > 0 ? Amount(done / copy.seconds) + "/s" : "--", 12);
    std::string time = "  " + RightAligned(TimeColumn(copy), 12);
    std::size_t const columns = std::max<std::size_t>(width, 1) - 1;
    if (columns < NAME + amount.size() + rate.size() + time.size()) rate.clear();
    if (columns < NAME + amount.size() + time.size()) time.clear();
    std::string const numbers = amount + rate + time;
    if (columns < numbers.size()) return Fitted(numbers, columns);
    return Fitted(Printable(copy.name, Layout::ONE_LINE), columns - numbers.size()) + numbers;
}

/// The line on a terminal. Elsewhere nothing is written.
class ProgressBar {
public:
    explicit ProgressBar(int fd = STDERR_FILENO) : _fd(isatty(fd) ? fd : -1) {}
    ~ProgressBar() { End(); }
    ProgressBar(ProgressBar const&) = delete;
    ProgressBar& operator=(ProgressBar const&) = delete;

    /// A new path begins a new line. Only the last component of a path is shown.
    void Show(std::string_view path, unsigned long long done, unsigned long long total) {
        if (_fd < 0) return;
        std::string_view const name = path.substr(path.rfind('/') + 1);
        if (name != _copy.name || done < _copy.done) End();
        if (!_isShown) {
            _copy.name = name;
            _begin = Clock::now();
        }
        _copy.done = done;
        _copy.total = total;
        if (!_isShown || Clock::now() - _drawn >= INTERVAL) Draw();
    }
    /// Ends the line with its last numbers, so that something else can be written.
    void End() {
        if (!_isShown) return;
        Draw();
        Write("\n");
        _isShown = false;
        _copy = CopyProgress();
    }

private:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::milliseconds INTERVAL{100};

    void Draw() {
        _drawn = Clock::now();
        _copy.seconds = std::chrono::duration<double>(_drawn - _begin).count();
        winsize size{};
        std::size_t const width = ioctl(_fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
        Write("\r" + ProgressLine(_copy, width));
        _isShown = true;
    }
    /// The copy continues even if the terminal is gone.
    void Write(std::string const& text) {
        char const* from = text.data();
        if (DescriptorIO(_fd).Write(from, from + text.size(), 0) < 0) _fd = -1;
    }

    int _fd;
    bool _isShown = false;
    CopyProgress _copy;
    Clock::time_point _begin;
    Clock::time_point _drawn;
};

} // namespace examples

#endif

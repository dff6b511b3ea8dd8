#ifndef BRANTLE_TESTS_SUPPORT_CONTROLLED_TERMINAL_H
#define BRANTLE_TESTS_SUPPORT_CONTROLLED_TERMINAL_H

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <string>

#include <gtest/gtest.h>

namespace support {

/// A terminal with a process in its foreground, for what reads /dev/tty. The test is the user: it
/// types on the terminal and sees its screen. A second process, the shell, leads the session, sees
/// the first one stop, and continues it.
class ControlledTerminal {
public:
    static constexpr int TIMEOUT_MS = 20000;

    /// `program` runs in the foreground; what it returns is its report.
    explicit ControlledTerminal(std::function<std::string()> const& program) {
        int slave = -1;
        EXPECT_EQ(openpty(&_master, &slave, nullptr, nullptr, nullptr), 0);
        int reports[2];
        EXPECT_EQ(pipe(reports), 0);
        tcgetattr(slave, &_before);
        _slave = slave;
        _reports = reports[0];
        _shell = fork();
        if (_shell == 0) {
            close(_master);
            close(reports[0]);
            Shell(slave, reports[1], program);
        }
        close(reports[1]);
    }
    ~ControlledTerminal() {
        if (_shell > 0) {
            kill(_shell, SIGKILL);
            waitpid(_shell, nullptr, 0);
        }
        close(_master);
        close(_slave);
        close(_reports);
    }
    ControlledTerminal(ControlledTerminal const&) = delete;
    ControlledTerminal& operator=(ControlledTerminal const&) = delete;

    void Type(std::string const& text) const {
        EXPECT_EQ(write(_master, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    /// Waits until the screen shows a text, after what was waited for before.
    void AwaitScreen(std::string const& text) {
        std::size_t found = _screen.find(text, _seen);
        while (found == std::string::npos && More(_master, _screen)) found = _screen.find(text, _seen);
        ASSERT_NE(found, std::string::npos) << "on the screen: " << _screen;
        _seen = found + text.size();
    }
    /// All reports up to the end: each stop with the echo flag of the terminal, what the program
    /// returned, and how it ended.
    std::string Reports() {
        std::string text;
        while (More(_reports, text)) continue;
        waitpid(_shell, nullptr, 0);
        _shell = -1;
        pollfd screen = {_master, POLLIN, 0};
        while (poll(&screen, 1, 0) > 0 && More(_master, _screen)) continue;
        return text;
    }
    std::string const& Screen() const { return _screen; }
    bool IsRestored() const {
        termios now;
        tcgetattr(_slave, &now);
        return now.c_lflag == _before.c_lflag && now.c_iflag == _before.c_iflag;
    }

private:
    static bool More(int fd, std::string& text) {
        pollfd entry = {fd, POLLIN, 0};
        char bytes[4096];
        if (poll(&entry, 1, TIMEOUT_MS) <= 0) return false;
        ssize_t const got = read(fd, bytes, sizeof bytes);
        if (got <= 0) return false;
        text.append(bytes, static_cast<std::size_t>(got));
        return true;
    }
    static void Report(int fd, std::string const& text) {
        if (write(fd, text.data(), text.size()) < 0) _exit(1);
    }

    [[noreturn]] static void Shell(int slave, int reports, std::function<std::string()> const& program) {
        alarm(60);
        signal(SIGTTOU, SIG_IGN);
        setsid();
        ioctl(slave, TIOCSCTTY, 0);
        pid_t const worker = fork();
        if (worker == 0) {
            setpgid(0, 0);
            tcsetpgrp(slave, getpid());
            signal(SIGTTOU, SIG_DFL);
            Report(reports, program());
            _exit(0);
        }
        for (;;) {
            int status = 0;
            waitpid(worker, &status, WUNTRACED);
            if (WIFEXITED(status)) Report(reports, ", exit " + std::to_string(WEXITSTATUS(status)));
            if (WIFSIGNALED(status)) Report(reports, "signal " + std::to_string(WTERMSIG(status)));
            if (!WIFSTOPPED(status)) _exit(0);
            termios now;
            tcgetattr(slave, &now);
            Report(reports, "stop " + std::to_string(WSTOPSIG(status)) +
                                (now.c_lflag & ECHO ? " echo, " : " quiet, "));
            kill(worker, SIGCONT);
        }
    }

    int _master = -1;
    int _slave = -1;
    int _reports = -1;
    pid_t _shell = -1;
    termios _before{};
    std::string _screen;
    std::size_t _seen = 0;
};

/// Runs `program` in a session that has no terminal, with `input` as its standard input, and gives
/// what it returned.
inline std::string WithoutTerminal(std::string const& input, std::function<std::string()> const& program) {
    int in[2];
    int out[2];
    EXPECT_EQ(pipe(in), 0);
    EXPECT_EQ(pipe(out), 0);
    pid_t const child = fork();
    if (child == 0) {
        alarm(60);
        setsid();
        dup2(in[0], STDIN_FILENO);
        int const null = open("/dev/null", O_WRONLY);
        dup2(null, STDERR_FILENO);
        close(in[1]);
        std::string const result = program();
        _exit(write(out[1], result.data(), result.size()) < 0);
    }
    close(in[0]);
    close(out[1]);
    EXPECT_EQ(write(in[1], input.data(), input.size()), static_cast<ssize_t>(input.size()));
    close(in[1]);
    std::string result;
    char bytes[256];
    for (ssize_t got; (got = read(out[0], bytes, sizeof bytes)) > 0;)
        result.append(bytes, static_cast<std::size_t>(got));
    close(out[0]);
    waitpid(child, nullptr, 0);
    return result;
}

} // namespace support

#endif

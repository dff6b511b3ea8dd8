#include <brantle/cindral/enter_password.h>

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>

#include <openssl/crypto.h>

#include <brantle/thornel/text.h>

#include "secret_bytes.h"

namespace cindral {

namespace {

constexpr int SIGNALS[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP};
constexpr unsigned int SIGNAL_COUNT = sizeof SIGNALS / sizeof *SIGNALS;

std::atomic<int> wakeFd{-1};         ///< where the handler writes the number of the signal
std::atomic<int> runningHandlers{0}; ///< handlers running now, which may have read `wakeFd`
static_assert(std::atomic<int>::is_always_lock_free, "the handler uses them");

void NoteSignal(int number) {
    int const savedErrno = errno;
    ++runningHandlers;
    int const fd = wakeFd;
    auto const byte = static_cast<unsigned char>(number);
    if (fd < 0)
        raise(number); // the old handlers have been restored: one of them gets it once this one has returned
    else [[maybe_unused]]
        ssize_t const written = write(fd, &byte, 1);
    --runningHandlers;
    errno = savedErrno;
}

/// During its lifetime, signals that are not ignored are delivered through a pipe, whichever thread receives
/// them.
class SignalPipe {
public:
    SignalPipe() {
        if (pipe2(_pipe, O_CLOEXEC | O_NONBLOCK) != 0) return;
        wakeFd = _pipe[1];
        struct sigaction action{};
        action.sa_handler = NoteSignal;
        action.sa_flags = SA_RESTART;
        for (unsigned int i = 0; i < SIGNAL_COUNT; ++i) {
            sigaction(SIGNALS[i], nullptr, &_old[i]);
            if (_old[i].sa_handler != SIG_IGN) sigaction(SIGNALS[i], &action, nullptr);
        }
    }
    ~SignalPipe() {
        if (_pipe[0] < 0) return;
        close(_pipe[0]);
        close(_pipe[1]);
    }
    SignalPipe(SignalPipe const&) = delete;
    SignalPipe& operator=(SignalPipe const&) = delete;

    int Fd() const { return _pipe[0]; }
    /// Restores the old handlers and raises the signals received. Returns the last signal raised, or 0. Other
    /// threads may still be in the handler: they write before this function reads the pipe, or not at all.
    int RestoreAndRaise() {
        if (_pipe[0] < 0) return 0;
        for (unsigned int i = 0; i < SIGNAL_COUNT; ++i) sigaction(SIGNALS[i], &_old[i], nullptr);
        wakeFd = -1;
        while (runningHandlers != 0) sched_yield();
        int last = 0;
        for (unsigned char number = 0; read(_pipe[0], &number, 1) == 1; last = number) raise(number);
        return last;
    }

private:
    int _pipe[2] = {-1, -1};
    struct sigaction _old[SIGNAL_COUNT] = {};
};

/// The terminal, or the standard streams if there is none; echo is off during its lifetime.
class QuietTerminal {
public:
    QuietTerminal() : _tty(open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY)), _isTerminal(false), _settings{} {
        _isTerminal = tcgetattr(In(), &_settings) == 0;
        if (!_isTerminal) return;
        termios quiet = _settings;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL);
        tcsetattr(In(), TCSAFLUSH, &quiet);
    }
    ~QuietTerminal() {
        if (_isTerminal) {
            Print("\n");
            tcsetattr(In(), TCSADRAIN, &_settings);
        }
        if (_tty >= 0) close(_tty);
    }
    QuietTerminal(QuietTerminal const&) = delete;
    QuietTerminal& operator=(QuietTerminal const&) = delete;

    int In() const { return _tty >= 0 ? _tty : STDIN_FILENO; }
    void Print(char const* text) const {
        [[maybe_unused]] ssize_t const written =
            write(_tty >= 0 ? _tty : STDERR_FILENO, text, std::strlen(text));
    }

private:
    int _tty;
    bool _isTerminal;
    termios _settings;
};

/// Reads a line one byte at a time, so that nothing after it is consumed.
class LineReader {
public:
    LineReader(char* buffer, unsigned int size) : _buffer(buffer), _size(size), _length(0) {}

    /// Reads up to the end of the line. Returns the length, or a negated errno value: -EINTR when `interrupt`
    /// is readable.
    int Read(int in, int interrupt) {
        for (bool any = false;;) {
            pollfd fds[] = {{in, POLLIN, 0}, {interrupt, POLLIN, 0}};
            if (poll(fds, 2, -1) < 0) {
                if (errno != EINTR) return -errno;
                continue;
            }
            if (fds[1].revents) return -EINTR;
            char c = 0;
            ssize_t const got = read(in, &c, 1);
            if (got < 0 && errno == EINTR) continue;
            if (got < 0) return -errno;
            if (got == 0) return any ? static_cast<int>(_length) : -EIO;
            if (c == '\n' || c == '\r') return static_cast<int>(_length);
            any = true;
            if (_length < _size) _buffer[_length++] = c;
        }
    }
    void Wipe() {
        OPENSSL_cleanse(_buffer, _length);
        _length = 0;
    }

private:
    char* _buffer;
    unsigned int _size;
    unsigned int _length;
};

int ReadLine(char const* prompt, LineReader& line, int interrupt) {
    QuietTerminal const terminal;
    terminal.Print(prompt);
    return line.Read(terminal.In(), interrupt);
}

int Ask(char const* prompt, char* buffer, unsigned int size) {
    LineReader line(buffer, size);
    for (;;) {
        SignalPipe signals;
        int const length = ReadLine(prompt, line, signals.Fd());
        int const raised = signals.RestoreAndRaise();
        if (length >= 0) return length;
        line.Wipe();
        // Stopped and continued: the user is at the terminal again.
        if (raised != SIGTSTP) return length;
    }
}

} // namespace

EnterPassword::EnterPassword(unsigned int tries, String_t const& prompt)
    : _tries(tries), _prompt(prompt), _presetUsed(false) {}

EnterPassword::~EnterPassword() { WipeUnshared(_preset); }

EnterPassword& EnterPassword::operator=(EnterPassword const& other) {
    if (this == &other) return *this;
    _tries = other._tries;
    _prompt = other._prompt;
    WipeUnshared(_preset);
    _preset = other._preset;
    _presetUsed = other._presetUsed;
    return *this;
}

void EnterPassword::SetPrompt(String_t const& lead, String_t const& subject) {
    String_t prompt(lead.Text());
    prompt += " ";
    prompt += subject;
    prompt += ": ";
    _prompt = prompt;
    _presetUsed = false;
}

int EnterPassword::operator()(char* buffer, unsigned int size) {
    unsigned int length = 0;
    if (HasPreset()) {
        String_t const secret = UsePreset();
        length = std::min(size, str_len(secret.Text()));
        std::memcpy(buffer, secret.Text(), length);
    } else {
        int const result = Ask(str_text(_prompt.Text()), buffer, size);
        if (result < 0) return result;
        length = static_cast<unsigned int>(result);
    }
    if (length < size) buffer[length] = 0;
    return static_cast<int>(length);
}

void EnterPassword::Preset(String_t const& secret) {
    if (secret._rep != _preset._rep) WipeUnshared(_preset);
    _preset = secret;
    _presetUsed = false;
}

int EnterPassword::HasPreset() const { return !_presetUsed && !str_empty(_preset.Text()); }

String_t EnterPassword::UsePreset() {
    _presetUsed = true;
    return _preset;
}

} // namespace cindral

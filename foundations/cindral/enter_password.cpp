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

namespace cindral {

namespace {

constexpr int SIGNALS[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP};
constexpr unsigned int SIGNAL_COUNT = sizeof SIGNALS / sizeof *SIGNALS;

std::atomic<int> wakeFd{-1};         ///< where the handler writes the number of the signal
std::atomic<int> runningHandlers{0}; ///< those that may hold that descriptor's number
static_assert(std::atomic<int>::is_always_lock_free, "the handler uses them");

void NoteSignal(int number) {
    int const savedErrno = errno;
    ++runningHandlers;
    int const fd = wakeFd;
    auto const byte = static_cast<unsigned char>(number);
    if (fd < 0)
        raise(number); // the old handlers are back: one of them takes it when this one has returned
    else [[maybe_unused]]
        ssize_t const written = write(fd, &byte, 1);
    --runningHandlers;
    errno = savedErrno;
}

/// While it lives, the signals that are not ignored come through a pipe, whatever thread they hit.
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
    /// Puts the old handlers back and sends what came to them. Returns the last signal sent, or 0. Other
    /// threads may still be in the handler: they write before this returns, or not at all.
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

/// The terminal, or the standard streams where there is none; echo is off while it lives.
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

/// The line as it comes in, a byte at a time: what follows it is not ours to read.
class LineReader {
public:
    LineReader(char* buffer, unsigned int size) : _buffer(buffer), _size(size), _length(0) {}

    /// Reads up to the line end. Returns the length, or minus errno: -EINTR when there is something
    /// to read in `interrupt`.
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

EnterPassword::~EnterPassword() = default;

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
    _preset = secret;
    _presetUsed = false;
}

int EnterPassword::HasPreset() const { return !_presetUsed && !str_empty(_preset.Text()); }

String_t EnterPassword::UsePreset() {
    _presetUsed = true;
    return _preset;
}

} // namespace cindral

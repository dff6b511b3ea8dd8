#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "support/servers/process.h"

namespace servers {

namespace {

constexpr std::chrono::seconds STOP_LIMIT{2};
constexpr std::chrono::milliseconds POLL_INTERVAL{5};
constexpr int NEW_FILE = O_WRONLY | O_CREAT | O_TRUNC | O_APPEND;

std::system_error LastError(std::string const& what) { return {errno, std::generic_category(), what}; }

std::vector<char*> Pointers(std::vector<std::string>& texts) {
    std::vector<char*> result;
    for (std::string& text : texts) result.push_back(text.data());
    result.push_back(nullptr);
    return result;
}

bool NamesVariableOf(std::string const& entry, std::string const& addition) {
    return entry.compare(0, entry.find('=') + 1, addition, 0, addition.find('=') + 1) == 0;
}

std::vector<std::string> Environment(std::vector<std::string> const& additions) {
    std::vector<std::string> result;
    for (char** entry = environ; *entry; ++entry) {
        bool replaced = false;
        for (std::string const& addition : additions) replaced |= NamesVariableOf(*entry, addition);
        if (!replaced) result.emplace_back(*entry);
    }
    result.insert(result.end(), additions.begin(), additions.end());
    return result;
}

/// A file open for a program that is about to be started; closed when that has its own copy.
class OpenFile {
public:
    OpenFile(std::string const& path, int flags)
        : _descriptor(open(path.empty() ? "/dev/null" : path.c_str(), flags | O_CLOEXEC | O_NOCTTY, 0600)) {
        if (_descriptor < 0) throw LastError(path);
    }
    ~OpenFile() { close(_descriptor); }
    OpenFile(OpenFile const&) = delete;
    OpenFile& operator=(OpenFile const&) = delete;

    void BecomeInChild(int number) const { dup2(_descriptor, number); }

private:
    int _descriptor;
};

} // namespace

std::string ReadFile(std::string const& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw std::runtime_error("cannot read " + path);
    return {std::istreambuf_iterator<char>(file), {}};
}

void WriteFile(std::string const& path, std::string const& content, mode_t mode) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    if (chmod(path.c_str(), mode) != 0) throw LastError(path);
    if (!file.write(content.data(), static_cast<std::streamsize>(content.size())).flush())
        throw std::runtime_error("cannot write " + path);
}

ChildProcess::ChildProcess(Command const& command) {
    std::vector<std::string> argumentTexts = command.arguments;
    std::vector<std::string> environmentTexts = Environment(command.environment);
    std::vector<char*> const arguments = Pointers(argumentTexts);
    std::vector<char*> const environment = Pointers(environmentTexts);
    OpenFile const input(command.input, O_RDONLY);
    OpenFile const output(command.output, NEW_FILE);
    OpenFile const errors(command.errors, NEW_FILE);
    _pid = fork();
    if (_pid < 0) throw LastError("fork");
    if (_pid == 0) {
        setpgid(0, 0);
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        input.BecomeInChild(STDIN_FILENO);
        output.BecomeInChild(STDOUT_FILENO);
        errors.BecomeInChild(STDERR_FILENO);
        execvpe(arguments[0], arguments.data(), environment.data());
        _exit(127);
    }
    setpgid(_pid, _pid);
}

ChildProcess::~ChildProcess() { Stop(); }

bool ChildProcess::Reap(int options) {
    int status = 0;
    pid_t result;
    do {
        result = waitpid(_pid, &status, options);
    } while (result < 0 && errno == EINTR);
    if (result != _pid) return false;
    _ended = true;
    _status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return true;
}

bool ChildProcess::IsRunning() { return !_ended && !Reap(WNOHANG); }

void ChildProcess::Stop() {
    if (!IsRunning()) return;
    kill(-_pid, SIGTERM);
    auto const limit = std::chrono::steady_clock::now() + STOP_LIMIT;
    while (IsRunning() && std::chrono::steady_clock::now() < limit)
        std::this_thread::sleep_for(POLL_INTERVAL);
    if (!_ended) {
        kill(-_pid, SIGKILL);
        Reap(0);
    }
}

int ChildProcess::Wait() {
    if (!_ended) Reap(0);
    return _status;
}

Outcome Run(std::vector<std::string> const& arguments, std::string const& input,
            std::vector<std::string> const& environment) {
    TemporaryDirectory files;
    WriteFile(files / "input", input);
    ChildProcess program({arguments, environment, files / "input", files / "output", files / "errors"});
    int const status = program.Wait();
    return {status, ReadFile(files / "output"), ReadFile(files / "errors")};
}

std::string RunOrThrow(std::vector<std::string> const& arguments, std::string const& input,
                       std::vector<std::string> const& environment) {
    Outcome const outcome = Run(arguments, input, environment);
    if (outcome.status == 0) return outcome.output;
    throw std::runtime_error(arguments[0] + " ended with " + std::to_string(outcome.status) + ": " +
                             outcome.output + outcome.errors);
}

} // namespace servers

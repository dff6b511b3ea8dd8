#ifndef BRANTLE_TESTS_SUPPORT_SERVERS_PROCESS_H
#define BRANTLE_TESTS_SUPPORT_SERVERS_PROCESS_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "support/temporary_directory.h"

namespace servers {

using support::TemporaryDirectory;

std::string ReadFile(std::string const& path);
void WriteFile(std::string const& path, std::string const& content, mode_t mode = 0600);

/// How a program is started.
struct Command {
    std::vector<std::string> arguments;     ///< the program, found along PATH, and its arguments
    std::vector<std::string> environment{}; ///< "NAME=value", on top of this process's own
    std::string input{};                    ///< file for standard input; /dev/null when empty
    std::string output{};                   ///< file for standard output, made again; /dev/null when empty
    std::string errors{};                   ///< file for standard error, made again; /dev/null when empty
};

/// A program running beside the test in a separate process group. It gets SIGTERM when this object is
/// destroyed, SIGKILL if that does not end it within two seconds, and SIGTERM too if the thread that started
/// it ends first.
class ChildProcess {
public:
    /// Throws std::system_error when no process can be made; a program that cannot be run exits with 127.
    explicit ChildProcess(Command const& command);
    ~ChildProcess();
    ChildProcess(ChildProcess const&) = delete;
    ChildProcess& operator=(ChildProcess const&) = delete;

    bool IsRunning();
    void Stop();
    /// Waits for the end. The exit status, or 128 plus the number of the signal that ended it.
    int Wait();
    pid_t Pid() const { return _pid; }

private:
    bool Reap(int options);

    pid_t _pid;
    bool _ended = false;
    int _status = 0;
};

/// What a program that was run to its end left.
struct Outcome {
    int status;         ///< as ChildProcess::Wait gives it
    std::string output; ///< standard output
    std::string errors; ///< standard error
};

/// Runs a program to its end with `input` as its standard input.
Outcome Run(std::vector<std::string> const& arguments, std::string const& input = {},
            std::vector<std::string> const& environment = {});

/// The same for a program that must succeed; throws std::runtime_error with what it said.
std::string RunOrThrow(std::vector<std::string> const& arguments, std::string const& input = {},
                       std::vector<std::string> const& environment = {});

} // namespace servers

#endif

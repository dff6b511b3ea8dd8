#ifndef BRANTLE_TESTS_SUPPORT_NEW_PROCESS_H
#define BRANTLE_TESTS_SUPPORT_NEW_PROCESS_H

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

namespace support {

/// Runs a function in a separate process, a copy of this one, for what exists once in a process. Returns its
/// result, from 0 to 255, or -1 if it did not return.
template <class Function>
int InNewProcess(Function const& function) {
    std::fflush(nullptr);
    pid_t const child = fork();
    if (child == 0) {
        int const result = [&]() noexcept { return function(); }();
        std::fflush(nullptr);
        _exit(result);
    }
    int status = 0;
    bool const returned = child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status);
    return returned ? WEXITSTATUS(status) : -1;
}

} // namespace support

#endif

#ifndef BRANTLE_TESTS_EXAMPLES_EXECUTE_H
#define BRANTLE_TESTS_EXAMPLES_EXECUTE_H

// How the example programs are run: as a user does, by a command line.

#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <ostream>
#include <string>

#include <gmock/gmock.h>

namespace execute {

/// The outcome of a command line of the shell.
struct Ran {
    int status;
    std::string output;
    std::string errors;
};

inline std::ostream& operator<<(std::ostream& out, Ran const& ran) {
    return out << "status " << ran.status << ", output \"" << ran.output << "\", errors \"" << ran.errors
               << '"';
}

inline std::string TakeFile(std::string const& path) {
    std::ifstream in(path);
    std::string text{std::istreambuf_iterator<char>(in), {}};
    std::remove(path.c_str());
    return text;
}

inline Ran Execute(std::string const& command) {
    std::string const home = std::getenv("HOME");
    std::string const output = home + "/output";
    std::string const errors = home + "/errors";
    // In a new session, so that no prompt reaches the terminal of the user who runs the tests.
    int const status = std::system(("setsid -w " + command + " >" + output + " 2>" + errors).c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, TakeFile(output), TakeFile(errors)};
}

inline Ran Execute(std::string const& program, std::string const& arguments) {
    return Execute(program + " " + arguments + " </dev/null");
}

inline auto Fails(int status, std::string const& line) {
    return testing::AllOf(testing::Field(&Ran::status, status), testing::Field(&Ran::output, ""),
                          testing::Field(&Ran::errors, line + "\n"));
}

} // namespace execute

#endif

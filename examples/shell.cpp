// Runs an interactive shell on a remote host, and exits with its status.

#include "login.h"

int main(int, char** argv) {
    char const usage[] = "usage: shell [--reduced] [-i IDENTITY] [USER@]HOST[:PORT]";
    examples::CommandLine arguments;
    if (int const status = arguments.Read(argv, usage); status != examples::DONE) return status;
    if (*arguments._rest) return examples::Fail(examples::USAGE, usage);
    auto const prepare = [](cindral::SshSession&, cindral::StandardDialect const*) { return examples::DONE; };
    return examples::RunSession<cindral::SshInteractiveSession>(arguments, prepare);
}

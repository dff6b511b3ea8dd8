// Runs an interactive shell on a remote host.

#include "login.h"

int main(int, char** argv) {
    char const usage[] = "usage: shell [-i IDENTITY] [USER@]HOST[:PORT]";
    examples::CommandLine arguments;
    if (int const status = arguments.Read(argv, usage); status != examples::DONE) return status;
    if (*arguments._rest) return examples::Fail(examples::USAGE, usage);
    return examples::RunSession<cindral::SshInteractiveSession>(arguments);
}

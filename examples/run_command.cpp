// Runs one command on a remote host, joined to standard input and output.

#include "login.h"

int main(int, char** argv) {
    char const usage[] = "usage: run_command [-i IDENTITY] [USER@]HOST[:PORT] COMMAND...";
    examples::CommandLine arguments;
    if (int const status = arguments.Read(argv, usage); status != examples::DONE) return status;
    if (!*arguments._rest) return examples::Fail(examples::USAGE, usage);
    String_t command(*arguments._rest);
    for (char** word = arguments._rest + 1; *word; ++word) (command += " ") += *word;
    return examples::RunSession<cindral::SshCmdSession>(arguments, command);
}

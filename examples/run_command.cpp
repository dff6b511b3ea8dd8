// Runs one command on a remote host, attached to standard input and output, and exits with its status. With
// -X its windows appear on the local display.

#include "login.h"

int main(int, char** argv) {
    char const usage[] = "usage: run_command [-X] [--reduced] [-i IDENTITY] [USER@]HOST[:PORT] COMMAND...";
    char const* display = nullptr;
    if (argv[1] && std::strcmp(argv[1], "-X") == 0) {
        display = std::getenv("DISPLAY");
        if (!display) return examples::Fail(examples::USAGE, "-X needs a DISPLAY in the environment");
        ++argv;
    }
    examples::CommandLine arguments;
    if (int const status = arguments.Read(argv, usage); status != examples::DONE) return status;
    if (!*arguments._rest) return examples::Fail(examples::USAGE, usage);
    String_t const command = examples::Command(arguments._rest);
    auto const prepare = [display](cindral::SshCmdSession& session, cindral::StandardDialect const*) {
        // The display becomes part of a shell command: never pass one that came from anybody else.
        if (display) session.StartX11Forwarding(0, display);
        return examples::DONE;
    };
    return examples::RunSession<cindral::SshCmdSession>(arguments, prepare, command);
}

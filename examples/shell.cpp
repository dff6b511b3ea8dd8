// Holds an interactive shell on a remote host.

#include "login.h"

int main(int, char** argv) {
    char const usage[] = "usage: shell [-i IDENTITY] [USER@]HOST[:PORT]";
    examples::CommandLine arguments;
    if (int const status = arguments.Read(argv, usage); status != examples::DONE) return status;
    if (*arguments._rest) return examples::Fail(examples::USAGE, usage);
    try {
        cindral::SshInteractiveSession session(arguments._target);
        return examples::RunToEnd(session, arguments);
    } catch (Except const& failure) {
        return examples::Fail(examples::CONNECTION_FAILED, String_t("connection failed: ") += failure.what());
    }
}

#include <iostream>

#include <brantle/brantle.h>
#include <brantle/standard.h>

/// Attaches a dialect to a session and prints why it refuses a list of algorithms.
int main() {
    cindral::SshCmdSession session(22, "127.0.0.1", "true");
    cindral::StandardDialect dialect(session);
    try {
        dialect.SetCiphers("aes128-ctr,rot13");
    } catch (cindral::InvalidArgument const& refusal) {
        std::cout << "standard\n" << refusal.Detail() << '\n';
        return 0;
    }
    return 1;
}

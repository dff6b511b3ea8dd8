#include <iostream>

#include <brantle/brantle.h>

/// Prints the parts of a target.
int main() {
    String_t user;
    String_t host;
    if (cindral::SshSession::ParseUrl("me@host:2222", user, host) != 0) return 1;
    std::cout << "brantle\n" << user << ' ' << host << '\n';
    return 0;
}

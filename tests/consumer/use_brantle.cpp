#include <cstring>
#include <iostream>

#include <brantle/brantle.h>

/// Prints the parts of a target. Fails if the library is not the one that the headers came with.
int main() {
    if (std::strcmp(cindral::LibraryVersion(), BRANTLE_VERSION) != 0) return 2;
    String_t user;
    String_t host;
    if (cindral::SshSession::ParseUrl("me@host:2222", user, host) != 0) return 1;
    std::cout << "brantle\n" << user << ' ' << host << '\n';
    return 0;
}

#include <cstdlib>

#include <gtest/gtest.h>

#include "support/temporary_directory.h"

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    support::TemporaryDirectory home; // so that no test reads or writes the user's own
    setenv("HOME", home.Path().c_str(), 1);
    for (char const* name : {"SSH_AUTH_SOCK", "SSH_AGENT_PID", "DISPLAY"}) unsetenv(name);
    return RUN_ALL_TESTS();
}

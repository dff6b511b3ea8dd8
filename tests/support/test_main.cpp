#include <cstdlib>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

namespace {

/// A home directory for this process alone, so that no test reads or writes the user's own.
class PrivateHome {
public:
    PrivateHome() {
        std::string name = (std::filesystem::temp_directory_path() / "brantle-home-XXXXXX").string();
        if (!mkdtemp(name.data())) std::abort();
        _path = name;
        setenv("HOME", name.c_str(), 1);
    }
    ~PrivateHome() {
        std::error_code ignored;
        std::filesystem::remove_all(_path, ignored);
    }
    PrivateHome(PrivateHome const&) = delete;
    PrivateHome& operator=(PrivateHome const&) = delete;

private:
    std::filesystem::path _path;
};

} // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    PrivateHome home;
    for (char const* name : {"SSH_AUTH_SOCK", "SSH_AGENT_PID", "DISPLAY"}) unsetenv(name);
    return RUN_ALL_TESTS();
}

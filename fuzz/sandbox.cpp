#include <filesystem>
#include <fstream>
#include <system_error>

#include "finding.h"
#include "sandbox.h"

namespace fuzz {

namespace {

constexpr unsigned int SOURCE_SIZE = 100;

std::size_t CountIn(std::filesystem::path const& directory) {
    std::size_t count = 0;
    for (auto const& entry : std::filesystem::directory_iterator(directory)) count += !entry.path().empty();
    return count;
}

} // namespace

Sandbox::Sandbox() {
    for (char const* name : {"target", "source", "working"})
        std::filesystem::create_directory(_root.Path() / name);
    std::ofstream(_root / "source/file") << std::string(SOURCE_SIZE, 's');
    std::filesystem::current_path(_root.Path() / "working");
}

Sandbox::~Sandbox() {
    std::error_code ignored;
    std::filesystem::current_path("/", ignored);
}

void Sandbox::CheckAndClear() const {
    Require(CountIn(_root.Path()) == 3, "Sandbox", "something has been created beside the directories");
    Require(CountIn(_root.Path() / "working") == 0, "Sandbox", "something is in the working directory");
    Require(CountIn(Source()) == 1 && std::filesystem::file_size(_root / "source/file") == SOURCE_SIZE,
            "Sandbox", "the source has changed");
    for (auto const& entry : std::filesystem::directory_iterator(Target())) {
        Require(entry.symlink_status().type() == std::filesystem::file_type::regular, "Sandbox",
                "something else than a file has been created");
        std::filesystem::remove(entry.path());
    }
}

} // namespace fuzz

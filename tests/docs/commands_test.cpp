// No command in the documents goes out of date: each is run by another test, or names what exists.

#include <unistd.h>

#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "docs/code_blocks.h"
#include "support/servers/process.h"

using servers::Run;
using servers::RunOrThrow;
using std::filesystem::exists;

namespace {

std::filesystem::path const SOURCES = BRANTLE_SOURCE_DIR;
std::filesystem::path const BINARIES = BRANTLE_BINARY_DIR;

std::vector<std::string> Words(std::string const& command) {
    std::regex const word("\\S+");
    return {std::sregex_token_iterator(command.begin(), command.end(), word), {}};
}

/// What follows an option; empty if it is not there.
std::string After(std::string const& option, std::vector<std::string> const& words) {
    for (std::size_t i = 0; i + 1 < words.size(); ++i)
        if (words[i] == option) return words[i + 1];
    return {};
}

bool IsPreset(std::string const& name) {
    return servers::ReadFile(SOURCES / "CMakePresets.json").find("\"name\": \"" + name + "\"") !=
           std::string::npos;
}

bool IsTarget(std::string const& name) {
    std::string const targets = RunOrThrow({"cmake", "--build", BINARIES, "--target", "help"});
    return name.empty() || targets.find("\n" + name + ": ") != std::string::npos;
}

bool FindsTests(std::string const& option, std::string const& expression) {
    if (expression.empty()) return true;
    std::string const list = RunOrThrow({"ctest", "--test-dir", BINARIES, "-N", option, expression});
    return list.find("Total Tests: 0\n") == std::string::npos;
}

/// Whether a program is where the build puts it. For a fuzz program, which only clang++ builds, whether it
/// has a source.
bool IsBuilt(std::string const& path) {
    std::smatch match;
    if (std::regex_match(path, match, std::regex("build/fuzz/fuzz/fuzz_(.*)")))
        return exists(SOURCES / "fuzz" / (match[1].str() + "_target.cpp"));
    return std::regex_match(path, match, std::regex("build/release/(.*)")) &&
           exists(BINARIES / match[1].str());
}

/// Whether the options of a Python program are documented in its help.
bool HasOptions(std::string const& program, std::vector<std::string> const& words) {
    std::string const help = RunOrThrow({program, "--help"});
    for (std::string const& word : words)
        if (word.compare(0, 2, "--") == 0 && help.find(word) == std::string::npos) return false;
    return true;
}

bool FilesAreThere(std::vector<std::string> const& words) {
    for (std::string const& word : words)
        if (word.find('/') != std::string::npos && word.find('.') != std::string::npos &&
            !exists(SOURCES / word))
            return false;
    return true;
}

bool NamesWhatIsThere(std::string const& command) {
    std::vector<std::string> const words = Words(command);
    std::string const& program = words[0];
    if (program.compare(0, 7, "script/") == 0) return access((SOURCES / program).c_str(), X_OK) == 0;
    if (program == "sed") return FilesAreThere({words.begin() + 2, words.end()});
    if (program.compare(0, 6, "bench/") == 0)
        return exists(SOURCES / program) && HasOptions(SOURCES / program, words);
    if (program == "cmake") return IsPreset(After("--preset", words)) && IsTarget(After("--target", words));
    if (program == "ctest")
        return IsPreset(After("--preset", words)) && FindsTests("-R", After("-R", words)) &&
               FindsTests("-L", After("-L", words));
    return IsBuilt(program);
}

constexpr char const* DOCUMENTS[] = {"README.md",      "CONTRIBUTING.md", "SECURITY.md",
                                     "docs/design.md", "docs/dialect.md", "docs/standard.md",
                                     "fuzz/README.md", "bench/README.md"};

/// A block that readme_test.cpp, dialect_test.cpp or standard_test.cpp runs, by a text in it.
struct Shown {
    char const* file;
    char const* text;
};

constexpr Shown RUN_ELSEWHERE[] = {
    {"README.md", "cmake --install"},
    {"README.md", "g++ -std=c++17 hello.cpp"},
    {"README.md", "run_command me@host"},
    {"docs/dialect.md", "g++ -std=c++17 hello.cpp"},
    {"docs/dialect.md", "run_command --reduced"},
    {"docs/standard.md", "g++ -std=c++17 hello.cpp"},
};

bool IsRunElsewhere(std::string const& file, std::string const& command) {
    for (Shown const& shown : RUN_ELSEWHERE)
        if (file == shown.file &&
            docs::CodeBlockWith(file, "sh", shown.text).find(command) != std::string::npos)
            return true;
    return false;
}

} // namespace

TEST(DocumentedCommands, AreRunOrNameWhatIsThere) {
    std::size_t checked = 0;
    for (char const* file : DOCUMENTS) {
        for (std::string const& command : docs::CommandsIn(file)) {
            ++checked;
            if (IsRunElsewhere(file, command)) continue;
            EXPECT_TRUE(NamesWhatIsThere(command)) << file << ": " << command;
        }
    }
    EXPECT_GT(checked, 20u);
}

TEST(DocumentedCommands, CommandThatNamesNothingIsDetected) {
    for (char const* command :
         {"script/none", "cmake --preset none", "cmake --build --preset release --target none",
          "ctest --preset none", "ctest --preset release -R ^none$", "ctest --preset release -L ^none$",
          "build/release/none", "build/fuzz/fuzz/fuzz_none", "bench/none", "bench/compare/compare.py --none",
          "sed 's/a/b/' script/none.txt", "make"})
        EXPECT_FALSE(NamesWhatIsThere(command)) << command;
}

// What has no fence is not checked here, and not copied as a command by readers.
TEST(DocumentedCommands, BlocksAreFenced) {
    for (char const* file : DOCUMENTS)
        EXPECT_FALSE(std::regex_search(servers::ReadFile(SOURCES / file), std::regex("\n\n    "))) << file;
}

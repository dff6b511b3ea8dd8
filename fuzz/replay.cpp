// Feeds the files of directories to a target, each once: the corpus as a test.
//
// The name of each file is printed before the file is processed, so that the last one is the one that failed.
// A directory that is missing or has no files is a failure too.

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

#include "finding.h"

namespace {

std::vector<std::filesystem::path> FilesIn(std::string const& directory) {
    std::vector<std::filesystem::path> files;
    std::error_code missing;
    for (auto const& entry :
         std::filesystem::directory_iterator(std::filesystem::absolute(directory), missing))
        if (entry.is_regular_file()) files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    return files;
}

bool Replay(std::filesystem::path const& file) {
    std::cout << file.string() << std::endl;
    std::ifstream in(file, std::ios::binary);
    std::vector<char> const bytes{std::istreambuf_iterator<char>(in), {}};
    if (in.bad() || !in.is_open()) return false;
    LLVMFuzzerTestOneInput(reinterpret_cast<std::uint8_t const*>(bytes.data()), bytes.size());
    return true;
}

} // namespace

int main(int count, char** arguments) {
    std::vector<std::string> const directories(arguments + 1, arguments + count);
    if (directories.empty()) {
        std::cerr << "usage: " << arguments[0] << " DIRECTORY...\n";
        return 2;
    }
    std::size_t replayed = 0;
    for (std::string const& directory : directories) {
        auto const files = FilesIn(directory);
        if (files.empty()) {
            std::cerr << "no corpus in " << directory << '\n';
            return 1;
        }
        for (auto const& file : files) {
            if (!Replay(file)) {
                std::cerr << "cannot read " << file << '\n';
                return 1;
            }
            ++replayed;
        }
    }
    std::cout << replayed << " inputs\n";
}

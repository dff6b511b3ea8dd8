#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "support/x11/fake_xauth.h"

namespace x11 {

namespace {

std::string ReplacePath(std::string const& path) {
    std::string const before = std::getenv("PATH");
    setenv("PATH", path.c_str(), 1);
    return before;
}

} // namespace

FakeXauth::FakeXauth(std::string const& output, int status) {
    std::ofstream(_directory / "output", std::ios::binary) << output;
    std::string const directory = _directory.Path().string();
    std::string const script = _directory / "xauth";
    std::ofstream(script) << "#!/bin/sh\n"
                          << "IFS='|'; echo \"$*\" >>" << directory << "/calls\n"
                          << "cat " << directory << "/output\n"
                          << "exit " << status << '\n';
    std::filesystem::permissions(script, std::filesystem::perms::owner_all);
    _path = ReplacePath(directory + ":" + std::getenv("PATH"));
}

FakeXauth::~FakeXauth() { ReplacePath(_path); }

std::vector<std::string> FakeXauth::Calls() const {
    std::vector<std::string> calls;
    std::ifstream lines(_directory / "calls");
    for (std::string line; std::getline(lines, line);) calls.push_back(line);
    return calls;
}

NoXauth::NoXauth() : _path(ReplacePath(_directory.Path().string())) {}

NoXauth::~NoXauth() { ReplacePath(_path); }

} // namespace x11

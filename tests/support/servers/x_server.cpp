#include <chrono>
#include <random>
#include <stdexcept>
#include <thread>

#include "support/servers/x_server.h"

namespace servers {

namespace {

constexpr std::chrono::seconds START_LIMIT{60};
constexpr std::chrono::milliseconds POLL_INTERVAL{10};

std::string RandomCookie() {
    std::random_device random;
    std::string text;
    while (text.size() < 32) text += "0123456789abcdef"[random() % 16];
    return text;
}

/// An X server that picks its number itself, and prints it when it can be connected to.
Command XvfbCommand(TemporaryDirectory const& directory) {
    return {{"Xvfb", "-displayfd", "1", "-screen", "0", "320x240x24", "-auth", directory / "server_authority",
             "-listen", "tcp", "-noreset", "-extension", "GLX"},
            {},
            {},
            directory / "number",
            directory / "log"};
}

} // namespace

// The X server accepts every cookie of its file, regardless of the display number in it.
XServer::XServer()
    : _cookie(RandomCookie()),
      _process((AddEntry(_directory / "server_authority", ":0"), XvfbCommand(_directory))) {
    auto const limit = std::chrono::steady_clock::now() + START_LIMIT;
    while (_number.empty() || _number.back() != '\n') {
        if (!_process.IsRunning() || std::chrono::steady_clock::now() > limit)
            throw std::runtime_error("the X server does not start: " + ReadFile(_directory / "log"));
        std::this_thread::sleep_for(POLL_INTERVAL);
        _number = ReadFile(_directory / "number");
    }
    _number.pop_back();
    AddEntry(Authority(), Display());
}

void XServer::AddEntry(std::string const& file, std::string const& display) const {
    RunOrThrow({"xauth", "-f", file, "add", display, "MIT-MAGIC-COOKIE-1", _cookie});
}

} // namespace servers

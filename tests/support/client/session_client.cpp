#include <chrono>
#include <filesystem>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "support/client/session_client.h"

namespace client {

namespace {

constexpr std::chrono::seconds WAIT_LIMIT{60};
constexpr std::chrono::milliseconds POLL_INTERVAL{5};

std::string DescriptorPath(int fd) { return fd < 0 ? std::string() : "/dev/fd/" + std::to_string(fd); }

std::map<std::string, std::string> ReadSteps(std::string const& text) {
    std::map<std::string, std::string> steps;
    std::istringstream lines(text);
    std::string step, result;
    while (lines >> step && lines.get() && std::getline(lines, result)) {
        std::string& results = steps[step];
        if (!results.empty()) results += ',';
        results += result;
    }
    return steps;
}

} // namespace

std::string Report::operator[](std::string const& step) const {
    auto const found = steps.find(step);
    return found == steps.end() ? std::string() : found->second;
}

std::ostream& operator<<(std::ostream& out, Report const& report) {
    out << "status " << report.status << '\n';
    for (auto const& [step, result] : report.steps) out << step << ' ' << result << '\n';
    return out << "errors: " << report.errors << '\n';
}

void WaitUntil(servers::ChildProcess& process, std::function<bool()> const& condition) {
    auto const limit = std::chrono::steady_clock::now() + WAIT_LIMIT;
    for (;;) {
        // Checked before the condition, so that the last action of a process still counts.
        bool const isRunning = process.IsRunning();
        if (condition()) return;
        if (!isRunning) throw std::runtime_error("the program ended too early");
        if (std::chrono::steady_clock::now() > limit) throw std::runtime_error("waited for too long");
        std::this_thread::sleep_for(POLL_INTERVAL);
    }
}

SessionClient::SessionClient(servers::RealServer const& server) : _server(server) {
    std::filesystem::create_directory(File(".ssh"));
    _environment.push_back("HOME=" + _files.Path().string());
    Set("report", File("report")).Set("port", std::to_string(server.Port())).As(server.User());
}

SessionClient& SessionClient::Set(std::string const& name, std::string const& value) {
    _options[name] = value;
    return *this;
}

SessionClient& SessionClient::WithKey(std::string const& name, std::string const& passphrase) {
    return Set("identity", _server.File(name)).Set("password", passphrase);
}

SessionClient& SessionClient::WithKeyInAgent(std::string const& name, servers::SshAgent const& agent) {
    // Away from the private key, which would be used otherwise.
    std::filesystem::copy_file(_server.File(name + ".pub"), File(name + ".pub"));
    _environment.push_back("SSH_AUTH_SOCK=" + agent.Socket());
    return Set("identity", File(name));
}

SessionClient& SessionClient::WithPassword(std::string const& password) {
    return Set("password", password).Set("tries", "1");
}

SessionClient& SessionClient::WithVariable(std::string const& variable) {
    _environment.push_back(variable);
    return *this;
}

std::vector<std::string> SessionClient::Arguments(std::string const& action) const {
    std::vector<std::string> result{BRANTLE_SESSION_PROGRAM, "action=" + action};
    for (auto const& [name, value] : _options) result.push_back(name + "=" + value);
    return result;
}

std::vector<std::string> SessionClient::CommandArguments(std::string const& command) const {
    std::vector<std::string> result = Arguments("command");
    result.push_back("command=" + command);
    return result;
}

Report SessionClient::Finish(std::vector<std::string> const& arguments, std::string const& input) const {
    servers::WriteFile(File("input"), input);
    servers::ChildProcess process({arguments, _environment, File("input"), File("output"), File("errors")});
    Report report = ReportOf(process);
    report.output = servers::ReadFile(File("output"));
    return report;
}

Report SessionClient::Run(std::string const& command, std::string const& input) const {
    return Finish(CommandArguments(command), input);
}

std::unique_ptr<servers::ChildProcess> SessionClient::StartCommand(std::string const& command, int input,
                                                                   int output) const {
    return std::make_unique<servers::ChildProcess>(servers::Command{CommandArguments(command), _environment,
                                                                    DescriptorPath(input),
                                                                    DescriptorPath(output), File("errors")});
}

std::unique_ptr<servers::ChildProcess>
SessionClient::StartOnTerminal(std::string const& action, support::Terminal const& terminal) const {
    std::vector<std::string> arguments{"setsid", "--ctty", "--wait"};
    for (std::string const& argument : Arguments(action)) arguments.push_back(argument);
    std::string const path = terminal.Path();
    return std::make_unique<servers::ChildProcess>(
        servers::Command{arguments, _environment, path, path, path});
}

std::unique_ptr<servers::ChildProcess> SessionClient::StartForwarding() const {
    return std::make_unique<servers::ChildProcess>(
        servers::Command{Arguments("forward"), _environment, {}, {}, File("errors")});
}

Report SessionClient::ReportSoFar() const {
    Report report;
    if (std::filesystem::exists(File("report"))) report.steps = ReadSteps(servers::ReadFile(File("report")));
    if (std::filesystem::exists(File("errors"))) report.errors = servers::ReadFile(File("errors"));
    return report;
}

Report SessionClient::ReportOf(servers::ChildProcess& process) const {
    int const status = process.Wait();
    Report report = ReportSoFar();
    report.status = status;
    return report;
}

} // namespace client

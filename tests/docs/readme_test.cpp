// What README.md and docs/dialect.md show, run as it is printed there, against OpenSSH's sshd. Only the host
// and its account are put in the place of "me@host", and free ports in that of the ports shown.

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "docs/code_blocks.h"
#include "docs/installed_tree.h"
#include "support/servers/openssh_server.h"
#include "support/servers/x_server.h"
#include "wire/tcp_end.h"

using namespace docs;
using servers::Outcome;
using servers::ReadFile;
using servers::WriteFile;
using testing::HasSubstr;

namespace {

/// sshd with the configuration of its Debian package, after some lines, and with an RSA host key alone.
class PackagedServer : public servers::RealServer {
public:
    explicit PackagedServer(std::string const& lines)
        : RealServer(servers::ThrowAwayUser::NameFor(getpid()) + "-packaged", "An-0pen-Secret"),
          _account(User(), File("home"), Password()) {
        std::filesystem::permissions(File(""), std::filesystem::perms(0711));
        std::filesystem::create_directories("/run/sshd");
        StartOnFreePort([&](std::uint16_t port) {
            WriteFile(File("sshd_config"), lines + Surroundings(port) + Packaged());
            return std::vector<std::string>{"/usr/sbin/sshd", "-D", "-e", "-f", File("sshd_config")};
        });
    }
    ~PackagedServer() override { Stop(); }

private:
    std::string Surroundings(std::uint16_t port) const {
        return "Port " + std::to_string(port) + "\nListenAddress 127.0.0.1\nHostKey " + File("host_rsa") +
               "\nPidFile none\nStrictModes no\nAuthorizedKeysFile " + File("authorized_keys") + "\n";
    }
    /// Without what this machine's administrator has added.
    static std::string Packaged() {
        return Replaced(ReadFile("/usr/share/openssh/sshd_config"), "\nInclude ", "\n#Include ");
    }

    servers::ThrowAwayUser _account;
};

/// A user's directory and home, with the key that the servers accept, beside what README.md installs.
class Readme : public testing::Test {
protected:
    static void SetUpTestSuite() {
        _server = std::make_unique<servers::OpensshServer>();
        _installed = std::make_unique<InstalledTree>();
    }
    static void TearDownTestSuite() {
        _installed.reset();
        _server.reset();
    }
    void SetUp() override {
        ASSERT_TRUE(_server && _installed) << "the server or the installation failed";
        UseKeysOf(*_server);
        for (auto const& left : std::filesystem::directory_iterator(There("")))
            std::filesystem::remove_all(left);
    }

    void UseKeysOf(servers::RealServer const& server) {
        std::filesystem::create_directories(Here(".ssh"));
        for (char const* end : {"", ".pub"}) {
            std::filesystem::remove(Here(".ssh/id_rsa") + end);
            std::filesystem::copy(server.File("user_rsa") + end, Here(".ssh/id_rsa") + end);
        }
        _target = server.User() + "@127.0.0.1:" + std::to_string(server.Port());
    }

    std::string Here(std::string const& name) const { return _here / name; }
    /// A file in the account on the server.
    static std::string There(std::string const& name) { return _server->File("home/" + name); }
    /// A text with the server in the place of the one shown.
    std::string Addressed(std::string const& text) const { return Replaced(text, "me@host", _target); }

    std::vector<std::string> Environment() const {
        std::vector<std::string> environment = _installed->Environment();
        environment.push_back("HOME=" + _here.Path().string());
        environment.insert(environment.end(), _more.begin(), _more.end());
        return environment;
    }
    Outcome Run(std::string const& commands, std::string const& input = {}) const {
        return RunInShell(commands, _here.Path(), Environment(), input);
    }

    /// The program shown first.
    static std::string Program() { return CodeBlockWith("README.md", "cpp", "int main("); }
    /// The two commands that make a program of it, and run that.
    std::string CompileAndRun() const {
        return Addressed(CodeBlockWith("README.md", "sh", "g++ -std=c++17 hello.cpp"));
    }
    void WriteProject(std::string const& lists) {
        WriteFile(Here("hello.cpp"), Program());
        WriteFile(Here("CMakeLists.txt"), lists);
    }
    /// Builds the project, and has the program it makes show how it is used.
    Outcome BuildAndAskForUsage() const { return Run("cmake -S . -B b -G Ninja\ncmake --build b\nb/hello"); }
    /// The lines of the block that shows the examples at work.
    static std::vector<std::string> ExamplesShown() {
        std::vector<std::string> lines;
        std::istringstream block(CodeBlockWith("README.md", "sh", "run_command me@host"));
        for (std::string line; std::getline(block, line);) lines.push_back(line);
        return lines;
    }

    std::vector<std::string> _more; ///< variables of the environment
    static inline std::unique_ptr<servers::OpensshServer> _server;
    static inline std::unique_ptr<InstalledTree> _installed;

private:
    servers::TemporaryDirectory _here;
    std::string _target;
};

std::string SystemName() { return servers::RunOrThrow({"uname", "-a"}); }

} // namespace

TEST_F(Readme, ProgramRunsACommandOnOpenssh) {
    WriteFile(Here("hello.cpp"), Program());
    Outcome const outcome = Run(CompileAndRun());
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_EQ(outcome.output, SystemName());
    EXPECT_EQ(outcome.errors, "");
    EXPECT_THAT(ReadFile(Here(".ssh/known_hosts")), HasSubstr(" ssh-rsa "));
}

TEST_F(Readme, ProgramStopsWhereTheHostIsNotTheKnownOne) {
    WriteFile(Here("hello.cpp"), Program());
    std::string const other = ReadFile(_server->File("user_rsa.pub")); // any key but the host's
    WriteFile(Here(".ssh/known_hosts"), "[127.0.0.1]:" + std::to_string(_server->Port()) + " " + other);
    Outcome const outcome = Run(CompileAndRun());
    EXPECT_EQ(outcome.status, 4) << outcome.errors;
    EXPECT_EQ(outcome.output, "");
}

TEST_F(Readme, ProgramRunsOnAPackagedServerWithTheLinesOfTheDialect) {
    WriteFile(Here("hello.cpp"), Program());
    {
        PackagedServer const server(CodeBlockWith("docs/dialect.md", "sshd_config", "KexAlgorithms"));
        UseKeysOf(server);
        Outcome const outcome = Run(CompileAndRun());
        EXPECT_EQ(outcome.status, 0) << outcome.errors << server.Log();
        EXPECT_EQ(outcome.output, SystemName());
    }
    PackagedServer const server("");
    UseKeysOf(server);
    EXPECT_EQ(Run(CompileAndRun()).status, 4) << "the lines are not needed: " << server.Log();
}

TEST_F(Readme, ProjectFindsThePackage) {
    WriteProject(CodeBlockWith("README.md", "cmake", "find_package"));
    Outcome const outcome = BuildAndAskForUsage();
    EXPECT_EQ(outcome.status, 2) << outcome.output << outcome.errors;
    EXPECT_THAT(outcome.errors, HasSubstr("usage: hello "));
}

TEST_F(Readme, ProjectTakesTheTreeIn) {
    WriteProject(Replaced(CodeBlockWith("README.md", "cmake", "find_package"),
                          "find_package(brantle REQUIRED)\n",
                          CodeBlockWith("README.md", "cmake", "add_subdirectory")));
    std::filesystem::create_directory_symlink(_installed->Tree(), Here("libbrantle"));
    Outcome const outcome = Run("cmake -S . -B b -G Ninja\ncmake --build b\nunset LD_LIBRARY_PATH\nb/hello");
    EXPECT_EQ(outcome.status, 2) << outcome.output << outcome.errors;
    EXPECT_THAT(outcome.errors, HasSubstr("usage: hello "));
}

// As the words above it say: another session in the program, and the function in the place of Run.
TEST_F(Readme, FunctionCopiesFiles) {
    std::string program = Program();
    program =
        Replaced(program, "int main(", CodeBlockWith("README.md", "cpp", "int CopyNotes(") + "int main(");
    program = Replaced(program, "SshCmdSession session(host, argv[2]);", "SftpClientSession session(host);");
    program = Replaced(program, "return session.Run() < 0 ? 0 : 6;", "return CopyNotes(session);");
    WriteFile(Here("hello.cpp"), program);
    WriteFile(There("notes.txt"), "to be remembered", 0644);
    for (std::string const& name : {Here("received"), Here("photos"), There("photos")})
        std::filesystem::create_directory(name);
    std::filesystem::permissions(There("photos"), std::filesystem::perms::all);
    WriteFile(Here("photos/a.jpg"), "a", 0644);
    Outcome const outcome = Run(CompileAndRun());
    EXPECT_EQ(outcome.status, 0) << outcome.output << outcome.errors;
    EXPECT_EQ(outcome.errors, "");
    EXPECT_EQ(ReadFile(Here("received/notes.txt")), "to be remembered");
    EXPECT_EQ(ReadFile(There("photos/a.jpg")), "a");
}

TEST_F(Readme, ExamplesWorkAsShown) {
    servers::XServer const display;
    _more = {"DISPLAY=" + display.Display(), "XAUTHORITY=" + display.Authority()};
    for (char const* name : {"photos", "received"}) std::filesystem::create_directory(Here(name));
    WriteFile(Here("notes.txt"), "notes", 0644);
    WriteFile(Here("photos/a.jpg"), "a", 0644);
    WriteFile(Here("photos/b.jpg"), "b", 0644);
    std::string outputs;
    for (std::string const& line : ExamplesShown()) {
        if (line.compare(0, 8, "forward ") == 0) continue; // see below
        Outcome const outcome = Run(Addressed(line), "exit\n");
        EXPECT_EQ(outcome.status, 0) << line << "\n" << outcome.output << outcome.errors;
        outputs += "$ " + line.substr(0, line.find("  ")) + "\n" + outcome.output;
    }
    EXPECT_THAT(outputs, HasSubstr("$ run_command me@host 'uname -a; sleep 1'\n" + SystemName()));
    EXPECT_THAT(outputs, HasSubstr("vendor string:")) << "from xdpyinfo";
    EXPECT_THAT(outputs, HasSubstr("Connection to 127.0.0.1 closed.\n"));
    EXPECT_THAT(outputs, testing::ContainsRegex("sftp_ls [^\n]*\n-[^\n]* a.jpg\n-[^\n]* b.jpg\n"));
    for (std::string const& name : {There("notes.txt"), Here("received/notes.txt")})
        EXPECT_EQ(ReadFile(name), "notes") << name;
    for (std::string const& name : {There("photos/a.jpg"), Here("received/a.jpg")})
        EXPECT_EQ(ReadFile(name), "a") << name;
    EXPECT_EQ(std::filesystem::status(There("photos/b.jpg")).permissions(), std::filesystem::perms(0600));
}

TEST_F(Readme, ForwardingWorksAsShown) {
    std::uint16_t const port = tcp::FreePort();
    std::string command;
    for (std::string const& line : ExamplesShown())
        if (line.compare(0, 8, "forward ") == 0) command = line;
    command = Replaced(command, "8080", std::to_string(port));
    command = Replaced(command, "localhost:80 ", "localhost:" + std::to_string(_server->Port()) + " ");
    servers::ChildProcess forward(
        {{"bash", "-c", "exec " + Addressed(command)}, Environment(), {}, {}, Here("errors")});
    while (forward.IsRunning() && !tcp::End::Accepts(port)) usleep(20000);
    ASSERT_TRUE(forward.IsRunning()) << ReadFile(Here("errors"));
    EXPECT_EQ(tcp::End::To(port).Receive(4), "SSH-");
    forward.Stop();
    EXPECT_FALSE(tcp::End::Accepts(port)) << "it goes on";
}

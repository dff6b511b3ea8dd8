// What README.md shows, with OpenSSH's sshd as it is packaged.

#include <unistd.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "docs/shown_suite.h"
#include "support/servers/python_servers.h"
#include "support/servers/x_server.h"
#include "wire/tcp_end.h"

using namespace docs;
using servers::Outcome;
using servers::ReadFile;
using servers::WriteFile;
using testing::HasSubstr;

namespace {

class Readme : public SuiteWithSshd {
protected:
    void SetUp() override {
        SuiteWithSshd::SetUp();
        if (HasFatalFailure()) return;
        for (auto const& left : std::filesystem::directory_iterator(There("")))
            if (left.path().filename() != ".ssh") std::filesystem::remove_all(left);
    }

    /// A file in the account on the server.
    static std::string There(std::string const& name) { return _server->Home() + "/" + name; }
    /// Gives the files in the account, which the test has made, to its user.
    static void GiveAll() { servers::RunOrThrow({"chown", "-R", _server->User(), There("")}); }

    /// The program shown first.
    static std::string Program() { return CodeBlockWith("README.md", "cpp", "int main("); }
    Outcome CompileAndRun(std::string const& program) const {
        return ShownSuite::CompileAndRun("README.md", program);
    }
    /// The same with another command.
    Outcome CompileAndRunCommand(std::string const& command) const {
        WriteFile(Here("hello.cpp"), Program());
        return Run(Replaced(Addressed(CodeBlockWith("README.md", "sh", "g++ -std=c++17 hello.cpp")),
                            "'uname -a'", "'" + command + "'"));
    }

    void WriteProject(std::string const& lists) {
        WriteFile(Here("hello.cpp"), Program());
        WriteFile(Here("CMakeLists.txt"), lists);
    }
    /// The lines of the block that shows the examples at work.
    static std::vector<std::string> ExamplesShown() {
        std::vector<std::string> lines;
        std::istringstream block(CodeBlockWith("README.md", "sh", "run_command me@host"));
        for (std::string line; std::getline(block, line);) lines.push_back(line);
        return lines;
    }
};

std::string SystemName() { return servers::RunOrThrow({"uname", "-a"}); }

} // namespace

TEST_F(Readme, ProgramRunsACommandOnOpenssh) {
    Outcome const outcome = CompileAndRun(Program());
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_EQ(outcome.output, SystemName());
    EXPECT_EQ(outcome.errors, "");
    EXPECT_THAT(ReadFile(Here(".ssh/known_hosts")), HasSubstr(" ssh-ed25519 "));
}

TEST_F(Readme, ProgramExitsWithTheRemoteStatus) {
    EXPECT_EQ(CompileAndRunCommand("exit 3").status, 3);
    Outcome const killed = Run(Addressed("./hello me@host 'kill -KILL $$'"));
    EXPECT_EQ(killed.status, 255);
    EXPECT_EQ(killed.errors, "the remote command was ended by the signal KILL\n");
    EXPECT_EQ(Run(Addressed("./hello me@host 'exit 255'")).errors, "");
}

TEST_F(Readme, ProgramRunsACommandOnAnOldServerWhenReduced) {
    servers::AsyncsshServer const old; // has group exchange with SHA-1
    ASSERT_EQ(CompileAndRun(Program()).status, 0);
    std::string const target = old.OpenUser() + "@127.0.0.1:" + std::to_string(old.Port());
    Outcome const outcome = Run("./hello --reduced " + target + " 'uname -a'");
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_EQ(outcome.output, SystemName());
    Outcome const unreachable =
        Run("./hello --reduced 127.0.0.1:" + std::to_string(tcp::FreePort()) + " true");
    EXPECT_EQ(unreachable.status, 255);
    EXPECT_EQ(unreachable.errors, "refused, or not the known host\n");
}

TEST_F(Readme, ProgramSaysWhatIsWrongWithTheHostTheLoginAndTheConnection) {
    std::string const other = ReadFile(_server->UserKey("rsa") + ".pub"); // any key but the host's
    std::string const port = std::to_string(_server->Port());
    WriteFile(Here(".ssh/known_hosts"), "[127.0.0.1]:" + port + " " + other);
    Outcome const changed = CompileAndRunCommand("true");
    EXPECT_EQ(changed.status, 255);
    EXPECT_EQ(changed.output, "");
    EXPECT_THAT(changed.errors, HasSubstr("the host key of 127.0.0.1 has changed: " +
                                          Here(".ssh/known_hosts") + ":1 has another ssh-rsa key"));
    for (char const* name : {".ssh/known_hosts", ".ssh/id_ed25519", ".ssh/id_ed25519.pub"})
        std::filesystem::remove(Here(name));
    Outcome const keyless = Run(Addressed("./hello me@host true"));
    EXPECT_EQ(keyless.status, 255);
    EXPECT_THAT(keyless.errors,
                testing::EndsWith("login failed: the server accepts publickey,password; publickey: there is "
                                  "no key, in a file or an agent; password: none was entered\n"));
    Outcome const unreachable = Run("./hello 127.0.0.1:" + std::to_string(tcp::FreePort()) + " true");
    EXPECT_EQ(unreachable.status, 255);
    EXPECT_THAT(unreachable.errors, HasSubstr(": Connection refused\n"));
}

TEST_F(Readme, ProjectFindsThePackage) {
    WriteProject(CodeBlockWith("README.md", "cmake", "find_package"));
    Outcome const outcome = Run("cmake -S . -B b -G Ninja\ncmake --build b\nb/hello");
    EXPECT_EQ(outcome.status, 255) << outcome.output << outcome.errors;
    EXPECT_THAT(outcome.errors, HasSubstr("usage: hello "));
}

TEST_F(Readme, ProjectAddsTheTreeAsASubdirectory) {
    WriteProject(Replaced(CodeBlockWith("README.md", "cmake", "find_package"),
                          "find_package(brantle REQUIRED)\n",
                          CodeBlockWith("README.md", "cmake", "add_subdirectory")));
    std::filesystem::create_directory_symlink(Installed().Tree(), Here("libbrantle"));
    Outcome const outcome = Run("cmake -S . -B b -G Ninja\ncmake --build b\nunset LD_LIBRARY_PATH\nb/hello");
    EXPECT_EQ(outcome.status, 255) << outcome.output << outcome.errors;
    EXPECT_THAT(outcome.errors, HasSubstr("usage: hello "));
}

// As the words above it say: another session in the program, and the function in the place of Run.
TEST_F(Readme, FunctionCopiesFiles) {
    std::string program = Program();
    program =
        Replaced(program, "int main(", CodeBlockWith("README.md", "cpp", "int CopyNotes(") + "int main(");
    program = Replaced(program, "SshCmdSession session(host, argv[2]);", "SftpClientSession session(host);");
    program = Replaced(program, "int const result = session.Run();",
                       "int const result = CopyNotes(session, *dialect); return result;");
    WriteFile(There("notes.txt"), "to be remembered");
    for (std::string const& name : {Here("received"), Here("photos"), There("photos")})
        std::filesystem::create_directory(name);
    GiveAll();
    WriteFile(Here("photos/a.jpg"), "a");
    Outcome const outcome = CompileAndRun(program);
    EXPECT_EQ(outcome.status, 0) << outcome.output << outcome.errors;
    EXPECT_EQ(outcome.errors, "");
    EXPECT_EQ(ReadFile(Here("received/notes.txt")), "to be remembered");
    EXPECT_EQ(ReadFile(There("photos/a.jpg")), "a");
    std::filesystem::remove(There("notes.txt"));
    Outcome const missing = Run(Addressed("./hello me@host x"));
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.errors, There("notes.txt") + ": No such file\n");
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
    EXPECT_THAT(outputs, HasSubstr("$ run_command me@host uname -a\n" + SystemName()));
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

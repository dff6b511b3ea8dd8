// What docs/standard.md shows, with OpenSSH's sshd as it is packaged.

#include <filesystem>
#include <string>

#include "docs/shown_suite.h"
#include "wire/tcp_end.h"

using namespace docs;
using servers::Outcome;
using servers::ReadFile;
using servers::WriteFile;
using testing::HasSubstr;

namespace {

constexpr char const* FILE_SHOWN = "docs/standard.md";

class StandardDocument : public SuiteWithSshd {
protected:
    /// Compiles the program that has this text in it.
    void Compile(std::string const& text, std::string const& from = {}, std::string const& to = {}) {
        std::string const program = CodeBlockWith(FILE_SHOWN, "cpp", text);
        WriteFile(Here("hello.cpp"), from.empty() ? program : Replaced(program, from, to));
        Outcome const outcome = Run(CodeBlockWith(FILE_SHOWN, "sh", "g++ -std=c++17 hello.cpp"));
        ASSERT_EQ(outcome.status, 0) << outcome.errors;
    }
    static std::string Port() { return std::to_string(_server->Port()); }
    /// The host's key of that type, as a line of known_hosts has it.
    void KnowHost() const {
        std::string const key = ReadFile(_server->File("host_ed25519.pub"));
        WriteFile(Here(".ssh/known_hosts"), "[127.0.0.1]:" + Port() + " " + key);
    }
};

} // namespace

TEST_F(StandardDocument, CommandRunsUnattendedWhereTheHostIsKnown) {
    Compile("KNOWN_ONLY");
    Outcome const unknown = Run(Addressed("./hello me@host true"));
    EXPECT_EQ(unknown.status, 255);
    EXPECT_THAT(unknown.errors, testing::MatchesRegex("the host 127.0.0.1 is not known, and its ssh-ed25519 "
                                                      "key \\(SHA256:[^)]*\\) was not accepted\n"));
    EXPECT_FALSE(std::filesystem::exists(Here(".ssh/known_hosts")));
    KnowHost();
    Outcome const known = Run(Addressed("./hello me@host 'echo out; exit 3' || echo $?"));
    EXPECT_EQ(known.output, "out\n3\n") << known.errors;
    std::filesystem::remove(Here(".ssh/id_ed25519"));
    Outcome const keyless = Run(Addressed("./hello me@host true"));
    EXPECT_EQ(keyless.status, 255);
    EXPECT_THAT(keyless.errors, testing::StartsWith("login failed: the server accepts publickey,password; "))
        << "nobody is asked for a password";
}

TEST_F(StandardDocument, FileComesWithItsProgress) {
    Compile("void Progress");
    WriteFile(_server->Home() + "/notes", std::string(100000, 'x'), 0644);
    Outcome const outcome = Run(Addressed("./hello me@host notes received"));
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_EQ(ReadFile(Here("received")).size(), 100000u);
    EXPECT_THAT(outcome.errors, testing::EndsWith("/notes: 100000 of 100000 bytes\n"));
    Outcome const missing = Run(Addressed("./hello me@host missing received"));
    EXPECT_EQ(missing.status, 1);
    EXPECT_THAT(missing.errors, testing::EndsWith("/missing: No such file\n"));
}

TEST_F(StandardDocument, PortsAreForwardedInBothDirections) {
    std::string const listen = std::to_string(tcp::FreePort());
    Compile("StartLocalForwarding", "8080:localhost:80", listen + ":localhost:" + Port());
    Outcome const outcome =
        Run(Addressed("./hello me@host 'exec 3<>/dev/tcp/127.0.0.1/" + listen + "; head -c 4 <&3'"));
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_EQ(outcome.output, "SSH-");
    EXPECT_THAT(outcome.errors, testing::MatchesRegex("port [1-9][0-9]+ there leads to this host\n"));
}

TEST_F(StandardDocument, UserIsAskedAboutAHostThatIsNotKnown) {
    Compile("int ConfirmHostKey");
    std::string const file = _server->File("host_ed25519.pub");
    std::string const fingerprint =
        Replaced(servers::RunOrThrow({"ssh-keygen", "-l", "-f", file}), "256 ", "");
    std::string const question = "127.0.0.1 shows the ssh-ed25519 key " +
                                 fingerprint.substr(0, fingerprint.find(' ')) + ". Accept it (yes/no)? ";
    Outcome const refused = Run("./hello 127.0.0.1:" + Port(), "no\n");
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.output, question);
    EXPECT_THAT(refused.errors, HasSubstr("was not accepted\n"));
    Outcome const accepted = Run("./hello 127.0.0.1:" + Port(), "yes\n");
    EXPECT_EQ(accepted.status, 0) << accepted.errors;
    EXPECT_EQ(accepted.output, question);
    EXPECT_EQ(Run("./hello 127.0.0.1:" + Port()).output, "") << "it is known now";
}

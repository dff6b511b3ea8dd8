// What docs/dialect.md shows, with OpenSSH's sshd as it is packaged and configured as the document says.

#include <string>

#include "docs/shown_suite.h"

using namespace docs;
using servers::Outcome;
using servers::StockSshd;

namespace {

constexpr char const* FILE_SHOWN = "docs/dialect.md";

class DialectDocument : public ShownSuite {
protected:
    static std::string Program() { return CodeBlockWith(FILE_SHOWN, "cpp", "int main("); }
    static std::string Lines() { return CodeBlockWith(FILE_SHOWN, "sshd_config", "KexAlgorithms"); }
};

} // namespace

TEST_F(DialectDocument, ProgramNeedsTheLinesInTheServersConfiguration) {
    {
        StockSshd const server(Lines());
        Use(server, "rsa");
        Outcome const outcome = CompileAndRun(FILE_SHOWN, Program());
        EXPECT_EQ(outcome.status, 0) << outcome.errors << server.Log();
        EXPECT_EQ(outcome.output, servers::RunOrThrow({"uname", "-a"}));
        EXPECT_EQ(outcome.errors, "");
    }
    StockSshd const server;
    Use(server, "rsa");
    EXPECT_EQ(Run(Addressed("./hello me@host true")).status, 4)
        << "the lines are not needed: " << server.Log();
}

TEST_F(DialectDocument, ProgramStopsWhereTheHostIsNotTheKnownOne) {
    StockSshd const server(Lines());
    Use(server, "rsa");
    servers::WriteFile(Here(".ssh/known_hosts"), "[127.0.0.1]:" + std::to_string(server.Port()) + " " +
                                                     servers::ReadFile(server.UserKey("rsa") + ".pub"));
    Outcome const outcome = CompileAndRun(FILE_SHOWN, Program());
    EXPECT_EQ(outcome.status, 4) << outcome.errors;
    EXPECT_EQ(outcome.output, "");
}

TEST_F(DialectDocument, ExampleWorksAsShown) {
    StockSshd const server(Lines());
    Use(server, "rsa");
    Outcome const outcome = Run(Addressed(CodeBlockWith(FILE_SHOWN, "sh", "run_command --reduced")));
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_EQ(outcome.output, servers::RunOrThrow({"uname", "-a"}));
}

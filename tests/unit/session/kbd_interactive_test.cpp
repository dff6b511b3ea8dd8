#include <brantle/session/kbd_interactive.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/controlled_terminal.h"
#include "support/session/captured_streams.h"

using cindral::KbdCopyCallback;
using cindral::KbdInteractiveCallback;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

struct Question {
    std::string text;
    bool echo;
};

std::vector<std::string> Ask(KbdInteractiveCallback& callback, char const* name, char const* instruction,
                             std::vector<Question> const& questions) {
    TOList<cindral::Prompt> prompts;
    for (Question const& question : questions) {
        cindral::Prompt prompt;
        prompt._text = question.text.c_str();
        prompt._echo = question.echo;
        prompts.Append(prompt);
    }
    TOList<String_t> const answers = callback(name, instruction, prompts);
    std::vector<std::string> texts;
    TOListIterator<String_t> next(answers);
    while (String_t const* answer = next()) texts.push_back(answer->Text() ? answer->Text() : "");
    return texts;
}

/// A callback that asks in a process on a terminal. The process reports each answer with a line end.
class AskingTerminal : public support::ControlledTerminal {
public:
    AskingTerminal(char const* name, std::vector<Question> const& questions)
        : ControlledTerminal([name, questions] {
              int const terminal = open("/dev/tty", O_RDWR);
              for (int fd : {0, 1}) dup2(terminal, fd);
              KbdInteractiveCallback callback;
              std::string text;
              for (std::string const& answer : Ask(callback, name, "", questions)) text += answer + "\n";
              return text;
          }) {}
};

} // namespace

TEST(KbdCopyCallback, AnswersEachPromptAlike) {
    KbdCopyCallback callback("secret");
    Captured output(std::cout);
    EXPECT_THAT(Ask(callback, "name", "instruction", {{"One", true}, {"Two", false}, {"Three", true}}),
                ElementsAre("secret", "secret", "secret"));
    EXPECT_EQ(output.Text(), "");
}

TEST(KbdCopyCallback, NoPromptsGetNoAnswers) {
    KbdCopyCallback callback("secret");
    EXPECT_THAT(Ask(callback, "", "", {}), IsEmpty());
}

TEST(KbdInteractiveCallback, NameAndInstructionArePrintedAsLines) {
    KbdInteractiveCallback callback;
    Captured output(std::cout);
    EXPECT_THAT(Ask(callback, "Login", "Be quick", {}), IsEmpty());
    EXPECT_EQ(output.Text(), "Login\nBe quick\n");
    EXPECT_GE(output.Flushes(), 2);
}

TEST(KbdInteractiveCallback, ControlCharactersArePrintedAsReceived) {
    KbdInteractiveCallback callback;
    Captured output(std::cout);
    Fed input(std::cin, "answer\n");
    EXPECT_THAT(Ask(callback, "\x1b[2J", "\a\r", {{"\x1b[1mPassphrase: ", true}}), ElementsAre("answer"));
    EXPECT_EQ(output.Text(), "\x1b[2J\n\a\r\n\x1b[1mPassphrase: ");
}

TEST(KbdInteractiveCallback, EmptyNameAndInstructionPrintNothing) {
    KbdInteractiveCallback callback;
    Captured output(std::cout);
    Ask(callback, "", "", {});
    EXPECT_EQ(output.Text(), "");
    Ask(callback, "", "Be quick", {});
    EXPECT_EQ(output.Text(), "Be quick\n");
}

TEST(KbdInteractiveCallback, EchoedAnswersAreWordsOfStandardInput) {
    KbdInteractiveCallback callback;
    Captured output(std::cout);
    Fed input(std::cin, "  blue fish\nrest\n");
    EXPECT_THAT(Ask(callback, "", "", {{"Colour: ", true}, {"Animal: ", true}}), ElementsAre("blue", "fish"));
    EXPECT_EQ(output.Text(), "Colour: Animal: ");
    EXPECT_GE(output.Flushes(), 2);
}

TEST(KbdInteractiveCallback, EndOfInputIsAnEmptyAnswer) {
    KbdInteractiveCallback callback;
    Captured output(std::cout);
    Fed input(std::cin, "");
    EXPECT_THAT(Ask(callback, "", "", {{"Colour: ", true}, {"Animal: ", true}}), ElementsAre("", ""));
}

TEST(KbdInteractiveCallback, AnswerWithoutEchoIsReadFromTheTerminal) {
    AskingTerminal terminal("Login", {{"Token: ", false}});
    terminal.AwaitScreen("Token: ");
    terminal.Type("hidden word\n");
    EXPECT_EQ(terminal.Reports(), "hidden word\n, exit 0");
    EXPECT_THAT(terminal.Screen(), HasSubstr("Login"));
    EXPECT_THAT(terminal.Screen(), Not(HasSubstr("hidden")));
}

TEST(KbdInteractiveCallback, BothKindsOfPromptKeepTheirOrder) {
    AskingTerminal terminal("", {{"User: ", true}, {"Token: ", false}, {"Again: ", false}, {"City: ", true}});
    terminal.AwaitScreen("User: ");
    terminal.Type("ann\n");
    terminal.AwaitScreen("Token: ");
    terminal.Type("first\n");
    terminal.AwaitScreen("Again: ");
    terminal.Type("second\n");
    terminal.AwaitScreen("City: ");
    terminal.Type("Rome\n");
    EXPECT_EQ(terminal.Reports(), "ann\nfirst\nsecond\nRome\n, exit 0");
    EXPECT_THAT(terminal.Screen(), HasSubstr("ann"));
    EXPECT_THAT(terminal.Screen(), Not(HasSubstr("first")));
    EXPECT_THAT(terminal.Screen(), Not(HasSubstr("second")));
}

TEST(KbdInteractiveCallback, AnswerWithoutEchoHasAtMost128Bytes) {
    for (std::size_t length : {127u, 128u, 129u}) {
        AskingTerminal terminal("", {{"Token: ", false}});
        terminal.AwaitScreen("Token: ");
        terminal.Type(std::string(length, 'x') + "\n");
        EXPECT_EQ(terminal.Reports(), std::string(std::min<std::size_t>(length, 128), 'x') + "\n, exit 0");
    }
}

TEST(KbdInteractiveCallback, EmptyLineAndEndOfInputAreEmptyAnswers) {
    AskingTerminal terminal("", {{"Token: ", false}, {"Again: ", false}});
    terminal.AwaitScreen("Token: ");
    terminal.Type("\n");
    terminal.AwaitScreen("Again: ");
    terminal.Type("\004");
    EXPECT_EQ(terminal.Reports(), "\n\n, exit 0");
}

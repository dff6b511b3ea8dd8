#include <brantle/session/kbd_interactive.h>

#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

/// A callback that asks in a process of its own, which has a terminal; the test is the user at it.
class Terminal {
public:
    Terminal(char const* name, std::vector<Question> const& questions) {
        int ends[2];
        if (pipe(ends) != 0) std::abort();
        _child = forkpty(&_master, nullptr, nullptr, nullptr);
        if (_child < 0) std::abort();
        if (_child == 0) {
            KbdInteractiveCallback callback;
            std::string text;
            for (std::string const& answer : Ask(callback, name, "", questions)) text += answer + "\n";
            ssize_t const written = write(ends[1], text.data(), text.size());
            _exit(written == static_cast<ssize_t>(text.size()) ? 0 : 1);
        }
        close(ends[1]);
        _answers = ends[0];
    }
    ~Terminal() {
        close(_master);
        close(_answers);
        if (!_reaped) waitpid(_child, nullptr, 0);
    }
    Terminal(Terminal const&) = delete;
    Terminal& operator=(Terminal const&) = delete;

    /// Reads until the screen shows that text after all that was awaited before.
    void Await(std::string const& text) {
        std::size_t found = std::string::npos;
        while ((found = screen.find(text, _seen)) == std::string::npos)
            if (!ReadScreen()) throw std::runtime_error("the terminal never showed " + text);
        _seen = found + text.size();
    }
    void Type(std::string const& text) const {
        if (write(_master, text.data(), text.size()) != static_cast<ssize_t>(text.size())) std::abort();
    }
    /// The answers, each with a line end, once the callback has returned.
    std::string Answers() {
        std::string text;
        char buffer[1024];
        for (ssize_t n = 0; (n = read(_answers, buffer, sizeof buffer)) > 0;)
            text.append(buffer, static_cast<std::size_t>(n));
        while (ReadScreen()) {
        }
        int status = 0;
        waitpid(_child, &status, 0);
        _reaped = true;
        EXPECT_EQ(status, 0);
        return text;
    }

    std::string screen;

private:
    bool ReadScreen() {
        pollfd ready{_master, POLLIN, 0};
        if (poll(&ready, 1, 10000) <= 0) return false;
        char buffer[1024];
        ssize_t const n = read(_master, buffer, sizeof buffer);
        if (n <= 0) return false;
        screen.append(buffer, static_cast<std::size_t>(n));
        return true;
    }

    pid_t _child = -1;
    int _master = -1;
    int _answers = -1;
    bool _reaped = false;
    std::size_t _seen = 0;
};

} // namespace

TEST(KbdCopyCallback, GivesTheSameAnswerToEachPrompt) {
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

TEST(KbdInteractiveCallback, NameAndInstructionAreLines) {
    KbdInteractiveCallback callback;
    Captured output(std::cout);
    EXPECT_THAT(Ask(callback, "Login", "Be quick", {}), IsEmpty());
    EXPECT_EQ(output.Text(), "Login\nBe quick\n");
    EXPECT_GE(output.Flushes(), 2);
}

TEST(KbdInteractiveCallback, ControlCharactersArePrintedAsTheyCame) {
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

TEST(KbdInteractiveCallback, AnswerWithoutEchoComesFromTheTerminalUnseen) {
    Terminal terminal("Login", {{"Token: ", false}});
    terminal.Await("Token: ");
    terminal.Type("hidden word\n");
    EXPECT_EQ(terminal.Answers(), "hidden word\n");
    EXPECT_THAT(terminal.screen, HasSubstr("Login"));
    EXPECT_THAT(terminal.screen, Not(HasSubstr("hidden")));
}

TEST(KbdInteractiveCallback, BothKindsOfPromptKeepTheirOrder) {
    Terminal terminal("", {{"User: ", true}, {"Token: ", false}, {"Again: ", false}, {"City: ", true}});
    terminal.Await("User: ");
    terminal.Type("ann\n");
    terminal.Await("Token: ");
    terminal.Type("first\n");
    terminal.Await("Again: ");
    terminal.Type("second\n");
    terminal.Await("City: ");
    terminal.Type("Rome\n");
    EXPECT_EQ(terminal.Answers(), "ann\nfirst\nsecond\nRome\n");
    EXPECT_THAT(terminal.screen, HasSubstr("ann"));
    EXPECT_THAT(terminal.screen, Not(HasSubstr("first")));
    EXPECT_THAT(terminal.screen, Not(HasSubstr("second")));
}

TEST(KbdInteractiveCallback, AnswerWithoutEchoHasAtMost128Bytes) {
    for (std::size_t length : {127u, 128u, 129u}) {
        Terminal terminal("", {{"Token: ", false}});
        terminal.Await("Token: ");
        terminal.Type(std::string(length, 'x') + "\n");
        EXPECT_EQ(terminal.Answers(), std::string(std::min<std::size_t>(length, 128), 'x') + "\n");
    }
}

TEST(KbdInteractiveCallback, EmptyLineAndEndOfInputAreEmptyAnswers) {
    Terminal terminal("", {{"Token: ", false}, {"Again: ", false}});
    terminal.Await("Token: ");
    terminal.Type("\n");
    terminal.Await("Again: ");
    terminal.Type("\004");
    EXPECT_EQ(terminal.Answers(), "\n\n");
}

#include <brantle/cindral/enter_password.h>

#include <cstring>

#include "support/controlled_terminal.h"

using support::ControlledTerminal;
using support::WithoutTerminal;
using namespace cindral;

namespace {

constexpr unsigned int SIZE = 16;

/// Length and bytes of one answer.
std::string Answer(EnterPassword& enter) {
    char buffer[64];
    std::memset(buffer, '#', sizeof buffer);
    int const length = enter(buffer, SIZE);
    if (length < 0) return std::to_string(length);
    return std::to_string(length) + " " + std::string(buffer, static_cast<unsigned int>(length));
}

std::string Ask() {
    EnterPassword enter(1, "Secret: ");
    return Answer(enter);
}

std::string AskTwice() {
    std::string const first = Ask();
    return first + ", " + Ask();
}

TEST(EnterPassword, LineIsReadWithoutEcho) {
    ControlledTerminal terminal([] { return Ask(); });
    terminal.AwaitScreen("Secret: ");
    terminal.Type("sesame\n");
    EXPECT_EQ(terminal.Reports(), "6 sesame, exit 0");
    terminal.AwaitScreen("\r\n");
    EXPECT_EQ(terminal.Screen(), "Secret: \r\n");
    EXPECT_TRUE(terminal.IsRestored());
}

TEST(EnterPassword, TerminalIsPreferredToStandardInput) {
    ControlledTerminal terminal([] {
        close(STDIN_FILENO);
        return Ask();
    });
    terminal.AwaitScreen("Secret: ");
    terminal.Type("sesame\n");
    EXPECT_EQ(terminal.Reports(), "6 sesame, exit 0");
}

TEST(EnterPassword, PromptHasLeadAndSubject) {
    ControlledTerminal terminal([] {
        EnterPassword enter(1, "unused");
        enter.SetPrompt("Enter passphrase for", "/home/u/.ssh/id_rsa");
        return Answer(enter);
    });
    terminal.AwaitScreen("Enter passphrase for /home/u/.ssh/id_rsa: ");
    terminal.Type("\n");
    EXPECT_EQ(terminal.Reports(), "0 , exit 0");
}

TEST(EnterPassword, LineIsCutAtTheSizeOfTheBuffer) {
    ControlledTerminal terminal(AskTwice);
    terminal.AwaitScreen("Secret: ");
    terminal.Type("0123456789abcdefgh\n");
    terminal.AwaitScreen("Secret: ");
    terminal.Type("0123456789abcdef\n");
    EXPECT_EQ(terminal.Reports(), "16 0123456789abcdef, 16 0123456789abcdef, exit 0");
}

TEST(EnterPassword, EndOfInputIsAFailure) {
    ControlledTerminal terminal([] { return Ask(); });
    terminal.AwaitScreen("Secret: ");
    terminal.Type("\x04");
    EXPECT_EQ(terminal.Reports(), std::to_string(-EIO) + ", exit 0");
    EXPECT_TRUE(terminal.IsRestored());
}

TEST(EnterPassword, SignalEndsTheProcessWithTheTerminalRestored) {
    for (auto const& [key, number] : {std::pair{"\x03", SIGINT}, std::pair{"\x1c", SIGQUIT}}) {
        ControlledTerminal terminal([] { return Ask(); });
        terminal.AwaitScreen("Secret: ");
        terminal.Type(std::string("half") + key);
        EXPECT_EQ(terminal.Reports(), "signal " + std::to_string(number));
        EXPECT_TRUE(terminal.IsRestored());
    }
}

TEST(EnterPassword, ProgramsOwnHandlerRunsWithTheTerminalRestored) {
    for (int number : {SIGTERM, SIGHUP}) {
        int line[2];
        ASSERT_EQ(pipe(line), 0);
        ControlledTerminal terminal([&] {
            pid_t const self = getpid();
            if (write(line[1], &self, sizeof self) < 0) return std::string("no pipe");
            return Ask();
        });
        pid_t reader = -1;
        ASSERT_EQ(read(line[0], &reader, sizeof reader), static_cast<ssize_t>(sizeof reader));
        terminal.AwaitScreen("Secret: ");
        kill(reader, number);
        EXPECT_EQ(terminal.Reports(), "signal " + std::to_string(number));
        EXPECT_TRUE(terminal.IsRestored());
        close(line[0]);
        close(line[1]);
    }
}

void TakeNoNotice(int) {}

TEST(EnterPassword, SignalWhoseHandlerReturnsIsAFailure) {
    ControlledTerminal terminal([] {
        signal(SIGINT, TakeNoNotice);
        std::string const result = Ask();
        struct sigaction action;
        sigaction(SIGINT, nullptr, &action);
        return result + (action.sa_handler == TakeNoNotice ? ", own handler" : ", lost handler");
    });
    terminal.AwaitScreen("Secret: ");
    terminal.Type("\x03");
    EXPECT_EQ(terminal.Reports(), std::to_string(-EINTR) + ", own handler, exit 0");
    EXPECT_TRUE(terminal.IsRestored());
}

TEST(EnterPassword, IgnoredSignalStaysIgnored) {
    ControlledTerminal terminal([] {
        signal(SIGINT, SIG_IGN);
        return Ask();
    });
    terminal.AwaitScreen("Secret: ");
    // The interrupt key drops what was typed before it.
    terminal.Type("lost\x03");
    terminal.Type("sesame\n");
    EXPECT_EQ(terminal.Reports(), "6 sesame, exit 0");
}

TEST(EnterPassword, StopRestoresTheTerminalAndAsksAgain) {
    ControlledTerminal terminal([] { return Ask(); });
    terminal.AwaitScreen("Secret: ");
    terminal.Type("half\x1a");
    terminal.AwaitScreen("Secret: ");
    terminal.Type("sesame\n");
    EXPECT_EQ(terminal.Reports(), "stop " + std::to_string(SIGTSTP) + " echo, 6 sesame, exit 0");
    EXPECT_TRUE(terminal.IsRestored());
}

TEST(EnterPassword, StandardInputIsReadWithoutATerminal) {
    EXPECT_EQ(WithoutTerminal("sesame\nrest", [] { return Ask(); }), "6 sesame");
    EXPECT_EQ(WithoutTerminal("sesame", [] { return Ask(); }), "6 sesame");
    EXPECT_EQ(WithoutTerminal("", [] { return Ask(); }), std::to_string(-EIO));
}

TEST(EnterPassword, BytesAfterTheLineStayInTheInput) {
    EXPECT_EQ(WithoutTerminal("sesame\nsecond\n", AskTwice), "6 sesame, 6 second");
}

TEST(EnterPassword, TerminatorIsAddedIfThereIsRoom) {
    EnterPassword enter(1, "");
    enter.Preset("abc");
    char buffer[] = "######";
    EXPECT_EQ(enter(buffer, 6), 3);
    EXPECT_EQ(std::string(buffer, 6), std::string("abc\0##", 6));
    enter.Preset("abc");
    char full[] = "######";
    EXPECT_EQ(enter(full, 3), 3);
    EXPECT_STREQ(full, "abc###");
    enter.Preset("abc");
    EXPECT_EQ(enter(full, 2), 2);
    EXPECT_STREQ(full, "abc###");
}

std::string AnswerTwoQuestions() {
    EnterPassword enter(1, "");
    enter.Preset("preset");
    std::string text = Answer(enter);
    text += ", " + Answer(enter);
    enter.SetPrompt("Password for", "u@h");
    text += ", " + Answer(enter);
    return text + ", " + Answer(enter);
}

TEST(EnterPassword, PresetAnswersOnceForEachQuestion) {
    EXPECT_EQ(WithoutTerminal("typed\nagain\n", AnswerTwoQuestions), "6 preset, 5 typed, 6 preset, 5 again");
}

TEST(EnterPassword, EmptyPresetIsNoPreset) {
    EnterPassword enter(1, "");
    EXPECT_FALSE(enter.HasPreset());
    enter.Preset("preset");
    EXPECT_TRUE(enter.HasPreset());
    enter.Preset("");
    EXPECT_FALSE(enter.HasPreset());
    enter.Preset(String_t());
    EXPECT_FALSE(enter.HasPreset());
}

TEST(EnterPassword, PresetEndsWhenItsSharedTextIsWiped) {
    char typed[] = "preset";
    String_t secret(typed, 6);
    EnterPassword enter(1, "");
    enter.Preset(secret);
    std::memset(secret._rep->_text, 0, 6);
    EXPECT_FALSE(enter.HasPreset());
}

TEST(EnterPassword, TriesAreThoseOfTheConstructor) {
    EXPECT_EQ(EnterPassword(0, "")._tries, 0u);
    EXPECT_EQ(EnterPassword(3, "")._tries, 3u);
}

} // namespace

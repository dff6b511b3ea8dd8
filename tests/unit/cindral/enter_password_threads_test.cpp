// A signal that another thread takes while a secret is being read.

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <string>
#include <thread>

#include <brantle/cindral/enter_password.h>

#include "support/controlled_terminal.h"
#include "support/next_symbol.h"

using support::ControlledTerminal;
using support::WithoutTerminal;

namespace {

using cindral::EnterPassword;

constexpr useconds_t MILLISECOND = 1000;

std::atomic<bool> holdsWrites{false};     ///< whether a write of one byte waits
std::atomic<int> heldFd{-1};              ///< the descriptor of the one that does
std::atomic<bool> closedWhileHeld{false}; ///< whether that descriptor has been closed meanwhile
std::atomic<int> signalsTaken{0};

// Looked up before a signal comes: dlsym is not async-signal-safe.
auto* const nextWrite = support::NextSymbol(&write, "write");
auto* const nextClose = support::NextSymbol(&close, "close");

void TakeSignal(int) { ++signalsTaken; }

} // namespace

extern "C" {

// In place of the C library's, for the library under test too.

ssize_t write(int fd, void const* bytes, size_t count) {
    if (holdsWrites && count == 1) {
        holdsWrites = false;
        heldFd = fd;
        for (int i = 0; i < 500 && !closedWhileHeld; ++i) usleep(MILLISECOND);
        heldFd = -1;
    }
    return nextWrite(fd, bytes, count);
}

int close(int fd) {
    if (fd >= 0 && fd == heldFd) closedWhileHeld = true;
    return nextClose(fd);
}
}

namespace {

/// Whether the library has put its own handler in the place of the program's.
bool HandlerIsInstalled() {
    struct sigaction action{};
    sigaction(SIGTERM, nullptr, &action);
    return action.sa_handler != TakeSignal;
}

/// The answer is there while the handler in another thread is about to write to the pipe.
std::string AskWhileAHandlerWaits() {
    int input[2];
    if (pipe(input) != 0 || dup2(input[0], STDIN_FILENO) < 0) return "no input";
    signal(SIGTERM, TakeSignal);
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    std::atomic<bool> done{false};
    std::thread other([&] {
        while (!done) usleep(MILLISECOND);
    });
    std::thread user([&] {
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
        while (!HandlerIsInstalled()) usleep(MILLISECOND);
        holdsWrites = true;
        pthread_kill(other.native_handle(), SIGTERM);
        while (heldFd < 0) usleep(MILLISECOND);
        if (nextWrite(input[1], "sesame\n", 7) != 7) _exit(1);
    });
    EnterPassword enter(1, "");
    char buffer[16];
    int const length = enter(buffer, sizeof buffer);
    done = true;
    user.join();
    other.join();
    return std::to_string(length) + (closedWhileHeld ? ", closed" : ", open") + ", signals " +
           std::to_string(signalsTaken);
}

TEST(EnterPasswordThreads, PipeStaysOpenUntilTheHandlerInAnotherThreadHasWritten) {
    EXPECT_EQ(WithoutTerminal("", AskWhileAHandlerWaits), "6, open, signals 1");
}

} // namespace

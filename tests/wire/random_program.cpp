// A whole session in the reduced dialect with numbers in the place of random ones: random_program PORT. It is
// linked twice, with and without the standard dialect, and exits with 1 in the first case, 0 in the second.

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/rand.h>

#include <brantle/apps/ssh_cmd_session.h>
#include <brantle/cindral/enter_password.h>
#include <brantle/cindral/exceptions.h>
#include <brantle/session/kbd_interactive.h>

using namespace cindral;

namespace {

constexpr int FAILED = 2;

int CountingBytes(unsigned char* bytes, int size) {
    static unsigned char next = 0;
    for (int i = 0; i < size; ++i) bytes[i] = next = static_cast<unsigned char>(next + 37);
    return 1;
}

int Ready() { return 1; }

bool HasStandardDialect() {
    std::ifstream maps("/proc/self/maps");
    std::string const text(std::istreambuf_iterator<char>(maps), {});
    return text.find("libbrantle-standard") != std::string::npos;
}

int RunSession(unsigned short port) {
    SshCmdSession session(port, "127.0.0.1", "command");
    EnterPassword enter(1, "");
    KbdInteractiveCallback questions;
    int const results[] = {session.Connect(20), session.KeyExchange(),
                           session.Authenticate("", "tester", "secret", enter, questions), session.Run()};
    int const expected[] = {0, 0, 0, -1};
    for (int const& result : results)
        if (result != expected[&result - results]) {
            std::cerr << "step " << &result - results << " gave " << result << '\n';
            return FAILED;
        }
    return HasStandardDialect() ? 1 : 0;
}

} // namespace

int main(int, char** argv) {
    static RAND_METHOD method{};
    method.bytes = method.pseudorand = CountingBytes;
    method.status = Ready;
    if (RAND_set_rand_method(&method) != 1) return FAILED;
    try {
        return RunSession(static_cast<unsigned short>(std::atoi(argv[1])));
    } catch (Except const& failure) {
        std::cerr << failure.what() << '\n';
        return FAILED;
    }
}

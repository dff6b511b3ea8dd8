#ifndef TESTS_WIRE_SWEPT_SESSION_H
#define TESTS_WIRE_SWEPT_SESSION_H

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <brantle/cindral/enter_password.h>

#include "wire/standard_streams.h"
#include "wire/test_session.h"

/// The outcome of an undisturbed session.
inline char const* const done = "Run -1";

/// Runs a session and gives the step that failed with its outcome, or the end of the run.
inline std::string RunSession(std::uint16_t port, std::string const& identity = "") {
    StandardStreams const streams;
    TestSession session(port);
    cindral::EnterPassword enter(0, String_t());
    enter._tries = 1;
    enter.Preset(String_t("wrong"));
    cindral::KbdCopyCallback callback(String_t("secret"));
    std::vector<std::pair<char const*, std::function<int()>>> const steps = {
        {"Connect ", [&] { return session.Connect(10); }},
        {"KeyExchange ", [&] { return session.KeyExchange(); }},
        {"Authenticate ",
         [&] {
             return session.Authenticate(String_t(identity.c_str()), String_t("tester"), String_t("secret"),
                                         enter, callback);
         }},
        {"Open ", [&] { return session.Open(); }},
        {"Start ",
         [&] {
             session.StartCommand(String_t("command"));
             session.InitDispatcher();
             return 0;
         }},
        {"Run ", [&] { return session.Run(); }},
    };
    for (auto const& [name, step] : steps) {
        std::string const outcome = Outcome(step);
        if (outcome != "0") return name + outcome;
    }
    return "nothing";
}

#endif

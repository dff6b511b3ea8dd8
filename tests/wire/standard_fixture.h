#ifndef TESTS_WIRE_STANDARD_FIXTURE_H
#define TESTS_WIRE_STANDARD_FIXTURE_H

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include <brantle/standard/standard_dialect.h>

#include "support/peer/standard_peer.h"
#include "support/session/recording_callbacks.h"
#include "wire/loop_fixture.h"

/// How an undisturbed session ends.
inline char const* const RUN_ENDED = "Run -1";

/// What a client has seen of a session with the dialect.
struct StandardResult {
    std::string outcome; ///< the step that failed and how; RUN_ENDED if none did
    std::string lastError;
    std::string output; ///< on descriptors 1 and 2
    std::string errors;
    int exitStatus = -1;
    std::string exitSignal;
    unsigned int exchanges = 0;
    bool isStrict = false;
    bool isAuthenticated = false;
};

/// A session of a program, with its dialect.
class StandardClient {
public:
    explicit StandardClient(std::uint16_t port) : session(port), dialect(session) {}

    LoopSession session;
    cindral::StandardDialect dialect;
    RecordingPassword passwords{0};
    RecordingCallback questions;
    std::string identity;
    std::string password = "secret";
    std::function<void()> beforeOpen; ///< called after the login
    std::function<void()> beforeLoop; ///< called when the channel is open and the command requested
    std::function<void()> beforeRun;  ///< called when the loop has taken over, too
    std::function<void()> afterRun;

    /// Connects and logs in. Empty, or the step that failed and how.
    std::string LogIn() { return Follow({Connecting(), ExchangingKeys(), Authenticating()}); }
    /// Runs a command after all that. RUN_ENDED, or the step that failed and how.
    std::string Run() {
        std::string const failure = Follow({Connecting(),
                                            ExchangingKeys(),
                                            Authenticating(),
                                            {"Open ",
                                             [&] {
                                                 if (beforeOpen) beforeOpen();
                                                 return session.Open();
                                             }},
                                            {"Start ",
                                             [&] {
                                                 session.StartCommand("command");
                                                 if (beforeLoop) beforeLoop();
                                                 session.InitDispatcher();
                                                 if (beforeRun) beforeRun();
                                                 return 0;
                                             }},
                                            {"Run ", [&] { return session.Run(); }}});
        if (afterRun) afterRun();
        return failure.empty() ? "nothing" : failure;
    }

    using Step = std::pair<char const*, std::function<int()>>;
    static std::string Follow(std::vector<Step> const& steps) {
        for (auto const& [name, step] : steps) {
            std::string const outcome = Outcome(step);
            if (outcome != "0") return name + outcome;
        }
        return "";
    }
    Step Connecting() {
        return {"Connect ", [this] { return session.Connect(10); }};
    }
    Step ExchangingKeys() {
        return {"KeyExchange ", [this] { return session.KeyExchange(); }};
    }
    Step Authenticating() {
        return {"Authenticate ", [this] {
                    return session.Authenticate(identity.c_str(), "tester", password.c_str(), passwords,
                                                questions);
                }};
    }
};

inline std::string KnownHostsPath() { return std::string(std::getenv("HOME")) + "/.ssh/known_hosts"; }

inline std::string FileText(std::string const& path) {
    std::ifstream file(path);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

/// Sessions with the standard dialect to a scripted server of today.
class StandardTest : public testing::Test {
protected:
    using Script = peer::StandardPeer::Script;
    using Configure = std::function<void(StandardClient&)>;

    /// The server follows the script from its first byte on.
    void Serve(Script const& script) { server = std::make_unique<peer::StandardPeer>(script, settings); }

    /// A command from beginning to end at a server that Serve() has started.
    StandardResult Perform(Configure const& configure = {}) {
        StandardResult result;
        {
            ProcessDescriptors const redirected(input.Fd(), output.Fd(), errorOutput.Fd());
            StandardClient client(server->Port());
            if (configure) configure(client);
            result.outcome = client.Run();
            result.lastError = Text(client.dialect.LastError());
            result.exitStatus = client.dialect.ExitStatus();
            result.exitSignal = Text(client.dialect.ExitSignal());
            result.exchanges = client.dialect.KeyExchanges();
            result.isStrict = client.dialect.IsStrict();
            result.isAuthenticated = client.session.IsAuthenticated();
        }
        result.output = output.Text();
        result.errors = errorOutput.Text();
        server->Join();
        return result;
    }

    /// The same at a server that follows the script from its first byte on. It may be broken off.
    StandardResult RunFrom(Script const& script, Configure const& configure = {}) {
        Serve(script);
        return Perform(configure);
    }

    /// The same at a server that goes on from the request of the command, and then reads until the client has
    /// closed. The script must not fail.
    StandardResult Run(Script const& script, Configure const& configure = {}) {
        StandardResult result = RunFrom(
            [script](peer::StandardConnection& c) {
                c.WellBehaved(peer::Stage::Opened);
                c.ReadChannelRequest();
                script(c);
                c.ReadToTheEnd();
            },
            configure);
        EXPECT_EQ(server->Error(), "");
        return result;
    }

    peer::StandardConnection const& Seen() const { return server->At(0); }

    /// What ends a command well.
    static std::vector<peer::Bytes> Ending(std::uint32_t status = 0) {
        return {Eof(), ExitStatus(status), Close()};
    }

    peer::StandardSettings settings;
    InputPipe input;
    MemoryFile output;      ///< descriptor 1
    MemoryFile errorOutput; ///< descriptor 2
    std::unique_ptr<peer::StandardPeer> server;
};

#endif

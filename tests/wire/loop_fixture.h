#ifndef TESTS_WIRE_LOOP_FIXTURE_H
#define TESTS_WIRE_LOOP_FIXTURE_H

#include <fcntl.h>
#include <sys/resource.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include <brantle/cindral/enter_password.h>
#include <brantle/event/timers.h>

#include "support/session/captured_streams.h"
#include "wire/process_descriptors.h"
#include "wire/test_session.h"

/// A session that gives tests access to the internals of its loop.
class LoopSession : public TestSession {
public:
    using TestSession::TestSession;

    using SshSession::_localForwardings;
    using SshSession::_mux;
    using SshSession::_remoteForwardings;

    int Dispatch(int fd) override {
        ++dispatches;
        return TestSession::Dispatch(fd);
    }
    int Terminate() override {
        ++terminations;
        return TestSession::Terminate();
    }
    bool IsRegistered(int fd) {
        return std::unique_ptr<IOMultiplexerRequest>(_mux.MakeRequest(fd)) != nullptr;
    }

    int dispatches = 0;
    int terminations = 0;
};

/// What a test does with the session before or after its run.
using Client = std::function<void(LoopSession&)>;

/// Work for the loop's thread, due in its first cycle.
class AtOnce : public IOMultiplexer::OnceTimer {
public:
    explicit AtOnce(std::function<void()> work)
        : OnceTimer(IOMultiplexer::Timeval(1000, 0)), _work(std::move(work)) {}
    void Fire(IOMultiplexer::Timeval const&) override { _work(); }

private:
    std::function<void()> _work;
};

/// Makes poll(2) fail with EINVAL from the first cycle of a loop on: it is given more descriptors than the
/// process may have open.
class FailingPoll {
public:
    FailingPoll() { getrlimit(RLIMIT_NOFILE, &_before); }
    ~FailingPoll() { setrlimit(RLIMIT_NOFILE, &_before); }
    FailingPoll(FailingPoll const&) = delete;
    FailingPoll& operator=(FailingPoll const&) = delete;

    void Prepare(IOMultiplexer& mux) {
        for (int fd = 500; fd < 500 + MOST; ++fd)
            mux.Register(fd, IOMultiplexerDispatcher(IOMultiplexerRead));
        mux.Insert(&_lower);
    }

private:
    static constexpr int MOST = 256; // more than are open: sanitizers open some of their own

    rlimit _before{};
    AtOnce _lower{[this] {
        rlimit const lowered{MOST, _before.rlim_max};
        setrlimit(RLIMIT_NOFILE, &lowered);
    }};
};

inline void Login(cindral::SshSession& session) {
    cindral::EnterPassword enter(0, "");
    cindral::KbdCopyCallback callback("");
    if (session.Connect(10) != 0) throw std::runtime_error("no connection");
    if (session.KeyExchange() != 0) throw std::runtime_error("no key exchange");
    if (session.Authenticate("", "tester", "", enter, callback) != 0) throw std::runtime_error("no login");
}

/// Reads and records packets until the client has closed.
inline void ReadToTheEnd(peer::Connection& c) {
    try {
        for (;;) c.ReadPacket();
    } catch (peer::Closed const&) {
    }
}

/// The quickest well-behaved server.
inline peer::ServerSettings QuickSettings() {
    peer::ServerSettings settings;
    settings.group = peer::DhGroup::Modp(1024);
    settings.noneAccepted = true;
    return settings;
}

// Messages of a server on the session channel, the client's number of which is 0.
inline peer::Bytes Data(std::string_view text, std::uint32_t channel = 0) {
    return peer::Writer().U8(peer::CHANNEL_DATA).U32(channel).String(text);
}
inline peer::Bytes ExtendedData(std::string_view text, std::uint32_t type, std::uint32_t channel = 0) {
    return peer::Writer().U8(peer::CHANNEL_EXTENDED_DATA).U32(channel).U32(type).String(text);
}
inline peer::Bytes Eof(std::uint32_t channel = 0) {
    return peer::Writer().U8(peer::CHANNEL_EOF).U32(channel);
}
inline peer::Bytes Close(std::uint32_t channel = 0) {
    return peer::Writer().U8(peer::CHANNEL_CLOSE).U32(channel);
}
inline peer::Bytes WindowAdjust(std::uint32_t channel, std::uint32_t bytes) {
    return peer::Writer().U8(peer::CHANNEL_WINDOW_ADJUST).U32(channel).U32(bytes);
}
inline peer::Bytes ExitStatus(std::uint32_t status, bool wantReply = false, std::uint32_t channel = 0) {
    return peer::Writer()
        .U8(peer::CHANNEL_REQUEST)
        .U32(channel)
        .String("exit-status")
        .Bool(wantReply)
        .U32(status);
}
inline peer::Bytes ExitSignal(std::string_view name, bool wantReply = false, std::uint32_t channel = 0) {
    return peer::Writer()
        .U8(peer::CHANNEL_REQUEST)
        .U32(channel)
        .String("exit-signal")
        .Bool(wantReply)
        .String(name)
        .Bool(false)
        .String("")
        .String("");
}
inline peer::Bytes Disconnect(std::string_view text) {
    return peer::Writer().U8(peer::DISCONNECT).U32(11).String(text).String("");
}
inline peer::Bytes Ignore(std::string_view text = "") { return peer::Writer().U8(peer::IGNORE).String(text); }
inline peer::Bytes Debug(std::string_view text = "") {
    return peer::Writer().U8(peer::DEBUG).Bool(false).String(text).String("");
}

/// Sessions whose loop runs against a server that goes on from the request of a command. The session channel
/// has the number 42 at the server.
class LoopTest : public testing::Test {
protected:
    using Script = peer::ScriptedPeer::Script;

    /// The outcome of Run. The server follows the script and then reads until the client has closed;
    /// `prepare` is called before Run, `inspect` after it.
    std::string Run(Script const& script, Client const& prepare = {}, Client const& inspect = {}) {
        return RunFrom(silence.Fd(), script, prepare, inspect);
    }

    /// The same with that descriptor as standard input.
    std::string RunFrom(int input, Script const& script, Client const& prepare = {},
                        Client const& inspect = {}) {
        server = std::make_unique<peer::ScriptedPeer>(
            [&](peer::Connection& c) {
                c.WellBehaved(peer::Stage::Opened);
                c.ReadChannelRequest();
                script(c);
                ReadToTheEnd(c);
            },
            settings);
        std::string outcome;
        {
            ProcessDescriptors const redirected(input, output.Fd(), errorOutput.Fd());
            Captured const errors(std::cerr);
            LoopSession session(server->Port());
            Login(session);
            if (session.Open() != 0) throw std::runtime_error("no channel");
            session.StartCommand("x");
            fcntl(session.Fd(), F_SETFD, 0); // as a socket of other make would be
            session.InitDispatcher();
            if (prepare) prepare(session);
            outcome = Outcome([&] { return session.Run(); });
            if (inspect) inspect(session);
            dispatches = session.dispatches;
            terminations = session.terminations;
            socketStays = session.IsRegistered(session.Fd());
            inputStays = session.IsRegistered(0);
            messages = errors.Text();
            messagesFailed = std::cerr.fail();
        }
        server->Finish();
        return outcome;
    }

    /// The same for a server that sends these messages in one segment and then is silent.
    std::string Receive(std::vector<peer::Bytes> const& payloads, Client const& prepare = {},
                        Client const& inspect = {}) {
        return Run([&](peer::Connection& c) { c.SendTogether(payloads); }, prepare, inspect);
    }

    /// Payloads of the client after its request of a command.
    std::vector<peer::Bytes> Sent() const { return server->At(0).ReceivedAfter(peer::CHANNEL_REQUEST); }

    peer::ServerSettings settings = QuickSettings();
    InputPipe silence;
    MemoryFile output;      ///< descriptor 1
    MemoryFile errorOutput; ///< descriptor 2
    std::unique_ptr<peer::ScriptedPeer> server;
    std::string messages;        ///< on std::cerr
    bool messagesFailed = false; ///< the state of std::cerr
    int dispatches = 0;          ///< of the socket
    int terminations = 0;
    bool socketStays = false; ///< registered when Run had ended
    bool inputStays = false;
};

#endif

#ifndef TESTS_WIRE_X11_FIXTURE_H
#define TESTS_WIRE_X11_FIXTURE_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <brantle/channel/x11_forwarding.h>

#include "support/descriptor_state.h"
#include "support/x11/fake_xauth.h"
#include "support/x11/scripted_x_server.h"
#include "support/x11/setup_message.h"
#include "wire/loop_fixture.h"

using support::OpenDescriptors;

/// A session that gives tests access to X11 forwarding.
class X11Session : public LoopSession {
public:
    using LoopSession::LoopSession;

    using SshSession::_x11;

    cindral::SshChannelMgr::X11Channel* X11Channel(int id) const {
        return dynamic_cast<cindral::SshChannelMgr::X11Channel*>(_channels.Find(id));
    }
};

/// The server's side of X11 forwarding, in the hands of a script. Its channels are numbered from 500.
class X11Peer {
public:
    explicit X11Peer(peer::Connection& connection) : _connection(connection) {}

    /// Takes the request and keeps its cookie. The answer is the script's.
    void TakeRequest() {
        peer::ChannelRequest const request = _connection.ReadChannelRequest();
        if (request.type != "x11-req") throw peer::PeerError("a request of type " + request.type);
        peer::Reader rest(request.rest);
        rest.Bool();
        rest.String();
        cookie = peer::ToText(peer::FromHex(rest.String()));
    }

    /// A CHANNEL_OPEN of type "x11".
    static peer::Bytes Opening(std::uint32_t sender, std::uint32_t maxPacket = 0x4000) {
        return peer::Writer()
            .U8(peer::CHANNEL_OPEN)
            .String("x11")
            .U32(sender)
            .U32(0x10000)
            .U32(maxPacket)
            .String("127.0.0.1")
            .U32(54321);
    }
    /// Opens a channel and gives the client's number of it.
    std::uint32_t Open(std::uint32_t sender = 500) {
        _connection.SendPacket(Opening(sender));
        peer::Reader answer = _connection.ExpectPacket(peer::CHANNEL_OPEN_CONFIRMATION);
        answer.U32();
        return answer.U32();
    }
    /// The first message of a client that presents the cookie it was given.
    x11::SetupMessage Setup(char order = 'l') const {
        x11::SetupMessage message;
        message.order = order;
        message.data = cookie;
        return message;
    }
    void Send(x11::SetupMessage const& message, std::uint32_t channel = 1) {
        _connection.SendData(message.Text(), channel);
    }
    /// The data that the client sends next, which is for channel `sender`.
    std::string TakeData(std::uint32_t sender = 500) {
        peer::Reader data = _connection.ExpectPacket(peer::CHANNEL_DATA);
        if (data.U32() != sender) throw peer::PeerError("data for another channel");
        return data.String();
    }
    std::string TakeData(std::size_t size, std::uint32_t sender) {
        std::string data;
        while (data.size() < size) data += TakeData(sender);
        return data;
    }
    void ExpectEof(std::uint32_t sender = 500) {
        if (_connection.ExpectPacket(peer::CHANNEL_EOF).U32() != sender)
            throw peer::PeerError("end of another channel");
    }
    /// Returns when the session is gone: no connection that a script holds ends before it.
    void EndSession() {
        _connection.SendExitStatus(0);
        ReadToTheEnd(_connection);
    }

    std::string cookie; ///< the peer's, as bytes

private:
    peer::Connection& _connection;
};

/// Sessions that forward X11 to a display of the test. The session channel has the number 42 at the server.
class X11Test : public testing::Test {
protected:
    using Script = std::function<void(peer::Connection&, X11Peer&)>;
    using Inspection = std::function<void(X11Session&)>;

    static constexpr char const* REAL_COOKIE_TEXT = "f0f1f2f3f4f5f6f7f8f9fafbfcfdfe00";
    static std::string RealCookie() { return peer::ToText(peer::FromHex(REAL_COOKIE_TEXT)); }

    /// What xauth lists.
    static std::string Entry(std::string const& cookieText, std::string const& method = x11::MAGIC_COOKIE) {
        return "host/unix:0  " + method + "  " + cookieText + "\n";
    }

    /// Has xauth list something else from now on.
    void List(std::string const& text) {
        xauth.reset();
        xauth = std::make_unique<x11::FakeXauth>(text);
    }

    /// The outcome of Run with that display forwarded. The server grants the forwarding, follows the script
    /// and then reads until the client has closed; `prepare` is called before Run, `inspect` after it.
    std::string Run(std::string const& display, Script const& script, Inspection const& prepare = {},
                    Inspection const& inspect = {}) {
        return RunWith(
            display,
            [&](peer::Connection& c) {
                X11Peer x(c);
                x.TakeRequest();
                c.SendChannelMessage(peer::CHANNEL_SUCCESS);
                c.ReadChannelRequest();
                script(c, x);
            },
            prepare, inspect);
    }

    /// The same with a script that begins with the request of the forwarding. An empty display is none.
    std::string RunWith(std::string const& display, std::function<void(peer::Connection&)> const& script,
                        Inspection const& prepare = {}, Inspection const& inspect = {}) {
        server = std::make_unique<peer::ScriptedPeer>(
            [&](peer::Connection& c) {
                c.WellBehaved(peer::Stage::Opened);
                script(c);
                ReadToTheEnd(c);
            },
            settings);
        std::string outcome;
        {
            InputPipe const silence;
            ProcessDescriptors const redirected(silence.Fd(), output.Fd(), errorOutput.Fd());
            Captured const errors(std::cerr);
            X11Session session(server->Port());
            Login(session);
            if (!display.empty()) session.StartX11Forwarding(singleConnection, String_t(display.c_str()));
            outcome = Outcome([&] {
                opened = session.Open();
                granted = session._x11.Get() != nullptr;
                session.StartCommand("x");
                session.InitDispatcher();
                if (prepare) prepare(session);
                return session.Run();
            });
            if (inspect) inspect(session);
            messages = errors.Text();
        }
        if (joinOnly)
            server->Join();
        else
            server->Finish();
        return outcome;
    }

    /// Payloads of the client after the opening of its session channel.
    std::vector<peer::Bytes> Sent() const { return server->At(0).ReceivedAfter(peer::CHANNEL_OPEN); }
    /// The same after the requests of the forwarding and of the command.
    std::vector<peer::Bytes> SentOnTheWay() const {
        std::vector<peer::Bytes> const payloads = Sent();
        return {payloads.begin() + 2, payloads.end()};
    }

    std::unique_ptr<x11::FakeXauth> xauth = std::make_unique<x11::FakeXauth>(Entry(REAL_COOKIE_TEXT));
    peer::ServerSettings settings = QuickSettings();
    int singleConnection = 0;
    bool joinOnly = false; ///< the script may fail
    MemoryFile output;
    MemoryFile errorOutput;
    std::unique_ptr<peer::ScriptedPeer> server;
    std::string messages; ///< on std::cerr
    int opened = 4711;    ///< what Open gave
    bool granted = false; ///< the forwarding was on after Open
};

#endif

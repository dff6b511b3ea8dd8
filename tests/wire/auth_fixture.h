#ifndef TESTS_WIRE_AUTH_FIXTURE_H
#define TESTS_WIRE_AUTH_FIXTURE_H

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "support/session/captured_streams.h"
#include "support/session/recording_callbacks.h"
#include "wire/test_session.h"

class AuthSession : public TestSession {
public:
    using TestSession::TestSession;

    using SshSession::_banner;
    using SshSession::AuthInteractive;
    using SshSession::AuthKey;
    using SshSession::AuthPasswd;
};

/// Logins of the user "tester" to a scripted server. The well-behaved server's part up to NEWKEYS, or up to
/// the refusal of "none", is done; a test gives what comes after it.
class AuthTest : public testing::Test {
protected:
    using Script = peer::ScriptedPeer::Script;

    AuthTest() { settings.group = peer::DhGroup::Modp(1024); }

    /// The outcome of the client's call, after the key exchange. The server goes on with the script and then
    /// expects the client to close.
    std::string Run(Script const& script, std::function<int(AuthSession&)> const& client) {
        server = std::make_unique<peer::ScriptedPeer>(
            [&](peer::Connection& c) {
                c.WellBehaved(peer::Stage::NewKeys);
                script(c);
                c.ExpectClosed();
            },
            settings);
        std::string outcome;
        {
            AuthSession session(server->Port());
            EXPECT_EQ(session.Connect(10), 0);
            EXPECT_EQ(session.KeyExchange(), 0);
            outcome = Outcome([&] { return client(session); });
            authenticated = session._authenticated;
            banner = Text(session._banner);
        }
        server->Finish();
        return outcome;
    }

    /// The same for Authenticate, from its first message on.
    std::string Authenticate(Script const& script) {
        return Run(script, [this](AuthSession& session) {
            return session.Authenticate(identity.c_str(), "tester", password, enter, callback);
        });
    }

    /// The same for a server that refuses "none", offers these methods and then follows the script.
    std::string Login(std::string const& methods, Script const& script) {
        return Authenticate([&](peer::Connection& c) {
            Refuse(c, methods);
            script(c);
        });
    }

    static void Refuse(peer::Connection& c, std::string const& methods) {
        c.ServiceAccept();
        c.ReadAuthRequest();
        c.SendAuthFailure(methods);
    }
    static void Nothing(peer::Connection&) {}

    /// Payloads of the client after its NEWKEYS.
    std::vector<peer::Bytes> Sent() const { return server->At(0).ReceivedAfter(peer::NEWKEYS); }
    /// Payloads of the client after the request for "none".
    std::vector<peer::Bytes> SentAfterNone() const {
        auto payloads = Sent();
        EXPECT_GE(payloads.size(), 2u);
        payloads.erase(payloads.begin(), payloads.begin() + 2);
        return payloads;
    }

    static peer::Bytes ServiceRequest() {
        return peer::Writer().U8(peer::SERVICE_REQUEST).String("ssh-userauth");
    }
    static peer::Writer Request(std::string const& method) {
        return peer::Writer()
            .U8(peer::USERAUTH_REQUEST)
            .String("tester")
            .String("ssh-connection")
            .String(method);
    }
    static peer::Bytes NoneRequest() { return Request("none"); }
    static peer::Bytes PasswordRequest(std::string const& text) {
        return Request("password").U8(0).String(text);
    }
    static peer::Bytes InteractiveRequest() { return Request("keyboard-interactive").String("").String(""); }
    static peer::Bytes InfoResponse(std::vector<std::string> const& answers) {
        peer::Writer writer;
        writer.U8(peer::USERAUTH_INFO_RESPONSE).U32(static_cast<std::uint32_t>(answers.size()));
        for (std::string const& answer : answers) writer.String(answer);
        return writer;
    }
    static peer::Bytes KeyQuery(peer::KeyPair const& key) {
        return Request("publickey").U8(0).String(key.Type()).String(key.Blob());
    }
    static peer::Bytes SignedRequest(peer::KeyPair const& key, peer::Bytes const& signature) {
        return Request("publickey").U8(1).String(key.Type()).String(key.Blob()).String(signature);
    }

    peer::ServerSettings settings;
    std::string identity;
    String_t password{"secret"};
    RecordingPassword enter{3, {"typed-1", "typed-2", "typed-3", "typed-4", "typed-5", "typed-6"}};
    RecordingCallback callback;
    Captured output{std::cout};

    std::unique_ptr<peer::ScriptedPeer> server;
    int authenticated = -1;
    std::string banner;
};

#endif

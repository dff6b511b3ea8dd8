#ifndef TESTS_WIRE_APPS_FIXTURE_H
#define TESTS_WIRE_APPS_FIXTURE_H

#include <memory>
#include <string>
#include <vector>

#include "wire/loop_fixture.h"

/// Ready-made sessions to a scripted peer.
class AppTest : public testing::Test {
protected:
    using Script = peer::ScriptedPeer::Script;

    /// The server follows the script from its first byte on and then reads until the client has closed.
    void Serve(Script const& script) {
        server = std::make_unique<peer::ScriptedPeer>(
            [script](peer::Connection& c) {
                script(c);
                ReadToTheEnd(c);
            },
            settings);
    }

    /// Payloads of the client after its login.
    std::vector<peer::Bytes> Sent() const { return server->At(0).ReceivedAfter(peer::USERAUTH_REQUEST); }

    static peer::Bytes OpenRequest() {
        return peer::Writer().U8(peer::CHANNEL_OPEN).String("session").U32(0).U32(0x200000).U32(0x8000);
    }
    static peer::Writer Request(char const* type) {
        return peer::Writer().U8(peer::CHANNEL_REQUEST).U32(42).String(type).U8(0);
    }

    peer::ServerSettings settings = QuickSettings();
    std::unique_ptr<peer::ScriptedPeer> server;
};

#endif

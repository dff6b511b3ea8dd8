// The exchange without a group request, RFC 4253 section 8. The fixed groups themselves end in their
// arithmetic, so that a group of the usual form is used in their place here.

#include <functional>
#include <string>

#include "wire/test_session.h"

using namespace peer;

namespace {

class FixedGroupSession : public TestSession {
public:
    using TestSession::TestSession;

    /// KeyExchange, with a method that it would not choose.
    int ExchangeOverFixedGroup() {
        cindral::PacketKexInit own(_defaultKexAlgorithms);
        _out.WritePacket(own);
        cindral::PacketDecoder decoder(_in.ReadPacket());
        cindral::PacketKexInit theirs(decoder);
        if (NegotiateAlgorithms(own, theirs) < 0) return -2;
        Bytes const prime = DhGroup::Modp(1024).p;
        unsigned char const two = 2;
        cindral::BigNum g(&two, 1);
        cindral::BigNum p(prime.data(), static_cast<unsigned int>(prime.size()));
        cindral::DhGroupExchange exchange(g, p);
        return Kex(exchange, own, theirs);
    }
};

/// The number 31 with host key, public value and signature; `k` and `hash` are as the exchange has them.
GroupReply MakeReply(Connection& c) {
    GroupReply reply = c.MakeGroupReply();
    c.kex.hash = Sha1(Writer()
                          .String(c.kex.clientVersion)
                          .String(c.kex.serverVersion)
                          .String(c.kex.clientKexInit)
                          .String(c.kex.serverKexInit)
                          .String(reply.hostKeyBlob)
                          .Mpint(c.kex.e)
                          .Mpint(c.kex.f)
                          .Mpint(c.kex.k));
    reply.signature = c.settings.hostKey->Sign(c.kex.hash);
    return reply;
}

Bytes Payload(GroupReply const& reply) {
    return Writer().U8(KEXDH_REPLY).String(reply.hostKeyBlob).Mpint(reply.f).String(reply.signature);
}

/// Up to and with the client's public value.
void ReceiveInit(Connection& c) {
    c.WellBehaved(Stage::KexInitExchanged);
    c.Negotiate();
    c.kex.group = DhGroup::Modp(1024);
    Reader init = c.ExpectPacket(KEXDH_INIT);
    c.kex.e = init.Mpint();
    init.End();
}

std::string Try(ScriptedPeer::Script const& script, bool requestService = false) {
    ScriptedPeer server(script);
    std::string outcome;
    {
        FixedGroupSession session(server.Port());
        EXPECT_EQ(session.Connect(10), 0);
        outcome = Outcome([&] { return session.ExchangeOverFixedGroup(); });
        if (requestService) session.InitiateAuthentication();
    }
    server.Finish();
    return outcome;
}

std::string TryReply(std::function<void(Connection&, GroupReply&)> const& change) {
    return Try([&](Connection& c) {
        ReceiveInit(c);
        GroupReply reply = MakeReply(c);
        change(c, reply);
        c.SendPacket(Payload(reply));
        c.ExpectClosed();
    });
}

std::string TryMessage(Bytes const& message) {
    return Try([&](Connection& c) {
        ReceiveInit(c);
        c.SendPacket(message);
        c.ExpectClosed();
    });
}

} // namespace

TEST(FixedGroup, ResultsInAnEncryptedConnection) {
    auto const complete = [](Connection& c) {
        ReceiveInit(c);
        c.SendPacket(Payload(MakeReply(c)));
        c.NewKeys();
        c.ServiceAccept();
    };
    EXPECT_EQ(Try(complete, true), "0");
}

TEST(FixedGroup, SignatureMustCoverTheHashWithoutAGroup) {
    EXPECT_EQ(TryReply([](Connection& c, GroupReply& reply) { reply = c.MakeGroupReply(); }), "-1");
    EXPECT_EQ(TryReply([](Connection&, GroupReply& reply) { reply.signature.back() ^= 1; }), "-1");
}

TEST(FixedGroup, PublicValueOutsideTheGroupIsRefused) {
    EXPECT_EQ(TryReply([](Connection&, GroupReply& reply) { reply.f = {1}; }), "-1");
    EXPECT_EQ(TryReply([](Connection& c, GroupReply& reply) { reply.f = c.kex.group.p; }), "-1");
}

TEST(FixedGroup, MalformedHostKeyIsRefused) {
    EXPECT_EQ(TryReply([](Connection&, GroupReply& reply) { reply.hostKeyBlob = Bytes(30, 0xff); }), "-1");
}

TEST(FixedGroup, OtherMessagesAreRefused) {
    EXPECT_EQ(TryMessage(Writer().U8(IGNORE).String("")),
              "SshProtocolError: expected KEXDH_REPLY package, received: 2");
    EXPECT_EQ(TryMessage(Writer().U8(GEX_REPLY)),
              "SshProtocolError: expected KEXDH_REPLY package, received: 33");
}

// What a server shows of itself in the key exchange of the standard dialect: values, host key and signature.

#include "wire/standard_fixture.h"

using namespace peer;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

std::string Entry(std::uint16_t port) { return "[127.0.0.1]:" + std::to_string(port) + " "; }

class StandardHostProof : public StandardTest {
protected:
    using Falsify = std::function<void(StandardConnection&, KexReply&)>;

    /// The outcome of a key exchange whose server falsifies its last message. Nothing but a DISCONNECT may
    /// follow, and the host must not be known by then.
    StandardResult Refused(Falsify const& falsify) {
        StandardResult const result = RunFrom([falsify](StandardConnection& c) {
            c.WellBehaved(Stage::KexInitExchanged);
            c.ReceiveKexMessage();
            KexReply reply = c.MakeReply();
            falsify(c, reply);
            c.SendReply(reply);
            c.ReadToTheEnd();
        });
        EXPECT_EQ(server->Error(), "");
        EXPECT_THAT(result.outcome, StartsWith("KeyExchange "));
        EXPECT_THAT(FileText(KnownHostsPath()), Not(HasSubstr(Entry(server->Port()))));
        for (auto const type : {NEWKEYS, SERVICE_REQUEST}) EXPECT_EQ(Seen().CountReceived(type), 0u);
        EXPECT_EQ(result.exchanges, 0u);
        return result;
    }

    /// As above, for a value in place of the server's own, with the hash and the signature to it.
    StandardResult RefusedValue(Bytes const& value, Bytes const& secret, bool isNumber = false) {
        return Refused([&](StandardConnection& c, KexReply& reply) {
            reply = c.MakeReply(Share{value, secret});
            if (isNumber) reply.value = value;
        });
    }
};

TEST_F(StandardHostProof, KeyIsStoredOnceTheSignatureIsVerified) {
    EXPECT_EQ(Run([](StandardConnection& c) { c.SendTogether(Ending()); }).exitStatus, 0);
    EXPECT_THAT(FileText(KnownHostsPath()),
                HasSubstr(Entry(server->Port()) + StandardKey::Host().PublicLine()));
}

TEST_F(StandardHostProof, WrongSignatureIsRefused) {
    StandardResult const result =
        Refused([](StandardConnection&, KexReply& reply) { reply.signature.back() ^= 1; });
    EXPECT_EQ(result.outcome, "KeyExchange -1");
    EXPECT_THAT(result.lastError, HasSubstr("signature"));
}

TEST_F(StandardHostProof, SignatureByAnotherKeyIsRefused) {
    StandardResult const result = Refused([](StandardConnection& c, KexReply& reply) {
        reply.signature = StandardKey::OtherHost().Sign("ssh-ed25519", c.kex.hash);
    });
    EXPECT_EQ(result.outcome, "KeyExchange -1");
}

TEST_F(StandardHostProof, SignatureUnderAnotherNameIsRefused) {
    settings.Kex("curve25519-sha256", "rsa-sha2-512");
    settings.hostKey = &StandardKey::HostRsa();
    for (char const* algorithm : {"rsa-sha2-256", "ssh-rsa"})
        Refused([algorithm](StandardConnection& c, KexReply& reply) {
            reply.signature = StandardKey::HostRsa().Sign(algorithm, c.kex.hash);
        });
}

TEST_F(StandardHostProof, SignatureRenamedIsRefused) {
    settings.Kex("curve25519-sha256", "rsa-sha2-512");
    settings.hostKey = &StandardKey::HostRsa();
    Refused([](StandardConnection& c, KexReply& reply) {
        Reader reader(StandardKey::HostRsa().Sign("rsa-sha2-256", c.kex.hash));
        reader.String();
        reply.signature = Writer().String("rsa-sha2-512").String(reader.Blob());
    });
}

TEST_F(StandardHostProof, SignatureOfOtherLengthIsRefused) {
    Refused([](StandardConnection&, KexReply& reply) { reply.signature.clear(); });
    Refused([](StandardConnection&, KexReply& reply) { reply.signature.pop_back(); });
    Refused([](StandardConnection&, KexReply& reply) { reply.signature.push_back(0); });
    Refused([](StandardConnection&, KexReply& reply) {
        reply.signature = Writer().String("ssh-ed25519").String("short");
    });
}

TEST_F(StandardHostProof, HostKeyOfAnotherTypeThanAgreedIsRefused) {
    Refused([](StandardConnection& c, KexReply& reply) {
        c.settings.hostKey = &StandardKey::HostRsa();
        c.kex.hostKeyAlgorithm = "rsa-sha2-512";
        reply = c.MakeReply();
    });
}

TEST_F(StandardHostProof, BrokenHostKeyIsRefused) {
    for (Bytes const& blob :
         {Bytes(), Bytes{0}, Bytes(Writer().String("ssh-ed25519")),
          Bytes(Writer().String("ssh-ed25519").String("short")), Concat({StandardKey::Host().Blob(), {0}})})
        Refused([&](StandardConnection&, KexReply& reply) { reply.hostKey = blob; });
}

TEST_F(StandardHostProof, ChangedHostKeyIsRefusedByFileAndLine) {
    settings.hostKey = &StandardKey::OtherHost();
    Serve([](StandardConnection& c) { c.WellBehaved(Stage::Opened); });
    std::filesystem::create_directories(std::filesystem::path(KnownHostsPath()).parent_path());
    std::ofstream(KnownHostsPath(), std::ios::app)
        << Entry(server->Port()) << StandardKey::Host().PublicLine() << '\n';
    std::string const before = FileText(KnownHostsPath());
    StandardResult const result = Perform();
    EXPECT_EQ(result.outcome, "KeyExchange -1");
    EXPECT_THAT(result.lastError, HasSubstr("known_hosts:"));
    EXPECT_EQ(FileText(KnownHostsPath()), before);
    EXPECT_EQ(Seen().CountReceived(NEWKEYS), 0u);
}

TEST_F(StandardHostProof, HostWhoseLineIsDamagedIsRefusedByFileAndLine) {
    settings.hostKey = &StandardKey::OtherHost();
    std::string const whole = StandardKey::OtherHost().PublicLine();
    Serve([](StandardConnection& c) {
        c.WellBehaved(Stage::KexInitExchanged);
        c.ReceiveKexMessage();
        c.SendReply(c.MakeReply());
        c.ReadToTheEnd();
    });
    std::string const line = Entry(server->Port()) + whole.substr(0, whole.size() - 4);
    std::filesystem::create_directories(std::filesystem::path(KnownHostsPath()).parent_path());
    std::ofstream(KnownHostsPath(), std::ios::app) << line << '\n';
    std::string const before = FileText(KnownHostsPath());
    StandardResult const result = Perform();
    EXPECT_EQ(server->Error(), "");
    EXPECT_EQ(result.outcome, "KeyExchange -1");
    EXPECT_THAT(result.lastError, HasSubstr("known_hosts:"));
    EXPECT_THAT(result.lastError, HasSubstr("damaged"));
    EXPECT_EQ(FileText(KnownHostsPath()), before);
}

TEST_F(StandardHostProof, ReplyThatEndsEarlyOrLateIsRefused) {
    for (int bytes : {-1, 1}) {
        StandardResult const result = RunFrom([bytes](StandardConnection& c) {
            c.WellBehaved(Stage::KexInitExchanged);
            c.ReceiveKexMessage();
            Bytes payload = c.MakeReply().Payload();
            payload.resize(static_cast<std::size_t>(static_cast<int>(payload.size()) + bytes));
            c.SendPacket(payload);
            c.ReadToTheEnd();
        });
        EXPECT_THAT(result.outcome, StartsWith("KeyExchange SshProtocolError: KEX_ECDH_REPLY message "));
    }
}

// --- points

TEST_F(StandardHostProof, PointThatGivesNoSecretIsRefused) {
    Bytes one(32);
    one[0] = 1;
    for (Bytes const& point : {Bytes(32), one})
        EXPECT_THAT(RefusedValue(point, {}).outcome, StartsWith("KeyExchange SshProtocolError: "));
}

TEST_F(StandardHostProof, PointOfAnotherLengthIsRefused) {
    for (std::size_t size : {0u, 1u, 31u, 33u, 64u})
        EXPECT_THAT(RefusedValue(Bytes(size, 9), {}).outcome, StartsWith("KeyExchange SshProtocolError: "));
}

TEST_F(StandardHostProof, PointOffTheCurveIsRefused) {
    settings.Kex("ecdh-sha2-nistp256");
    Bytes off(65, 7), zero(65);
    off[0] = zero[0] = 4;
    for (Bytes const& point : {off, zero})
        EXPECT_THAT(RefusedValue(point, {1}).outcome, StartsWith("KeyExchange SshProtocolError: "));
}

TEST_F(StandardHostProof, PointAtInfinityIsRefused) {
    settings.Kex("ecdh-sha2-nistp256");
    for (Bytes const& point : {Bytes{0}, Bytes(65)})
        EXPECT_THAT(RefusedValue(point, {}).outcome, StartsWith("KeyExchange SshProtocolError: "));
}

TEST_F(StandardHostProof, NistPointOfAnotherLengthIsRefused) {
    settings.Kex("ecdh-sha2-nistp256");
    for (int bytes : {-1, 1})
        Refused([bytes](StandardConnection&, KexReply& reply) {
            reply.value.resize(static_cast<std::size_t>(static_cast<int>(reply.value.size()) + bytes));
        });
    EXPECT_THAT(RefusedValue({}, {}).outcome, StartsWith("KeyExchange SshProtocolError: "));
}

// --- numbers

TEST_F(StandardHostProof, NumberOutOfBoundsIsRefused) {
    Bytes const p = DhGroup::Modp(2048).p;
    for (char const* method : {"diffie-hellman-group14-sha256", "diffie-hellman-group-exchange-sha256"}) {
        settings.Kex(method);
        settings.group = DhGroup::Modp(2048);
        for (Bytes const& value : {Bytes(), Bytes{1}, AddSmall(p, -1), p, AddSmall(p, 1), Concat({{1}, p})})
            EXPECT_THAT(RefusedValue(value, {1}).outcome, StartsWith("KeyExchange SshProtocolError: "));
        // A negative number, which no Writer::Mpint makes.
        EXPECT_THAT(RefusedValue({0xff}, {1}, true).outcome, StartsWith("KeyExchange SshProtocolError: "));
    }
}

class StandardGroupExchange : public StandardTest {
protected:
    void SetUp() override { settings.Kex("diffie-hellman-group-exchange-sha256"); }
    /// The outcome for a group of the server's.
    std::string OutcomeFor(Bytes const& p, Bytes const& g) {
        StandardResult const result = RunFrom([&](StandardConnection& c) {
            c.WellBehaved(Stage::KexInitExchanged);
            c.ExpectPacket(GEX_REQUEST);
            c.SendPacket(Writer().U8(GEX_GROUP).Mpint(p).Mpint(g));
            c.ReadToTheEnd();
        });
        EXPECT_EQ(Seen().CountReceived(GEX_INIT), 0u);
        return result.outcome;
    }
};

TEST_F(StandardGroupExchange, RequestAsksFor2048To8192Bits) {
    RunFrom([](StandardConnection& c) {
        c.WellBehaved(Stage::KexInitExchanged);
        Reader request = c.ExpectPacket(GEX_REQUEST);
        EXPECT_EQ(request.U32(), 2048u);
        EXPECT_EQ(request.U32(), 3072u);
        EXPECT_EQ(request.U32(), 8192u);
    });
    EXPECT_EQ(server->Error(), "");
}

TEST_F(StandardGroupExchange, GroupOfASizeNotAskedForIsRefused) {
    Bytes larger(8192 / 8 + 1, 0xff), below = DhGroup::Modp(2048).p;
    below[0] = 0x7f; // 2047 bits
    for (Bytes const& p : {Bytes{}, Bytes{7}, DhGroup::Modp(1024).p, below, larger, Bytes(30000, 0xff)})
        EXPECT_THAT(OutcomeFor(p, {2}),
                    StartsWith("KeyExchange SshProtocolError: KEX_DH_GEX_GROUP message "));
}

TEST_F(StandardGroupExchange, EvenModulusIsRefused) {
    Bytes even = DhGroup::Modp(2048).p;
    even.back() &= 0xfe;
    EXPECT_THAT(OutcomeFor(even, {2}), StartsWith("KeyExchange SshProtocolError: KEX_DH_GEX_GROUP message "));
}

TEST_F(StandardGroupExchange, GeneratorOutOfBoundsIsRefused) {
    Bytes const p = DhGroup::Modp(2048).p;
    for (Bytes const& g : {Bytes(), Bytes{1}, AddSmall(p, -1), p, AddSmall(p, 1)})
        EXPECT_THAT(OutcomeFor(p, g), StartsWith("KeyExchange SshProtocolError: KEX_DH_GEX_GROUP message "));
}

TEST_F(StandardGroupExchange, ReplyBeforeTheGroupIsRefused) {
    StandardResult const result = RunFrom([](StandardConnection& c) {
        c.WellBehaved(Stage::KexInitExchanged);
        c.ExpectPacket(GEX_REQUEST);
        c.SendPacket(Writer().U8(GEX_REPLY).String("").String("").String(""));
        c.ReadToTheEnd();
    });
    EXPECT_THAT(result.outcome, StartsWith("KeyExchange SshProtocolError: "));
}

} // namespace

// Exchanges of keys after the first one, started by either side.

#include <thread>

#include <brantle/sftp/sftp_client_session.h>

#include "support/temporary_directory.h"
#include "wire/standard_fixture.h"
#include "wire/standard_sftp_server.h"

using namespace peer;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

/// Bytes in which every loss shows.
std::string Numbers(std::size_t size) {
    std::string text;
    for (int i = 0; text.size() < size; ++i) text += std::to_string(i) + ' ';
    text.resize(size);
    return text;
}

class StandardRekeying : public StandardTest {
protected:
    /// The outcome of a command in whose course the server sends that message, or breaks an exchange.
    StandardResult RunBroken(Script const& script) {
        return RunFrom([script](StandardConnection& c) {
            c.WellBehaved(Stage::Opened);
            c.ReadChannelRequest();
            script(c);
            c.SendTogether(Ending());
            c.ReadToTheEnd();
        });
    }
};

TEST_F(StandardRekeying, PeerMayStartOneBeforeEveryPacketOfALogin) {
    settings.noneAccepted = false;
    StandardResult const result = RunFrom([](StandardConnection& c) {
        c.Identify();
        c.Exchange();
        c.Rekey();
        c.ExpectPacket(SERVICE_REQUEST);
        c.Rekey();
        c.SendPacket(Writer().U8(SERVICE_ACCEPT).String("ssh-userauth"));
        c.Rekey();
        EXPECT_EQ(c.ReadAuthRequest().method, "none");
        c.Rekey();
        c.SendAuthFailure("password");
        c.Rekey();
        EXPECT_EQ(c.ReadAuthRequest().password, "secret");
        c.Rekey();
        c.SendPacket({USERAUTH_SUCCESS});
        c.Rekey();
        c.ConfirmOpen();
        c.Rekey();
        c.ReadChannelRequest();
        for (char const* text : {"one ", "two ", "three"}) {
            c.SendPacket(Data(text));
            c.Rekey();
        }
        for (Bytes const& message : Ending(5)) {
            c.SendPacket(message);
            if (message[0] != CHANNEL_CLOSE) c.Rekey();
        }
        c.ReadToTheEnd();
    });
    EXPECT_EQ(server->Error(), "");
    EXPECT_EQ(result.outcome, RUN_ENDED);
    EXPECT_EQ(result.output, "one two three");
    EXPECT_EQ(result.exitStatus, 5);
    EXPECT_EQ(result.exchanges, 14u);
}

TEST_F(StandardRekeying, ClientStartsThemByItsLimit) {
    std::string const text = Numbers(50000);
    StandardResult const result = Run(
        [&](StandardConnection& c) {
            c.answersKexInit = false;
            for (std::size_t at = 0; at < text.size(); at += 5000) {
                c.SendPacket(Data(text.substr(at, 5000)));
                c.SkipTo(KEXINIT);
                c.kex = StandardKex();
                c.kex.clientInit = c.received.back().payload;
                c.SendKexInit();
                c.FinishExchange();
            }
            c.SendTogether(Ending());
        },
        [](StandardClient& client) { client.dialect.SetRekeyLimit(4000, 0); });
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_TRUE(result.output == text);
    EXPECT_EQ(result.exchanges, 11u);
}

TEST_F(StandardRekeying, ClientStartsOneAfterASecondInWhichDataFlow) {
    using Clock = std::chrono::steady_clock;
    Clock::time_point begin;
    std::string text;
    StandardResult const result = RunFrom(
        [&](StandardConnection& c) {
            begin = Clock::now();
            c.WellBehaved(Stage::Opened);
            c.ReadChannelRequest();
            input.Write("input");
            while (c.CountReceived(KEXINIT) < 2 && Clock::now() - begin < std::chrono::seconds(20)) {
                c.SendPacket(Data("output "));
                text += "output ";
                c.SendPacket(Writer().U8(GLOBAL_REQUEST).String("name").Bool(true));
                c.SkipTo(REQUEST_FAILURE); // an exchange that the client starts is answered there
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
            EXPECT_GE(Clock::now() - begin, std::chrono::seconds(1));
            c.SendTogether(Ending());
            c.ReadToTheEnd();
        },
        [](StandardClient& client) { client.dialect.SetRekeyLimit(1ull << 30, 1); });
    EXPECT_EQ(server->Error(), "");
    EXPECT_EQ(result.outcome, RUN_ENDED);
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.output, text);
    EXPECT_EQ(result.exchanges, 2u);
}

/// The client's KEXINIT has been sent, and none of it been read, when the server sends its own.
TEST_F(StandardRekeying, KexInitsThatCrossInTheLoopAreOneExchange) {
    std::string const text = Numbers(5000);
    StandardResult const result = Run(
        [&](StandardConnection& c) {
            c.answersKexInit = false;
            for (int round = 0; round < 5; ++round) {
                c.SendPacket(Data(text));
                EXPECT_TRUE(c.Wire().WaitReadable(Link::timeLimit));
                c.kex = StandardKex();
                c.SendPacket(Writer().U8(GLOBAL_REQUEST).String("name").Bool(true));
                c.SendKexInit();
                c.SendPacket(Data("within "));
                c.ReceiveKexInit();
                c.FinishExchange();
                c.ExpectPacket(REQUEST_FAILURE); // held back until then
            }
            c.SendTogether(Ending(3));
        },
        [](StandardClient& client) { client.dialect.SetRekeyLimit(4000, 0); });
    EXPECT_EQ(result.outcome, RUN_ENDED);
    EXPECT_EQ(result.exitStatus, 3);
    EXPECT_EQ(result.exchanges, 6u);
    std::string expected;
    for (int round = 0; round < 5; ++round) expected += text + "within ";
    EXPECT_EQ(result.output, expected);
}

TEST_F(StandardRekeying, DataThatThePeerSendsWithinAnExchangeAreKept) {
    StandardResult const result = Run([](StandardConnection& c) {
        c.SendPacket(Data("1 "));
        c.kex = StandardKex();
        c.SendKexInit();
        c.SendPacket(Data("2 "));
        c.ReceiveKexInit();
        c.SendPacket(Data("3 "));
        c.ReceiveKexMessage();
        c.SendPacket(Data("4 "));
        c.SendReply(c.MakeReply());
        c.SendTogether({Data("5 "), ExtendedData("errors", 1)});
        c.SendNewKeys();
        c.SendPacket(Data("6"));
        c.ReceiveNewKeys();
        c.SendTogether(Ending());
    });
    EXPECT_EQ(result.output, "1 2 3 4 5 6");
    EXPECT_EQ(result.errors, "errors");
    EXPECT_EQ(result.exitStatus, 0);
}

TEST_F(StandardRekeying, InputIsHeldBackUntilItIsOver) {
    input.Write("input");
    input.End();
    StandardResult const result = Run([](StandardConnection& c) {
        c.SkipTo(CHANNEL_EOF);
        c.Rekey(); // the peer checks that nothing but the exchange comes between KEXINIT and NEWKEYS
        c.SendTogether(Ending());
    });
    EXPECT_EQ(result.exitStatus, 0);
}

TEST_F(StandardRekeying, AnswersWaitUntilItIsOver) {
    StandardResult const result = Run([](StandardConnection& c) {
        c.kex = StandardKex();
        c.SendKexInit();
        c.SendPacket(Writer().U8(GLOBAL_REQUEST).String("keepalive@openssh.com").Bool(true));
        c.ReceiveKexInit();
        c.FinishExchange();
        c.ExpectPacket(REQUEST_FAILURE);
        c.SendTogether(Ending());
    });
    EXPECT_EQ(result.exitStatus, 0);
}

TEST_F(StandardRekeying, AlgorithmsMayChange) {
    StandardResult const result = Run([](StandardConnection& c) {
        for (char const* cipher : {"aes128-ctr", "chacha20-poly1305@openssh.com", "aes256-gcm@openssh.com"}) {
            c.settings.Pin(cipher, "hmac-sha2-256");
            c.Rekey();
            c.SendPacket(Data("x"));
        }
        c.SendTogether(Ending());
    });
    EXPECT_EQ(result.output, "xxx");
    EXPECT_EQ(result.exitStatus, 0);
}

TEST_F(StandardRekeying, ClientStartsOneAfterASecondInWhichNothingComes) {
    StandardResult const result = Run(
        [](StandardConnection& c) {
            c.answersKexInit = false;
            for (int exchange = 0; exchange < 2; ++exchange) {
                c.kex = StandardKex();
                c.kex.clientInit = c.ReadPacket();
                ASSERT_EQ(c.kex.clientInit.at(0), KEXINIT);
                c.SendKexInit();
                c.FinishExchange();
            }
            c.SendTogether(Ending(3));
        },
        [](StandardClient& client) { client.dialect.SetRekeyLimit(1 << 30, 1); });
    EXPECT_EQ(result.exitStatus, 3);
    EXPECT_EQ(result.exchanges, 3u);
}

TEST_F(StandardRekeying, OnlyTheHostKeyOfTheFirstExchangeIsAskedFor) {
    std::string hostKeys;
    StandardResult const result = Run([&](StandardConnection& c) {
        // As another program leaves it that has met the host's second key.
        std::string const name = "[127.0.0.1]:" + std::to_string(server->Port());
        std::ofstream(KnownHostsPath()) << name << " " << StandardKey::HostRsa().PublicLine() << "\n"
                                        << name << " " << StandardKey::Host().PublicLine() << "\n";
        c.Rekey();
        Reader init(c.kex.clientInit);
        init.Raw(1 + 16);
        init.String();
        hostKeys = init.String();
        c.SendTogether(Ending(3));
    });
    EXPECT_EQ(hostKeys, "ssh-ed25519");
    EXPECT_EQ(result.exitStatus, 3);
    EXPECT_EQ(result.exchanges, 2u);
}

// --- copies of files

class StandardCopyRekeying : public StandardRekeying {
protected:
    /// Copies a file in that direction; the peer renews the keys before each answer if it `renews`, the
    /// client after so many bytes.
    void Copy(bool toPeer, bool renews, unsigned long long limit) {
        std::string const text = Numbers(3000000);
        std::string stored;
        Serve([&](StandardConnection& c) {
            c.WellBehaved(Stage::Opened);
            SftpServer sftp(c);
            if (!toPeer) sftp.content = text;
            if (renews) sftp.beforeAnswer = [&](unsigned) { c.Rekey(); };
            sftp.Serve();
            stored = sftp.content;
        });
        support::TemporaryDirectory const directory;
        std::string const local = directory.Path() / "file";
        if (toPeer) std::ofstream(local) << text;
        {
            cindral::SftpClientSession session(server->Port(), "127.0.0.1");
            cindral::StandardDialect dialect(session);
            dialect.SetRekeyLimit(limit, 0);
            dialect.SetRequestsInFlight(4);
            Login(session);
            ASSERT_EQ(session.Start(), 0);
            cindral::SftpStatus status;
            EXPECT_EQ(toPeer ? session.Put(status, local.c_str(), "remote")
                             : session.Get(status, "remote", local.c_str()),
                      0);
            EXPECT_GT(dialect.KeyExchanges(), 5u);
        }
        server->Finish();
        EXPECT_TRUE(FileText(local) == text);
        EXPECT_TRUE(stored == text);
    }
};

TEST_F(StandardCopyRekeying, FileComesWholeWhenThePeerRenewsTheKeys) { Copy(false, true, 1 << 30); }
TEST_F(StandardCopyRekeying, FileComesWholeWhenTheClientRenewsTheKeys) { Copy(false, false, 20000); }
TEST_F(StandardCopyRekeying, FileComesWholeWhenBothRenewTheKeys) { Copy(false, true, 20000); }
TEST_F(StandardCopyRekeying, FileArrivesWholeWhenThePeerRenewsTheKeys) { Copy(true, true, 1 << 30); }
TEST_F(StandardCopyRekeying, FileArrivesWholeWhenTheClientRenewsTheKeys) { Copy(true, false, 20000); }
TEST_F(StandardCopyRekeying, FileArrivesWholeWhenBothRenewTheKeys) { Copy(true, true, 20000); }

// --- violations

TEST_F(StandardRekeying, ChangedHostKeyIsRefused) {
    StandardResult const result = RunBroken([](StandardConnection& c) {
        c.settings.hostKey = &StandardKey::OtherHost();
        c.Rekey();
    });
    EXPECT_THAT(result.outcome, StartsWith("Run SshProtocolError: "));
    EXPECT_THAT(result.lastError, HasSubstr("host key"));
    EXPECT_EQ(result.exitStatus, -1);
    EXPECT_EQ(result.exchanges, 1u);
}

TEST_F(StandardRekeying, WrongSignatureIsRefused) {
    StandardResult const result = RunBroken([](StandardConnection& c) {
        c.kex = StandardKex();
        c.SendKexInit();
        c.ReceiveKexInit();
        c.ReceiveKexMessage();
        KexReply reply = c.MakeReply();
        reply.signature.back() ^= 1;
        c.SendReply(reply);
        c.ReadToTheEnd();
    });
    EXPECT_THAT(result.outcome, StartsWith("Run SshProtocolError: "));
    EXPECT_THAT(result.lastError, HasSubstr("signature"));
    EXPECT_EQ(result.exitStatus, -1);
}

TEST_F(StandardRekeying, NothingInCommonAnyLongerIsRefused) {
    StandardResult const result = RunBroken([](StandardConnection& c) {
        c.settings.Pin("none@server");
        c.kex = StandardKex();
        c.SendKexInit();
        c.ReadToTheEnd();
    });
    EXPECT_THAT(result.outcome, StartsWith("Run SshProtocolError: "));
    EXPECT_THAT(result.lastError, HasSubstr("none@server"));
}

TEST_F(StandardRekeying, NewKeysWithoutAKexInitAreRefused) {
    EXPECT_THAT(RunBroken([](StandardConnection& c) { c.SendPacket({NEWKEYS}); }).outcome,
                StartsWith("Run SshProtocolError: "));
}

TEST_F(StandardRekeying, MessageOfAMethodWithoutAnExchangeIsRefused) {
    for (std::uint8_t const number : {GEX_REQUEST, KEXDH_INIT, KEXDH_REPLY, GEX_REPLY})
        EXPECT_THAT(RunBroken([number](StandardConnection& c) { c.SendPacket({number}); }).outcome,
                    StartsWith("Run SshProtocolError: "));
}

TEST_F(StandardRekeying, SecondKexInitWithinOneIsRefused) {
    EXPECT_THAT(RunBroken([](StandardConnection& c) {
                    c.kex = StandardKex();
                    c.SendKexInit();
                    c.SendKexInit();
                    c.ReadToTheEnd();
                }).outcome,
                StartsWith("Run SshProtocolError: "));
}

TEST_F(StandardRekeying, MessageOfAnotherMethodIsRefused) {
    EXPECT_THAT(RunBroken([](StandardConnection& c) {
                    c.kex = StandardKex();
                    c.SendKexInit();
                    c.SendPacket(Writer().U8(GEX_REPLY).String("").String("").String(""));
                    c.ReadToTheEnd();
                }).outcome,
                StartsWith("Run SshProtocolError: "));
}

TEST_F(StandardRekeying, NewKeysBeforeTheReplyAreRefused) {
    EXPECT_THAT(RunBroken([](StandardConnection& c) {
                    c.kex = StandardKex();
                    c.SendKexInit();
                    c.SendPacket({NEWKEYS});
                    c.ReadToTheEnd();
                }).outcome,
                StartsWith("Run SshProtocolError: "));
}

} // namespace

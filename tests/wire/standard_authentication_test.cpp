// User authentication of the standard dialect at hostile servers.

#include "support/session/captured_streams.h"
#include "support/session/ssh_directory.h"
#include "wire/standard_fixture.h"

using namespace peer;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

class StandardAuthentication : public StandardTest {
protected:
    void SetUp() override { settings.noneAccepted = false; }

    /// The outcome of a command at a server that goes on from the acceptance of the service.
    StandardResult RunFromService(Script const& script, Configure const& configure = {}) {
        return RunFrom(
            [script](StandardConnection& c) {
                c.WellBehaved(Stage::Service);
                script(c);
                c.ReadToTheEnd();
            },
            configure);
    }
    /// A key exchange that the server breaks after the client's value: no login may follow.
    void ExpectNothingAfterBroken(Script const& breakIt) {
        Serve([breakIt](StandardConnection& c) {
            c.WellBehaved(Stage::KexInitExchanged);
            c.ReceiveKexMessage();
            breakIt(c);
            c.ExpectClosed();
        });
        {
            StandardClient client(server->Port());
            ASSERT_EQ(client.session.Connect(10), 0);
            EXPECT_THAT(Outcome([&] { return client.session.KeyExchange(); }),
                        StartsWith("SshProtocolError: "));
            EXPECT_EQ(client.Authenticating().second(), -1);
        }
        server->Finish();
    }
    /// The data that a signature of a request is over (RFC 4252, section 7).
    static Bytes SignedData(StandardConnection const& c, AuthRequest const& request) {
        std::size_t const signature = 4 + request.signature.size();
        return Writer()
            .String(c.sessionId)
            .Raw(Slice(request.payload, 0, request.payload.size() - signature));
    }
};

// --- before there are keys

TEST_F(StandardAuthentication, NothingIsSentWithoutAKeyExchange) {
    Serve([](StandardConnection& c) {
        c.Identify();
        c.ExpectClosed();
    });
    {
        StandardClient client(server->Port());
        ASSERT_EQ(client.session.Connect(10), 0);
        EXPECT_EQ(client.Authenticating().second(), -1);
        EXPECT_THAT(Text(client.dialect.LastError()), HasSubstr("KeyExchange"));
        EXPECT_FALSE(client.session.IsAuthenticated());
        EXPECT_THAT(Outcome([&] { return client.session.Open(); }), StartsWith("SshProtocolError: "));
    }
    server->Finish();
}

TEST_F(StandardAuthentication, NothingIsSentAfterAKeyExchangeThatWasRefused) {
    Serve([](StandardConnection& c) {
        c.WellBehaved(Stage::KexInitExchanged);
        c.ReceiveKexMessage();
        KexReply reply = c.MakeReply();
        reply.signature.back() ^= 1;
        c.SendReply(reply);
        c.ExpectPacket(DISCONNECT);
        c.ExpectClosed();
    });
    {
        StandardClient client(server->Port());
        ASSERT_EQ(client.session.Connect(10), 0);
        ASSERT_EQ(client.session.KeyExchange(), -1);
        EXPECT_EQ(client.Authenticating().second(), -1);
        EXPECT_NE(Text(client.dialect.LastError()), "");
        EXPECT_THAT(Outcome([&] { return client.session.Open(); }), StartsWith("SshProtocolError: "));
    }
    server->Finish();
}

TEST_F(StandardAuthentication, NothingIsSentAfterAKeyExchangeThatBroke) {
    ExpectNothingAfterBroken([](StandardConnection& c) { c.SendPacket({NEWKEYS}); });
}

TEST_F(StandardAuthentication, NothingIsSentBetweenBothNewKeys) {
    ExpectNothingAfterBroken([](StandardConnection& c) {
        c.SendReply(c.MakeReply());
        c.ReceiveNewKeys();
        c.Wire().ShutdownWrite(); // in place of NEWKEYS
    });
}

// --- the service

TEST_F(StandardAuthentication, AnotherServiceIsRefused) {
    StandardResult const result = RunFrom([](StandardConnection& c) {
        c.WellBehaved(Stage::NewKeys);
        c.ExpectPacket(SERVICE_REQUEST);
        c.SendPacket(Writer().U8(SERVICE_ACCEPT).String("ssh-connection"));
        c.ReadToTheEnd();
    });
    EXPECT_THAT(result.outcome, StartsWith("Authenticate SshProtocolError: SERVICE_ACCEPT message "));
    EXPECT_EQ(Seen().CountReceived(USERAUTH_REQUEST), 0u);
}

TEST_F(StandardAuthentication, SuccessInPlaceOfTheServiceIsRefused) {
    StandardResult const result = RunFrom([](StandardConnection& c) {
        c.WellBehaved(Stage::NewKeys);
        c.ExpectPacket(SERVICE_REQUEST);
        c.SendPacket({USERAUTH_SUCCESS});
        c.ReadToTheEnd();
    });
    EXPECT_THAT(result.outcome, StartsWith("Authenticate SshProtocolError: "));
    EXPECT_FALSE(result.isAuthenticated);
}

// --- methods

TEST_F(StandardAuthentication, CallersPasswordIsWipedOnceItHasBeenSent) {
    for (bool const isAccepted : {true, false}) {
        Serve([isAccepted](StandardConnection& c) {
            c.WellBehaved(Stage::Service);
            c.ReadAuthRequest();
            c.SendAuthFailure("password");
            EXPECT_EQ(c.ReadAuthRequest().password, "secret");
            if (isAccepted)
                c.SendPacket({USERAUTH_SUCCESS});
            else
                c.SendAuthFailure("publickey");
            c.ReadToTheEnd();
        });
        {
            StandardClient client(server->Port());
            String_t const password("secret");
            ASSERT_EQ(StandardClient::Follow({client.Connecting(), client.ExchangingKeys()}), "");
            EXPECT_EQ(client.session.Authenticate("", "tester", password, client.passwords, client.questions),
                      isAccepted ? 0 : -1);
            EXPECT_EQ(std::string(password.Text(), 6), std::string(6, '\0'));
        }
        server->Finish();
    }
}

TEST_F(StandardAuthentication, CallersPasswordThatWasNotSentIsKept) {
    Serve([](StandardConnection& c) {
        c.WellBehaved(Stage::Service);
        c.ReadAuthRequest();
        c.SendPacket({USERAUTH_SUCCESS});
        c.ReadToTheEnd();
    });
    {
        StandardClient client(server->Port());
        String_t const password("secret");
        ASSERT_EQ(StandardClient::Follow({client.Connecting(), client.ExchangingKeys()}), "");
        EXPECT_EQ(client.session.Authenticate("", "tester", password, client.passwords, client.questions), 0);
        EXPECT_EQ(Text(password), "secret");
    }
    server->Finish();
}

TEST_F(StandardAuthentication, KeyThenPasswordIsAPartialAndAWholeSuccess) {
    SshDirectory const keys;
    std::string const identity = keys.Write("user_key", StandardKey::User().Pem());
    StandardResult const result = RunFrom(
        [](StandardConnection& c) {
            c.WellBehaved(Stage::Service);
            EXPECT_EQ(c.ReadAuthRequest().method, "none");
            c.SendAuthFailure("publickey");
            AuthRequest request = c.ReadAuthRequest();
            EXPECT_EQ(request.method, "publickey");
            EXPECT_EQ(request.key, StandardKey::User().Blob());
            if (!request.flag) {
                c.SendPacket(Writer().U8(USERAUTH_PK_OK).String(request.algorithm).String(request.key));
                request = c.ReadAuthRequest();
            }
            EXPECT_TRUE(StandardKey::User().Verify("ssh-ed25519", request.signature, SignedData(c, request)));
            c.SendAuthFailure("password", true);
            request = c.ReadAuthRequest();
            EXPECT_EQ(request.method, "password");
            EXPECT_EQ(request.password, "secret");
            c.SendPacket({USERAUTH_SUCCESS});
            c.ConfirmOpen();
            c.ReadChannelRequest();
            c.SendTogether(Ending(3));
            c.ReadToTheEnd();
        },
        [&](StandardClient& client) { client.identity = identity; });
    EXPECT_EQ(server->Error(), "");
    EXPECT_EQ(result.outcome, RUN_ENDED);
    EXPECT_EQ(result.exitStatus, 3);
}

TEST_F(StandardAuthentication, AcceptanceOfAnotherKeyIsRefused) {
    SshDirectory const keys;
    std::string const identity = keys.Write("user_key", KeyPair::UserRsa().EncryptedPem("secret"));
    keys.Write("user_key.pub", KeyPair::UserRsa().PublicLine());
    StandardResult const result = RunFromService(
        [](StandardConnection& c) {
            c.ReadAuthRequest();
            c.SendAuthFailure("publickey");
            AuthRequest const request = c.ReadAuthRequest();
            EXPECT_FALSE(request.flag);
            c.SendPacket(
                Writer().U8(USERAUTH_PK_OK).String(request.algorithm).String(StandardKey::Host().Blob()));
        },
        [&](StandardClient& client) { client.identity = identity; });
    EXPECT_EQ(server->Error(), "");
    EXPECT_THAT(result.outcome,
                StartsWith("Authenticate SshProtocolError: USERAUTH_PK_OK message is for another key"));
    EXPECT_EQ(Seen().CountReceived(USERAUTH_REQUEST), 2u);
}

TEST_F(StandardAuthentication, ServerThatAlwaysRefusesIsGivenUp) {
    StandardResult const result = RunFromService([](StandardConnection& c) {
        try {
            for (;;) {
                c.ReadAuthRequest();
                c.SendAuthFailure("publickey,password,keyboard-interactive");
            }
        } catch (Closed const&) {
        }
    });
    EXPECT_EQ(result.outcome, "Authenticate -1");
    EXPECT_THAT(result.lastError,
                AllOf(HasSubstr("publickey,password,keyboard-interactive"), HasSubstr("password: refused")));
    EXPECT_LT(Seen().CountReceived(USERAUTH_REQUEST), 6u);
}

TEST_F(StandardAuthentication, PartialSuccessWithoutEndIsGivenUp) {
    StandardResult const result = RunFromService([](StandardConnection& c) {
        for (;;) {
            if (c.ReadAuthRequest().method == "keyboard-interactive")
                c.SendPacket(Writer().U8(USERAUTH_INFO_REQUEST).String("").String("").String("").U32(0));
            else
                c.SendAuthFailure("keyboard-interactive");
            if (c.ReceiveSequence() > 3) {
                c.ExpectPacket(USERAUTH_INFO_RESPONSE);
                c.SendAuthFailure("keyboard-interactive", true);
            }
        }
    });
    EXPECT_THAT(result.outcome, StartsWith("Authenticate "));
    EXPECT_FALSE(result.isAuthenticated);
    EXPECT_LT(Seen().CountReceived(USERAUTH_REQUEST), 30u);
}

TEST_F(StandardAuthentication, TooManyFailuresAreReportedInTheServersWords) {
    StandardResult const result = RunFromService([](StandardConnection& c) {
        c.ReadAuthRequest();
        c.SendPacket(Disconnect("Too many authentication failures"));
    });
    EXPECT_THAT(result.outcome, StartsWith("Authenticate SshProtocolError: disconnected by the server"));
    EXPECT_THAT(result.lastError, HasSubstr("Too many authentication failures"));
}

TEST_F(StandardAuthentication, BannerIsFiltered) {
    StandardResult const result = RunFrom([](StandardConnection& c) {
        c.WellBehaved(Stage::Service);
        c.ReadAuthRequest();
        c.SendPacket(Writer().U8(USERAUTH_BANNER).String("Hello\x1b[2J\n").String(""));
        c.SendPacket({USERAUTH_SUCCESS});
        c.ConfirmOpen();
        c.ReadChannelRequest();
        c.SendTogether(Ending());
        c.ReadToTheEnd();
    });
    EXPECT_EQ(result.outcome, RUN_ENDED);
    EXPECT_THAT(result.output, AllOf(StartsWith("Hello"), Not(HasSubstr("\x1b"))));
}

TEST_F(StandardAuthentication, BannerWithinAKeyExchangeOfTheClientIsShown) {
    settings.noneAccepted = false;
    StandardResult const result = RunFrom(
        [](StandardConnection& c) {
            c.WellBehaved(Stage::NewKeys);
            c.ExpectPacket(SERVICE_REQUEST);
            c.SendTogether(
                {Ignore(std::string(2000, 'x')), Writer().U8(SERVICE_ACCEPT).String("ssh-userauth")});
            c.ReadAuthRequest();
            c.answersKexInit = false;
            c.ExpectPacket(KEXINIT);
            c.kex = StandardKex();
            c.kex.clientInit = c.received.back().payload;
            c.SendAuthFailure("password");
            c.SendPacket(Writer().U8(USERAUTH_BANNER).String("Hello\n").String(""));
            c.SendKexInit();
            c.FinishExchange();
            c.answersKexInit = true;
            EXPECT_EQ(c.ReadAuthRequest().password, "secret");
            c.SendPacket({USERAUTH_SUCCESS});
            c.ConfirmOpen();
            c.ReadChannelRequest();
            c.SendTogether(Ending(3));
            c.ReadToTheEnd();
        },
        [](StandardClient& client) { client.dialect.SetRekeyLimit(2000, 0); });
    EXPECT_EQ(server->Error(), "");
    EXPECT_EQ(result.outcome, RUN_ENDED);
    EXPECT_THAT(result.output, StartsWith("Hello"));
    EXPECT_EQ(result.exitStatus, 3);
}

TEST_F(StandardAuthentication, BannersWithoutEndWithinAKeyExchangeAreGivenUp) {
    settings.noneAccepted = false;
    StandardResult const result = RunFrom(
        [](StandardConnection& c) {
            c.WellBehaved(Stage::NewKeys);
            c.ExpectPacket(SERVICE_REQUEST);
            c.SendTogether(
                {Ignore(std::string(2000, 'x')), Writer().U8(SERVICE_ACCEPT).String("ssh-userauth")});
            c.ReadAuthRequest();
            c.SendAuthFailure("password");
            Bytes const banner = Writer().U8(USERAUTH_BANNER).String(std::string(30000, 'x')).String("");
            for (int i = 0; i < 10000; ++i) c.SendPacket(banner);
        },
        [](StandardClient& client) { client.dialect.SetRekeyLimit(2000, 0); });
    EXPECT_EQ(result.outcome, "Authenticate SshProtocolError: too many messages within a key exchange");
    EXPECT_FALSE(server->RanToItsEnd());
}

TEST_F(StandardAuthentication, BannersWithoutEndAreGivenUp) {
    StandardResult const result = RunFromService([](StandardConnection& c) {
        c.ReadAuthRequest();
        for (int i = 0; i < 10000; ++i)
            c.SendPacket(Writer().U8(USERAUTH_BANNER).String("again\n").String(""));
        c.SendPacket({USERAUTH_SUCCESS});
    });
    EXPECT_THAT(result.outcome, StartsWith("Authenticate SshProtocolError: "));
    EXPECT_FALSE(result.isAuthenticated);
}

TEST_F(StandardAuthentication, QuestionsBeyondTheMessageAreRefused) {
    StandardResult const result = RunFromService([](StandardConnection& c) {
        c.ReadAuthRequest();
        c.SendAuthFailure("keyboard-interactive");
        c.ReadAuthRequest();
        c.SendPacket(Writer()
                         .U8(USERAUTH_INFO_REQUEST)
                         .String("name")
                         .String("")
                         .String("")
                         .U32(0xffffffff)
                         .String("question")
                         .Bool(true));
    });
    EXPECT_THAT(result.outcome, StartsWith("Authenticate SshProtocolError: USERAUTH_INFO_REQUEST message "));
}

TEST_F(StandardAuthentication, QuestionsWithoutEndAreGivenUp) {
    StandardResult const result = RunFromService([](StandardConnection& c) {
        c.ReadAuthRequest();
        c.SendAuthFailure("keyboard-interactive");
        c.ReadAuthRequest();
        for (int i = 0; i < 10000; ++i) {
            c.SendPacket(Writer().U8(USERAUTH_INFO_REQUEST).String("").String("").String("").U32(0));
            c.ExpectPacket(USERAUTH_INFO_RESPONSE);
        }
        c.SendPacket({USERAUTH_SUCCESS});
    });
    EXPECT_THAT(result.outcome, StartsWith("Authenticate SshProtocolError: "));
    EXPECT_FALSE(result.isAuthenticated);
}

TEST_F(StandardAuthentication, ChangeOfThePasswordIsDeclined) {
    StandardResult const result = RunFromService([](StandardConnection& c) {
        c.ReadAuthRequest();
        c.SendAuthFailure("password");
        c.ReadAuthRequest();
        c.SendPacket(Writer().U8(USERAUTH_PASSWD_CHANGEREQ).String("expired\x1b[2J").String(""));
    });
    EXPECT_EQ(result.outcome, "Authenticate -1");
    EXPECT_THAT(result.lastError, AllOf(HasSubstr("expired"), Not(HasSubstr("\x1b"))));
}

TEST_F(StandardAuthentication, MethodReplyThatNothingAskedForIsRefused) {
    StandardResult const result = RunFromService([](StandardConnection& c) {
        c.ReadAuthRequest();
        c.SendPacket(Writer().U8(USERAUTH_PK_OK).String("ssh-ed25519").String(StandardKey::User().Blob()));
    });
    EXPECT_THAT(result.outcome, StartsWith("Authenticate SshProtocolError: "));
}

TEST_F(StandardAuthentication, RequestOfAClientIsRefused) {
    for (std::uint8_t const number : {SERVICE_REQUEST, USERAUTH_REQUEST, USERAUTH_INFO_RESPONSE}) {
        StandardResult const result = RunFromService([number](StandardConnection& c) {
            c.ReadAuthRequest();
            c.SendPacket(Writer().U8(number).String("ssh-userauth"));
            c.SendPacket({USERAUTH_FAILURE});
        });
        EXPECT_THAT(result.outcome, StartsWith("Authenticate SshProtocolError: "));
        EXPECT_FALSE(result.isAuthenticated);
    }
}

} // namespace

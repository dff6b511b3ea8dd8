// The frame of user authentication, RFC 4252: the service, "none", the order of the methods, banners.

#include <gmock/gmock.h>

#include "wire/auth_fixture.h"

using namespace peer;
using cindral::BlockCipher;
using testing::ElementsAre;

namespace {

class AuthService : public AuthTest {};
class AuthWalk : public AuthTest {};
class AuthBanner : public AuthTest {};

/// Logins that are tried although the connection has no keys.
class AuthWithoutKeys : public AuthTest {
protected:
    /// The result of Authenticate after the client's call. The server follows the script, and the client must
    /// send only what the script has read.
    std::string Authenticate(Script const& script, std::function<void(AuthSession&)> const& client) {
        peer::ScriptedPeer peer(
            [&](Connection& c) {
                script(c);
                c.ExpectClosed();
            },
            settings);
        std::string outcome;
        {
            AuthSession session(peer.Port());
            EXPECT_EQ(session.Connect(10), 0);
            client(session);
            outcome = Outcome([&] { return session.Authenticate("", "tester", password, enter, callback); });
            authenticated = session._authenticated;
        }
        peer.Finish();
        return outcome;
    }
    static void ExchangeFails(AuthSession& session) { EXPECT_EQ(session.KeyExchange(), -1); }

    void NothingWasAsked() const {
        EXPECT_EQ(authenticated, 0);
        EXPECT_EQ(Text(password), "secret");
        EXPECT_EQ(enter.prompt, "");
        EXPECT_TRUE(enter.limits.empty());
        EXPECT_TRUE(callback.requests.empty());
    }
};

} // namespace

TEST_F(AuthService, AcceptedNoneIsEnough) {
    EXPECT_EQ(Authenticate([](Connection& c) {
                  c.ServiceAccept();
                  c.ReadAuthRequest();
                  c.SendAuthSuccess();
              }),
              "0");
    EXPECT_EQ(authenticated, 1);
    EXPECT_THAT(Sent(), ElementsAre(ServiceRequest(), NoneRequest()));
    EXPECT_EQ(enter.prompt, "");
    EXPECT_TRUE(enter.limits.empty());
    EXPECT_TRUE(callback.requests.empty());
    EXPECT_EQ(Text(password), "secret");
}

TEST_F(AuthService, OtherAnswerToNoneIsAViolation) {
    for (std::uint8_t type : {IGNORE, DEBUG, USERAUTH_REQUEST, USERAUTH_PK_OK, CHANNEL_OPEN}) {
        EXPECT_EQ(Authenticate([type](Connection& c) {
                      c.ServiceAccept();
                      c.ReadAuthRequest();
                      c.SendPacket(Writer().U8(type).String(""));
                  }),
                  "SshProtocolError: expected either USERAUTH_FAILURE or USERAUTH_SUCCESS packet: " +
                      std::to_string(type));
        EXPECT_EQ(authenticated, 0);
    }
}

TEST_F(AuthService, CloseAfterNoneIsAViolation) {
    EXPECT_EQ(Authenticate([](Connection& c) {
                  c.ServiceAccept();
                  c.ReadAuthRequest();
                  c.Wire().ShutdownWrite();
              }),
              closedEarly);
}

TEST_F(AuthService, OtherAnswerToTheServiceRequestIsAViolation) {
    for (std::uint8_t type : {IGNORE, DISCONNECT, SERVICE_REQUEST, USERAUTH_SUCCESS, USERAUTH_BANNER}) {
        EXPECT_EQ(Authenticate([type](Connection& c) {
                      c.ExpectPacket(SERVICE_REQUEST);
                      c.SendPacket(Writer().U8(type).String("ssh-userauth"));
                  }),
                  "SshProtocolError: expected SERVICE_ACCEPT package, received: " + std::to_string(type));
        EXPECT_THAT(Sent(), ElementsAre(ServiceRequest()));
    }
}

TEST_F(AuthService, NameOfTheServiceAcceptedIsNotCompared) {
    EXPECT_EQ(Authenticate([](Connection& c) {
                  c.ExpectPacket(SERVICE_REQUEST);
                  c.SendPacket(Writer().U8(SERVICE_ACCEPT).String("ssh-tea"));
                  c.ReadAuthRequest();
                  c.SendAuthSuccess();
              }),
              "0");
}

TEST_F(AuthService, SecondCallRepeatsTheWholeSequence) {
    EXPECT_EQ(Run(
                  [](Connection& c) {
                      c.ServiceAccept();
                      c.ReadAuthRequest();
                      c.SendAuthSuccess();
                      Refuse(c, "");
                  },
                  [this](AuthSession& session) {
                      EXPECT_EQ(session.Authenticate("", "tester", password, enter, callback), 0);
                      return session.Authenticate("", "tester", password, enter, callback);
                  }),
              "0")
        << "a success is not forgotten";
    EXPECT_THAT(Sent(), ElementsAre(ServiceRequest(), NoneRequest(), ServiceRequest(), NoneRequest()));
    EXPECT_EQ(authenticated, 1);
}

// --- without keys

TEST_F(AuthWithoutKeys, SendsNothingBeforeAKeyExchange) {
    EXPECT_EQ(Authenticate([](Connection& c) { c.WellBehaved(Stage::Identified); }, [](AuthSession&) {}),
              "-1");
    NothingWasAsked();
}

TEST_F(AuthWithoutKeys, SendsNothingWhenNothingWasAgreedOn) {
    settings.kexInit.Pin("none", "none");
    EXPECT_EQ(Authenticate([](Connection& c) { c.WellBehaved(Stage::KexInitExchanged); }, ExchangeFails),
              "-1");
    NothingWasAsked();
}

TEST_F(AuthWithoutKeys, SendsNothingToAServerThatCannotSign) {
    EXPECT_EQ(Authenticate(
                  [](Connection& c) {
                      c.WellBehaved(Stage::KexInitExchanged);
                      c.Negotiate();
                      c.ReceiveGroupRequest();
                      c.SendGroup();
                      c.ReceiveGroupInit();
                      GroupReply reply = c.MakeGroupReply();
                      reply.signature.back() ^= 1;
                      c.SendGroupReply(reply);
                  },
                  ExchangeFails),
              "-1");
    NothingWasAsked();
}

TEST_F(AuthWithoutKeys, SendsNothingToAServerWithAnotherHostKey) {
    peer::ScriptedPeer peer(
        [](Connection& c) {
            if (c.index == 0) return c.WellBehaved(Stage::NewKeys);
            c.settings.hostKey = &KeyPair::OtherHostRsa();
            c.WellBehaved(Stage::KexInitExchanged);
            c.GroupExchange();
            c.ExpectClosed();
        },
        settings);
    {
        AuthSession known(peer.Port());
        EXPECT_EQ(known.Connect(10), 0);
        EXPECT_EQ(known.KeyExchange(), 0);
    }
    {
        AuthSession session(peer.Port());
        EXPECT_EQ(session.Connect(10), 0);
        EXPECT_EQ(session.KeyExchange(), -1);
        EXPECT_EQ(session.Authenticate("", "tester", password, enter, callback), -1);
        authenticated = session._authenticated;
    }
    peer.Finish(2);
    NothingWasAsked();
}

TEST_F(AuthWithoutKeys, EachDirectionNeedsItsCipherAndItsMac) {
    ByteString const bytes("0123456789abcdef0123456789abcdef", 32);
    for (int missing = 0; missing < 4; ++missing) {
        EXPECT_EQ(Authenticate([](Connection& c) { c.WellBehaved(Stage::Identified); },
                               [&](AuthSession& session) {
                                   for (int slot = 0; slot < 2; ++slot) {
                                       auto const mode =
                                           slot == 0 ? BlockCipher::ENCRYPT : BlockCipher::DECRYPT;
                                       session._ciphers[slot].Redefine(
                                           missing == slot ? "none" : "aes128-ctr", mode, bytes, bytes);
                                       if (missing != 2 + slot)
                                           session._macs[slot].Redefine("hmac-sha1", bytes);
                                   }
                               }),
                  "-1")
            << missing;
        NothingWasAsked();
    }
}

// --- the order of the methods

TEST_F(AuthWalk, EmptyListSendsNothingElse) {
    EXPECT_EQ(Login("", Nothing), "-1");
    EXPECT_TRUE(SentAfterNone().empty());
    EXPECT_EQ(authenticated, 0);
}

TEST_F(AuthWalk, UnknownMethodsAreSkipped) {
    EXPECT_EQ(Login("none,hostbased,Password,passwor,password2,gssapi-with-mic", Nothing), "-1");
    EXPECT_TRUE(SentAfterNone().empty());
}

TEST_F(AuthWalk, KnownMethodAmongUnknownOnesIsTried) {
    EXPECT_EQ(Login("hostbased,,password,gssapi",
                    [](Connection& c) {
                        c.ReadAuthRequest();
                        c.SendAuthSuccess();
                    }),
              "0");
    EXPECT_THAT(SentAfterNone(), ElementsAre(PasswordRequest("secret")));
}

TEST_F(AuthWalk, MethodsAreTriedInTheServersOrder) {
    auto const refuseBoth = [](Connection& c) {
        for (int i = 0; i < 2; ++i) {
            c.ReadAuthRequest();
            c.SendAuthFailure("keyboard-interactive,password");
        }
    };
    enter._tries = 1;
    EXPECT_EQ(Login("keyboard-interactive,password", refuseBoth), "-1");
    EXPECT_THAT(SentAfterNone(), ElementsAre(InteractiveRequest(), PasswordRequest("secret")));
    password = "secret";
    EXPECT_EQ(Login("password,keyboard-interactive", refuseBoth), "-1");
    EXPECT_THAT(SentAfterNone(), ElementsAre(PasswordRequest("secret"), InteractiveRequest()));
}

TEST_F(AuthWalk, SuccessEndsTheSequence) {
    EXPECT_EQ(Login("keyboard-interactive,password,keyboard-interactive",
                    [](Connection& c) {
                        c.ReadAuthRequest();
                        c.SendAuthFailure("password");
                        c.ReadAuthRequest();
                        c.SendAuthSuccess();
                    }),
              "0");
    EXPECT_THAT(SentAfterNone(), ElementsAre(InteractiveRequest(), PasswordRequest("secret")));
    EXPECT_EQ(authenticated, 1);
}

TEST_F(AuthWalk, MethodListedTwiceIsTriedTwice) {
    EXPECT_EQ(Login("keyboard-interactive,keyboard-interactive",
                    [](Connection& c) {
                        for (int i = 0; i < 2; ++i) {
                            c.ReadAuthRequest();
                            c.SendAuthFailure("");
                        }
                    }),
              "-1");
    EXPECT_THAT(SentAfterNone(), ElementsAre(InteractiveRequest(), InteractiveRequest()));
}

TEST_F(AuthWalk, ListsOfLaterFailuresAndPartialSuccessAreIgnored) {
    enter._tries = 1;
    EXPECT_EQ(Login("password,keyboard-interactive",
                    [](Connection& c) {
                        c.ReadAuthRequest();
                        c.SendAuthFailure("publickey,password", true);
                        c.ReadAuthRequest();
                        c.SendAuthFailure("hostbased", true);
                    }),
              "-1");
    EXPECT_THAT(SentAfterNone(), ElementsAre(PasswordRequest("secret"), InteractiveRequest()));
    EXPECT_EQ(authenticated, 0);
}

TEST_F(AuthWalk, PartialSuccessOfNoneIsAFailure) {
    EXPECT_EQ(Authenticate([](Connection& c) {
                  c.ServiceAccept();
                  c.ReadAuthRequest();
                  c.SendAuthFailure("keyboard-interactive", true);
                  c.ReadAuthRequest();
                  c.SendAuthSuccess();
              }),
              "0");
}

TEST_F(AuthWalk, LaterFailureMayBeMalformed) {
    EXPECT_EQ(Login("keyboard-interactive",
                    [](Connection& c) {
                        c.ReadAuthRequest();
                        c.SendPacket(Writer().U8(USERAUTH_FAILURE));
                    }),
              "-1");
}

TEST_F(AuthWalk, ViolationEndsTheSequence) {
    EXPECT_EQ(Login("keyboard-interactive,password",
                    [](Connection& c) {
                        c.ReadAuthRequest();
                        c.SendIgnore();
                    }),
              "SshProtocolError: unexpected ssh response: SSH_MSG_IGNORE");
    EXPECT_THAT(SentAfterNone(), ElementsAre(InteractiveRequest()));
}

TEST_F(AuthBanner, IsPrintedUnchangedAndKept) {
    EXPECT_EQ(Authenticate([](Connection& c) {
                  c.ServiceAccept();
                  c.ReadAuthRequest();
                  c.SendBanner("Keep out", "en");
                  c.SendAuthSuccess();
              }),
              "0");
    EXPECT_EQ(output.Text(), "Keep out");
    EXPECT_GE(output.Flushes(), 1);
    EXPECT_EQ(banner, "Keep out");
}

TEST_F(AuthBanner, ControlCharactersArePrintedAsReceived) {
    EXPECT_EQ(Authenticate([](Connection& c) {
                  c.ServiceAccept();
                  c.ReadAuthRequest();
                  c.SendBanner("\x1b[2J\a\rEnter passphrase: ", "en");
                  c.SendAuthSuccess();
              }),
              "0");
    EXPECT_EQ(output.Text(), "\x1b[2J\a\rEnter passphrase: ");
}

TEST_F(AuthBanner, SecondOfTwoIsKept) {
    EXPECT_EQ(Authenticate([](Connection& c) {
                  c.ServiceAccept();
                  c.ReadAuthRequest();
                  c.SendBanner("first\r\n");
                  c.SendBanner("second\r\n");
                  c.SendAuthSuccess();
              }),
              "0");
    EXPECT_EQ(output.Text(), "first\r\nsecond\r\n");
    EXPECT_EQ(banner, "second\r\n");
}

TEST_F(AuthBanner, EmptyBannerReplacesTheOld) {
    EXPECT_EQ(Authenticate([](Connection& c) {
                  c.ServiceAccept();
                  c.ReadAuthRequest();
                  c.SendBanner("first");
                  c.SendBanner("");
                  c.SendAuthSuccess();
              }),
              "0");
    EXPECT_EQ(output.Text(), "first");
    EXPECT_EQ(banner, "");
}

TEST_F(AuthBanner, IsAcceptedInEveryExchange) {
    callback.answers = {{"a"}, {}};
    EXPECT_EQ(Login("password,keyboard-interactive",
                    [](Connection& c) {
                        for (char const* text : {"1", "2", "3"}) {
                            c.ReadAuthRequest();
                            c.SendBanner(text);
                            c.SendAuthFailure("");
                        }
                        c.ReadAuthRequest();
                        c.SendBanner("4");
                        c.SendInfoRequest("", "", {{"?", true}});
                        c.ReadInfoResponse();
                        c.SendBanner("5");
                        c.SendBanner("6");
                        c.SendInfoRequest("", "", {});
                        c.ReadInfoResponse();
                        c.SendBanner("7");
                        c.SendAuthSuccess();
                    }),
              "0");
    EXPECT_EQ(output.Text(), "1234567");
    EXPECT_EQ(banner, "7");
}

TEST_F(AuthBanner, WithoutItsLanguageIsAViolation) {
    EXPECT_EQ(Authenticate([](Connection& c) {
                  c.ServiceAccept();
                  c.ReadAuthRequest();
                  SendOptions options;
                  options.padding = Bytes(14, 0xff); // no length that the language could have
                  c.SendPacket(Writer().U8(USERAUTH_BANNER).String("Keep out"), options);
              }),
              "SshProtocolError: string length exceeds packet length");
    EXPECT_EQ(banner, "");
    EXPECT_EQ(output.Text(), "");
}

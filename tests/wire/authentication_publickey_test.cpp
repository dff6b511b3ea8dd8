// Public key authentication, RFC 4252 section 7, with key files and with an agent.

#include <cerrno>

#include <gmock/gmock.h>

#include <brantle/cindral/private_key.h>

#include "support/agent/scripted_agent.h"
#include "support/session/ssh_directory.h"
#include "wire/auth_fixture.h"

using namespace peer;
using testing::ElementsAre;

namespace {

class AuthKey : public AuthTest, protected SshDirectory {
protected:
    AuthKey() { identity = Path("own"); }

    /// Answers the query correctly, then leaves the signed request to `answer`.
    Script AcceptQuery(Script const& answer) {
        return [this, answer](Connection& c) {
            AuthRequest const query = c.ReadAuthRequest();
            c.SendPkOk(query.algorithm, query.key);
            signedRequest = c.ReadAuthRequest();
            signatureIsValid = c.SignatureIsValid(signedRequest);
            answer(c);
        };
    }
    Script AcceptKey() {
        return AcceptQuery([](Connection& c) { c.SendAuthSuccess(); });
    }
    static Script AnswerQuery(Bytes const& payload) {
        return [payload](Connection& c) {
            c.ReadAuthRequest();
            c.SendPacket(payload);
        };
    }
    static Bytes PkOk(std::string const& algorithm, Bytes const& key) {
        return Writer().U8(USERAUTH_PK_OK).String(algorithm).String(key);
    }
    /// Only the method, without the service.
    std::string Key(Script const& script) {
        return Run(script, [this](AuthSession& session) {
            return session.AuthKey(identity.c_str(), "tester", password, enter);
        });
    }
    /// The data that the agent is asked to sign.
    Bytes AuthData(KeyPair const& key) const {
        return Writer()
            .String(server->At(0).kex.hash)
            .U8(USERAUTH_REQUEST)
            .String("tester")
            .String("ssh-connection")
            .String("publickey")
            .U8(1)
            .String(key.Type())
            .String(key.Blob());
    }

    AuthRequest signedRequest;
    bool signatureIsValid = false;
};

class AuthKeyWithAgent : public AuthKey {};

KeyPair const& rsa = KeyPair::UserRsa();
KeyPair const& dsa = KeyPair::UserDsa();

std::string const noFile = std::to_string(-ENOENT);

} // namespace

TEST_F(AuthKey, QueryAndSignedRequestAreExact) {
    for (KeyPair const* key : {&rsa, &dsa}) {
        WritePair("own", *key);
        EXPECT_EQ(Login("publickey", AcceptKey()), "0");
        EXPECT_EQ(authenticated, 1);
        EXPECT_TRUE(signatureIsValid);
        EXPECT_TRUE(VerifySignature(key->Blob(), signedRequest.signature, AuthData(*key)));
        EXPECT_THAT(Sent(), ElementsAre(ServiceRequest(), NoneRequest(), KeyQuery(*key),
                                        SignedRequest(*key, signedRequest.signature)));
        EXPECT_EQ(Reader(signedRequest.signature).String(), key->Type());
    }
    EXPECT_TRUE(enter.questions.empty());
    EXPECT_EQ(Text(password), "secret");
}

TEST_F(AuthKey, NothingIsSentWithoutAPublicKey) {
    Write("own", rsa.Pem());
    EXPECT_EQ(Key(Nothing), noFile);
    EXPECT_TRUE(Sent().empty());
    EXPECT_EQ(Login("publickey,keyboard-interactive",
                    [](Connection& c) {
                        c.ReadAuthRequest();
                        c.SendAuthSuccess();
                    }),
              "0");
    EXPECT_THAT(SentAfterNone(), ElementsAre(InteractiveRequest()));
}

TEST_F(AuthKey, IdentityIsLookedUpWithExtensionSshBeforePub) {
    Write("own", dsa.Pem());
    WritePublic("own.ssh", dsa);
    WritePublic("own.pub", rsa);
    EXPECT_EQ(Login("publickey", AcceptKey()), "0");
    EXPECT_EQ(SentAfterNone()[0], KeyQuery(dsa));
}

TEST_F(AuthKey, DefaultsAreInTheHomeDirectory) {
    identity = "";
    WritePair("id_dsa", dsa);
    EXPECT_EQ(Login("publickey", AcceptKey()), "0");
    EXPECT_EQ(SentAfterNone()[0], KeyQuery(dsa));
    EXPECT_TRUE(signatureIsValid);
    WritePair("id_rsa", rsa);
    EXPECT_EQ(Login("publickey", AcceptKey()), "0");
    EXPECT_EQ(SentAfterNone()[0], KeyQuery(rsa));
    EXPECT_TRUE(signatureIsValid);
}

TEST_F(AuthKey, NothingIsSentWithoutADefaultKey) {
    identity = "";
    EXPECT_EQ(Key(Nothing), noFile);
    EXPECT_TRUE(Sent().empty());
}

TEST_F(AuthKey, DefaultPublicAndPrivateKeysNeedNotMatch) {
    identity = "";
    Write("id_rsa", rsa.Pem());
    WritePair("id_dsa", dsa);
    EXPECT_EQ(Login("publickey", AcceptQuery([](Connection& c) { c.SendAuthFailure("publickey"); })), "-1");
    EXPECT_THAT(SentAfterNone(), ElementsAre(KeyQuery(dsa), SignedRequest(dsa, signedRequest.signature)));
    EXPECT_FALSE(signatureIsValid);
    EXPECT_TRUE(VerifySignature(rsa.Blob(), signedRequest.signature, AuthData(dsa)));
}

TEST_F(AuthKey, RefusedQueryEndsTheMethod) {
    WritePair("own", rsa);
    auto const refuse = [](Connection& c) {
        c.ReadAuthRequest();
        c.SendAuthFailure("");
    };
    EXPECT_EQ(Key(refuse), "-1");
    EXPECT_THAT(Sent(), ElementsAre(KeyQuery(rsa)));
    EXPECT_EQ(enter.prompt, "") << "no private key is looked for";
    EXPECT_EQ(Login("publickey,keyboard-interactive",
                    [&](Connection& c) {
                        refuse(c);
                        c.ReadAuthRequest();
                        c.SendAuthSuccess();
                    }),
              "0");
    EXPECT_THAT(SentAfterNone(), ElementsAre(KeyQuery(rsa), InteractiveRequest()));
}

TEST_F(AuthKey, MethodListedTwiceIsTriedTwice) {
    WritePair("own", rsa);
    auto const refuse = [](Connection& c) {
        c.ReadAuthRequest();
        c.SendAuthFailure("");
        c.ReadAuthRequest();
        c.SendAuthFailure("");
    };
    EXPECT_EQ(Login("publickey,publickey", refuse), "-1");
    EXPECT_THAT(SentAfterNone(), ElementsAre(KeyQuery(rsa), KeyQuery(rsa)));
}

TEST_F(AuthKey, AcceptanceOfAnotherKeyIsARefusal) {
    WritePair("own", rsa);
    EXPECT_EQ(Key(AnswerQuery(PkOk("ssh-dss", dsa.Blob()))), "-1");
    EXPECT_EQ(Key(AnswerQuery(PkOk("ssh-rsa", KeyPair::OtherHostRsa().Blob()))), "-1");
    EXPECT_THAT(Sent(), ElementsAre(KeyQuery(rsa)));
}

TEST_F(AuthKey, AcceptanceWithAMismatchedKeyNameIsARefusal) {
    WritePair("own", rsa);
    for (char const* name : {"ssh-dss", "", "ssh-rs", "ssh-rsa2", "rsa-sha2-256"})
        EXPECT_EQ(Key(AnswerQuery(PkOk(name, rsa.Blob()))), "-1") << name;
}

TEST_F(AuthKey, AcceptanceWithoutAKeyIsARefusal) {
    WritePair("own", rsa);
    Bytes const half = Slice(rsa.Blob(), 0, 20);
    for (Bytes const& blob : {Bytes{}, Bytes{0}, half, Concat({rsa.Blob(), Bytes{0}})})
        EXPECT_EQ(Key(AnswerQuery(PkOk("ssh-rsa", blob))), "-1") << Hex(blob);
}

TEST_F(AuthKey, AnyOtherAnswerToTheQueryIsAViolation) {
    WritePair("own", rsa);
    std::string const words = "SshProtocolError: expected USERAUTH_PK_OK package, received: ";
    EXPECT_EQ(Key(AnswerQuery(Bytes{USERAUTH_SUCCESS})), words + "52");
    EXPECT_EQ(authenticated, 0);
    EXPECT_EQ(Key(AnswerQuery(Writer().U8(IGNORE).String(""))), words + "2");
    EXPECT_EQ(Key(AnswerQuery(Writer().U8(USERAUTH_INFO_RESPONSE).U32(0))), words + "61");
    EXPECT_EQ(
        Key(AnswerQuery(Concat({PkOk("ssh-rsa", rsa.Blob()), Bytes{0}}))),
        "SshProtocolError: additional characters in packet after padding: SSH_MSG_USERAUTH_INFO_REQUEST");
}

TEST_F(AuthKey, RefusedSignatureEndsTheMethod) {
    WritePair("own", rsa);
    EXPECT_EQ(Login("publickey", AcceptQuery([](Connection& c) { c.SendAuthFailure("publickey", true); })),
              "-1");
    EXPECT_EQ(authenticated, 0);
    EXPECT_TRUE(signatureIsValid);
}

TEST_F(AuthKey, AnyOtherAnswerToTheSignatureIsAViolation) {
    WritePair("own", rsa);
    for (std::uint8_t type : {IGNORE, DEBUG, USERAUTH_PK_OK, USERAUTH_INFO_RESPONSE, CHANNEL_OPEN}) {
        EXPECT_EQ(Login("publickey,password",
                        AcceptQuery([type](Connection& c) { c.SendPacket(Writer().U8(type).String("")); })),
                  "SshProtocolError: expected either USERAUTH_SUCCESS or USERAUTH_FAILURE packet");
        EXPECT_EQ(SentAfterNone().size(), 2u);
    }
}

TEST_F(AuthKey, BannersBeforeAnswersAreAccepted) {
    WritePair("own", rsa);
    EXPECT_EQ(Login("publickey",
                    [](Connection& c) {
                        AuthRequest const query = c.ReadAuthRequest();
                        c.SendBanner("1");
                        c.SendPkOk(query.algorithm, query.key);
                        c.ReadAuthRequest();
                        c.SendBanner("2");
                        c.SendAuthSuccess();
                    }),
              "0");
    EXPECT_EQ(output.Text(), "12");
}

TEST_F(AuthKey, UnreadablePrivateKeyIsReturned) {
    WritePublic("own.pub", rsa);
    EXPECT_EQ(Key(AnswerQuery(PkOk("ssh-rsa", rsa.Blob()))), noFile);
    EXPECT_THAT(Sent(), ElementsAre(KeyQuery(rsa)));
    Write("own", "no key\n");
    EXPECT_EQ(Key(AnswerQuery(PkOk("ssh-rsa", rsa.Blob()))),
              std::to_string(cindral::PrivateKey::BROKEN_FILE));
    EXPECT_EQ(Login("publickey,keyboard-interactive",
                    [](Connection& c) {
                        c.ReadAuthRequest();
                        c.SendPkOk("ssh-rsa", rsa.Blob());
                        c.ReadAuthRequest();
                        c.SendAuthSuccess();
                    }),
              "0");
    EXPECT_THAT(SentAfterNone(), ElementsAre(KeyQuery(rsa), InteractiveRequest()));
}

TEST_F(AuthKey, PasswordIsTriedAsPassphrase) {
    WritePublic("own.pub", rsa);
    Write("own", rsa.EncryptedPem("secret"));
    EXPECT_EQ(Login("publickey", AcceptKey()), "0");
    EXPECT_TRUE(signatureIsValid);
    EXPECT_THAT(enter.presets, ElementsAre("secret"));
    EXPECT_TRUE(enter.questions.empty());
    EXPECT_EQ(Text(password), "secret");
}

TEST_F(AuthKey, PassphraseIsAskedForIfThePasswordFails) {
    WritePublic("own.pub", rsa);
    Write("own", rsa.EncryptedPem("open sesame"));
    enter.answers = {"wrong", "open sesame"};
    EXPECT_EQ(Login("publickey", AcceptKey()), "0");
    EXPECT_TRUE(signatureIsValid);
    std::string const question = "Enter passphrase for|" + identity;
    EXPECT_THAT(enter.questions, ElementsAre(question, question));
}

TEST_F(AuthKey, UnknownPassphraseEndsTheMethod) {
    WritePublic("own.pub", rsa);
    Write("own", rsa.EncryptedPem("open sesame"));
    enter.answers.clear();
    enter.whenOut = -77;
    EXPECT_EQ(Key(AnswerQuery(PkOk("ssh-rsa", rsa.Blob()))), "-77");
    EXPECT_THAT(Sent(), ElementsAre(KeyQuery(rsa)));
}

TEST_F(AuthKey, PasswordWipedByAnEarlierMethodPresetsNothing) {
    WritePair("own", rsa);
    enter._tries = 1;
    EXPECT_EQ(Login("password,publickey",
                    [this](Connection& c) {
                        c.ReadAuthRequest();
                        c.SendAuthFailure("");
                        AcceptKey()(c);
                    }),
              "0");
    EXPECT_THAT(enter.presets, ElementsAre(""));
}

TEST_F(AuthKey, PresetPassphraseDoesNotAnswerALaterPasswordPrompt) {
    WritePair("own", rsa);
    enter._tries = 1;
    EXPECT_EQ(Login("publickey,password", AcceptQuery([](Connection& c) {
                        c.SendAuthFailure("");
                        c.ReadAuthRequest();
                        c.SendAuthFailure("");
                    })),
              "-1");
    EXPECT_THAT(enter.questions,
                ElementsAre("Password for|tester@127.0.0.1:" + std::to_string(server->Port())));
    EXPECT_EQ(SentAfterNone().back(), PasswordRequest("secret"));
}

TEST_F(AuthKeyWithAgent, AgentSignsInsteadOfTheKeyFile) {
    for (KeyPair const* key : {&rsa, &dsa}) {
        WritePublic("own.pub", *key);
        ScriptedAgent const agent(ScriptedAgent::Holding(*key));
        EXPECT_EQ(Login("publickey", AcceptKey()), "0");
        EXPECT_TRUE(signatureIsValid);
        EXPECT_THAT(agent.Requests(), ElementsAre(Writer()
                                                      .U8(ScriptedAgent::signRequest)
                                                      .String(key->Blob())
                                                      .String(AuthData(*key))
                                                      .U32(0)
                                                      .Data()));
        EXPECT_EQ(agent.Connections(), 1u);
    }
    EXPECT_EQ(enter.prompt, "") << "no private key is looked for";
}

TEST_F(AuthKeyWithAgent, SignatureIsPassedUnchanged) {
    WritePublic("own.pub", rsa);
    Bytes const signature = Writer().String("ssh-rsa").String("not a signature at all");
    ScriptedAgent const agent(
        [&](Bytes const&) { return Writer().U8(ScriptedAgent::signResponse).String(signature).Data(); });
    EXPECT_EQ(Login("publickey", AcceptQuery([](Connection& c) { c.SendAuthFailure(""); })), "-1");
    EXPECT_EQ(SentAfterNone()[1], SignedRequest(rsa, signature));
}

TEST_F(AuthKeyWithAgent, AgentIsNotAskedWhenTheServerRefusesTheKey) {
    WritePair("own", rsa);
    ScriptedAgent const agent(ScriptedAgent::Holding(rsa));
    EXPECT_EQ(Login("publickey",
                    [](Connection& c) {
                        c.ReadAuthRequest();
                        c.SendAuthFailure("");
                    }),
              "-1");
    EXPECT_EQ(agent.Connections(), 0u);
}

TEST_F(AuthKeyWithAgent, ConnectionLastsForOneSignature) {
    WritePair("own", rsa);
    ScriptedAgent const agent(ScriptedAgent::Holding(rsa));
    EXPECT_EQ(Login("publickey,publickey",
                    [this](Connection& c) {
                        AcceptQuery([](Connection& same) { same.SendAuthFailure(""); })(c);
                        AcceptKey()(c);
                    }),
              "0");
    EXPECT_EQ(agent.Connections(), 2u);
    EXPECT_EQ(agent.Requests().size(), 2u);
}

TEST_F(AuthKeyWithAgent, KeyFileIsUsedWhenTheAgentLacksTheKey) {
    WritePair("own", rsa);
    for (int failure : {5, 30, 102}) {
        ScriptedAgent const agent(
            [failure](Bytes const&) { return Bytes{static_cast<std::uint8_t>(failure)}; });
        EXPECT_EQ(Login("publickey", AcceptKey()), "0");
        EXPECT_TRUE(signatureIsValid);
        EXPECT_EQ(agent.Requests().size(), 1u);
        EXPECT_EQ(enter.prompt, "Enter passphrase for|" + identity);
    }
}

TEST_F(AuthKeyWithAgent, KeyFileIsUsedAfterASignatureOfAnotherType) {
    WritePair("own", rsa);
    ScriptedAgent const agent([](Bytes const&) {
        return Writer().U8(ScriptedAgent::signResponse).String(dsa.Sign(ToBytes("data"))).Data();
    });
    EXPECT_EQ(Login("publickey", AcceptKey()), "0");
    EXPECT_TRUE(signatureIsValid);
}

TEST_F(AuthKeyWithAgent, KeyFileIsUsedWhenNoAgentListensOnTheSocket) {
    WritePair("own", rsa);
    setenv("SSH_AUTH_SOCK", Path("no-socket").c_str(), 1);
    EXPECT_EQ(Login("publickey", AcceptKey()), "0");
    unsetenv("SSH_AUTH_SOCK");
    EXPECT_TRUE(signatureIsValid);
}

TEST_F(AuthKeyWithAgent, AgentProtocolViolationEndsAuthentication) {
    WritePair("own", rsa);
    auto const acceptQuery = AnswerQuery(PkOk("ssh-rsa", rsa.Blob()));
    {
        ScriptedAgent const agent([](Bytes const&) { return Bytes{ScriptedAgent::success}; });
        EXPECT_EQ(Login("publickey,password", acceptQuery),
                  "SshProtocolError: Bad authentication response: 6");
    }
    ScriptedAgent const closing([](Bytes const&) { return std::nullopt; });
    EXPECT_THAT(Login("publickey,password", acceptQuery), testing::StartsWith("BadInput: "));
    EXPECT_THAT(SentAfterNone(), ElementsAre(KeyQuery(rsa)));
    EXPECT_EQ(authenticated, 0);
}

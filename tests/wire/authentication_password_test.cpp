// Password authentication, RFC 4252 section 8.

#include <gmock/gmock.h>

#include "wire/auth_fixture.h"

using namespace peer;
using testing::ElementsAre;

namespace {

class AuthPassword : public AuthTest {
protected:
    /// Receives that many requests and refuses each.
    static Script RefuseRequests(int count) {
        return [count](Connection& c) {
            for (int i = 0; i < count; ++i) {
                c.ReadAuthRequest();
                c.SendAuthFailure("password");
            }
        };
    }
    static void AcceptRequest(Connection& c) {
        c.ReadAuthRequest();
        c.SendAuthSuccess();
    }
    /// Only the method, without the service.
    std::string Passwd(Script const& script) {
        return Run(script,
                   [this](AuthSession& session) { return session.AuthPasswd("tester", password, enter); });
    }
    std::string Question() const { return "Password for|tester@127.0.0.1:" + std::to_string(server->Port()); }
};

char const violation[] = "SshProtocolError: expected either USERAUTH_SUCCESS or USERAUTH_FAILURE or "
                         "USERAUTH_PASSWD_CHANGEREQ packet";

} // namespace

TEST_F(AuthPassword, GivenPasswordIsSentWithoutPrompting) {
    EXPECT_EQ(Login("password", AcceptRequest), "0");
    EXPECT_EQ(authenticated, 1);
    EXPECT_THAT(Sent(), ElementsAre(ServiceRequest(), NoneRequest(), PasswordRequest("secret")));
    EXPECT_TRUE(enter.limits.empty());
    EXPECT_EQ(enter.prompt, Question());
    EXPECT_EQ(output.Text(), "");
}

TEST_F(AuthPassword, EmptyPasswordIsSentWithoutPrompting) {
    for (String_t const& empty : {String_t(), String_t("")}) {
        password = empty;
        EXPECT_EQ(Login("password", AcceptRequest), "0");
        EXPECT_THAT(SentAfterNone(), ElementsAre(PasswordRequest("")));
    }
    EXPECT_TRUE(enter.limits.empty());
}

TEST_F(AuthPassword, ThreeTriesAreThreeRequestsAndThreePrompts) {
    EXPECT_EQ(Login("password", RefuseRequests(3)), "-1");
    EXPECT_EQ(authenticated, 0);
    EXPECT_THAT(SentAfterNone(), ElementsAre(PasswordRequest("secret"), PasswordRequest("typed-1"),
                                             PasswordRequest("typed-2")));
    EXPECT_THAT(enter.questions, ElementsAre(Question(), Question(), Question()));
    EXPECT_THAT(enter.limits, ElementsAre(32u, 32u, 32u));
    EXPECT_EQ(enter._tries, 3u) << "the count is a copy";
}

TEST_F(AuthPassword, OneTryIsOneRequestAndOnePrompt) {
    enter._tries = 1;
    EXPECT_EQ(Login("password", RefuseRequests(1)), "-1");
    EXPECT_THAT(SentAfterNone(), ElementsAre(PasswordRequest("secret")));
    EXPECT_EQ(enter.questions.size(), 1u);
}

TEST_F(AuthPassword, ZeroTriesSendNothing) {
    enter._tries = 0;
    EXPECT_EQ(Login("password", Nothing), "-1");
    EXPECT_TRUE(SentAfterNone().empty());
    EXPECT_TRUE(enter.questions.empty());
    EXPECT_EQ(enter.prompt, Question());
    EXPECT_EQ(Text(password), "secret");
}

TEST_F(AuthPassword, TypedPasswordLogsIn) {
    EXPECT_EQ(Login("password",
                    [](Connection& c) {
                        RefuseRequests(1)(c);
                        AcceptRequest(c);
                    }),
              "0");
    EXPECT_EQ(authenticated, 1);
    EXPECT_THAT(SentAfterNone(), ElementsAre(PasswordRequest("secret"), PasswordRequest("typed-1")));
    EXPECT_EQ(enter.questions.size(), 1u);
}

TEST_F(AuthPassword, TypedPasswordHasAtMost32Bytes) {
    std::string const longText(40, 'x');
    enter.answers = {"", longText};
    EXPECT_EQ(Login("password", RefuseRequests(3)), "-1");
    EXPECT_THAT(SentAfterNone(), ElementsAre(PasswordRequest("secret"), PasswordRequest(""),
                                             PasswordRequest(longText.substr(0, 32))));
}

TEST_F(AuthPassword, GivenPasswordHasNoLimit) {
    std::string const longText(5000, 'x');
    password = longText.c_str();
    EXPECT_EQ(Login("password", AcceptRequest), "0");
    EXPECT_THAT(SentAfterNone(), ElementsAre(PasswordRequest(longText)));
}

TEST_F(AuthPassword, RefusedPromptIsReturned) {
    enter.answers.clear();
    enter.whenOut = -77;
    EXPECT_EQ(Passwd(RefuseRequests(1)), "-77");
    EXPECT_THAT(Sent(), ElementsAre(PasswordRequest("secret")));
    password = "secret";
    EXPECT_EQ(Login("password,keyboard-interactive",
                    [](Connection& c) {
                        RefuseRequests(1)(c);
                        AcceptRequest(c);
                    }),
              "0")
        << "the walk goes on";
}

TEST_F(AuthPassword, ChangeRequestEndsTheMethod) {
    auto const demand = [](Connection& c) {
        c.ReadAuthRequest();
        c.SendPacket(Writer().U8(USERAUTH_PASSWD_CHANGEREQ).String("expired").String(""));
    };
    EXPECT_EQ(Passwd(demand), "-1");
    EXPECT_TRUE(enter.questions.empty());
    EXPECT_THAT(Sent(), ElementsAre(PasswordRequest("secret")));
    EXPECT_EQ(Login("password", demand), "-1");
    EXPECT_THAT(SentAfterNone(), ElementsAre(PasswordRequest("")));
}

TEST_F(AuthPassword, AnyOtherAnswerIsAViolation) {
    for (std::uint8_t type : {IGNORE, DEBUG, USERAUTH_REQUEST, USERAUTH_INFO_RESPONSE, GLOBAL_REQUEST}) {
        EXPECT_EQ(Login("password,keyboard-interactive",
                        [type](Connection& c) {
                            c.ReadAuthRequest();
                            c.SendPacket(Writer().U8(type).String(""));
                        }),
                  violation);
        EXPECT_EQ(SentAfterNone().size(), 1u);
        EXPECT_EQ(authenticated, 0);
    }
    EXPECT_TRUE(enter.questions.empty());
}

TEST_F(AuthPassword, CloseAfterTheRequestIsAViolation) {
    EXPECT_EQ(Login("password",
                    [](Connection& c) {
                        c.ReadAuthRequest();
                        c.Wire().ShutdownWrite();
                    }),
              closedEarly);
}

TEST_F(AuthPassword, CallersTextIsWipedByTheFirstTry) {
    String_t const copy(password);
    EXPECT_EQ(Login("password", AcceptRequest), "0");
    EXPECT_EQ(Text(password), "");
    EXPECT_EQ(Text(copy), "");
    EXPECT_EQ(std::string(password.Text(), 6), std::string(6, '\0'));
}

TEST_F(AuthPassword, CallersTextIsWipedOnAViolation) {
    EXPECT_EQ(Login("password",
                    [](Connection& c) {
                        c.ReadAuthRequest();
                        c.SendIgnore();
                    }),
              violation);
    EXPECT_EQ(Text(password), "");
}

TEST_F(AuthPassword, TypedPasswordReachesNeitherLaterMethodsNorTheCaller) {
    EXPECT_EQ(Login("password,password", RefuseRequests(6)), "-1");
    EXPECT_THAT(SentAfterNone(),
                ElementsAre(PasswordRequest("secret"), PasswordRequest("typed-1"), PasswordRequest("typed-2"),
                            PasswordRequest(""), PasswordRequest("typed-4"), PasswordRequest("typed-5")));
    EXPECT_EQ(Text(password), "");
}

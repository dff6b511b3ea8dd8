// Keyboard-interactive authentication, RFC 4256.

#include <gmock/gmock.h>

#include "wire/auth_fixture.h"

using namespace peer;
using testing::ElementsAre;
using testing::Pair;

namespace {

class AuthInteractive : public AuthTest {
protected:
    std::string Interactive(Script const& script, char const* submethods = "") {
        return Run(script, [this, submethods](AuthSession& session) {
            return session.AuthInteractive("tester", submethods, callback);
        });
    }
};

} // namespace

TEST_F(AuthInteractive, QuestionsReachTheCallbackAndAnswersTheServer) {
    callback.answers = {{"blue", "fish"}};
    EXPECT_EQ(Login("keyboard-interactive",
                    [](Connection& c) {
                        c.ReadAuthRequest();
                        c.SendInfoRequest("Login", "Be quick", {{"Colour? ", true}, {"Animal? ", false}});
                        c.ReadInfoResponse();
                        c.SendAuthSuccess();
                    }),
              "0");
    EXPECT_EQ(authenticated, 1);
    ASSERT_EQ(callback.requests.size(), 1u);
    EXPECT_EQ(callback.requests[0].name, "Login");
    EXPECT_EQ(callback.requests[0].instruction, "Be quick");
    EXPECT_THAT(callback.requests[0].prompts, ElementsAre(Pair("Colour? ", true), Pair("Animal? ", false)));
    EXPECT_THAT(Sent(), ElementsAre(ServiceRequest(), NoneRequest(), InteractiveRequest(),
                                    InfoResponse({"blue", "fish"})));
    EXPECT_TRUE(enter.questions.empty());
}

TEST_F(AuthInteractive, SubmethodsAreSentAfterAnEmptyLanguage) {
    EXPECT_EQ(Interactive(
                  [](Connection& c) {
                      c.ReadAuthRequest();
                      c.SendAuthFailure("");
                  },
                  "pam,otp"),
              "-1");
    EXPECT_THAT(Sent(), ElementsAre(Request("keyboard-interactive").String("").String("pam,otp").Data()));
}

TEST_F(AuthInteractive, LanguageIsNotPassedToTheCallback) {
    EXPECT_EQ(Interactive([](Connection& c) {
                  c.ReadAuthRequest();
                  c.SendPacket(
                      Writer().U8(USERAUTH_INFO_REQUEST).String("n").String("i").String("de-AT").U32(0));
                  c.ReadInfoResponse();
                  c.SendAuthSuccess();
              }),
              "0");
    ASSERT_EQ(callback.requests.size(), 1u);
    EXPECT_EQ(callback.requests[0].name + callback.requests[0].instruction, "ni");
}

TEST_F(AuthInteractive, NoPromptsGetAnEmptyResponse) {
    callback.answers = {{}, {"a"}};
    EXPECT_EQ(Interactive([](Connection& c) {
                  c.ReadAuthRequest();
                  c.SendInfoRequest("", "", {});
                  c.ReadInfoResponse();
                  c.SendInfoRequest("", "", {{"?", false}});
                  c.ReadInfoResponse();
                  c.SendAuthSuccess();
              }),
              "0");
    EXPECT_THAT(Sent(), ElementsAre(InteractiveRequest(), InfoResponse({}), InfoResponse({"a"})));
}

TEST_F(AuthInteractive, ServerEndsTheExchangesNotTheClient) {
    int const rounds = 100;
    callback.answers.assign(rounds, {"again"});
    EXPECT_EQ(Interactive([](Connection& c) {
                  c.ReadAuthRequest();
                  for (int i = 0; i < rounds; ++i) {
                      c.SendInfoRequest("", "", {{"?", false}});
                      c.ReadInfoResponse();
                  }
                  c.SendAuthFailure("");
              }),
              "-1");
    EXPECT_EQ(callback.requests.size(), std::size_t{rounds});
    EXPECT_EQ(authenticated, 0);
}

TEST_F(AuthInteractive, AnswersAreSentUnchanged) {
    callback.answers = {{"one", "", "three"}};
    EXPECT_EQ(Interactive([](Connection& c) {
                  c.ReadAuthRequest();
                  c.SendInfoRequest("", "", {{"?", false}});
                  c.ReadInfoResponse();
                  c.SendAuthSuccess();
              }),
              "0");
    EXPECT_THAT(Sent(), ElementsAre(InteractiveRequest(), InfoResponse({"one", "", "three"})));
}

TEST_F(AuthInteractive, KbdCopyCallbackAnswersEachPromptAlike) {
    cindral::KbdCopyCallback copy("secret");
    EXPECT_EQ(Run(
                  [](Connection& c) {
                      c.ReadAuthRequest();
                      c.SendInfoRequest("n", "i", {{"1", true}, {"2", false}, {"3", false}});
                      c.ReadInfoResponse();
                      c.SendAuthSuccess();
                  },
                  [&](AuthSession& session) { return session.AuthInteractive("tester", "", copy); }),
              "0");
    EXPECT_THAT(Sent(), ElementsAre(InteractiveRequest(), InfoResponse({"secret", "secret", "secret"})));
}

TEST_F(AuthInteractive, ImmediateSuccessAndFailureAreAccepted) {
    EXPECT_EQ(Interactive([](Connection& c) {
                  c.ReadAuthRequest();
                  c.SendAuthSuccess();
              }),
              "0");
    EXPECT_EQ(authenticated, 1);
    EXPECT_EQ(Interactive([](Connection& c) {
                  c.ReadAuthRequest();
                  c.SendAuthFailure("");
              }),
              "-1");
    EXPECT_EQ(authenticated, 0);
    EXPECT_TRUE(callback.requests.empty());
}

TEST_F(AuthInteractive, OtherMessageIsAViolationNamingIt) {
    std::vector<std::pair<unsigned, std::string>> const cases{
        {IGNORE, ": SSH_MSG_IGNORE"},
        {DEBUG, ": SSH_MSG_DEBUG"},
        {USERAUTH_INFO_RESPONSE, ": SSH_MSG_USERAUTH_INFO_RESPONSE"},
        {7, ""},
        {101, ": UNKNOWN_MESSAGE"}};
    for (auto const& [type, name] : cases)
        EXPECT_EQ(Interactive([type = type](Connection& c) {
                      c.ReadAuthRequest();
                      c.SendPacket(Writer().U8(type).String(""));
                  }),
                  "SshProtocolError: unexpected ssh response" + name);
}

TEST_F(AuthInteractive, OtherMessageAfterAnAnswerIsAViolation) {
    callback.answers = {{"a"}};
    EXPECT_EQ(Interactive([](Connection& c) {
                  c.ReadAuthRequest();
                  c.SendInfoRequest("", "", {{"?", false}});
                  c.ReadInfoResponse();
                  c.SendIgnore();
              }),
              "SshProtocolError: unexpected ssh response: SSH_MSG_IGNORE");
    EXPECT_EQ(authenticated, 0);
}

TEST_F(AuthInteractive, RequestWithBytesAfterItIsRefused) {
    EXPECT_EQ(
        Interactive([](Connection& c) {
            c.ReadAuthRequest();
            c.SendPacket(Writer().U8(USERAUTH_INFO_REQUEST).String("").String("").String("").U32(0).U8(9));
        }),
        "SshProtocolError: additional characters in packet after padding: SSH_MSG_USERAUTH_INFO_REQUEST");
    EXPECT_TRUE(callback.requests.empty());
}

#ifndef TESTS_SUPPORT_SESSION_RECORDING_CALLBACKS_H
#define TESTS_SUPPORT_SESSION_RECORDING_CALLBACKS_H

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <brantle/cindral/enter_password.h>
#include <brantle/session/kbd_interactive.h>

/// Answers from a list in place of a user, and records what it is given and asked.
class RecordingPassword : public cindral::EnterPassword {
public:
    explicit RecordingPassword(unsigned int tries, std::vector<std::string> const& replies = {})
        : EnterPassword(tries, String_t("Password: ")), answers(replies) {}

    int operator()(char* buffer, unsigned int size) override {
        limits.push_back(size);
        questions.push_back(prompt);
        if (limits.size() > answers.size()) return whenOut;
        std::string const& answer = answers[limits.size() - 1];
        std::size_t const length = std::min<std::size_t>(answer.size(), size);
        std::memcpy(buffer, answer.data(), length);
        return static_cast<int>(length);
    }
    void SetPrompt(String_t const& lead, String_t const& subject) override {
        prompt = std::string(lead.Text()) + "|" + subject.Text();
        EnterPassword::SetPrompt(lead, subject);
    }
    void Preset(String_t const& secret) override {
        presets.push_back(secret.Text() ? secret.Text() : "");
        EnterPassword::Preset(secret);
    }

    std::vector<std::string> answers;
    int whenOut = -1; ///< result once the answers have run out

    std::string prompt;                 ///< the two texts of the last SetPrompt, joined by "|"
    std::vector<std::string> questions; ///< the prompt of each question
    std::vector<unsigned int> limits;   ///< the size given with each question
    std::vector<std::string> presets;
};

/// Answers each request with the next list, and records the requests.
class RecordingCallback : public cindral::KbdInteractiveCallback {
public:
    struct Request {
        std::string name;
        std::string instruction;
        std::vector<std::pair<std::string, bool>> prompts;
    };

    TOList<String_t> operator()(String_t const& name, String_t const& instruction,
                                TOList<cindral::Prompt> const& prompts) override {
        Request request{name.Text(), instruction.Text(), {}};
        TOListIterator<cindral::Prompt> next(prompts);
        while (cindral::Prompt const* prompt = next())
            request.prompts.emplace_back(prompt->_text.Text(), prompt->_echo != 0);
        requests.push_back(request);
        TOList<String_t> list;
        if (requests.size() <= answers.size())
            for (std::string const& answer : answers[requests.size() - 1]) list.Append(answer.c_str());
        return list;
    }

    std::vector<std::vector<std::string>> answers;
    std::vector<Request> requests;
};

#endif

#include <brantle/session/kbd_interactive.h>

#include <iostream>

#include <brantle/cindral/enter_password.h>

namespace cindral {

namespace {

// Deliberate, here and below: texts from the server are printed as received. Pinned by
// KbdInteractiveCallback.ControlCharactersArePrintedAsReceived.
void PrintLine(String_t const& text) {
    if (!(text == "")) std::cout << text << '\n' << std::flush;
}

String_t AskWithEcho(String_t const& prompt) {
    std::cout << prompt << std::flush;
    String_t answer;
    std::cin >> answer;
    return answer;
}

String_t AskWithoutEcho(String_t const& prompt) {
    char buffer[128];
    EnterPassword enter(1, prompt);
    int const length = enter(buffer, sizeof buffer);
    return length > 0 ? String_t(buffer, static_cast<unsigned int>(length)) : String_t("");
}

} // namespace

KbdInteractiveCallback::KbdInteractiveCallback() = default;
KbdInteractiveCallback::~KbdInteractiveCallback() = default;

TOList<String_t> KbdInteractiveCallback::operator()(String_t const& name, String_t const& instruction,
                                                    TOList<Prompt> const& prompts) {
    PrintLine(name);
    PrintLine(instruction);
    TOList<String_t> answers;
    TOListIterator<Prompt> next(prompts);
    while (Prompt const* prompt = next())
        answers.Append(prompt->_echo ? AskWithEcho(prompt->_text) : AskWithoutEcho(prompt->_text));
    return answers;
}

KbdCopyCallback::KbdCopyCallback(String_t const& answer) : _answer(answer) {}
KbdCopyCallback::~KbdCopyCallback() = default;

TOList<String_t> KbdCopyCallback::operator()(String_t const&, String_t const&,
                                             TOList<Prompt> const& prompts) {
    TOList<String_t> answers;
    for (unsigned int i = prompts.Len(); i > 0; --i) answers.Append(_answer);
    return answers;
}

} // namespace cindral

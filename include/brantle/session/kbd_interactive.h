#ifndef BRANTLE_SESSION_KBD_INTERACTIVE_H
#define BRANTLE_SESSION_KBD_INTERACTIVE_H

#include <brantle/export.h>
#include <brantle/packet/auth_messages.h>
#include <brantle/thornel/string_t.h>
#include <generic/tolist>

namespace cindral {

/// Answers the prompts of keyboard-interactive authentication (RFC 4256). This class asks the user on the
/// terminal; a program derives from it to answer in another way.
class BRANTLE_API KbdInteractiveCallback {
public:
    KbdInteractiveCallback();
    KbdInteractiveCallback(KbdInteractiveCallback const&) = default;
    KbdInteractiveCallback& operator=(KbdInteractiveCallback const&) = default;
    virtual ~KbdInteractiveCallback();

    /// Called once for each request from the server. `name` and `instruction` may be empty, and so may
    /// `prompts`. Returns one answer for each prompt, in order.
    ///
    /// This implementation prints name, instruction and prompts to standard output. If the answer may be
    /// echoed, it is read as one word from standard input; otherwise it is read without echo, up to 128
    /// bytes. All texts are printed as the server sent them, control characters included.
    virtual TOList<String_t> operator()(String_t const& name, String_t const& instruction,
                                        TOList<Prompt> const& prompts);
};

/// Gives the same answer, such as a password, to every prompt.
class BRANTLE_API KbdCopyCallback : public KbdInteractiveCallback {
public:
    explicit KbdCopyCallback(String_t const& answer);
    ~KbdCopyCallback() override;

    TOList<String_t> operator()(String_t const& name, String_t const& instruction,
                                TOList<Prompt> const& prompts) override;

private:
    String_t _answer;
};

} // namespace cindral

#endif

#ifndef BRANTLE_CINDRAL_ENTER_PASSWORD_H
#define BRANTLE_CINDRAL_ENTER_PASSWORD_H

#include <brantle/cindral/export.h>
#include <brantle/thornel/string_t.h>

namespace cindral {

/// Asks the user for a secret on the terminal. A program that answers in another way derives from
/// it and overrides the call operator.
///
/// While a secret is being read, SIGINT, SIGTERM, SIGHUP, SIGQUIT and SIGTSTP restore the terminal
/// before they take their usual effect; only one thread may read a secret at a time.
class CINDRAL_API EnterPassword {
public:
    /// `tries` 0 means that no secret can be asked for. `prompt` is printed as it stands.
    EnterPassword(unsigned int tries, String_t const& prompt);
    virtual ~EnterPassword();
    EnterPassword(EnterPassword const&) = default;
    EnterPassword& operator=(EnterPassword const&) = default;

    /// The prompt becomes `lead`, a blank, `subject` and ": ". A preset secret answers the new
    /// question too.
    virtual void SetPrompt(String_t const& lead, String_t const& subject);
    /// Reads one line without echo from /dev/tty, or from standard input where there is no /dev/tty
    /// (the prompt goes to standard error then), and stores at most `size` bytes of it, without the
    /// line end; a terminator follows them if there is room. With a secret preset, the first call
    /// after `Preset` or `SetPrompt` stores that one and asks nothing. Returns the number of bytes
    /// stored, or minus errno: -EIO at the end of input, -EINTR when a signal whose handler
    /// returned interrupted the reading.
    virtual int operator()(char* buffer, unsigned int size);
    /// Sets the answer to the next question in advance; an empty text withdraws it. The text is
    /// shared: when its owner wipes it, the preset is gone.
    virtual void Preset(String_t const& secret);

    /// Non-zero when the next call answers with the preset secret.
    int HasPreset() const;
    /// The preset secret, empty if there is none, for a caller that offers it by itself, since an override of
    /// the call operator need not know of it. The next call does not answer with it again.
    String_t UsePreset();

    unsigned int _tries;

private:
    String_t _prompt;
    String_t _preset;
    bool _presetUsed;
};

} // namespace cindral

#endif

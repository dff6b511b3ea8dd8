#ifndef BRANTLE_CINDRAL_ENTER_PASSWORD_H
#define BRANTLE_CINDRAL_ENTER_PASSWORD_H

#include <brantle/cindral/export.h>
#include <brantle/thornel/string_t.h>

namespace cindral {

/// Asks the user for a secret on the terminal. A program that supplies secrets in another way derives a class
/// from it and overrides the call operator.
///
/// While a secret is being read, SIGINT, SIGTERM, SIGHUP, SIGQUIT and SIGTSTP restore the terminal
/// before they take their usual effect; only one thread may read a secret at a time.
class CINDRAL_API EnterPassword {
public:
    /// `tries` 0 means that no secret can be asked for. `prompt` is printed unchanged.
    EnterPassword(unsigned int tries, String_t const& prompt);
    virtual ~EnterPassword();
    EnterPassword(EnterPassword const&) = default;
    EnterPassword& operator=(EnterPassword const& other);

    /// The prompt becomes `lead`, a blank, `subject` and ": ". A preset secret can be used again for the new
    /// prompt.
    virtual void SetPrompt(String_t const& lead, String_t const& subject);
    /// Reads one line without echo from /dev/tty, or from standard input if there is no /dev/tty (the prompt
    /// then goes to standard error), and stores at most `size` bytes of it, without the line end; a
    /// terminator follows them if there is room. If a secret is preset, the first call after `Preset` or
    /// `SetPrompt` stores that secret without asking the user. Returns the number of bytes stored, or a
    /// negated errno value: -EIO at end of file, -EINTR when a signal whose handler returned interrupted the
    /// read.
    virtual int operator()(char* buffer, unsigned int size);
    /// Sets the answer to the next question in advance; an empty text withdraws it. For a key file it is
    /// the first passphrase tried, whatever is overridden. The text is shared: when its owner wipes it,
    /// the preset is gone. If nothing shares it any longer, it is wiped when it is replaced or withdrawn, and
    /// with this object.
    virtual void Preset(String_t const& secret);

    /// Non-zero when the next call answers with the preset secret.
    int HasPreset() const;
    /// The preset secret, empty if there is none, for a caller that uses it directly, because an override of
    /// the call operator may ignore it. The next call does not use it again.
    String_t UsePreset();

    unsigned int _tries;

private:
    String_t _prompt;
    String_t _preset;
    bool _presetUsed;
};

} // namespace cindral

#endif

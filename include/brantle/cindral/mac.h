#ifndef BRANTLE_CINDRAL_MAC_H
#define BRANTLE_CINDRAL_MAC_H

#include <brantle/cindral/export.h>
#include <brantle/thornel/byte_string.h>
#include <brantle/thornel/string_t.h>

namespace cindral {

/// A handle on the MAC of one direction of a connection (RFC 4253 section 6.4, RFC 6668).
///
/// The handle remains the same object when `Redefine` replaces the implementation. One thread at a time.
class CINDRAL_API Mac {
public:
    /// A MAC in use, with its key. The order of calls for one MAC is `Reset`, any number of `Update`,
    /// `Finish`, `Value`.
    class CINDRAL_API Rep {
    public:
        virtual ~Rep();
        /// Length of the finished MAC in bytes, at most 64.
        virtual unsigned int Length() const = 0;
        /// The MAC that the last `Finish` computed; valid until the next one.
        virtual unsigned char const* Value() const = 0;
        /// Starts a new MAC with the key. Throws `OpenSSLError`, as the two below do.
        virtual void Reset() = 0;
        virtual void Update(unsigned char const* bytes, unsigned int length) = 0;
        virtual void Finish() = 0;
    };

    /// No MAC: `_rep` is null.
    Mac();
    ~Mac();
    Mac(Mac const&) = delete;
    Mac& operator=(Mac const&) = delete;

    /// The names of the MACs, comma-separated, most preferred first.
    static String_t AvailableMacs();
    /// Key length in bytes; 0 for a name that is not known.
    static unsigned int KeyLength(char const* name);

    /// Replaces the implementation; it is ready for its first `Update`. The first bytes of `key` are used; it
    /// may be longer. Throws `InvalidArgument` for an unknown name or a key too short for the MAC, and
    /// `OpenSSLError`; the old implementation is then kept.
    void Redefine(char const* name, ByteString const& key);

    /// Feeds 4 bytes, most significant first. REQUIRES: `Redefine` has been called; without an
    /// implementation nothing happens.
    void UpdateInt(unsigned int value);

    /// Null until the first `Redefine`.
    Rep* _rep;
};

} // namespace cindral

#endif

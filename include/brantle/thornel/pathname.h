#ifndef BRANTLE_THORNEL_PATHNAME_H
#define BRANTLE_THORNEL_PATHNAME_H

#include <brantle/thornel/export.h>
#include <brantle/thornel/string_t.h>
#include <generic/tolist>

/// A path as text, usable wherever a `String_t const&` is wanted. Nothing but `Home`, `Cwd`, `Abs` and
/// `Glob` looks at the system; the rest works on the text alone.
class THORNEL_API Pathname : public String_t {
public:
    Pathname() = default;
    Pathname(Pathname const&) = default;
    Pathname(String_t const& text) : String_t(text) {}
    Pathname(char const* text) : String_t(text) {}
    Pathname& operator=(Pathname const&) = default;
    Pathname& operator=(String_t const& text) {
        String_t::operator=(text);
        return *this;
    }
    Pathname& operator=(char const* text) {
        String_t::operator=(text);
        return *this;
    }

    /// The current user's home directory: `$HOME` if it is set and not empty, else that of the password
    /// database; empty if neither has one.
    static Pathname Home();
    /// The current working directory, empty if it can't be told.
    static Pathname Cwd();

    /// Adds a component after a separator; no separator in front if the path is empty or ends in one.
    /// An empty or null component changes nothing.
    Pathname& Append(char const* component);
    /// Puts a directory in front, with a separator unless there is one. An empty or null directory
    /// changes nothing.
    Pathname& Insert(char const* directory);
    /// Removes "." and ".." components and surplus separators. A ".." that leads above the start of a
    /// relative path stays; a relative path of which nothing remains is ".".
    Pathname& Collapse();
    /// Makes a relative path absolute by the current working directory.
    Pathname& Abs();
    bool IsAbs() const;

    /// Everything in front of the last component, without the separators between: empty for a single
    /// component and for "/", and "/" for a component right under the root.
    Pathname Dir() const;
    /// The last component, without separators after it. `suffix`, which may be null, is taken off its end
    /// unless it is the whole component.
    String_t Leaf(char const* suffix) const;
    /// Replaces the extension of the last component, or adds it. `extension` comes with its dot, as in
    /// ".pub"; null or empty takes the extension away. A dot at the start of the component begins no
    /// extension.
    Pathname& ChExt(char const* extension);

    /// Expands a wildcard pattern on the local file system, by the rules of glob(3), and appends the names to
    /// `list` in sorted order. `flags` are those of glob(3); GLOB_APPEND, GLOB_DOOFFS and GLOB_NOCHECK have
    /// no effect. Returns the number of names, 0 if nothing matches; negative on failure.
    static int Glob(Pathname const& pattern, int flags, TOList<String_t>& list);
};

#endif

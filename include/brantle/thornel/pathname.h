#ifndef BRANTLE_THORNEL_PATHNAME_H
#define BRANTLE_THORNEL_PATHNAME_H

#include <brantle/thornel/export.h>
#include <brantle/thornel/string_t.h>
#include <generic/tolist>

/// A path as text, usable wherever a `String_t const&` is wanted. Only `Home`, `Cwd`, `Abs` and `Glob` access
/// the system; the rest works only on the text.
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

    /// The current user's home directory: `$HOME` if it is set and not empty, otherwise that in the password
    /// database; empty if neither has one.
    static Pathname Home();
    /// The current working directory, empty if it can't be determined.
    static Pathname Cwd();

    /// Appends a separator and a component; no separator is added if the path is empty or ends in one. An
    /// empty or null component changes nothing.
    Pathname& Append(char const* component);
    /// Prepends a directory, with a separator unless there is one. An empty or null directory changes
    /// nothing.
    Pathname& Insert(char const* directory);
    /// Removes "." and ".." components and redundant separators. A ".." that goes above the start of a
    /// relative path is kept; a relative path of which nothing remains becomes ".".
    Pathname& Collapse();
    /// Makes a relative path absolute by prefixing the current working directory.
    Pathname& Abs();
    bool IsAbs() const;

    /// Everything before the last component, without the separators between them: empty for a single
    /// component and for "/", and "/" for a component directly under the root.
    Pathname Dir() const;
    /// The last component, without separators after it. `suffix`, which may be null, is removed from its end
    /// unless it is the whole component.
    String_t Leaf(char const* suffix) const;
    /// Replaces the extension of the last component, or adds it. `extension` includes its dot, as in ".pub";
    /// null or empty removes the extension. A dot at the start of the component does not begin an extension.
    Pathname& ChExt(char const* extension);

    /// Expands a wildcard pattern on the local file system, by the rules of glob(3), and appends the names to
    /// `list` in sorted order. `flags` are those of glob(3); GLOB_APPEND, GLOB_DOOFFS and GLOB_NOCHECK have
    /// no effect. Returns the number of names, 0 if nothing matches; negative on failure.
    static int Glob(Pathname const& pattern, int flags, TOList<String_t>& list);
};

#endif

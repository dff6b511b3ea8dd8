#ifndef BRANTLE_THORNEL_STRING_T_H
#define BRANTLE_THORNEL_STRING_T_H

#include <cstddef>
#include <iosfwd>

#include <brantle/thornel/export.h>
#include <brantle/thornel/text.h>

/// A text value. Copies share one counted representation, and a text is not changed while it is shared.
///
/// The text pointer of a default-constructed value is null; every operation treats such a value as an empty
/// text. The count is a plain integer: values that share a representation must be used by one thread at a
/// time, or with external locking.
class THORNEL_API String_t {
public:
    /// The representation that copies of a value share and jointly own; the last one frees it.
    struct THORNEL_API Srep {
        char* _text; ///< NUL-terminated, owned, may be null
        int _count;  ///< values that share this representation

        explicit Srep(char* text) : _text(text), _count(1) {}
        ~Srep() { delete[] _text; }
        Srep(Srep const&) = delete;
        Srep& operator=(Srep const&) = delete;

        static void* operator new(std::size_t size);
        static void operator delete(void* rep, std::size_t size);
    };

    /// An empty text with a null pointer.
    String_t();
    /// Copies a text; null gives an empty text with a null pointer.
    String_t(char const* text);
    /// Copies exactly `length` bytes and terminates them. A null `text` gives `length` bytes of 0.
    String_t(char const* text, unsigned int length);
    /// An unshared array of `length` + 1 bytes, all 0, for the caller to fill through `Buffer()`. Takes an
    /// unsigned number (`0u`), because a plain 0 could also be a null pointer.
    explicit String_t(unsigned int length);

    String_t(String_t const& other) noexcept : _rep(other._rep) { ++_rep->_count; }
    ~String_t() { Release(_rep); }
    String_t& operator=(String_t const& other) noexcept;

    /// Replaces the text; null makes it empty. The argument may point into the current text.
    String_t& operator=(char const* text);
    /// Appends a text; null appends nothing. The argument may point into the current text.
    String_t& operator+=(char const* text);
    String_t& operator+=(String_t const& other) { return *this += other.Text(); }

    /// The text, null for a default-constructed value. Valid until the value changes or is destroyed.
    char const* Text() const { return _rep->_text; }

    /// The writable array, never null, unshared first. Its size is that given to the `Reserve` or
    /// `String_t(unsigned int)` just before, otherwise that of the current text.
    char* Buffer();

    /// Makes the array unshared, with room for `length` characters and the terminator, and keeps as much of
    /// the text as fits. The bytes after the text are 0.
    void Reserve(unsigned int length);

    /// At most `length` characters from `start`; empty if `start` is after the end.
    String_t SubStr(unsigned int start, unsigned int length) const;

    /// The text without blanks, tabs, line ends, vertical tabs and form feeds at both ends.
    String_t Trim() const;

    /// Reads up to a character of `delimiters`, which is consumed and not stored, and replaces the target's
    /// text. Sets eofbit at the end of the input, with failbit if nothing was read, and badbit if the
    /// stream's buffer fails, as it does for a directory, which can be opened like a file.
    static std::istream& Getline(std::istream& in, String_t& target, char const* delimiters);

    bool operator==(char const* text) const { return str_cmp(Text(), text) == 0; }
    bool operator!=(char const* text) const { return !(*this == text); }
    bool operator==(String_t const& other) const { return _rep == other._rep || *this == other.Text(); }
    bool operator!=(String_t const& other) const { return !(*this == other); }

    Srep* _rep;

private:
    static void Release(Srep* rep) noexcept {
        if (--rep->_count == 0) Destroy(rep);
    }
    static void Destroy(Srep* rep) noexcept;
};

/// Writes the text; an empty one writes nothing.
THORNEL_API std::ostream& operator<<(std::ostream& out, String_t const& text);
/// Reads one word, delimited by white space.
THORNEL_API std::istream& operator>>(std::istream& in, String_t& text);

#endif

// Texts of the server's on the user's terminal: nothing in them may steer it, or pass for a prompt of this
// program's.

#ifndef EXAMPLES_PRINTABLE_H
#define EXAMPLES_PRINTABLE_H

#include <cstddef>
#include <ostream>
#include <streambuf>
#include <string>
#include <string_view>

#include <brantle/session/kbd_interactive.h>
#include <brantle/thornel/string_t.h>
#include <brantle/thornel/text.h>

namespace examples {

/// The number of bytes of the character that a text begins with, in UTF-8 (RFC 3629, section 4); 0 if it
/// begins with none. A byte after the end counts as 0.
inline std::size_t CharacterLength(std::string_view text) {
    auto const byte = [text](std::size_t at) {
        return at < text.size() ? static_cast<unsigned char>(text[at]) : 0u;
    };
    unsigned int const first = byte(0), second = byte(1);
    if (first < 0x80) return 1;
    if (first < 0xc2 || first > 0xf4) return 0;
    // Longer forms than are needed, surrogates, and what lies beyond U+10FFFF.
    if ((first == 0xe0 && second < 0xa0) || (first == 0xed && second > 0x9f) ||
        (first == 0xf0 && second < 0x90) || (first == 0xf4 && second > 0x8f))
        return 0;
    std::size_t const length = first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
    for (std::size_t at = 1; at < length; ++at)
        if ((byte(at) & 0xc0) != 0x80) return 0;
    return length;
}

/// Whether a text begins with a character that ends a line or turns the direction of writing: U+061C, U+200E,
/// U+200F, U+2028 to U+202E, U+2066 to U+2069.
inline bool BeginsWithLayout(std::string_view text) {
    auto const byte = [text](std::size_t at) { return static_cast<unsigned char>(text[at]); };
    if (text.substr(0, 2) == "\xd8\x9c") return true;
    if (text.size() < 3) return false;
    if (text.substr(0, 2) == "\xe2\x80")
        return byte(2) == 0x8e || byte(2) == 0x8f || (byte(2) >= 0xa8 && byte(2) <= 0xae);
    return text.substr(0, 2) == "\xe2\x81" && byte(2) >= 0xa6 && byte(2) <= 0xa9;
}

/// Whether a text begins with a character that steers a terminal that takes UTF-8: U+0000 to U+001F, U+007F
/// to U+009F, or one of BeginsWithLayout().
inline bool BeginsWithControl(std::string_view text) {
    auto const first = static_cast<unsigned char>(text[0]);
    if (first < 0x80) return first < 0x20 || first == 0x7f;
    return (first == 0xc2 && text.size() > 1 && static_cast<unsigned char>(text[1]) < 0xa0) ||
           BeginsWithLayout(text);
}

inline bool HasControl(std::string_view text) {
    for (; !text.empty(); text.remove_prefix(1))
        if (BeginsWithControl(text)) return true;
    return false;
}

enum class Layout { ONE_LINE, LINES };

/// A text with "?" for each control character and each byte that is not UTF-8. Lines keep their ends, and
/// their tabs.
inline std::string Printable(std::string_view text, Layout layout) {
    std::string clean;
    while (!text.empty()) {
        bool const isLayout =
            layout == Layout::LINES && (text[0] == '\n' || text[0] == '\t' || text.substr(0, 2) == "\r\n");
        std::size_t const length = CharacterLength(text);
        if (isLayout || (length > 0 && !BeginsWithControl(text)))
            clean += text.substr(0, length);
        else
            clean += '?';
        text.remove_prefix(length > 0 ? length : 1);
    }
    return clean;
}

inline String_t Printable(String_t const& text) {
    return Printable(str_text(text.Text()), Layout::ONE_LINE).c_str();
}

/// While it lives, what is written to a stream passes through Printable. The library prints banners, and why
/// a server disconnects, to std::cout and std::cerr as they come.
class PrintableStream : private std::streambuf {
public:
    explicit PrintableStream(std::ostream& stream) : _stream(stream), _buffer(stream.rdbuf(this)) {}
    ~PrintableStream() override {
        PrintableStream::sync();
        _stream.rdbuf(_buffer);
    }
    PrintableStream(PrintableStream const&) = delete;
    PrintableStream& operator=(PrintableStream const&) = delete;

private:
    int_type overflow(int_type c) override {
        if (!traits_type::eq_int_type(c, traits_type::eof())) _text += traits_type::to_char_type(c);
        return traits_type::not_eof(c);
    }
    int sync() override {
        std::string const clean = Printable(_text, Layout::LINES);
        _text.clear();
        _buffer->sputn(clean.data(), static_cast<std::streamsize>(clean.size()));
        return _buffer->pubsync();
    }

    std::ostream& _stream;
    std::streambuf* _buffer;
    std::string _text; ///< written and not yet passed on
};

/// Asks the server's questions on the terminal, each with the host that asks in front of it: a question may
/// read like one of this program's own. A StandardDialect has marked the prompts already.
class ServersQuestions : public cindral::KbdInteractiveCallback {
public:
    ServersQuestions(String_t const& host, bool promptsAreMarked)
        : _host(host), _promptsAreMarked(promptsAreMarked) {}

    TOList<String_t> operator()(String_t const& name, String_t const& instruction,
                                TOList<cindral::Prompt> const& prompts) override {
        TOList<cindral::Prompt> marked(prompts);
        TOListIterator<cindral::Prompt> next(marked);
        while (cindral::Prompt* const prompt = next())
            if (!_promptsAreMarked) prompt->_text = Marked(prompt->_text);
        return KbdInteractiveCallback::operator()(Marked(name), Marked(instruction), marked);
    }

private:
    String_t Marked(String_t const& text) const {
        if (text == "") return text;
        return ((String_t("(") += _host) += ") ") += Printable(text);
    }

    String_t _host;
    bool _promptsAreMarked;
};

} // namespace examples

#endif

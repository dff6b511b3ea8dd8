// Parses the text form of a forwarding.

#include <cerrno>
#include <sstream>

#include <brantle/session/ssh_session.h>
#include <brantle/thornel/text.h>

namespace cindral {

namespace {

/// Reads the fields of the text one by one.
class FieldReader {
public:
    explicit FieldReader(char const* text) : _in(text) {}

    /// Reads one field, up to a colon, up to the end of the text, or enclosed in "[" and "]]", which no colon
    /// follows. False if there is none.
    bool Read() {
        char first;
        if (!(_in >> first)) return false;
        if (first == '[') {
            _isNumber = false;
            return String_t::Getline(_in, _text, "]") && ReadCharacter(']');
        }
        _in.putback(first);
        if (!String_t::Getline(_in, _text, ":") || str_empty(_text.Text())) return false;
        _isNumber = str_toint(_text.Text(), &_number) == str_len(_text.Text());
        return true;
    }

    bool ReadNumberAndColon(unsigned int& number) { return _in >> number && ReadCharacter(':'); }

    /// The field read last.
    bool IsNumber() const { return _isNumber; }
    unsigned int Number() const { return static_cast<unsigned int>(_number); }
    String_t const& Text() const { return _text; }

private:
    /// Reads the next character without skipping white space, which is skipped only before a field.
    bool ReadCharacter(char expected) {
        char character;
        return _in.get(character) && character == expected;
    }

    std::istringstream _in;
    String_t _text;
    bool _isNumber = false;
    int _number = 0;
};

} // namespace

int SshSession::ParseFwdSpec(char const* spec, String_t& bindAddress, unsigned int& listenPort,
                             String_t& host, unsigned int& port) {
    if (!spec) return -EINVAL;
    FieldReader field(spec);
    if (!field.Read()) return -EINVAL;
    if (field.IsNumber()) {
        bindAddress = "localhost";
        listenPort = field.Number();
    } else {
        bindAddress = field.Text();
        if (!field.ReadNumberAndColon(listenPort)) return -EINVAL;
    }
    if (!field.Read() || field.IsNumber()) return -EINVAL;
    host = field.Text();
    if (!field.Read() || !field.IsNumber()) return -EINVAL;
    port = field.Number();
    return 0;
}

} // namespace cindral

#include <brantle/channel/x11_forwarding.h>

#include <cstdlib>
#include <cstring>
#include <istream>
#include <ostream>
#include <string>

#include <brantle/cindral/bin_buffer.h>
#include <brantle/cindral/exceptions.h>
#include <brantle/cindral/hex_buffer.h>
#include <brantle/cindral/random.h>
#include <brantle/cindral/sbuf_adapter.h>
#include <brantle/cindral/string_buffer.h>
#include <brantle/thornel/client_socket.h>
#include <brantle/thornel/ipstream.h>
#include <brantle/thornel/string_splitter.h>
#include <brantle/thornel/string_tok.h>
#include <brantle/thornel/text.h>

namespace cindral {

namespace {

constexpr unsigned int DISPLAYS = 1000; ///< numbers for which there is a TCP port
constexpr unsigned int FIRST_PORT = 6000;

/// The command that lists the cookie of a display. A display that another SSH server forwards to this host
/// is listed under the name of the host's own displays.
///
/// Deliberate: the display is inserted into the shell command unquoted. Pinned by
/// X11Xauth.DisplayIsPassedToTheShellUnquoted.
String_t ListCommand(String_t const& display) {
    static char const forwarded[] = "localhost:";
    constexpr unsigned int length = sizeof forwarded - 1;
    char const* const text = str_text(display.Text());
    String_t command("xauth list ");
    if (std::strncmp(text, forwarded, length) == 0)
        (command += "unix:") += text + length;
    else
        command += text;
    return command;
}

/// The bytes of hexadecimal text; none if the text is malformed.
ByteString ReadCookie(char const* text) {
    ByteString cookie;
    cookie.Reserve(str_len(text) / 2);
    IStringBuffer digits(text);
    IHexBuffer hex(&digits);
    SBufAdapter adapter(hex);
    std::istream in(&adapter);
    try {
        BinBuffer::ReadString(in, cookie.Data(), cookie.Length());
    } catch (BadInput const&) {
        return ByteString();
    }
    return cookie;
}

/// Returns the splitter's token and goes to the next; null if there is none.
char const* TakeToken(StringSplitter& splitter) {
    char const* const token = splitter.Current();
    if (!token || token >= splitter.End()) return nullptr;
    splitter.Next();
    return token;
}

unsigned int TakeNumber(StringSplitter& splitter) {
    char const* const token = TakeToken(splitter);
    return token ? static_cast<unsigned int>(std::strtol(token, nullptr, 10)) : 0;
}

} // namespace

char const* const SshSession::X11Forwarding::_defaultAuthMethod = "MIT-MAGIC-COOKIE-1";
char const* const SshSession::X11Forwarding::_localSocketPrefix = "/tmp/.X11-unix/X";

SshSession::X11Forwarding::X11Forwarding(String_t const& display, int singleConnection)
    : _display(display), _authMethod(_defaultAuthMethod), _displayNumber(0), _screenNumber(0),
      _singleConnection(singleConnection), _unixSocket(0) {
    AskXauth();
    _fakeCookie = RandomBytes(COOKIE_LENGTH);
    SplitDisplay();
    _localSocket = _localSocketPrefix;
    _localSocket += std::to_string(_displayNumber).c_str();
}

void SshSession::X11Forwarding::AskXauth() {
    ipstream entries(ListCommand(_display).Text());
    String_t line;
    if (entries.good() && String_t::Getline(entries, line, "\n")) TakeEntry(line);
}

/// Parses an entry as listed by `xauth`: display, name of the method, cookie.
void SshSession::X11Forwarding::TakeEntry(String_t const& line) {
    StringTok words(line.Text());
    words(" ");
    char const* const method = words(" ");
    if (!method) return;
    _authMethod = method;
    if (char const* const cookie = words(" ")) _realCookie = ReadCookie(cookie);
}

void SshSession::X11Forwarding::SplitDisplay() {
    StringSplitter parts(_display.Text(), ":.", nullptr);
    if (char const* const host = TakeToken(parts)) _host = host;
    _displayNumber = TakeNumber(parts);
    _screenNumber = TakeNumber(parts);
}

String_t SshSession::X11Forwarding::CookieString(ByteString const& cookie) {
    OStringBuffer text(128);
    OHexBuffer hex(&text, 72, ' ', 0);
    SBufAdapter adapter(hex);
    std::ostream out(&adapter);
    BinBuffer::WriteString(out, cookie.Data(), cookie.Length());
    hex.Flush();
    return String_t(text.Str(), text.Len());
}

int SshSession::X11Forwarding::Connect(unsigned int timeout, int& error) {
    if (!str_empty(_host.Text()) && _host != "unix") {
        if (_displayNumber >= DISPLAYS) return -1;
        ClientSocketIn server(static_cast<unsigned short>(FIRST_PORT + _displayNumber), _host.Text());
        if (!server) return -1;
        _unixSocket = 0;
        return server.Connect(timeout, error);
    }
    ClientSocketUn server(_localSocket);
    if (!server) return -1;
    _unixSocket = 1;
    return server.Connect(timeout, error);
}

} // namespace cindral

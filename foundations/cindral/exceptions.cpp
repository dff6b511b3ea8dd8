#include <brantle/cindral/exceptions.h>

namespace cindral {

namespace {

String_t Message(char const* text, String_t const& detail) {
    String_t message(text);
    if (detail.Text() && *detail.Text()) {
        message += ": ";
        message += detail;
    }
    return message;
}

} // namespace

CryptoException::CryptoException(char const* text, String_t const& detail)
    : Except(Message(text, detail)), _text(text), _detail(detail) {}

CryptoException::~CryptoException() = default;

String_t CryptoException::EncodeInt(int value) {
    char digits[12];
    return String_t(str_int2str10(digits, sizeof digits, value, 0, 0));
}

SshProtocolError::SshProtocolError(char const* text) : CryptoException(text, String_t()) {}
SshProtocolError::SshProtocolError(char const* text, String_t const& detail)
    : CryptoException(text, detail) {}
SshProtocolError::SshProtocolError(char const* text, int messageNumber)
    : CryptoException(text, EncodeInt(messageNumber)) {}
SshProtocolError::~SshProtocolError() = default;

SystemError::SystemError(char const* text, int error, String_t const& detail)
    : CryptoException(text, detail), _errno(error) {}
SystemError::~SystemError() = default;

BadInput::BadInput(String_t const& text) : CryptoException(text.Text(), String_t()) {}
BadInput::~BadInput() = default;

InvalidArgument::InvalidArgument(char const* place, char const* wrong)
    : CryptoException(place, String_t(wrong)) {}
InvalidArgument::~InvalidArgument() = default;

OpenSSLError::OpenSSLError(char const* call) : CryptoException(call, String_t()) {}
OpenSSLError::~OpenSSLError() = default;

} // namespace cindral

#ifndef BRANTLE_CINDRAL_EXCEPTIONS_H
#define BRANTLE_CINDRAL_EXCEPTIONS_H

#include <brantle/cindral/export.h>
#include <brantle/thornel/except.h>
#include <brantle/thornel/string_t.h>

namespace cindral {

/// Base of everything that libcindral and libbrantle throw: a text that says what went wrong, and a detail
/// that may be empty. `what()` is the text, followed by ": " and the detail if there is one. Thrown by value.
/// Like the `String_t` values inside, an exception object belongs to one thread at a time.
class CINDRAL_API CryptoException : public Except {
public:
    /// A null `text` counts as an empty text.
    CryptoException(char const* text, String_t const& detail);
    CryptoException(CryptoException const&) = default;
    CryptoException& operator=(CryptoException const&) = default;
    ~CryptoException() override;

    /// `value` in decimal.
    static String_t EncodeInt(int value);

    String_t const& Text() const { return _text; }
    String_t const& Detail() const { return _detail; }

private:
    String_t _text;
    String_t _detail;
};

/// The peer violated the protocol. A number as detail is the number of the message received.
class CINDRAL_API SshProtocolError : public CryptoException {
public:
    explicit SshProtocolError(char const* text);
    SshProtocolError(char const* text, String_t const& detail);
    SshProtocolError(char const* text, int messageNumber);
    SshProtocolError(SshProtocolError const&) = default;
    SshProtocolError& operator=(SshProtocolError const&) = default;
    ~SshProtocolError() override;
};

/// A system call failed.
class CINDRAL_API SystemError : public CryptoException {
public:
    SystemError(char const* text, int error, String_t const& detail);
    SystemError(SystemError const&) = default;
    SystemError& operator=(SystemError const&) = default;
    ~SystemError() override;

    /// The errno value.
    int Errno() const { return _errno; }

private:
    int _errno;
};

/// Input that ends too early, or an invalid internal state; `Text()` says which.
class CINDRAL_API BadInput : public CryptoException {
public:
    explicit BadInput(String_t const& text);
    BadInput(BadInput const&) = default;
    BadInput& operator=(BadInput const&) = default;
    ~BadInput() override;
};

/// A bad argument: `Text()` is the function, `Detail()` what is wrong.
class CINDRAL_API InvalidArgument : public CryptoException {
public:
    InvalidArgument(char const* place, char const* wrong);
    InvalidArgument(InvalidArgument const&) = default;
    InvalidArgument& operator=(InvalidArgument const&) = default;
    ~InvalidArgument() override;
};

/// An OpenSSL call failed; `Text()` is its name, as in "DH_compute_key".
class CINDRAL_API OpenSSLError : public CryptoException {
public:
    explicit OpenSSLError(char const* call);
    OpenSSLError(OpenSSLError const&) = default;
    OpenSSLError& operator=(OpenSSLError const&) = default;
    ~OpenSSLError() override;
};

} // namespace cindral

#endif

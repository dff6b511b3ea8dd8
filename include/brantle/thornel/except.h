#ifndef BRANTLE_THORNEL_EXCEPT_H
#define BRANTLE_THORNEL_EXCEPT_H

#include <exception>

#include <brantle/thornel/export.h>
#include <brantle/thornel/string_t.h>

/// Root of the exceptions of this family of libraries. Thrown by value; copies share the message, so use an
/// exception only on the thread that threw it.
class THORNEL_API Except : public std::exception {
public:
    Except() = default;
    /// `message` is what `what()` returns.
    explicit Except(String_t const& message) : _message(message) {}
    Except(Except const&) = default;
    Except& operator=(Except const&) = default;
    ~Except() override;

    /// The whole message, never null.
    char const* what() const noexcept override;

private:
    String_t _message;
};

#endif

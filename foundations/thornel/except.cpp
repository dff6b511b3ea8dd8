#include <brantle/thornel/except.h>

Except::~Except() = default;

char const* Except::what() const noexcept { return _message.Text() ? _message.Text() : ""; }

#include <brantle/thornel/except.h>

#include <brantle/thornel/text.h>

Except::~Except() = default;

char const* Except::what() const noexcept { return str_text(_message.Text()); }

#ifndef BRANTLE_STANDARD_X11_SETUP_H
#define BRANTLE_STANDARD_X11_SETUP_H

#include "standard/bytes.h"

namespace cindral::standard {

/// Longest set-up message accepted from an X client.
constexpr std::size_t X11_MAX_SETUP = 1024;

/// What an X client proves that it may connect with.
struct X11Authorization {
    View method;
    View cookie;
};

/// The length of an X client's set-up message (X Window System Protocol, section 8), of which `bytes` is the
/// beginning; 0 while it is not known yet.
std::size_t X11SetupLength(View bytes);

/// The whole set-up message with another authorization; empty if the message is not one of version 11 with
/// the authorization `given`.
Bytes ReplaceX11Authorization(View message, X11Authorization const& given, X11Authorization const& other);

} // namespace cindral::standard

#endif

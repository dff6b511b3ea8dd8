#ifndef BRANTLE_KEX_KEX_TYPE_H
#define BRANTLE_KEX_KEX_TYPE_H

namespace cindral {

/// Methods of key exchange: none agreed, the two fixed groups (RFC 4253, sections 8.1 and 8.2), and a group
/// that the server chooses (RFC 4419).
enum KexType : int { KEX_NONE = 0, KEX_GROUP1 = 1, KEX_GROUP14 = 2, KEX_GEX = 3 };

} // namespace cindral

#endif

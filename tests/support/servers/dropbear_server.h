#ifndef BRANTLE_TESTS_SUPPORT_SERVERS_DROPBEAR_SERVER_H
#define BRANTLE_TESTS_SUPPORT_SERVERS_DROPBEAR_SERVER_H

#include "support/servers/real_server.h"

namespace servers {

/// Dropbear, which has no group exchange and sends its KEXINIT at once with its identification line.
/// There are no accounts: nobody can log in.
class DropbearServer : public RealServer {
public:
    DropbearServer();
};

} // namespace servers

#endif

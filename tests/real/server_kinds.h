#ifndef BRANTLE_TESTS_REAL_SERVER_KINDS_H
#define BRANTLE_TESTS_REAL_SERVER_KINDS_H

// The real servers as parameters of typed tests.

#include <string>

#include "support/servers/openssh_server.h"
#include "support/servers/python_servers.h"

namespace kinds {

struct Asyncssh {
    using Server = servers::AsyncsshServer;
    static constexpr char const* NAME = "Asyncssh";
    static constexpr unsigned int UNSOLICITED = 0; ///< packets after a login by key
};

struct Paramiko {
    using Server = servers::ParamikoServer;
    static constexpr char const* NAME = "Paramiko";
    static constexpr unsigned int UNSOLICITED = 0;
};

struct Openssh {
    using Server = servers::OpensshServer;
    static constexpr char const* NAME = "Openssh";
    static constexpr unsigned int UNSOLICITED = 3;
};

struct Names {
    template <class Kind>
    static std::string GetName(int) {
        return Kind::NAME;
    }
};

} // namespace kinds

#endif

#include "support/servers/dropbear_server.h"

namespace servers {

DropbearServer::DropbearServer() : RealServer("nobody", {}) {
    RunOrThrow({"dropbearkey", "-t", "rsa", "-s", "2048", "-f", File("dropbear_rsa")});
    StartOnFreePort([this](std::uint16_t port) {
        return std::vector<std::string>{"/usr/sbin/dropbear",
                                        "-F",
                                        "-E",
                                        "-s",
                                        "-r",
                                        File("dropbear_rsa"),
                                        "-P",
                                        File("dropbear.pid"),
                                        "-p",
                                        "127.0.0.1:" + std::to_string(port)};
    });
}

} // namespace servers

#ifndef TESTS_REAL_STANDARD_CLIENT_H
#define TESTS_REAL_STANDARD_CLIENT_H

#include <string>
#include <vector>

#include "support/servers/standard_server.h"

/// The line that runs standard_program with a server as its user: `options` are "NAME=VALUE", `key` is a file
/// or empty, and its known hosts and other files are below `home`.
inline std::vector<std::string> StandardProgramLine(servers::StandardServer const& server,
                                                    std::string const& home,
                                                    std::vector<std::string> const& options,
                                                    std::string const& job, std::string const& key,
                                                    std::vector<std::string> const& arguments) {
    std::vector<std::string> line{"env", "HOME=" + home, STANDARD_PROGRAM, "report=" + home + "/report"};
    line.insert(line.end(), options.begin(), options.end());
    line.push_back(job);
    line.push_back(server.User() + "@" + server.Host() + ":" + std::to_string(server.Port()));
    line.push_back(key);
    line.insert(line.end(), arguments.begin(), arguments.end());
    return line;
}

#endif

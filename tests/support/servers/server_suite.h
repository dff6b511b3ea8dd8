#ifndef BRANTLE_TESTS_SUPPORT_SERVERS_SERVER_SUITE_H
#define BRANTLE_TESTS_SUPPORT_SERVERS_SERVER_SUITE_H

#include <memory>

#include <gtest/gtest.h>

namespace servers {

/// A fixture whose suite shares one server (or agent), started before the first case and stopped
/// after the last.
template <class Server>
class ServerSuite : public testing::Test {
protected:
    static void SetUpTestSuite() { _server = std::make_unique<Server>(); }
    static void TearDownTestSuite() { _server.reset(); }

    void SetUp() override { ASSERT_TRUE(_server) << "the server did not start"; }
    static Server& TheServer() { return *_server; }

private:
    static inline std::unique_ptr<Server> _server;
};

} // namespace servers

#endif

// Requests in flight and the progress of SFTP copies with the standard dialect.

#include <brantle/sftp/sftp_client_session.h>

#include "support/temporary_directory.h"
#include "wire/standard_fixture.h"
#include "wire/standard_sftp_server.h"
#include "wire/watching_dialect.h"

using namespace peer;
using testing::Each;

namespace {

constexpr unsigned READ = 5, WRITE = 6;
constexpr unsigned int DEFAULT = 64;
constexpr auto QUIET = std::chrono::milliseconds(200);

struct Direction {
    char const* name;
    unsigned request;
};

class StandardCopies : public StandardTest, public testing::WithParamInterface<Direction> {
protected:
    using Prepare = std::function<void(SftpServer&, StandardConnection&)>;

    bool IsUpload() const { return GetParam().request == WRITE; }

    /// Copies a file of that size, with `count` requests in flight.
    void Copy(std::size_t size, unsigned int count, Prepare const& prepare) {
        std::string const content(size, 'x');
        settings.window = 0x4000000; // not what limits an upload
        std::string stored;
        Serve([&](StandardConnection& c) {
            c.Wire().recording = false;
            c.WellBehaved(Stage::Opened);
            SftpServer sftp(c);
            if (!IsUpload()) sftp.content = content;
            prepare(sftp, c);
            sftp.Serve();
            stored = sftp.content;
        });
        support::TemporaryDirectory const directory;
        std::string const local = directory.Path() / "file";
        if (IsUpload()) std::ofstream(local) << content;
        {
            cindral::SftpClientSession session(server->Port(), "127.0.0.1");
            WatchingDialect dialect(session);
            if (count != DEFAULT) dialect.SetRequestsInFlight(count);
            Login(session);
            ASSERT_EQ(session.Start(), 0);
            cindral::SftpStatus status;
            EXPECT_EQ(IsUpload() ? session.Put(status, local.c_str(), "/remote")
                                 : session.Get(status, "/remote", local.c_str()),
                      0);
            names = dialect.names;
            figures = dialect.figures;
            totals = dialect.totals;
        }
        server->Finish();
        EXPECT_TRUE(FileText(local) == content);
        EXPECT_TRUE(stored == content);
    }

    /// How many requests for data come before one of them is answered: `count`, or one more than that.
    /// Fewer make the server wait in vain, and the copy fail.
    unsigned int RequestsBeforeTheFirstAnswer(unsigned int count) {
        unsigned int requests = 0;
        Copy(2 * std::size_t{count} * 32768 + 100000, count, [&](SftpServer& sftp, StandardConnection& c) {
            auto const waiting = std::make_shared<std::vector<std::pair<std::uint32_t, Reader>>>();
            sftp.instead = [&, waiting](unsigned type, std::uint32_t id, Reader& request) {
                if (type != GetParam().request || requests > 0) return false;
                waiting->emplace_back(id, request);
                if (waiting->size() < count) return true;
                requests = count + (sftp.HasMore() || c.Wire().WaitReadable(QUIET) ? 1 : 0);
                for (auto const& [late, fields] : *waiting) sftp.Perform(type, late, fields);
                return true;
            };
        });
        return requests;
    }

    std::vector<std::string> names;
    std::vector<unsigned long long> figures;
    std::vector<unsigned long long> totals;
};

TEST_P(StandardCopies, SixtyFourRequestsAreInFlightByDefault) {
    EXPECT_EQ(RequestsBeforeTheFirstAnswer(DEFAULT), DEFAULT);
}

TEST_P(StandardCopies, AsManyRequestsAreInFlightAsAskedFor) {
    for (unsigned int const count : {1u, 7u, 200u}) EXPECT_EQ(RequestsBeforeTheFirstAnswer(count), count);
}

TEST_P(StandardCopies, ProgressRisesToTheSize) {
    constexpr std::size_t SIZE = 1000000;
    Copy(SIZE, 4, [](SftpServer&, StandardConnection&) {});
    ASSERT_GT(figures.size(), 1u);
    EXPECT_GT(figures.front(), 0u);
    for (std::size_t i = 1; i < figures.size(); ++i) EXPECT_GT(figures[i], figures[i - 1]);
    EXPECT_EQ(figures.back(), SIZE);
    EXPECT_THAT(totals, Each(SIZE));
    EXPECT_THAT(names, Each(std::string("/remote")));
}

INSTANTIATE_TEST_SUITE_P(Directions, StandardCopies,
                         testing::Values(Direction{"Download", READ}, Direction{"Upload", WRITE}),
                         [](auto const& param) { return std::string(param.param.name); });

} // namespace

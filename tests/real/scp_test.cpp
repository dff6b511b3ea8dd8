// Files to and from scp programs by other vendors, compared on the server's disk.

#include <sys/stat.h>

#include <cstddef>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <brantle/brantle.h>

#include "support/pattern.h"
#include "support/servers/openssh_server.h"
#include "support/servers/proftpd_server.h"
#include "support/servers/python_servers.h"
#include "support/servers/server_suite.h"

using support::Pattern;
using testing::HasSubstr;

namespace {

struct File {
    char const* name;
    std::size_t size;
    mode_t mode;
};

File const files[] = {{"empty", 0, 0644},      {"one", 1, 0600},       {"below", 8143, 0640},
                      {"message", 8144, 0755}, {"above", 8145, 0700},  {"near", 32543, 0644},
                      {"nearer", 32563, 0644}, {"block", 32786, 0444}, {"beyond", 32787, 0644},
                      {"large", 1 << 20, 0644}};

/// A session that is logged in.
class LoggedIn : public cindral::ScpSession {
public:
    /// `unsolicited` packets come after the login.
    LoggedIn(servers::RealServer const& server, unsigned int unsolicited)
        : ScpSession(server.Port(), server.Host().c_str()) {
        cindral::EnterPassword enter(0, "");
        cindral::KbdCopyCallback callback("");
        if (Connect(20) != 0 || KeyExchange() != 0 ||
            Authenticate(server.File("user_rsa").c_str(), server.User().c_str(), "", enter, callback) != 0)
            throw std::runtime_error("no login");
        for (; unsolicited > 0; --unsolicited) AuthReadPacket();
    }
};

TOList<String_t> Names() {
    TOList<String_t> names;
    for (File const& file : files) names.Append(file.name);
    return names;
}

void ExpectFiles(support::TemporaryDirectory const& directory) {
    for (File const& file : files) {
        std::string const path = directory / file.name;
        struct stat status{};
        ASSERT_EQ(stat(path.c_str(), &status), 0) << path;
        EXPECT_EQ(status.st_mode & 07777, file.mode) << path;
        EXPECT_TRUE(servers::ReadFile(path) == Pattern(file.size)) << path;
    }
}

/// The message of the SshProtocolError that a call throws.
template <class Call>
std::string Thrown(Call const& call) {
    try {
        return "result " + std::to_string(call());
    } catch (cindral::SshProtocolError const& error) {
        return error.what();
    }
}

/// A fresh session with a server for each transfer, and directories: one full of files, two empty.
template <class Server, unsigned int UNSOLICITED = 0>
class ScpWith : public servers::ServerSuite<Server> {
protected:
    ScpWith() {
        umask(022);
        for (File const& file : files) servers::WriteFile(own / file.name, Pattern(file.size), file.mode);
        for (auto const* directory : {&own, &remote, &back}) // the server's account is another one
            std::filesystem::permissions(directory->Path(), std::filesystem::perms::all);
    }

    std::unique_ptr<LoggedIn> Session() const {
        return std::make_unique<LoggedIn>(this->TheServer(), UNSOLICITED);
    }
    static String_t Name(support::TemporaryDirectory const& directory) { return directory.Path().c_str(); }

    void ExpectRoundTrip() const {
        ASSERT_EQ(Session()->SendFiles(Name(own), Name(remote), Names()), static_cast<int>(std::size(files)));
        ExpectReceived(remote);
    }
    void ExpectReceived(support::TemporaryDirectory const& source) const {
        ASSERT_EQ(Session()->ReceiveFiles(Name(source), Name(back), Names()),
                  static_cast<int>(std::size(files)));
        ExpectFiles(back);
        ExpectFiles(source);
    }
    void ExpectOneFileUnderAnotherName() const {
        ASSERT_EQ(Session()->SendFile(Name(own), (remote / "other").c_str(), "large"), 0);
        EXPECT_TRUE(servers::ReadFile(remote / "other") == Pattern(1 << 20));
        ASSERT_EQ(Session()->ReceiveFile(Name(remote), Name(back), "other"), 0);
        EXPECT_TRUE(servers::ReadFile(back / "other") == Pattern(1 << 20));
    }
    void ExpectComplaints() const {
        EXPECT_THAT(
            Thrown([&] { return Session()->SendFile(Name(own), (remote / "no/such").c_str(), "one"); }),
            HasSubstr("scp terminated with error"));
        EXPECT_EQ(Thrown([&] { return Session()->ReceiveFile(Name(remote), Name(back), "missing"); }),
                  "scp terminated with error");
        EXPECT_TRUE(std::filesystem::is_empty(remote.Path()));
        EXPECT_TRUE(std::filesystem::is_empty(back.Path()));
    }

    support::TemporaryDirectory own;
    support::TemporaryDirectory remote;
    support::TemporaryDirectory back;
};

using ScpAsyncssh = ScpWith<servers::AsyncsshServer>;
using ScpParamiko = ScpWith<servers::ParamikoServer>;
using ScpProftpd = ScpWith<servers::ProftpdServer>;
using ScpOpenssh = ScpWith<servers::OpensshServer, 3>;

} // namespace

TEST_F(ScpAsyncssh, FilesSurviveARoundTrip) { ExpectRoundTrip(); }
TEST_F(ScpAsyncssh, FileMayBeRenamed) { ExpectOneFileUnderAnotherName(); }
TEST_F(ScpAsyncssh, RemoteErrorsAreThrown) { ExpectComplaints(); }

TEST_F(ScpParamiko, FilesSurviveARoundTrip) { ExpectRoundTrip(); }
TEST_F(ScpParamiko, FileMayBeRenamed) { ExpectOneFileUnderAnotherName(); }
TEST_F(ScpParamiko, RemoteErrorsAreThrown) { ExpectComplaints(); }

TEST_F(ScpProftpd, FilesSurviveARoundTrip) { ExpectRoundTrip(); }
TEST_F(ScpProftpd, FileMayBeRenamed) { ExpectOneFileUnderAnotherName(); }

// sshd drops what exceeds its window, so what goes there stays below 2 MiB.
TEST_F(ScpOpenssh, FilesArrive) { ExpectRoundTrip(); }
TEST_F(ScpOpenssh, RemoteErrorsAreThrown) { ExpectComplaints(); }

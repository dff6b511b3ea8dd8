// SFTP with OpenSSH's sftp-server after three SSH servers, and with ProFTPD's own.

#include <pwd.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "real/sftp_cases.h"
#include "support/servers/openssh_server.h"
#include "support/servers/proftpd_server.h"
#include "support/servers/python_servers.h"
#include "support/servers/server_suite.h"

using servers::AsyncsshServer;
using servers::OpensshServer;
using servers::ParamikoServer;
using servers::ProftpdServer;

namespace {

/// sftp-server as the user who runs the tests, wherever they run.
SftpPeer SftpServerAfter(servers::RealServer const& server) {
    Refusal const failure{4, "Failure"};
    return {server,
            0,
            std::filesystem::current_path(),
            geteuid(),
            getegid(),
            {2, "No such file"},
            failure,
            failure,
            failure,
            {5, "Bad message"},
            failure};
}

SftpPeer PeerAt(servers::PythonServer const& server) { return SftpServerAfter(server); }

SftpPeer PeerAt(OpensshServer const& server) {
    passwd const* const account = getpwnam(server.User().c_str());
    if (!account) throw std::runtime_error(server.User() + " has gone");
    SftpPeer peer = SftpServerAfter(server);
    peer.unsolicited = 3;
    peer.home = account->pw_dir;
    peer.uid = account->pw_uid;
    peer.gid = account->pw_gid;
    return peer;
}

SftpPeer PeerAt(ProftpdServer const& server) {
    SftpPeer peer = SftpServerAfter(server);
    peer.home = server.File("home");
    peer.exists = {4, "File already exists"};
    peer.occupied = {11, "File already exists"};
    peer.notEmpty = {4, "Directory is not empty"};
    peer.noLink = {8, "Invalid parameter"};
    peer.noHandle = {9, "Invalid handle"};
    peer.linksAreFollowed = true;
    return peer;
}

template <class Server>
class Sftp : public servers::ServerSuite<Server> {
protected:
    SftpPeer ThePeer() const { return PeerAt(this->TheServer()); }
};

/// What changes owners by the attributes that the server has sent.
template <class Server>
class SftpOwners : public Sftp<Server> {};

using SftpServers = testing::Types<AsyncsshServer, ParamikoServer, OpensshServer>;
using Servers = testing::Types<AsyncsshServer, ParamikoServer, OpensshServer, ProftpdServer>;

struct Names {
    template <class Server>
    static std::string GetName(int) {
        if (std::is_same_v<Server, AsyncsshServer>) return "Asyncssh";
        if (std::is_same_v<Server, ParamikoServer>) return "Paramiko";
        if (std::is_same_v<Server, OpensshServer>) return "Openssh";
        return "Proftpd";
    }
};

TYPED_TEST_SUITE(Sftp, Servers, Names);
TYPED_TEST_SUITE(SftpOwners, SftpServers, Names);

TYPED_TEST(Sftp, StartIsInTheHomeDirectory) { ExpectStartIsInTheHomeDirectory(this->ThePeer()); }
TYPED_TEST(Sftp, CdFollowsTheServer) { ExpectCdFollowsTheServer(this->ThePeer()); }
TYPED_TEST(Sftp, DirectoriesAreCreatedAndRemoved) { ExpectDirectoriesMadeAndRemoved(this->ThePeer()); }
TYPED_TEST(Sftp, FilesAreRemoved) { ExpectFilesRemoved(this->ThePeer()); }
TYPED_TEST(Sftp, FilesAreRenamed) { ExpectFilesRenamed(this->ThePeer()); }
TYPED_TEST(Sftp, LinksAreCreatedAndRead) { ExpectLinksMadeAndRead(this->ThePeer()); }
TYPED_TEST(Sftp, AttributesAreRead) { ExpectAttributesRead(this->ThePeer()); }
TYPED_TEST(Sftp, ModesAreChanged) { ExpectModesChanged(this->ThePeer()); }
TYPED_TEST(Sftp, DirectoryIsListed) { ExpectDirectoryListed(this->ThePeer()); }
TYPED_TEST(Sftp, FilesAreListedByName) { ExpectFilesListedByName(this->ThePeer()); }
TYPED_TEST(Sftp, NamesAreFound) { ExpectNamesFound(this->ThePeer()); }
TYPED_TEST(Sftp, ManyEntriesAreListed) { ExpectManyEntriesListed(this->ThePeer()); }
TYPED_TEST(Sftp, MissingFilesAreRefused) { ExpectMissingFilesRefused(this->ThePeer()); }
TYPED_TEST(Sftp, OtherRefusalsAreReported) { ExpectOtherRefusals(this->ThePeer()); }

TYPED_TEST(Sftp, FilesSurviveARoundTrip) { ExpectRoundTrip(this->ThePeer()); }
TYPED_TEST(Sftp, FilesAreCopiedBetweenDescriptors) { ExpectCopiesBetweenDescriptors(this->ThePeer()); }
TYPED_TEST(Sftp, FilesAreCopiedBetweenNames) { ExpectCopiesBetweenNames(this->ThePeer()); }
TYPED_TEST(Sftp, FilesAreMoved) { ExpectMoves(this->ThePeer()); }
TYPED_TEST(Sftp, ListsAreCopied) { ExpectListsCopied(this->ThePeer()); }
TYPED_TEST(Sftp, ListsAreMoved) { ExpectListsMoved(this->ThePeer()); }
TYPED_TEST(Sftp, MatchesAreCopied) { ExpectMatchesCopied(this->ThePeer()); }
TYPED_TEST(Sftp, MatchesAreMoved) { ExpectMatchesMoved(this->ThePeer()); }
TYPED_TEST(Sftp, FileIsWrittenToStandardOutput) { ExpectFileOnStandardOutput(this->ThePeer()); }
TYPED_TEST(Sftp, CopiesAreRefused) { ExpectCopiesRefused(this->ThePeer()); }

TYPED_TEST(SftpOwners, OwnersMayBeUnchanged) { ExpectOwnersKept(this->ThePeer()); }
TYPED_TEST(SftpOwners, OnlyRootChangesTheOwner) { ExpectOwnerGivenAwayByRootAlone(this->ThePeer()); }
TYPED_TEST(SftpOwners, GroupIsChanged) { ExpectGroupChanged(this->ThePeer()); }

using SftpProftpd = Sftp<ProftpdServer>;
TEST_F(SftpProftpd, OwnersAreChangedOnlyWithoutTheExtension) {
    ExpectOwnersChangedWithoutExtensionAlone(ThePeer());
}

} // namespace

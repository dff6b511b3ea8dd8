#ifndef BRANTLE_TESTS_REAL_SFTP_CASES_H
#define BRANTLE_TESTS_REAL_SFTP_CASES_H

// What the library does with the SFTP of every server. What became of the files is seen with system calls
// in the server's directories, never through the library.

#include <sys/types.h>

#include <string>

#include "support/servers/real_server.h"

/// A refusal as its server words it.
struct Refusal {
    int code;
    std::string words;
};

/// The SFTP of a server, and how it differs from that of others.
struct SftpPeer {
    servers::RealServer const& server;
    unsigned int unsolicited; ///< packets that the server sends unasked after the login
    std::string home;         ///< where a session begins
    uid_t uid;                ///< whose the files are that it makes
    gid_t gid;
    Refusal missing;               ///< a file that does not exist
    Refusal exists;                ///< a directory to be made that does
    Refusal occupied;              ///< a new name that another file has
    Refusal notEmpty;              ///< a directory to be removed
    Refusal noLink;                ///< Readlink of a plain file
    Refusal noHandle;              ///< an operation on an open file that is none
    bool linksAreFollowed = false; ///< by Lstat too, and Readlink gives an absolute name
};

void ExpectStartIsInTheHomeDirectory(SftpPeer const& peer);
void ExpectCdFollowsTheServer(SftpPeer const& peer);
void ExpectDirectoriesMadeAndRemoved(SftpPeer const& peer);
void ExpectFilesRemoved(SftpPeer const& peer);
void ExpectFilesRenamed(SftpPeer const& peer);
void ExpectLinksMadeAndRead(SftpPeer const& peer);
void ExpectAttributesRead(SftpPeer const& peer);
void ExpectModesChanged(SftpPeer const& peer);
void ExpectOwnersKept(SftpPeer const& peer);
void ExpectOwnerGivenAwayByRootAlone(SftpPeer const& peer);
void ExpectGroupChanged(SftpPeer const& peer);
/// The server sends extended attributes, and does not bear to see their flag in those that are sent back.
void ExpectOwnersChangedWithoutExtensionAlone(SftpPeer const& peer);
void ExpectDirectoryListed(SftpPeer const& peer);
void ExpectFilesListedByName(SftpPeer const& peer);
void ExpectNamesFound(SftpPeer const& peer);
void ExpectManyEntriesListed(SftpPeer const& peer);
void ExpectMissingFilesRefused(SftpPeer const& peer);
void ExpectOtherRefusals(SftpPeer const& peer);

void ExpectRoundTrip(SftpPeer const& peer);
void ExpectCopiesBetweenDescriptors(SftpPeer const& peer);
void ExpectCopiesBetweenNames(SftpPeer const& peer);
void ExpectMoves(SftpPeer const& peer);
void ExpectListsCopied(SftpPeer const& peer);
void ExpectListsMoved(SftpPeer const& peer);
void ExpectMatchesCopied(SftpPeer const& peer);
void ExpectMatchesMoved(SftpPeer const& peer);
void ExpectFileOnStandardOutput(SftpPeer const& peer);
void ExpectCopiesRefused(SftpPeer const& peer);

#endif

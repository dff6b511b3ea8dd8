#ifndef BRANTLE_FUZZ_SFTP_SCRIPTS_H
#define BRANTLE_FUZZ_SFTP_SCRIPTS_H

#include <brantle/sftp/sftp_client_session.h>

namespace fuzz {

/// Where a script works: a remote directory that is empty at first, a local one with the file
/// Sandbox::FILE, and a local one that is written into.
struct SftpPlaces {
    String_t remote;
    String_t source;
    String_t target;
};

/// What a program does with a session that is logged in, from Start on. The same calls are made to a real
/// server for the corpus and to a fuzzed one, whose replies need no other request ids then.
using SftpScript = void (*)(cindral::SftpClientSession& session, SftpPlaces const& places);

constexpr unsigned int SFTP_SCRIPT_COUNT = 4;
extern SftpScript const SFTP_SCRIPTS[SFTP_SCRIPT_COUNT];

} // namespace fuzz

#endif

#ifndef BRANTLE_TESTS_REAL_SESSION_CASES_H
#define BRANTLE_TESTS_REAL_SESSION_CASES_H

// What the library does with every server that takes its dialect.

#include <string>

#include "support/client/session_client.h"
#include "support/servers/real_server.h"

/// A server, and what a program has to mind with it.
struct Peer {
    servers::RealServer const& server;
    unsigned int unsolicitedAfterKey = 0;  ///< packets that it sends unasked after a login with a key
    unsigned int unsolicitedOtherwise = 0; ///< and with any other method
    std::string banner{};                  ///< what it says before a login
    std::string lastWords{};               ///< what a command ends with, for its output to come out whole
};

/// `openUser` is the name that the method none lets in.
void ExpectOpenUserNeedsNothing(Peer const& peer, std::string const& openUser);
void ExpectKeyLogins(Peer const& peer);
void ExpectEncryptedKeyLogins(Peer const& peer);
void ExpectWrongPassphraseRefused(Peer const& peer);
void ExpectDefaultKeyLogins(Peer const& peer);
void ExpectAgentLogins(Peer const& peer);
void ExpectUnknownKeyRefused(Peer const& peer);
void ExpectPasswordLogin(Peer const& peer);
void ExpectWrongPasswordRefused(Peer const& peer);
void ExpectPasswordTypedOnTheTerminal(Peer const& peer);
/// `prompts` are the numbers of prompts in the server's requests, joined by commas.
void ExpectKeyboardInteractiveLogin(Peer const& peer, std::string const& prompts);
void ExpectWrongAnswerRefused(Peer const& peer);

/// `algorithm` and `file` are those of the server's host key.
void ExpectHostLearntThenFound(Peer const& peer, std::string const& algorithm, std::string const& file);
void ExpectChangedHostKeyRefused(Peer const& peer);

void ExpectInputComesBack(Peer const& peer);
void ExpectErrorOutputOnDescriptor1(Peer const& peer);
void ExpectEndedBySignal(Peer const& peer);
void ExpectShellOnTerminal(Peer const& peer);

/// The number of the first message that a server sends to a client that says nothing (RFC 4253,
/// section 6); throws std::runtime_error if none comes within ten seconds.
int FirstMessageUnprompted(servers::RealServer const& server);

#endif

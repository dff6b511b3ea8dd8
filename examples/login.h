// What the examples share: they read the command line, connect, log in and run the session.

#ifndef EXAMPLES_LOGIN_H
#define EXAMPLES_LOGIN_H

#include <poll.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>

#include <brantle/brantle.h>
#include <brantle/standard.h>

#include "printable.h"

namespace examples {

/// The exit statuses of the examples. Those that run something remote exit with its status: see RunSession.
enum Status {
    DONE = 0,
    USAGE = 2,
    BAD_TARGET = 3,
    NOT_CONNECTED = 4,
    NO_KEY_EXCHANGE = 5,
    NOT_LOGGED_IN = 6,
    CHANNEL_REFUSED = 7,
    CONNECTION_FAILED = 8,
    UNKNOWN_HOST = 9,
    NOT_COPIED = 10,
    NOT_LISTED = 11,
    NOT_CHANGED = 12,
    NOT_FORWARDED = 13,
    SIGNALLED = 128, ///< plus the signal's number
    NOT_RUN = 255,
};

constexpr unsigned int CONNECT_SECONDS = 20;
constexpr unsigned int PASSWORD_TRIES = 3;

inline int Fail(Status status, String_t const& what) {
    std::cerr.clear(); // a message that the library has no name for leaves the stream failed
    std::cerr << what << std::endl;
    return status;
}

/// A command line that begins with [--reduced] [-i IDENTITY] [USER@]HOST[:PORT].
struct CommandLine {
    bool _reduced = false; ///< speaks the reduced dialect (docs/dialect.md)
    String_t _identity;    ///< empty: the agent's keys, and the usual files in ~/.ssh
    String_t _user;
    String_t _target;
    char** _rest = nullptr; ///< what follows; ends with a null pointer

    /// Returns DONE, or the status of a failure that has been reported.
    int Read(char** argv, char const* usage) {
        ++argv;
        if (*argv && std::strcmp(*argv, "--reduced") == 0) {
            _reduced = true;
            ++argv;
        }
        if (*argv && std::strcmp(*argv, "-i") == 0) {
            if (!*++argv) return Fail(USAGE, usage);
            _identity = *argv++;
        }
        if (!*argv) return Fail(USAGE, usage);
        if (cindral::SshSession::ParseUrl(*argv, _user, _target) < 0)
            return Fail(BAD_TARGET, "invalid target: an address in brackets needs its \"]\"");
        _rest = argv + 1;
        return DONE;
    }
};

/// Joins the words of a command line into the one text that the remote shell gets.
inline String_t Command(char** words) {
    String_t command(*words);
    while (*++words) (command += " ") += *words;
    return command;
}

/// Why something was refused: in the dialect's words, fit for a terminal, or `otherwise` if it has none, or
/// is null.
inline String_t Reason(cindral::StandardDialect const* dialect, String_t const& otherwise) {
    if (!dialect || dialect->LastError() == "") return otherwise;
    return Printable(dialect->LastError());
}

// --- the reduced dialect

/// Some servers send messages of their own right after the login, and a channel can be opened only
/// when they have been read. Reads until the server has been quiet for a moment.
inline void DrainPendingMessages(cindral::SshSession& session) {
    constexpr int QUIET_MILLISECONDS = 300;
    pollfd socket = {session.Fd(), POLLIN, 0};
    while (session.HasBufferedInput() || poll(&socket, 1, QUIET_MILLISECONDS) > 0) session.AuthReadPacket();
}

/// Any failure but an untrusted host or nothing in common is an InvalidArgument there.
inline int ExchangeKeysReduced(cindral::SshSession& session) {
    try {
        if (session.KeyExchange() == 0) return DONE;
        return Fail(NO_KEY_EXCHANGE,
                    "key exchange failed: no common algorithm, or the host key is not trusted "
                    "(does it differ from the one in ~/.ssh/known_hosts?)");
    } catch (cindral::InvalidArgument const&) {
        return Fail(NO_KEY_EXCHANGE, "key exchange failed: the server has no group exchange with SHA-1, or "
                                     "its group is too small");
    }
}

// --- both

inline int ExchangeKeys(cindral::SshSession& session, cindral::StandardDialect const* dialect) {
    if (!dialect) return ExchangeKeysReduced(session);
    if (session.KeyExchange() == 0) return DONE;
    return Fail(NO_KEY_EXCHANGE, Reason(dialect, "key exchange failed"));
}

/// An algorithm that encrypts and authenticates at once needs no MAC.
inline String_t Algorithms(cindral::SshSession const& session, int direction) {
    String_t names = session.CipherName(direction);
    if (session.MacName(direction) != "") (names += " and ") += session.MacName(direction);
    return names;
}

inline void ShowWhatIsAgreed(cindral::SshSession const& session, cindral::StandardDialect const* dialect) {
    std::cerr << "server " << Printable(session.ServerVersion()) << "; ";
    if (dialect)
        std::cerr << dialect->KexName() << " with " << dialect->HostKeyName();
    else
        std::cerr << "group exchange with SHA-1";
    std::cerr << "; to the server " << Algorithms(session, 0) << "; from it " << Algorithms(session, 1)
              << std::endl;
}

/// Connects, exchanges keys and logs in. The dialect is null for the reduced one.
inline int Login(cindral::SshSession& session, cindral::StandardDialect const* dialect,
                 CommandLine const& arguments) {
    if (int const error = session.Connect(CONNECT_SECONDS); error < 0)
        return Fail(NOT_CONNECTED, Reason(dialect, String_t("can't connect: ") += std::strerror(-error)));
    if (int const status = ExchangeKeys(session, dialect); status != DONE) return status;
    if (std::getenv("VERBOSE")) ShowWhatIsAgreed(session, dialect);
    cindral::EnterPassword password(PASSWORD_TRIES, "Password: ");
    ServersQuestions questions(arguments._target, dialect != nullptr);
    if (session.Authenticate(arguments._identity, arguments._user, String_t(), password, questions) < 0)
        return Fail(NOT_LOGGED_IN,
                    Reason(dialect, "login failed: no method that the server accepts succeeded"));
    if (!dialect) DrainPendingMessages(session);
    return DONE;
}

/// Creates a session of that class from the target and `more`, logs in and calls `work` with it and its
/// dialect, which is null for the reduced one. Returns the exit status of `work`, or that of an earlier
/// failure.
template <class Session, class Dialect = cindral::StandardDialect, class Work, class... More>
int LoginAndWork(CommandLine const& arguments, Work const& work, More const&... more) {
    PrintableStream output(std::cout), errors(std::cerr);
    bool hostIsKnown = false;
    try {
        Session session(arguments._target, more...); // looks up the host
        hostIsKnown = true;
        std::unique_ptr<Dialect> const dialect(arguments._reduced ? nullptr : new Dialect(session));
        if (int const status = Login(session, dialect.get(), arguments); status != DONE) return status;
        return work(session, dialect.get());
    } catch (Except const& failure) {
        if (!hostIsKnown)
            return Fail(UNKNOWN_HOST, String_t("unknown host, or invalid port: ") += arguments._target);
        return Fail(CONNECTION_FAILED, String_t("connection failed: ") += Printable(failure.what()));
    }
}

inline int RunToTheEnd(cindral::SshSession& session, cindral::StandardDialect const* dialect) {
    int const result = session.Run();
    if (result == 1) return Fail(CHANNEL_REFUSED, Reason(dialect, "the server refused the channel"));
    if (result > 0) return Fail(CONNECTION_FAILED, String_t("poll failed: ") += std::strerror(result));
    return DONE;
}

/// The number of a signal that RFC 4254, section 6.10, names, or 0 if this system has none of that name.
inline int SignalNumber(String_t const& name) {
    for (int number = 1; number < NSIG; ++number)
        if (char const* const known = sigabbrev_np(number); known && name == known) return number;
    return 0;
}

/// The exit status of the remote command or shell, as a shell reports it.
inline int RemoteStatus(cindral::StandardDialect const& dialect) {
    if (dialect.ExitStatus() >= 0) return std::min<int>(dialect.ExitStatus(), NOT_RUN);
    int const number = SignalNumber(dialect.ExitSignal());
    Fail(NOT_RUN, Reason(&dialect, "the session ended without an exit status"));
    return number > 0 ? SIGNALLED + number : NOT_RUN;
}

/// Creates a session of that class from the target and `more`, logs in, prepares the session and runs it to
/// its end. Returns the remote exit status, or NOT_RUN for any failure after the arguments are read. In the
/// reduced dialect there is no such status: DONE, or that of the failure.
template <class Session, class Prepare, class... More>
int RunSession(CommandLine const& arguments, Prepare const& prepare, More const&... more) {
    int remote = DONE;
    auto const run = [&](Session& session, cindral::StandardDialect const* dialect) {
        if (int const status = prepare(session, dialect); status != DONE) return status;
        int const status = RunToTheEnd(session, dialect);
        if (status == DONE && dialect) remote = RemoteStatus(*dialect);
        return status;
    };
    int const status = LoginAndWork<Session>(arguments, run, more...);
    if (status == DONE) return remote;
    return arguments._reduced ? status : static_cast<int>(NOT_RUN);
}

} // namespace examples

#endif

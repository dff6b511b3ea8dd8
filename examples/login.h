// What the examples share: they read the command line, connect, log in and run the session.

#ifndef EXAMPLES_LOGIN_H
#define EXAMPLES_LOGIN_H

#include <poll.h>

#include <cstdlib>
#include <cstring>
#include <iostream>

#include <brantle/brantle.h>

#include "printable.h"

namespace examples {

/// The exit statuses of the examples.
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
};

constexpr unsigned int CONNECT_SECONDS = 20;
constexpr unsigned int PASSWORD_TRIES = 3;

inline int Fail(Status status, String_t const& what) {
    std::cerr.clear(); // a message that the library has no name for leaves the stream failed
    std::cerr << what << std::endl;
    return status;
}

/// A command line that begins with [-i IDENTITY] [USER@]HOST[:PORT].
struct CommandLine {
    String_t _identity;
    String_t _user;
    String_t _target;
    char** _rest = nullptr; ///< what follows; ends with a null pointer

    /// Returns DONE, or the status of a failure that has been reported.
    int Read(char** argv, char const* usage) {
        ++argv;
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

/// Some servers send messages of their own right after the login, and a channel can be opened only
/// when they have been read. Reads until the server has been quiet for a moment.
inline void DrainPendingMessages(cindral::SshSession& session) {
    constexpr int QUIET_MILLISECONDS = 300;
    pollfd socket = {session.Fd(), POLLIN, 0};
    while (session.HasBufferedInput() || poll(&socket, 1, QUIET_MILLISECONDS) > 0) session.AuthReadPacket();
}

/// Connects, exchanges keys and logs in.
inline int Login(cindral::SshSession& session, CommandLine const& arguments) {
    if (int const error = session.Connect(CONNECT_SECONDS); error < 0)
        return Fail(NOT_CONNECTED, String_t("can't connect: ") += std::strerror(-error));
    try {
        if (session.KeyExchange() < 0)
            return Fail(NO_KEY_EXCHANGE,
                        "key exchange failed: no common algorithm, or the host key is not trusted "
                        "(does it differ from the one in ~/.ssh/known_hosts?)");
    } catch (cindral::InvalidArgument const&) {
        return Fail(NO_KEY_EXCHANGE, "key exchange failed: the server has no group exchange with SHA-1, or "
                                     "its group is too small");
    }
    if (std::getenv("VERBOSE"))
        std::cerr << "server " << Printable(session.ServerVersion())
                  << "; group exchange with SHA-1; to the server " << session.CipherName(0) << " and "
                  << session.MacName(0) << "; from it " << session.CipherName(1) << " and "
                  << session.MacName(1) << std::endl;
    cindral::EnterPassword password(PASSWORD_TRIES, "Password: ");
    ServersQuestions questions(arguments._target);
    if (session.Authenticate(arguments._identity, arguments._user, String_t(), password, questions) < 0)
        return Fail(NOT_LOGGED_IN, "login failed: no method that the server accepts succeeded");
    DrainPendingMessages(session);
    return DONE;
}

/// Makes a session of that class from the target and `more`, logs in and calls `work` with it. Returns the
/// exit status: that of `work`, or that of a failure before.
template <class Session, class Work, class... More>
int LoginAndWork(CommandLine const& arguments, Work const& work, More const&... more) {
    PrintableStream output(std::cout), errors(std::cerr);
    bool hostIsKnown = false;
    try {
        Session session(arguments._target, more...); // looks up the host
        hostIsKnown = true;
        if (int const status = Login(session, arguments); status != DONE) return status;
        return work(session);
    } catch (Except const& failure) {
        if (!hostIsKnown)
            return Fail(UNKNOWN_HOST, String_t("unknown host, or invalid port: ") += arguments._target);
        return Fail(CONNECTION_FAILED, String_t("connection failed: ") += Printable(failure.what()));
    }
}

inline int RunToTheEnd(cindral::SshSession& session) {
    int const result = session.Run();
    if (result == 1) return Fail(CHANNEL_REFUSED, "the server refused the channel");
    if (result > 0) return Fail(CONNECTION_FAILED, String_t("poll failed: ") += std::strerror(result));
    return DONE;
}

/// Makes a session of that class from the target and `more`, logs in and runs it to its end. Returns the exit
/// status.
template <class Session, class... More>
int RunSession(CommandLine const& arguments, More const&... more) {
    return LoginAndWork<Session>(arguments, RunToTheEnd, more...);
}

} // namespace examples

#endif

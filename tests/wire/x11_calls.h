#ifndef TESTS_WIRE_X11_CALLS_H
#define TESTS_WIRE_X11_CALLS_H

/// The failures of this process's system calls on a connection to an X server.
struct X11Calls {
    /// The wait for a socket to take data, 60 ms: how often it was made, and its result in place of the
    /// true one.
    static int waits;
    static int const* waitResult;
    /// TCP_NODELAY: how often it was set, and whether to fail with ENOPROTOOPT.
    static int nodelays;
    static bool nodelayFails;
    /// The longest time that a connect over a Unix-domain socket was allowed, in milliseconds.
    static long connectLimit;
};

#endif

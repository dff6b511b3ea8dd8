// What the programs of the clients share: the command line, the RESULT line, files and sockets. Each of them
// is one source that includes this header.
//
//     PROGRAM JOB HOST PORT USER KEY ARGUMENT...
//
// The exit status is 0, 1 after a failure, or 77 for a job that the program does not do. Variables of the
// environment:
//
//     BENCH_KEX, BENCH_SIGNATURES, BENCH_CIPHERS, BENCH_MACS   the algorithms to offer, names with commas
//     between
//                                                              them; without one the client offers its own
//     BENCH_SHOW_ALGORITHMS   set: says on standard error what was agreed
//     BENCH_BUFFER            bytes of the buffer that a transfer goes through, in place of the program's own
//     choice
#ifndef BENCH_CLIENT_H
#define BENCH_CLIENT_H

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

enum { UNSUPPORTED = 77 };

struct job {
    char const* name;
    int arguments; // after KEY
    void (*run)(char** arguments);
};

static struct {
    char const* job;
    char const* host;
    int port;
    char const* user;
    char const* key;
} target;

static inline void die(char const* what, char const* which) {
    int const error = errno;
    fprintf(stderr, "%s %s: %s\n", what, which, strerror(error));
    exit(1);
}

// Runs the job that the command line names, out of a table that ends with a null name.
static inline int run_job(int argc, char** argv, struct job const* jobs) {
    if (argc < 6) {
        fprintf(stderr, "usage: %s JOB HOST PORT USER KEY ...\n", argv[0]);
        return 2;
    }
    target.job = argv[1];
    target.host = argv[2];
    target.port = atoi(argv[3]);
    target.user = argv[4];
    target.key = argv[5];
    while (jobs->name && strcmp(jobs->name, target.job) != 0) ++jobs;
    if (!jobs->name) return UNSUPPORTED;
    if (argc - 6 != jobs->arguments) {
        fprintf(stderr, "%s takes %d arguments after KEY\n", target.job, jobs->arguments);
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    jobs->run(argv + 6);
    return 0;
}

static inline double seconds(struct timeval time) {
    return (double)time.tv_sec + (double)time.tv_usec * 1e-6;
}

// Time passed and used; the difference of two of them is what a job took.
struct usage {
    double wall, user, system;
};

static inline struct usage usage_of(int who) {
    struct timespec now;
    struct rusage used;
    clock_gettime(CLOCK_MONOTONIC, &now);
    getrusage(who, &used);
    return (struct usage){(double)now.tv_sec + (double)now.tv_nsec * 1e-9, seconds(used.ru_utime),
                          seconds(used.ru_stime)};
}

static inline struct usage usage_now(void) { return usage_of(RUSAGE_SELF); }

// The line that the harness reads: what a job took from `start` to `end`, for so many bytes or operations.
static inline void print_result(struct usage start, struct usage end, long long bytes, long operations) {
    double const wall = end.wall - start.wall;
    printf("RESULT job=%s bytes=%lld n=%ld wall=%.6f user=%.6f sys=%.6f", target.job, bytes, operations, wall,
           end.user - start.user, end.system - start.system);
    if (bytes) printf(" MBps=%.1f", (double)bytes / 1e6 / wall);
    if (operations) printf(" mean_ms=%.3f", wall * 1e3 / (double)operations);
    printf("\n");
    fflush(stdout);
}

static inline void report(struct usage start, long long bytes, long operations) {
    print_result(start, usage_now(), bytes, operations);
}

static inline size_t buffer_size(size_t usual) {
    char const* wanted = getenv("BENCH_BUFFER");
    return wanted ? strtoul(wanted, NULL, 0) : usual;
}

static inline struct sockaddr_in loopback(int port) {
    struct sockaddr_in address = {.sin_family = AF_INET, .sin_port = htons((uint16_t)port)};
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

static inline void set_nodelay(int fd) {
    int const on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

static inline int tcp_connect(void) {
    struct sockaddr_in address = loopback(target.port);
    int const fd = socket(AF_INET, SOCK_STREAM, 0);
    if (inet_pton(AF_INET, target.host, &address.sin_addr) != 1) die("bad host", target.host);
    if (connect(fd, (struct sockaddr*)&address, sizeof address) < 0) die("connect", target.host);
    set_nodelay(fd);
    return fd;
}

// Port 0 is any that is free.
static inline int tcp_listen(int port) {
    struct sockaddr_in address = loopback(port);
    int const on = 1;
    int const fd = socket(AF_INET, SOCK_STREAM, 0);
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(fd, (struct sockaddr*)&address, sizeof address) < 0 || listen(fd, 8) < 0) die("listen", "");
    return fd;
}

static inline int open_source(char const* path, long long* size) {
    struct stat status;
    int const fd = open(path, O_RDONLY);
    if (fd < 0 || fstat(fd, &status) < 0) die("open", path);
    *size = status.st_size;
    return fd;
}

static inline int create_file(char const* path) {
    int const fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) die("create", path);
    return fd;
}

static inline void write_all(int fd, char const* bytes, size_t size) {
    while (size > 0) {
        ssize_t const written = write(fd, bytes, size);
        if (written < 0) die("write", "");
        bytes += written;
        size -= (size_t)written;
    }
}

// Announces that the session is established, and waits for the end of standard input.
static inline void hold_until_end_of_input(void) {
    char byte;
    printf("READY\n");
    fflush(stdout);
    while (read(STDIN_FILENO, &byte, 1) > 0) {
    }
}

#endif

// The two ends of a forwarded connection.
//
//     tcp_end serve-sink PORT BYTES      accepts connections, reads each to its end and answers with one byte
//     tcp_end serve-source PORT BYTES    accepts connections, sends so many bytes into each and closes it
//     tcp_end pump-up PORT BYTES         connects, sends so many bytes and waits for the answer
//     tcp_end pump-down PORT BYTES       connects and reads to the end, which must come after so many bytes

#include "../clients/client.h"

static char block[65536];

static size_t piece(long long left) { return left < (long long)sizeof block ? (size_t)left : sizeof block; }

static int connect_to(int port) {
    struct sockaddr_in address = loopback(port);
    struct timespec const pause = {0, 5000000};
    for (int i = 0; i < 2000; ++i) {
        int const fd = socket(AF_INET, SOCK_STREAM, 0);
        if (connect(fd, (struct sockaddr*)&address, sizeof address) == 0) return fd;
        close(fd);
        nanosleep(&pause, NULL);
    }
    die("nobody listens", "");
    return -1;
}

static int accept_next(char** arguments) {
    static int listener = -1;
    if (listener < 0) {
        listener = tcp_listen(atoi(arguments[0]));
        printf("READY\n");
        fflush(stdout);
    }
    return accept(listener, NULL, NULL);
}

static void serve_sink(char** arguments) {
    for (int fd; (fd = accept_next(arguments)) >= 0; close(fd)) {
        while (read(fd, block, sizeof block) > 0) {
        }
        if (write(fd, "k", 1) < 0) perror("serve-sink");
    }
}

static void serve_source(char** arguments) {
    for (int fd; (fd = accept_next(arguments)) >= 0; close(fd)) {
        for (long long left = atoll(arguments[1]); left > 0;) {
            ssize_t const n = write(fd, block, piece(left));
            if (n < 0) break;
            left -= n;
        }
    }
}

static void pump_up(char** arguments) {
    long long const size = atoll(arguments[1]);
    int const fd = connect_to(atoi(arguments[0]));
    struct usage const start = usage_now();
    for (long long left = size; left > 0; left -= (long long)sizeof block) write_all(fd, block, piece(left));
    shutdown(fd, SHUT_WR);
    if (read(fd, block, 1) != 1 || block[0] != 'k') die("no answer", "");
    report(start, size, 0);
}

static void pump_down(char** arguments) {
    long long const size = atoll(arguments[1]);
    long long total = 0;
    int const fd = connect_to(atoi(arguments[0]));
    struct usage const start = usage_now();
    for (ssize_t n; (n = read(fd, block, sizeof block)) > 0;) total += n;
    if (total != size) {
        fprintf(stderr, "%lld of %lld bytes came\n", total, size);
        exit(1);
    }
    report(start, size, 0);
}

int main(int argc, char** argv) {
    static struct job const roles[] = {
        {"serve-sink", 2, serve_sink},
        {"serve-source", 2, serve_source},
        {"pump-up", 2, pump_up},
        {"pump-down", 2, pump_down},
        {NULL, 0, NULL},
    };
    if (argc != 4) return 2;
    target.job = argv[1];
    signal(SIGPIPE, SIG_IGN);
    for (struct job const* role = roles; role->name; ++role) {
        if (strcmp(role->name, argv[1]) != 0) continue;
        role->run(argv + 2);
        return 0;
    }
    return 2;
}

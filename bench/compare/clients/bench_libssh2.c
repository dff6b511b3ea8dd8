// The jobs by libssh2. sftp-get-sync is not among them: libssh2_sftp_read always reads ahead.

#include <libssh2.h>
#include <libssh2_sftp.h>

#include "client.h"

enum {
    SFTP_BLOCK = 262144,     // the library reads four times this ahead, in requests of 30,000 bytes
    SFTP_SYNC_BLOCK = 30000, // one request
    CHANNEL_BLOCK = 65536,
};

static int sock;
static LIBSSH2_SESSION* session;

static void fail(char const* what) {
    char* text = NULL;
    int const error = libssh2_session_last_error(session, &text, NULL, 0);
    fprintf(stderr, "libssh2: %s: %d %s\n", what, error, text ? text : "");
    exit(1);
}

// ---- sessions

static void offer(int method, char const* names) {
    if (names && libssh2_session_method_pref(session, method, names)) fail(names);
}

static void show_algorithms(void) {
    if (!getenv("BENCH_SHOW_ALGORITHMS")) return;
    fprintf(stderr, "libssh2: %s %s; to the server %s %s, from it %s %s\n",
            libssh2_session_methods(session, LIBSSH2_METHOD_KEX),
            libssh2_session_methods(session, LIBSSH2_METHOD_HOSTKEY),
            libssh2_session_methods(session, LIBSSH2_METHOD_CRYPT_CS),
            libssh2_session_methods(session, LIBSSH2_METHOD_MAC_CS),
            libssh2_session_methods(session, LIBSSH2_METHOD_CRYPT_SC),
            libssh2_session_methods(session, LIBSSH2_METHOD_MAC_SC));
}

static void open_session(void) {
    sock = tcp_connect();
    session = libssh2_session_init();
    offer(LIBSSH2_METHOD_KEX, getenv("BENCH_KEX"));
    offer(LIBSSH2_METHOD_HOSTKEY, getenv("BENCH_SIGNATURES"));
    offer(LIBSSH2_METHOD_CRYPT_CS, getenv("BENCH_CIPHERS"));
    offer(LIBSSH2_METHOD_CRYPT_SC, getenv("BENCH_CIPHERS"));
    offer(LIBSSH2_METHOD_MAC_CS, getenv("BENCH_MACS"));
    offer(LIBSSH2_METHOD_MAC_SC, getenv("BENCH_MACS"));
    offer(LIBSSH2_METHOD_COMP_CS, "none");
    offer(LIBSSH2_METHOD_COMP_SC, "none");
    libssh2_session_set_blocking(session, 1);
    if (libssh2_session_handshake(session, sock)) fail("handshake");
    if (libssh2_userauth_publickey_fromfile(session, target.user, NULL, target.key, NULL)) fail("login");
    show_algorithms();
}

static void close_session(void) {
    libssh2_session_disconnect(session, "bye");
    libssh2_session_free(session);
    close(sock);
}

static void handshake(char** arguments) {
    long const count = atol(arguments[0]);
    struct usage const start = usage_now();
    for (long i = 0; i < count; ++i) {
        open_session();
        close_session();
    }
    report(start, 0, count);
}

static void hold(char** arguments) {
    (void)arguments;
    open_session();
    hold_until_end_of_input();
    close_session();
}

// ---- commands

static LIBSSH2_CHANNEL* start_command(char const* command) {
    LIBSSH2_CHANNEL* channel = libssh2_channel_open_session(session);
    if (!channel || libssh2_channel_exec(channel, command)) fail("exec");
    return channel;
}

static void exec(char** arguments) {
    open_session();
    long const count = atol(arguments[0]);
    char nothing[256];
    struct usage const start = usage_now();
    for (long i = 0; i < count; ++i) {
        LIBSSH2_CHANNEL* const channel = start_command("true");
        while (libssh2_channel_read(channel, nothing, sizeof nothing) > 0) {
        }
        if (libssh2_channel_close(channel)) fail("close");
        libssh2_channel_wait_closed(channel);
        if (libssh2_channel_get_exit_status(channel) != 0) fail("exit status");
        libssh2_channel_free(channel);
    }
    report(start, 0, count);
    close_session();
}

static void exec_source(char** arguments) {
    open_session();
    size_t const size = buffer_size(CHANNEL_BLOCK);
    char* const block = malloc(size);
    char command[100];
    struct usage const start = usage_now();
    long long total = 0;
    int const fd = create_file(arguments[1]);
    snprintf(command, sizeof command, "head -c %s /dev/zero", arguments[0]);
    LIBSSH2_CHANNEL* const channel = start_command(command);
    for (ssize_t n; (n = libssh2_channel_read(channel, block, size)) != 0; total += n) {
        if (n < 0) fail("read");
        write_all(fd, block, (size_t)n);
    }
    libssh2_channel_close(channel);
    libssh2_channel_free(channel);
    close(fd);
    report(start, total, 0);
    close_session();
}

// Sends a file into a channel and ends it in good order.
static void send_file(LIBSSH2_CHANNEL* channel, int fd) {
    size_t const size = buffer_size(CHANNEL_BLOCK);
    char* const block = malloc(size);
    for (ssize_t n; (n = read(fd, block, size)) > 0;) {
        for (ssize_t sent = 0; sent < n;) {
            ssize_t const written = libssh2_channel_write(channel, block + sent, (size_t)(n - sent));
            if (written < 0) fail("write");
            sent += written;
        }
    }
    if (libssh2_channel_send_eof(channel)) fail("send_eof");
    if (libssh2_channel_wait_eof(channel)) fail("wait_eof");
    if (libssh2_channel_close(channel)) fail("close");
    libssh2_channel_wait_closed(channel);
    libssh2_channel_free(channel);
}

static void exec_sink(char** arguments) {
    open_session();
    struct usage const start = usage_now();
    long long total;
    int const fd = open_source(arguments[0], &total);
    send_file(start_command("cat >/dev/null"), fd);
    close(fd);
    report(start, total, 0);
    close_session();
}

// ---- SFTP

static LIBSSH2_SFTP* start_sftp(void) {
    LIBSSH2_SFTP* const sftp = libssh2_sftp_init(session);
    if (!sftp) fail("sftp_init");
    return sftp;
}

static void sftp_get(char** arguments) {
    open_session();
    size_t const size = buffer_size(SFTP_BLOCK);
    char* const block = malloc(size);
    struct usage const start = usage_now();
    long long total = 0;
    int const fd = create_file(arguments[1]);
    LIBSSH2_SFTP* const sftp = start_sftp();
    LIBSSH2_SFTP_HANDLE* const file = libssh2_sftp_open(sftp, arguments[0], LIBSSH2_FXF_READ, 0);
    if (!file) fail("sftp_open");
    for (ssize_t n; (n = libssh2_sftp_read(file, block, size)) != 0; total += n) {
        if (n < 0) fail("sftp_read");
        write_all(fd, block, (size_t)n);
    }
    libssh2_sftp_close(file);
    libssh2_sftp_shutdown(sftp);
    close(fd);
    report(start, total, 0);
    close_session();
}

// As the library's documentation advises, out of a large buffer that does not run empty: what has not been
// acknowledged moves to the front, and the buffer is filled again once less than half of it is left.
static void send_over_sftp(char** arguments, size_t size) {
    open_session();
    char* const block = malloc(size);
    struct usage const start = usage_now();
    long long total;
    int const fd = open_source(arguments[0], &total);
    LIBSSH2_SFTP* const sftp = start_sftp();
    LIBSSH2_SFTP_HANDLE* const file = libssh2_sftp_open(
        sftp, arguments[1], LIBSSH2_FXF_WRITE | LIBSSH2_FXF_CREAT | LIBSSH2_FXF_TRUNC, 0644);
    if (!file) fail("sftp_open");
    char* next = block;
    size_t left = 0;
    for (int at_end = 0;;) {
        if (!at_end && left < (size + 1) / 2) {
            memmove(block, next, left);
            next = block;
            while (!at_end && left < size) {
                ssize_t const n = read(fd, block + left, size - left);
                if (n > 0) left += (size_t)n;
                at_end = n <= 0;
            }
        }
        if (left == 0) break;
        ssize_t const written = libssh2_sftp_write(file, next, left);
        if (written < 0) fail("sftp_write");
        next += written;
        left -= (size_t)written;
    }
    libssh2_sftp_close(file);
    libssh2_sftp_shutdown(sftp);
    close(fd);
    report(start, total, 0);
    close_session();
}

static void sftp_put(char** arguments) { send_over_sftp(arguments, buffer_size(SFTP_BLOCK)); }

static void sftp_put_sync(char** arguments) { send_over_sftp(arguments, buffer_size(SFTP_SYNC_BLOCK)); }

// ---- scp

static void scp_get(char** arguments) {
    open_session();
    size_t const size = buffer_size(CHANNEL_BLOCK);
    char* const block = malloc(size);
    struct usage const start = usage_now();
    libssh2_struct_stat status;
    int const fd = create_file(arguments[1]);
    LIBSSH2_CHANNEL* const channel = libssh2_scp_recv2(session, arguments[0], &status);
    if (!channel) fail("scp_recv2");
    for (long long left = status.st_size; left > 0;) {
        ssize_t const n = libssh2_channel_read(channel, block, left < (long long)size ? (size_t)left : size);
        if (n <= 0) fail("read");
        write_all(fd, block, (size_t)n);
        left -= n;
    }
    libssh2_channel_free(channel);
    close(fd);
    report(start, status.st_size, 0);
    close_session();
}

static void scp_put(char** arguments) {
    open_session();
    struct usage const start = usage_now();
    long long total;
    int const fd = open_source(arguments[0], &total);
    LIBSSH2_CHANNEL* const channel = libssh2_scp_send64(session, arguments[1], 0644, total, 0, 0);
    if (!channel) fail("scp_send64");
    send_file(channel, fd);
    close(fd);
    report(start, total, 0);
    close_session();
}

// ---- local forwarding

// What has been read on one side and has to be written on the other.
struct pending {
    char* block;
    ssize_t start, length;
    int ended; // nothing more will be read
};

static void took(struct pending* data, ssize_t written) {
    data->start += written;
    data->length -= written;
}

// Each of these four does what is possible without waiting and returns whether that was anything.
static int read_local(struct pending* up, int fd, size_t size) {
    if (up->length > 0 || up->ended) return 0;
    ssize_t const n = read(fd, up->block, size);
    if (n < 0 && errno == EAGAIN) return 0;
    up->start = 0;
    up->length = n > 0 ? n : 0;
    up->ended = n <= 0;
    return 1;
}

static int write_remote(struct pending* up, LIBSSH2_CHANNEL* channel, int* eof_sent) {
    int moved = 0;
    if (up->length > 0) {
        ssize_t const n = libssh2_channel_write(channel, up->block + up->start, (size_t)up->length);
        if (n < 0 && n != LIBSSH2_ERROR_EAGAIN) fail("write");
        moved = n > 0;
        if (moved) took(up, n);
    }
    if (up->ended && up->length == 0 && !*eof_sent) *eof_sent = libssh2_channel_send_eof(channel) == 0;
    return moved;
}

static int read_remote(struct pending* down, LIBSSH2_CHANNEL* channel, size_t size) {
    if (down->length > 0 || down->ended) return 0;
    ssize_t const n = libssh2_channel_read(channel, down->block, size);
    if (n < 0 && n != LIBSSH2_ERROR_EAGAIN) fail("read");
    down->start = 0;
    down->length = n > 0 ? n : 0;
    down->ended = n <= 0 && libssh2_channel_eof(channel);
    return n > 0;
}

static int write_local(struct pending* down, int fd, int* shut) {
    int moved = 0;
    if (down->length > 0) {
        ssize_t const n = write(fd, down->block + down->start, (size_t)down->length);
        if (n < 0 && errno != EAGAIN) die("write", "to the local program");
        moved = n > 0;
        if (moved) took(down, n);
    }
    if (down->ended && down->length == 0 && !*shut) {
        shutdown(fd, SHUT_WR);
        *shut = 1;
    }
    return moved;
}

static void wait_for_either(struct pending const* up, struct pending const* down, int fd) {
    struct pollfd ends[2] = {{fd, 0, 0}, {sock, POLLIN, 0}};
    if (up->length == 0 && !up->ended) ends[0].events |= POLLIN;
    if (down->length > 0) ends[0].events |= POLLOUT;
    if (libssh2_session_block_directions(session) & LIBSSH2_SESSION_BLOCK_OUTBOUND) ends[1].events |= POLLOUT;
    // A local program without anything to wait for may have hung up, which poll reports all the same.
    if (ends[0].events)
        poll(ends, 2, 1000);
    else
        poll(ends + 1, 1, 1000);
}

static void forward_connection(LIBSSH2_CHANNEL* channel, int fd, struct pending up, struct pending down,
                               size_t size) {
    int eof_sent = 0, shut = 0;
    while (!up.ended || !down.ended || up.length > 0 || down.length > 0) {
        int moved = read_local(&up, fd, size);
        moved |= write_remote(&up, channel, &eof_sent);
        moved |= read_remote(&down, channel, size);
        moved |= write_local(&down, fd, &shut);
        if (!moved) wait_for_either(&up, &down, fd);
    }
}

// One connection at a time, without blocking in either direction.
static void fwd(char** arguments) {
    open_session();
    size_t const size = buffer_size(CHANNEL_BLOCK);
    struct pending const up = {malloc(size), 0, 0, 0};
    struct pending const down = {malloc(size), 0, 0, 0};
    int const port = atoi(arguments[0]);
    int const listener = tcp_listen(port);
    for (;;) {
        int const fd = accept(listener, NULL, NULL);
        libssh2_session_set_blocking(session, 1);
        LIBSSH2_CHANNEL* const channel =
            libssh2_channel_direct_tcpip_ex(session, arguments[1], atoi(arguments[2]), "127.0.0.1", port);
        if (!channel) fail("direct_tcpip");
        libssh2_session_set_blocking(session, 0);
        fcntl(fd, F_SETFL, O_NONBLOCK);
        forward_connection(channel, fd, up, down, size);
        libssh2_session_set_blocking(session, 1);
        libssh2_channel_close(channel);
        libssh2_channel_free(channel);
        close(fd);
    }
}

static struct job const jobs[] = {
    {"handshake", 1, handshake},
    {"hold", 0, hold},
    {"exec", 1, exec},
    {"exec-source", 2, exec_source},
    {"exec-sink", 1, exec_sink},
    {"sftp-get", 2, sftp_get},
    {"sftp-put", 2, sftp_put},
    {"sftp-put-sync", 2, sftp_put_sync},
    {"scp-get", 2, scp_get},
    {"scp-put", 2, scp_put},
    {"fwd", 3, fwd},
    {NULL, 0, NULL},
};

int main(int argc, char** argv) {
    libssh2_init(0);
    return run_job(argc, argv, jobs);
}

// The jobs by libssh.

#include <libssh/libssh.h>
#include <libssh/sftp.h>

#include "client.h"

enum {
    SFTP_BLOCK = 32768,
    CHANNEL_BLOCK = 65536,
    MAX_DEPTH = 256,
};

static void fail(ssh_session session, char const* what) {
    fprintf(stderr, "libssh: %s: %s\n", what, ssh_get_error(session));
    exit(1);
}

// ---- sessions

static void offer(ssh_session session, enum ssh_options_e option, char const* variable) {
    char const* names = getenv(variable);
    if (names && ssh_options_set(session, option, names)) fail(session, variable);
}

static void show_algorithms(ssh_session session) {
    if (!getenv("BENCH_SHOW_ALGORITHMS")) return;
    fprintf(stderr, "libssh: %s; to the server %s %s, from it %s %s\n", ssh_get_kex_algo(session),
            ssh_get_cipher_out(session), ssh_get_hmac_out(session), ssh_get_cipher_in(session),
            ssh_get_hmac_in(session));
}

static ssh_session open_session(void) {
    ssh_session session = ssh_new();
    ssh_key key = NULL;
    int const on = 1, off = 0;
    unsigned int const port = (unsigned int)target.port;
    if (ssh_options_set(session, SSH_OPTIONS_PROCESS_CONFIG, &off) ||
        ssh_options_set(session, SSH_OPTIONS_HOST, target.host) ||
        ssh_options_set(session, SSH_OPTIONS_PORT, &port) ||
        ssh_options_set(session, SSH_OPTIONS_USER, target.user) ||
        ssh_options_set(session, SSH_OPTIONS_NODELAY, &on) ||
        ssh_options_set(session, SSH_OPTIONS_COMPRESSION, "no"))
        fail(session, "options");
    offer(session, SSH_OPTIONS_KEY_EXCHANGE, "BENCH_KEX");
    offer(session, SSH_OPTIONS_HOSTKEYS, "BENCH_SIGNATURES");
    offer(session, SSH_OPTIONS_PUBLICKEY_ACCEPTED_TYPES, "BENCH_SIGNATURES");
    offer(session, SSH_OPTIONS_CIPHERS_C_S, "BENCH_CIPHERS");
    offer(session, SSH_OPTIONS_CIPHERS_S_C, "BENCH_CIPHERS");
    offer(session, SSH_OPTIONS_HMAC_C_S, "BENCH_MACS");
    offer(session, SSH_OPTIONS_HMAC_S_C, "BENCH_MACS");
    if (ssh_connect(session) != SSH_OK) fail(session, "connect");
    if (ssh_pki_import_privkey_file(target.key, NULL, NULL, NULL, &key) != SSH_OK) fail(session, "key");
    if (ssh_userauth_publickey(session, NULL, key) != SSH_AUTH_SUCCESS) fail(session, "login");
    ssh_key_free(key);
    show_algorithms(session);
    return session;
}

static void close_session(ssh_session session) {
    ssh_disconnect(session);
    ssh_free(session);
}

static void handshake(char** arguments) {
    long const count = atol(arguments[0]);
    struct usage const start = usage_now();
    for (long i = 0; i < count; ++i) close_session(open_session());
    report(start, 0, count);
}

static void hold(char** arguments) {
    (void)arguments;
    ssh_session session = open_session();
    hold_until_end_of_input();
    close_session(session);
}

// ---- commands

static ssh_channel start_command(ssh_session session, char const* command) {
    ssh_channel channel = ssh_channel_new(session);
    if (ssh_channel_open_session(channel) || ssh_channel_request_exec(channel, command))
        fail(session, "exec");
    return channel;
}

// Waits for a command that prints nothing.
static void finish_command(ssh_session session, ssh_channel channel) {
    char nothing[256];
    while (ssh_channel_read(channel, nothing, sizeof nothing, 0) > 0) {
    }
    if (ssh_channel_get_exit_status(channel) != 0) fail(session, "exit status");
    ssh_channel_close(channel);
    ssh_channel_free(channel);
}

static void exec(char** arguments) {
    ssh_session session = open_session();
    long const count = atol(arguments[0]);
    struct usage const start = usage_now();
    for (long i = 0; i < count; ++i) finish_command(session, start_command(session, "true"));
    report(start, 0, count);
    close_session(session);
}

static void exec_source(char** arguments) {
    ssh_session session = open_session();
    size_t const size = buffer_size(CHANNEL_BLOCK);
    char* const block = malloc(size);
    char command[100];
    struct usage const start = usage_now();
    long long total = 0;
    int const fd = create_file(arguments[1]);
    snprintf(command, sizeof command, "head -c %s /dev/zero", arguments[0]);
    ssh_channel channel = start_command(session, command);
    for (int n; (n = ssh_channel_read(channel, block, (uint32_t)size, 0)) != 0; total += n) {
        if (n < 0) fail(session, "read");
        write_all(fd, block, (size_t)n);
    }
    ssh_channel_close(channel);
    ssh_channel_free(channel);
    close(fd);
    report(start, total, 0);
    close_session(session);
}

static void exec_sink(char** arguments) {
    ssh_session session = open_session();
    size_t const size = buffer_size(CHANNEL_BLOCK);
    char* const block = malloc(size);
    struct usage const start = usage_now();
    long long total;
    int const fd = open_source(arguments[0], &total);
    ssh_channel channel = start_command(session, "cat >/dev/null");
    for (ssize_t n; (n = read(fd, block, size)) > 0;)
        if (ssh_channel_write(channel, block, (uint32_t)n) != n) fail(session, "write");
    ssh_channel_send_eof(channel);
    finish_command(session, channel);
    close(fd);
    report(start, total, 0);
    close_session(session);
}

// ---- SFTP

static sftp_session start_sftp(ssh_session session) {
    sftp_session sftp = sftp_new(session);
    if (!sftp || sftp_init(sftp)) fail(session, "sftp_init");
    return sftp;
}

// The asynchronous reads of the library, with BENCH_DEPTH requests in flight.
static void sftp_get(char** arguments) {
    ssh_session session = open_session();
    size_t const size = buffer_size(SFTP_BLOCK);
    char* const block = malloc(size);
    uint32_t requests[MAX_DEPTH];
    char const* const wanted_depth = getenv("BENCH_DEPTH");
    unsigned int const depth = wanted_depth ? (unsigned int)atoi(wanted_depth) : 64;
    unsigned int sent = 0, received = 0;
    long long asked = 0, total = 0;
    struct usage const start = usage_now();
    int const fd = create_file(arguments[1]);
    sftp_session sftp = start_sftp(session);
    sftp_file file = sftp_open(sftp, arguments[0], O_RDONLY, 0);
    if (!file) fail(session, "sftp_open");
    sftp_attributes attributes = sftp_fstat(file);
    if (!attributes) fail(session, "sftp_fstat");
    long long const length = (long long)attributes->size;
    sftp_attributes_free(attributes);
    for (;;) {
        for (; sent - received < depth && asked < length; asked += (long long)size) {
            int const request = sftp_async_read_begin(file, (uint32_t)size);
            if (request < 0) fail(session, "sftp_async_read_begin");
            requests[sent++ % MAX_DEPTH] = (uint32_t)request;
        }
        if (sent == received) break;
        int const n = sftp_async_read(file, block, (uint32_t)size, requests[received++ % MAX_DEPTH]);
        if (n < 0) fail(session, "sftp_async_read");
        if (n == 0) break;
        write_all(fd, block, (size_t)n);
        total += n;
    }
    sftp_close(file);
    sftp_free(sftp);
    close(fd);
    if (total != length) fail(session, "the file came short");
    report(start, total, 0);
    close_session(session);
}

static void sftp_get_sync(char** arguments) {
    ssh_session session = open_session();
    size_t const size = buffer_size(SFTP_BLOCK);
    char* const block = malloc(size);
    struct usage const start = usage_now();
    long long total = 0;
    int const fd = create_file(arguments[1]);
    sftp_session sftp = start_sftp(session);
    sftp_file file = sftp_open(sftp, arguments[0], O_RDONLY, 0);
    if (!file) fail(session, "sftp_open");
    for (ssize_t n; (n = sftp_read(file, block, size)) != 0; total += n) {
        if (n < 0) fail(session, "sftp_read");
        write_all(fd, block, (size_t)n);
    }
    sftp_close(file);
    sftp_free(sftp);
    close(fd);
    report(start, total, 0);
    close_session(session);
}

// sftp_write sends one request and waits for its reply; the library has nothing else.
static void sftp_put(char** arguments) {
    ssh_session session = open_session();
    size_t const size = buffer_size(SFTP_BLOCK);
    char* const block = malloc(size);
    struct usage const start = usage_now();
    long long total;
    int const fd = open_source(arguments[0], &total);
    sftp_session sftp = start_sftp(session);
    sftp_file file = sftp_open(sftp, arguments[1], O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (!file) fail(session, "sftp_open");
    for (ssize_t n; (n = read(fd, block, size)) > 0;)
        if (sftp_write(file, block, (size_t)n) != n) fail(session, "sftp_write");
    sftp_close(file);
    sftp_free(sftp);
    close(fd);
    report(start, total, 0);
    close_session(session);
}

// ---- scp

static void scp_get(char** arguments) {
    ssh_session session = open_session();
    size_t const size = buffer_size(CHANNEL_BLOCK);
    char* const block = malloc(size);
    struct usage const start = usage_now();
    int const fd = create_file(arguments[1]);
    ssh_scp scp = ssh_scp_new(session, SSH_SCP_READ, arguments[0]);
    if (!scp || ssh_scp_init(scp)) fail(session, "ssh_scp_init");
    if (ssh_scp_pull_request(scp) != SSH_SCP_REQUEST_NEWFILE) fail(session, "ssh_scp_pull_request");
    long long const total = (long long)ssh_scp_request_get_size64(scp);
    ssh_scp_accept_request(scp);
    for (long long left = total; left > 0;) {
        int const n = ssh_scp_read(scp, block, size);
        if (n <= 0) fail(session, "ssh_scp_read");
        write_all(fd, block, (size_t)n);
        left -= n;
    }
    if (ssh_scp_pull_request(scp) != SSH_SCP_REQUEST_EOF) fail(session, "end of ssh_scp");
    ssh_scp_close(scp);
    ssh_scp_free(scp);
    close(fd);
    report(start, total, 0);
    close_session(session);
}

static void scp_put(char** arguments) {
    ssh_session session = open_session();
    size_t const size = buffer_size(CHANNEL_BLOCK);
    char* const block = malloc(size);
    char* const directory = strdup(arguments[1]);
    char* const slash = strrchr(directory, '/');
    if (!slash) die("no directory in", arguments[1]);
    *slash = '\0';
    struct usage const start = usage_now();
    long long total;
    int const fd = open_source(arguments[0], &total);
    ssh_scp scp = ssh_scp_new(session, SSH_SCP_WRITE, directory);
    if (!scp || ssh_scp_init(scp)) fail(session, "ssh_scp_init");
    if (ssh_scp_push_file64(scp, slash + 1, (uint64_t)total, 0644)) fail(session, "ssh_scp_push_file64");
    for (ssize_t n; (n = read(fd, block, size)) > 0;)
        if (ssh_scp_write(scp, block, (size_t)n)) fail(session, "ssh_scp_write");
    ssh_scp_close(scp);
    ssh_scp_free(scp);
    close(fd);
    report(start, total, 0);
    close_session(session);
}

// ---- local forwarding

// Moves what has come from the server to the local program. Returns whether something moved.
static int forward_down(ssh_session session, ssh_channel channel, int fd, char* block, size_t size,
                        int* ended) {
    if (*ended) return 0;
    int const n = ssh_channel_read_nonblocking(channel, block, (uint32_t)size, 0);
    if (n > 0) {
        write_all(fd, block, (size_t)n);
        return 1;
    }
    if (n == SSH_EOF || ssh_channel_is_eof(channel)) {
        *ended = 1;
        shutdown(fd, SHUT_WR);
    } else if (n < 0) {
        fail(session, "read");
    }
    return 0;
}

// Moves what has come from the local program to the server, as far as the window is open.
static int forward_up(ssh_session session, ssh_channel channel, int fd, char* block, size_t size,
                      int* ended) {
    uint32_t const window = ssh_channel_window_size(channel);
    struct pollfd input = {fd, POLLIN, 0};
    if (*ended || window == 0 || poll(&input, 1, 0) <= 0) return 0;
    ssize_t const n = read(fd, block, window < size ? window : size);
    if (n > 0) {
        if (ssh_channel_write(channel, block, (uint32_t)n) != n) fail(session, "write");
    } else {
        *ended = 1;
        ssh_channel_send_eof(channel);
    }
    return 1;
}

static void forward_connection(ssh_session session, ssh_channel channel, int fd, char* block, size_t size) {
    int up_ended = 0, down_ended = 0;
    while (!up_ended || !down_ended) {
        int const down = forward_down(session, channel, fd, block, size, &down_ended);
        int const up = forward_up(session, channel, fd, block, size, &up_ended);
        if (down || up || (up_ended && down_ended)) continue;
        struct pollfd inputs[2] = {{ssh_get_fd(session), POLLIN, 0}, {fd, POLLIN, 0}};
        poll(inputs, !up_ended && ssh_channel_window_size(channel) > 0 ? 2 : 1, 1000);
    }
}

// One connection at a time.
static void fwd(char** arguments) {
    ssh_session session = open_session();
    size_t const size = buffer_size(CHANNEL_BLOCK);
    char* const block = malloc(size);
    int const port = atoi(arguments[0]);
    int const listener = tcp_listen(port);
    for (;;) {
        int const fd = accept(listener, NULL, NULL);
        ssh_channel channel = ssh_channel_new(session);
        if (ssh_channel_open_forward(channel, arguments[1], atoi(arguments[2]), "127.0.0.1", port))
            fail(session, "ssh_channel_open_forward");
        forward_connection(session, channel, fd, block, size);
        ssh_channel_close(channel);
        ssh_channel_free(channel);
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
    {"sftp-get-sync", 2, sftp_get_sync},
    {"sftp-put", 2, sftp_put},
    {"sftp-put-sync", 2, sftp_put},
    {"scp-get", 2, scp_get},
    {"scp-put", 2, scp_put},
    {"fwd", 3, fwd},
    {NULL, 0, NULL},
};

int main(int argc, char** argv) {
    ssh_init();
    return run_job(argc, argv, jobs);
}

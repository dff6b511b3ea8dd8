// The jobs by OpenSSH's programs: runs ssh, sftp and scp. The figures are those of whole client processes,
// with connecting and login.

#define _GNU_SOURCE
#include <spawn.h>
#include <stdarg.h>
#include <sys/wait.h>

#include "client.h"

extern char** environ;

// ---- the command line of a client program

enum { MAX_WORDS = 64 };

static char const* command[MAX_WORDS + 1];
static int words;

static void add(char const* word) {
    if (words == MAX_WORDS) die("too many words for", command[0]);
    command[words++] = word;
    command[words] = NULL;
}

// A text made by printf's rules, which lives as long as the process.
__attribute__((format(printf, 1, 2))) static char const* text(char const* format, ...) {
    char* made;
    va_list arguments;
    va_start(arguments, format);
    if (vasprintf(&made, format, arguments) < 0) exit(1);
    va_end(arguments);
    return made;
}

static void offer(char const* option, char const* variable) {
    char const* names = getenv(variable);
    if (names) add(text("-o%s=%s", option, names));
}

static void start_command(char const* program) {
    static char const* const options[] = {
        "-F",
        "none",
        "-oCompression=no",
        "-oStrictHostKeyChecking=no",
        "-oUserKnownHostsFile=/dev/null",
        "-oGlobalKnownHostsFile=/dev/null",
        "-oUpdateHostKeys=no",
        "-oIdentitiesOnly=yes",
        "-oIdentityAgent=none",
        "-oPreferredAuthentications=publickey",
        "-oBatchMode=yes",
    };
    words = 0;
    add(program);
    for (size_t i = 0; i < sizeof options / sizeof *options; ++i) add(options[i]);
    add(getenv("BENCH_SHOW_ALGORITHMS") ? "-oLogLevel=DEBUG1" : "-oLogLevel=ERROR");
    offer("KexAlgorithms", "BENCH_KEX");
    offer("HostKeyAlgorithms", "BENCH_SIGNATURES");
    offer("PubkeyAcceptedAlgorithms", "BENCH_SIGNATURES");
    offer("Ciphers", "BENCH_CIPHERS");
    offer("MACs", "BENCH_MACS");
    add("-i");
    add(target.key);
    add(strcmp(program, "ssh") == 0 ? "-p" : "-P");
    add(text("%d", target.port));
}

static void add_server(void) { add(text("%s@%s", target.user, target.host)); }

// `ssh` with an option and a remote command.
static void start_ssh(char const* option, char const* remote_command) {
    start_command("ssh");
    add(option);
    add("-T");
    add_server();
    add(remote_command);
}

// ---- its process

// Negative for a descriptor: the program has this process's own.
static pid_t spawn(int input, int output) {
    pid_t process;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (input >= 0) posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    if (output >= 0) posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    if (posix_spawnp(&process, command[0], &actions, NULL, (char* const*)command, environ))
        die("spawn", command[0]);
    posix_spawn_file_actions_destroy(&actions);
    return process;
}

static void expect_success(pid_t process) {
    int status;
    if (waitpid(process, &status, 0) < 0 || status != 0) die("failed:", command[0]);
}

static void run(int input, int output) { expect_success(spawn(input, output)); }

static void become(void) {
    execvp(command[0], (char* const*)command);
    die("execute", command[0]);
}

static struct usage children_from(double wall) { return (struct usage){wall, 0, 0}; }

static void report_children(double start, long long bytes, long operations) {
    print_result(children_from(start), usage_of(RUSAGE_CHILDREN), bytes, operations);
}

static long long size_of(char const* path) {
    long long size;
    close(open_source(path, &size));
    return size;
}

// ---- jobs

// There is no way to stop right after the login: one "true" is included.
static void handshake(char** arguments) {
    long const count = atol(arguments[0]);
    double const start = usage_now().wall;
    start_ssh("-n", "true");
    for (long i = 0; i < count; ++i) run(-1, -1);
    report_children(start, 0, count);
}

static void hold(char** arguments) {
    (void)arguments;
    start_ssh("-T", "echo READY; cat >/dev/null");
    become();
}

// One master connection, and a process of its own for each command. The CPU time includes the master's login,
// the wall time does not.
static void exec(char** arguments) {
    long const count = atol(arguments[0]);
    char const* const control = text("-S/tmp/bench-control.%d", getpid());
    int input[2], output[2];
    char ready[64];
    if (pipe2(input, O_CLOEXEC) || pipe2(output, O_CLOEXEC)) die("pipe", "");
    start_command("ssh");
    add("-M");
    add(control);
    add("-T");
    add_server();
    add("echo ready; exec cat >/dev/null");
    pid_t const master = spawn(input[0], output[1]);
    if (read(output[0], ready, sizeof ready) < 1) die("no master", "connection");

    double const start = usage_now().wall;
    char const* const slave[] = {"ssh", "-F", "none", "-n", "-T", control};
    words = 0;
    for (size_t i = 0; i < sizeof slave / sizeof *slave; ++i) add(slave[i]);
    add_server();
    add("true");
    for (long i = 0; i < count; ++i) run(-1, -1);
    double const wall = usage_now().wall - start;
    close(input[1]);
    expect_success(master);
    report_children(usage_now().wall - wall, 0, count);
}

static void exec_source(char** arguments) {
    double const start = usage_now().wall;
    start_ssh("-n", text("head -c %s /dev/zero", arguments[0]));
    run(-1, create_file(arguments[1]));
    report_children(start, atoll(arguments[0]), 0);
}

static void exec_sink(char** arguments) {
    double const start = usage_now().wall;
    long long size;
    start_ssh("-T", "cat >/dev/null");
    run(open_source(arguments[0], &size), -1);
    report_children(start, size, 0);
}

// Has sftp execute one line, with one request in flight if `one_request` is set.
static void sftp(char const* line, char const* local_file, int one_request) {
    double const start = usage_now().wall;
    int input[2];
    if (pipe2(input, O_CLOEXEC)) die("pipe", "");
    start_command("sftp");
    add("-q");
    add("-b");
    add("-");
    if (one_request) {
        add("-B");
        add("32768");
        add("-R");
        add("1");
    }
    add_server();
    write_all(input[1], line, strlen(line));
    close(input[1]);
    run(input[0], open("/dev/null", O_WRONLY));
    report_children(start, size_of(local_file), 0);
}

static void get_over_sftp(char** arguments, int one_request) {
    sftp(text("get %s %s\n", arguments[0], arguments[1]), arguments[1], one_request);
}

static void put_over_sftp(char** arguments, int one_request) {
    sftp(text("put %s %s\n", arguments[0], arguments[1]), arguments[0], one_request);
}

static void sftp_get(char** arguments) { get_over_sftp(arguments, 0); }
static void sftp_get_sync(char** arguments) { get_over_sftp(arguments, 1); }
static void sftp_put(char** arguments) { put_over_sftp(arguments, 0); }
static void sftp_put_sync(char** arguments) { put_over_sftp(arguments, 1); }

static void scp(char const* from, char const* to, char const* local_file) {
    double const start = usage_now().wall;
    start_command("scp");
    add("-q");
    add("-O");
    add(from);
    add(to);
    run(-1, -1);
    report_children(start, size_of(local_file), 0);
}

static char const* remote(char const* path) { return text("%s@%s:%s", target.user, target.host, path); }

static void scp_get(char** arguments) { scp(remote(arguments[0]), arguments[1], arguments[1]); }
static void scp_put(char** arguments) { scp(arguments[0], remote(arguments[1]), arguments[0]); }

static void fwd(char** arguments) {
    start_command("ssh");
    add("-N");
    add("-T");
    add("-L");
    add(text("127.0.0.1:%s:%s:%s", arguments[0], arguments[1], arguments[2]));
    add_server();
    become();
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
    {"sftp-put-sync", 2, sftp_put_sync},
    {"scp-get", 2, scp_get},
    {"scp-put", 2, scp_put},
    {"fwd", 3, fwd},
    {NULL, 0, NULL},
};

int main(int argc, char** argv) { return run_job(argc, argv, jobs); }

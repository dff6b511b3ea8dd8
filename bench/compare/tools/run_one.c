// run_one REPORT PROGRAM ARGUMENT...
//
// Runs a program and writes into REPORT at once its process, and after its end the time, memory and context
// switches of it and its children. The parent is this small process because the peak memory of a forked child
// begins with that of its parent.

#define _GNU_SOURCE
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static double seconds(struct timeval time) { return (double)time.tv_sec + (double)time.tv_usec * 1e-6; }

static double now(void) {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (double)time.tv_sec + (double)time.tv_nsec * 1e-9;
}

int main(int argc, char** argv) {
    if (argc < 3) return 2;
    FILE* const report = fopen(argv[1], "we");
    if (!report) return 2;
    double const start = now();
    pid_t const process = fork();
    if (process == 0) {
        execvp(argv[2], argv + 2);
        perror(argv[2]);
        _exit(127);
    }
    fprintf(report, "process %d\n", (int)process);
    fflush(report);

    int status;
    struct rusage used;
    if (wait4(process, &status, 0, &used) < 0) return 2;
    fprintf(report, "wall %.6f\nuser %.6f\nsystem %.6f\npeak_kib %ld\nwaits %ld\n", now() - start,
            seconds(used.ru_utime), seconds(used.ru_stime), used.ru_maxrss, used.ru_nvcsw);
    fclose(report);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

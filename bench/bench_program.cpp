#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "bench/bench_program.h"

namespace bench {

namespace {

constexpr int UNSUPPORTED = 77;

/// A home directory with the known hosts of only this run.
class PrivateHome {
public:
    PrivateHome() {
        std::string name = (std::filesystem::temp_directory_path() / "bench-home-XXXXXX").string();
        if (!mkdtemp(name.data())) Die("mkdtemp failed");
        _path = name;
        std::filesystem::create_directory(_path / ".ssh");
        setenv("HOME", name.c_str(), 1);
    }
    ~PrivateHome() {
        std::error_code ignored;
        std::filesystem::remove_all(_path, ignored);
    }
    PrivateHome(PrivateHome const&) = delete;
    PrivateHome& operator=(PrivateHome const&) = delete;

private:
    std::filesystem::path _path;
};

int Run(int argc, char** argv, std::map<std::string, Job> const& jobs) {
    if (argc < 6) Die("usage: JOB HOST PORT USER KEY ...");
    auto const job = jobs.find(argv[1]);
    if (job == jobs.end()) return UNSUPPORTED;
    if (argc - 6 != job->second._arguments) Die(std::string("wrong number of arguments for ") + argv[1]);
    PrivateHome const home;
    Report report(argv[1]);
    Target const target = {argv[2], static_cast<unsigned short>(std::atoi(argv[3])), argv[4], argv[5]};
    return job->second._run(target, report, argv + 6);
}

} // namespace

void Die(std::string const& what) { throw std::runtime_error(what); }

double Now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

Usage Usage::Current() {
    rusage used;
    getrusage(RUSAGE_SELF, &used);
    auto const seconds = [](timeval const& t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) * 1e-6;
    };
    return {Now(), seconds(used.ru_utime), seconds(used.ru_stime)};
}

Report::Report(char const* job) : _job(job), _stream(fdopen(dup(STDOUT_FILENO), "w")) {
    if (!_stream) Die("no standard output");
}

Report::~Report() { std::fclose(_stream); }

void Report::Print(Usage const& start, Usage const& end, long long bytes, long count) {
    double const wall = end._wall - start._wall;
    std::fprintf(_stream, "RESULT job=%s bytes=%lld n=%ld wall=%.6f user=%.6f sys=%.6f", _job, bytes, count,
                 wall, end._user - start._user, end._system - start._system);
    if (bytes) std::fprintf(_stream, " MBps=%.1f", static_cast<double>(bytes) / 1e6 / wall);
    if (count) std::fprintf(_stream, " mean_ms=%.3f", wall * 1e3 / static_cast<double>(count));
    std::fprintf(_stream, "\n");
    std::fflush(_stream);
}

void Redirect(int to, char const* path, int flags) {
    int const fd = open(path, flags, 0644);
    if (fd < 0 || dup2(fd, to) < 0) Die(std::string("can't open ") + path);
    close(fd);
}

long long SizeOf(char const* path) {
    struct stat file;
    if (stat(path, &file) < 0) Die(std::string("no file ") + path);
    return file.st_size;
}

void HoldUntilEndOfInput() {
    std::printf("READY\n");
    std::fflush(stdout);
    char byte;
    while (read(STDIN_FILENO, &byte, 1) > 0) {
    }
}

int Main(int argc, char** argv, std::map<std::string, Job> const& jobs) {
    try {
        return Run(argc, argv, jobs);
    } catch (std::exception const& failure) {
        std::fprintf(stderr, "%s: %s\n", argv[0], failure.what());
        return 1;
    }
}

} // namespace bench

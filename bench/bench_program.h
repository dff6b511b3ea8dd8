#ifndef BENCH_BENCH_PROGRAM_H
#define BENCH_BENCH_PROGRAM_H

#include <cstdio>
#include <map>
#include <string>

/// What the benchmark programs share: the command line, the RESULT line for the harness, files.
///
///     PROGRAM JOB HOST PORT USER KEY ARGUMENT...      exit status 77: does not do that job
namespace bench {

constexpr unsigned int CONNECT_SECONDS = 20;

[[noreturn]] void Die(std::string const& what);
/// Monotonic time in seconds.
double Now();

struct Usage {
    double _wall;
    double _user;
    double _system;

    static Usage Current();
};

/// Standard output as it was at the start: a job gives descriptor 1 to the session channel.
class Report {
public:
    explicit Report(char const* job);
    ~Report();
    Report(Report const&) = delete;
    Report& operator=(Report const&) = delete;

    void Print(Usage const& start, Usage const& end, long long bytes, long count);

private:
    char const* _job;
    std::FILE* _stream;
};

struct Target {
    char const* _host;
    unsigned short _port;
    char const* _user;
    char const* _key;
};

/// Puts a file in the place of a descriptor.
void Redirect(int to, char const* path, int flags);
long long SizeOf(char const* path);
/// Says that the session is held, and waits for the end of standard input.
void HoldUntilEndOfInput();

struct Job {
    int _arguments; ///< after KEY
    int (*_run)(Target const&, Report&, char**);
};

/// Runs the job that the command line names, with a home of its own. Returns the exit status.
int Main(int argc, char** argv, std::map<std::string, Job> const& jobs);

} // namespace bench

#endif

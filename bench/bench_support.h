#ifndef BENCH_SUPPORT_H
#define BENCH_SUPPORT_H

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <sched.h>
#include <string>
#include <unistd.h>
#include <vector>

/// What the benchmarks have in common. Each is a program `NAME_bench PERCENT MEASUREMENT [FILE]`
/// that prints a line of JSON for each row of the report; the table of rows is in bench/run.
namespace bench {

using Clock = std::chrono::steady_clock;
using Values = std::vector<double>;

/// A kind of measurement, as the command line names it; it reports one row or several.
struct Measurement {
    const char* name;
    void (*measure)();
};

inline int percent = 100; ///< of all turns, how many this run has time for
inline std::string file;  ///< what to play or to read
inline std::FILE* lines = nullptr;

[[noreturn]] inline void fail(const std::string& what) {
    std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, what.c_str());
    std::exit(1);
}

/// Of the full number of turns or things, what this run has time for.
inline int share(int full, int least = 3) {
    return std::max(full * percent / 100, least);
}

/// A row: a value a turn, and the peer's of the same turns, if it has one.
inline void report(const char* row, const Values& ours, const Values& peer = {}) {
    std::fprintf(lines, "{\"row\": \"%s\"", row);
    for (const auto& [side, values] : {std::pair{"ours", &ours}, std::pair{"peer", &peer}}) {
        std::fprintf(lines, ", \"%s\": [", side);
        for (std::size_t i = 0; i < values->size(); ++i)
            std::fprintf(lines, "%s%.9g", i == 0 ? "" : ", ", (*values)[i]);
        std::fprintf(lines, "]");
    }
    std::fprintf(lines, "}\n");
    std::fflush(lines);
}

using Side = std::function<double()>;

/// The values of each side. All are measured in every turn, every other turn in reverse. One more
/// turn comes first, which does not count, where there is time to warm up.
inline std::vector<Values> interleave(int turns, const std::vector<Side>& sides) {
    std::vector<Values> values(sides.size());
    for (int turn = percent < 10 ? 1 : 0; turn <= turns; ++turn)
        for (std::size_t i = 0; i < sides.size(); ++i) {
            const std::size_t side = turn % 2 == 0 ? i : sides.size() - 1 - i;
            const double value = sides[side]();
            if (turn > 0)
                values[side].push_back(value);
        }
    return values;
}

/// A row without a peer.
inline void measure(const char* row, int turns, const Side& ours) {
    report(row, interleave(turns, {ours})[0]);
}

/// Both sides of a row, in turns.
inline void compare(const char* row, int turns, const Side& ours, const Side& peer) {
    const auto values = interleave(turns, {ours, peer});
    report(row, values[0], values[1]);
}

template <typename What>
double seconds(What what) {
    const auto start = Clock::now();
    what();
    return std::chrono::duration<double>(Clock::now() - start).count();
}

/// Nanoseconds that one of `count` calls takes.
template <typename What>
double nanosecondsEach(int count, What what) {
    return seconds([&] {
               for (int i = 0; i < count; ++i)
                   what();
           }) /
           count * 1e9;
}

/// Processor time of the process, or of the calling thread: what other programs take does not
/// count.
template <typename What>
double processorSeconds(What what, clockid_t clock = CLOCK_PROCESS_CPUTIME_ID) {
    const auto now = [clock] {
        timespec time{};
        clock_gettime(clock, &time);
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
    };
    const double begin = now();
    what();
    return now() - begin;
}

inline double residentMegabytes() {
    long size = 0, resident = 0;
    std::FILE* const statm = std::fopen("/proc/self/statm", "re");
    if (statm == nullptr || std::fscanf(statm, "%ld %ld", &size, &resident) != 2)
        fail("/proc/self/statm cannot be read");
    std::fclose(statm);
    return static_cast<double>(resident * sysconf(_SC_PAGESIZE)) / 1e6;
}

/// Puts this thread, and what it starts from now on, onto one processor.
inline void stayOn(std::size_t processor) {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(processor, &one);
    if (sched_setaffinity(0, sizeof one, &one) != 0)
        fail("sched_setaffinity");
}

/// The body of main(). What the library prints on standard output goes to standard error.
template <std::size_t count>
int run(int argc, char** argv, const Measurement (&measurements)[count]) {
    lines = fdopen(dup(STDOUT_FILENO), "w");
    if (lines == nullptr || dup2(STDERR_FILENO, STDOUT_FILENO) < 0)
        fail("standard output cannot be used");
    percent = argc > 1 ? std::atoi(argv[1]) : 0;
    file = argc > 3 ? argv[3] : "";
    for (const auto& measurement : measurements)
        if (percent > 0 && argc > 2 && std::string(argv[2]) == measurement.name) {
            measurement.measure();
            return 0;
        }
    fail("say how much and what to measure, as bench/run does");
}

} // namespace bench

#endif

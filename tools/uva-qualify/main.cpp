#include "common/output_file.h"
#include "limits.h"
#include "options.h"
#include "progress.h"
#include "report/report.h"
#include "run.h"
#include "worker.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <sys/utsname.h>
#include <unistd.h>

namespace qualify {

namespace {

std::string backendOf(const Options& options) {
    const char* const named = std::getenv("UVA_BACKEND_LIBRARY");
    return !options.backend.empty() ? options.backend
           : named && *named        ? named
                                    : "libuvagstbackend.so";
}

RunFacts factsOf(const Options& options) {
    utsname machine{};
    uname(&machine);
    char now[40];
    const std::time_t seconds = std::time(nullptr);
    std::tm parts{};
    std::strftime(now, sizeof now, "%Y-%m-%dT%H:%M:%SZ", gmtime_r(&seconds, &parts));
    return {backendOf(options),
            options.profile == Profile::Short ? "short" : "full",
            std::string(machine.sysname) + " " + machine.release + " " + machine.machine,
            now,
            options.baseline,
            {}};
}

int list() {
    for (unsigned int g = 0; g < groupCount; ++g) {
        std::printf("%s: %s\n", groupTable[g].name, groupTable[g].what);
        for (unsigned int i = 0; i < limitCount; ++i)
            if (std::strcmp(limitTable[i].group, groupTable[g].name) == 0)
                std::printf("  %s: %s\n", limitTable[i].check, limitTable[i].what);
    }
    return 0;
}

int fail(const std::string& text, int exitCode) {
    std::fprintf(stderr, "uva-qualify: %s\n", text.c_str());
    return exitCode;
}

bool isWanted(const Group& group, const Options& options) {
    const auto& names = options.groups;
    return names.empty() || std::find(names.begin(), names.end(), group.name) != names.end();
}

Results runAll(const Options& options, const StopSignals& stop, Progress& progress) {
    Results results;
    for (unsigned int i = 0; i < groupCount; ++i) {
        if (!isWanted(groupTable[i], options) || stop.received() != 0)
            continue;
        progress.groupBegins(groupTable[i]);
        results.push_back(runGroup(groupTable[i], options, stop,
                                   [&](const Finding& finding) { progress.found(finding); }));
        progress.groupEnds(results.back());
    }
    return results;
}

/// Whether all could be written.
bool write(const Options& options, const Results& results, const std::vector<Change>& changes,
           const RunFacts& facts) {
    bool written = true;
    const auto put = [&](const std::string& path, const auto& bytes) {
        const auto error = path.empty() ? std::string() : tools::writeFile(path, bytes());
        if (!error.empty())
            written = fail(error, 1) == 0;
    };
    put(options.json, [&] { return jsonReport(facts, results); });
    put(options.junit, [&] { return junitReport(facts, results); });
    put(options.html, [&] { return htmlReport(facts, results, changes); });
    return written;
}

/// A file that two reports are to go to, however they name it; empty: none.
std::string writtenTwice(const Options& options) {
    std::set<std::string> places;
    for (const auto* path : {&options.html, &options.junit, &options.json}) {
        std::error_code error;
        const auto place = std::filesystem::weakly_canonical(*path, error).string();
        const bool isFile = !path->empty() && !std::filesystem::is_character_file(*path, error);
        if (isFile && !places.insert(place).second)
            return *path;
    }
    return {};
}

int run(const Options& options) {
    for (const auto* path : {&options.html, &options.junit, &options.json})
        if (const auto error = tools::whyNotWritable(*path); !error.empty())
            return fail(error, 2);
    if (const auto twice = writtenTwice(options); !twice.empty())
        return fail(twice + " is to hold two reports; name another file for one of them", 2);
    Baseline before;
    if (!options.baseline.empty())
        before = readBaseline(options.baseline);
    if (!before.error.empty())
        return fail(before.error, 2);

    auto facts = factsOf(options);
    Progress progress;
    const StopSignals stop;
    const auto results = runAll(options, stop, progress);
    if (stop.received() != 0)
        facts.incomplete = std::string("stopped by ") + strsignal(stop.received());
    const auto changes =
        options.baseline.empty() ? std::vector<Change>() : compare(before, results);
    progress.end(results, changes);
    const bool written = write(options, results, changes, facts);
    const bool begun = std::any_of(results.begin(), results.end(),
                                   [](const auto& result) { return result.error.empty(); });
    const bool holds = count(results, Verdict::Failed) == 0 &&
                       std::all_of(results.begin(), results.end(),
                                   [](const auto& result) { return result.error.empty(); });
    if (!facts.incomplete.empty())
        return fail(facts.incomplete + "; the reports have what was found until then", 3);
    return !begun ? 2 : holds && written ? 0 : 1;
}

/// What is opened next would take the place of a standard stream that is closed, and be written to
/// or closed as such.
void openStandardStreams() {
    int descriptor = 0;
    while (descriptor >= 0 && descriptor <= STDERR_FILENO)
        descriptor = open("/dev/null", O_RDWR);
    if (descriptor > STDERR_FILENO)
        close(descriptor);
}

} // namespace

} // namespace qualify

int main(int argc, char** argv) {
    qualify::openStandardStreams();
    std::signal(SIGPIPE, SIG_IGN);
    const auto parsed = qualify::parseOptions(argc, argv);
    if (!parsed.options)
        return parsed.tell();
    if (!parsed.options->worker.empty())
        return qualify::work(*parsed.options);
    return parsed.options->list ? qualify::list() : qualify::run(*parsed.options);
}

#include "common/output_file.h"
#include "minimize.h"
#include "options.h"
#include "record.h"
#include "replay.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <unistd.h>

namespace replay {

namespace {

enum ExitCode { Same = 0, Differs = 1, CannotPlay = 3 };

int fail(const std::string& name, const std::string& reason) {
    std::fprintf(stderr, "uva-replay: %s: %s\n", name.c_str(), reason.c_str());
    return CannotPlay;
}

/// The records that are named, those of a folder in the order of their names. Empty: see `error`.
std::vector<std::string> recordsOf(const std::vector<std::string>& names, std::string& error) {
    std::vector<std::string> files;
    for (const auto& name : names) {
        std::error_code failure;
        if (!std::filesystem::is_directory(name, failure)) {
            files.push_back(name);
            continue;
        }
        std::vector<std::string> found;
        for (const auto& entry : std::filesystem::directory_iterator(name, failure))
            if (entry.path().extension() == ".uvarec")
                found.push_back(entry.path().string());
        std::sort(found.begin(), found.end());
        if (found.empty())
            error = name + ": there is no *.uvarec in it";
        files.insert(files.end(), found.begin(), found.end());
    }
    return error.empty() ? files : std::vector<std::string>();
}

int list(const record::Record& record) {
    for (const auto& entry : record.entries)
        std::printf("%s\n", record::describe(entry).c_str());
    for (const auto& torn : record.torn)
        std::printf("%12s  %llu bytes at offset %llu were not finished\n", "",
                    static_cast<unsigned long long>(torn.size),
                    static_cast<unsigned long long>(torn.offset));
    return Same;
}

int play(const std::string& name, const record::Record& record, const Settings& settings) {
    const auto outcome = replay(record, settings);
    if (!outcome.error.empty())
        return fail(name, outcome.error);
    if (outcome.differences.empty() && !settings.quiet)
        std::printf("%s: the same\n", name.c_str());
    for (const auto& difference : outcome.differences)
        std::printf("%s: at %.3f s: %s\n", name.c_str(), static_cast<double>(difference.time) / 1e9,
                    difference.text.c_str());
    return outcome.differences.empty() ? Same : Differs;
}

int minimizeTo(const std::string& out, const std::string& name, const record::Record& record,
               Settings settings) {
    if (const auto error = tools::whyNotWritable(out); !error.empty())
        return fail(out, error);
    settings.quiet = true;
    const auto first = replay(record, settings);
    if (!first.error.empty())
        return fail(name, first.error);
    if (first.differences.empty())
        return fail(name, "it does not fail: there is nothing to shorten");
    const Difference& wanted = first.differences.front();
    std::fprintf(stderr, "%s: at %.3f s: %s\n", name.c_str(),
                 static_cast<double>(wanted.time) / 1e9, wanted.text.c_str());
    const bool isLive = isatty(STDERR_FILENO) != 0;
    const auto bytes = minimize(
        record,
        [&](const record::Record& shorter) {
            const auto outcome = replay(shorter, settings);
            return std::any_of(outcome.differences.begin(), outcome.differences.end(),
                               [&](const Difference& found) { return isSame(found, wanted); });
        },
        [&](const Try& attempt) {
            if (isLive)
                std::fprintf(stderr, "\r\033[Ktry %zu: %zu of %zu calls", attempt.number,
                             attempt.left, attempt.all);
        });
    if (isLive)
        std::fprintf(stderr, "\r\033[K");
    const auto error = tools::writeFile(out, std::string(bytes.begin(), bytes.end()));
    if (!error.empty())
        return fail(out, error);
    const auto shortest = record::readRecord(bytes);
    std::printf("%s: %zu entries of %zu\n", out.c_str(), shortest.entries.size(),
                record.entries.size());
    return Differs;
}

int run(const Options& options) {
    std::string error;
    const auto files = recordsOf(options.records, error);
    if (!error.empty())
        return fail(error, "name a record, or a folder with some");
    int exitCode = Same;
    for (const auto& name : files) {
        const auto record = record::readRecordFile(name);
        const int code = !record.error.empty() ? fail(name, record.error)
                         : options.list        ? list(record)
                         : options.minimize.empty()
                             ? play(name, record, options.settings)
                             : minimizeTo(options.minimize, name, record, options.settings);
        exitCode = std::max(exitCode, code);
    }
    return exitCode;
}

} // namespace

} // namespace replay

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);
    const auto parsed = replay::parseOptions(argc, argv);
    if (!parsed.options)
        return parsed.tell();
    if (parsed.options->standalone)
        setenv("NOX_GST_STANDALONE", "1", 1);
    return replay::run(*parsed.options);
}

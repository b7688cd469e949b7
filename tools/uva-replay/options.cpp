#include "options.h"

#include <cstdlib>

namespace replay {

namespace {

constexpr const char* details = R"(
Examples:
  uva-host --standalone --record play.uvarec movie.mp4
      make a record
  uva-replay --list play.uvarec
      read it
  uva-replay --standalone play.uvarec
      do what the host did once more, in the recorded time, and say what the library does otherwise
  uva-replay --standalone --fast --media clips tests/records
      play the records of a folder as fast as events allow; their files are in another folder now
  uva-replay --standalone --library ./libother.so --minimize short.uvarec play.uvarec
      a record that fails with that library, without the calls that the failure does not need

Records come from uva-host --record, or from any host with UVA_RECORD=FILE in its environment.

Environment:
  UVA_BACKEND_LIBRARY   the backend library, unless --library names one
  UVA_RECORDER          the recorder (libuvarecord.so), which the replay passes through too
  NOX_PLAY_SPEED        how many times as fast as real time the simulated set plays

Exit codes:
  0  the library did what is in the records
  1  it did not, it crashed, or it hung: what differs is on standard output, the first thing first
  2  the command line is wrong
  3  a file is no record or cannot be played again, or the library cannot be loaded; the reason is
     on standard error
With --minimize 1 says that the shorter record is written.
)";

std::optional<std::chrono::milliseconds> parseMilliseconds(const std::string& text) {
    const auto number = tools::readNumber(text, 1, 3600000);
    return number ? std::optional(std::chrono::milliseconds(*number)) : std::nullopt;
}

std::optional<std::chrono::milliseconds> parseSeconds(const std::string& text) {
    const auto number = tools::readNumber(text, 0.001, 3600.0);
    return number ? std::optional(std::chrono::milliseconds(static_cast<long>(*number * 1000)))
                  : std::nullopt;
}

std::optional<host::KeyPair> parseKey(const std::string& text) {
    host::KeyPair pair;
    return host::parseKey(text, pair) ? std::optional(pair) : std::nullopt;
}

namespace form {

constexpr tools::Form<std::chrono::milliseconds> milliseconds{
    parseMilliseconds, "is no bound; write milliseconds, 1 to 3600000"};
constexpr tools::Form<std::chrono::milliseconds> seconds{parseSeconds,
                                                         "is no time; write seconds, e.g. 2.5"};
constexpr tools::Form<host::KeyPair> key{parseKey,
                                         "is no key; write KID:KEY, 32 hexadecimal digits each"};

} // namespace form

} // namespace

tools::Parsed<Options> parseOptions(int argc, const char* const* argv) {
    using tools::into;
    using tools::Use;
    Options options;
    auto& settings = options.settings;
    tools::CommandLine line{
        "uva-replay",
        "Plays the host's part of a record to a UVA backend library, and compares.",
        details,
        {{"Options",
          {{"records", "FILE|FOLDER", "Records; of a folder all *.uvarec", &options.records},
           {"--list", nullptr, "Print what is in them, and play nothing", &options.list},
           {"--library", "PATH", "The backend library (libuvagstbackend.so)", &settings.library},
           {"--standalone", nullptr, "Run without a main system: nobody arbitrates the decoders",
            &options.standalone},
           {"--fast", nullptr, "As fast as events allow, not in the recorded time",
            &settings.pace.fast},
           {"--bound", "MS",
            "How much longer a call or an event may take, and how far a position "
            "may be off (1000)",
            into(settings.bounds.time, form::milliseconds)},
           {"--patience", "T",
            "How long to wait for what the record has and the library does not "
            "do, seconds (5)",
            into(settings.pace.patience, form::seconds)},
           {"--media", "FOLDER", "Where files are that are not where they were when recorded",
            &settings.pace.media},
           {"--key", "KID:KEY", "A key for encrypted samples: records hold none",
            tools::into(settings.keys, form::key), Use::Repeated},
           {"--minimize", "OUT.uvarec", "Write the shortest part of the record that still fails",
            &options.minimize},
           {"--quiet", nullptr, "Print differences alone, and nothing of the library's",
            &settings.quiet}}}}};
    line.check = [&] {
        return options.records.empty() ? std::string("name a record")
               : !options.minimize.empty() && options.records.size() > 1
                   ? std::string("--minimize takes one record")
                   : std::string();
    };
    auto parsed = tools::parse(line, argc, argv, options);
    if (parsed.options)
        parsed.options->settings.bounds.fast = parsed.options->settings.pace.fast;
    return parsed;
}

} // namespace replay

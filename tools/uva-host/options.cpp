#include "options.h"

#include "host/capability_query.h"

#include <CLI/CLI.hpp>

#include <cmath>
#include <cstdio>
#include <sstream>

namespace uvahost {

namespace {

constexpr int usageError = 2;

constexpr const char* footer = R"(
Examples:
  uva-host --standalone movie.mp4
      play a file; without --standalone a main system must grant the decoders
  uva-host --standalone --seek 1:30 --duration 5 --snapshot frame.png movie.mp4
      seek to 1:30, play five seconds, keep the last picture
  uva-host --standalone --quiet --graph pipeline.svg --timeline trace.json movie.mp4
      keep the pipeline as a drawing, and a time line for ui.perfetto.dev
  uva-host --deny-resources movie.mp4
      see what happens when the decoders are refused
  uva-host --standalone --mse video.mp4 audio.mp4 --switch-at 4=video-hd.mp4
      take the files apart and feed their samples, as a browser does for media sources; at 4 s go
      over to another rendition
  uva-host --standalone --mse --key 0123..ef:4567..ab encrypted.mp4
      play common encryption with a key that is known
  uva-host --can-play 'video/mp4; codecs="avc1.640028,mp4a.40.2"' --width 1920 --height 1080
      ask what the backend can play

On a terminal, while playing:
  space  pause and go on        left, right  seek by 10 seconds        q  quit

Times are seconds (12.5) or m:ss (1:30). In a pipe the output is a log, a line an event.

Environment:
  UVA_DEFAULT_MEDIA     what to play when nothing is named
  UVA_BACKEND_LIBRARY   the backend library, unless --backend names one
  GST_DEBUG             what GStreamer tells the system log, e.g. 2 for its warnings

Exit codes:
  0    played to the end, for as long as asked, or until q was pressed; --can-play: yes
  1    playback failed or an output file could not be written; the reason is on standard error;
       --can-play: no
  2    the command line is wrong
  130  interrupted with Ctrl-C (128 and the signal's number for other signals)
)";

std::string badTime(const std::string& text) {
    return parseTime(text) ? std::string() : "'" + text + "' is no time; write 12.5 or 1:30";
}

std::string badWindow(const std::string& text) {
    return parseWindow(text) ? std::string()
                             : "'" + text + "' is no window; write X,Y,WxH, e.g. 0,0,640x360";
}

std::string badPeriod(const std::string& text) {
    const auto value = parseTime(text);
    return value && *value > 0 ? std::string() : "'" + text + "' is no time above 0";
}

/// The two sides of "T=REST"; false when T is no time or nothing follows.
bool splitAtTime(const std::string& text, double& time, std::string& rest) {
    const auto equals = text.find('=');
    const auto parsed = parseTime(text.substr(0, equals));
    if (equals == std::string::npos || !parsed || equals + 1 == text.size())
        return false;
    time = *parsed;
    rest = text.substr(equals + 1);
    return true;
}

std::optional<RenditionSwitch> parseSwitch(const std::string& text) {
    RenditionSwitch result;
    return splitAtTime(text, result.time, result.name) ? std::optional(result) : std::nullopt;
}

std::optional<Detach> parseDetach(const std::string& text) {
    Detach result;
    std::string kind;
    if (!splitAtTime(text, result.time, kind) || (kind != "audio" && kind != "video"))
        return std::nullopt;
    result.kind = kind == "audio" ? host::StreamInfo::Kind::Audio : host::StreamInfo::Kind::Video;
    return result;
}

std::string badSwitch(const std::string& text) {
    return parseSwitch(text) ? std::string()
                             : "'" + text + "' is no switch; write T=FILE, e.g. 4=hd.mp4";
}

std::string badDetach(const std::string& text) {
    return parseDetach(text) ? std::string() : "'" + text + "' is neither T=audio nor T=video";
}

std::string badKey(const std::string& text) {
    host::KeyPair pair;
    return host::parseKey(text, pair)
               ? std::string()
               : "'" + text + "' is no key; write KID:KEY, 32 hexadecimal digits each";
}

/// What CLI11 fills in: times, windows, keys as text, read once they are known to be valid.
struct Raw {
    std::vector<std::string> seeks, switches, detaches, keys;
    std::string duration, noProgressTimeout, snapshotAt, window, protect, keyDelay;
    std::string canPlay;
    UVABackend::ContentDescription asked;
};

void declareMediaSource(CLI::App& app, Options& options, Raw& raw) {
    const std::string group = "Media sources";
    auto* mse = app.add_flag("--mse", options.mse,
                             "Take the media apart and feed its samples; several files are the "
                             "audio and the video of one")
                    ->group(group);
    app.add_option("--switch-at", raw.switches, "Go on with another rendition from T on")
        ->type_name("T=FILE")
        ->allow_extra_args(false)
        ->check(badSwitch)
        ->needs(mse)
        ->group(group);
    app.add_option("--detach-at", raw.detaches, "Detach a source at T and attach it again")
        ->type_name("T=audio|video")
        ->allow_extra_args(false)
        ->check(badDetach)
        ->needs(mse)
        ->group(group);
    auto* key = app.add_option("--key", raw.keys, "A key for encrypted media")
                    ->type_name("KID:KEY")
                    ->allow_extra_args(false)
                    ->check(badKey)
                    ->needs(mse)
                    ->group(group);
    app.add_option("--key-delay", raw.keyDelay,
                   "Have the keys only so many milliseconds after they are needed")
        ->type_name("MS")
        ->check(CLI::Range(0, 3600000))
        ->needs(key)
        ->group(group);
    app.add_option("--protect", raw.protect,
                   "Encrypt clear samples on their way in, with the first key")
        ->type_name("cenc|cbcs")
        ->check(CLI::IsMember({"cenc", "cbcs"}))
        ->needs(key)
        ->group(group);
    app.add_flag("--full-sample-decrypter", options.fullSampleDecrypter,
                 "Decrypt samples in one call each, not range by range")
        ->needs(key)
        ->group(group);
}

void declareQuestions(CLI::App& app, Options& options, Raw& raw) {
    const std::string group = "Questions, in place of playing";
    auto* canPlay = app.add_option("--can-play", raw.canPlay,
                                   "Whether the backend can play a content type, and why not; "
                                   "parameters as in '...; width=1920' are read")
                        ->type_name("MIME")
                        ->check([](const std::string& text) {
                            return host::parseContentType(text)
                                       ? std::string()
                                       : "'" + text +
                                             "' is no content type; write e.g. "
                                             "'video/mp4; codecs=\"avc1.640028\"'";
                        })
                        ->group(group);
    struct Row {
        const char* name;
        std::string UVABackend::ContentDescription::*member;
        const char* help;
    };
    using Description = UVABackend::ContentDescription;
    static constexpr Row rows[] = {
        {"--width", &Description::width, "... of this width, pixels"},
        {"--height", &Description::height, "... of this height, pixels"},
        {"--framerate", &Description::framerate, "... at this rate, e.g. 25, 29.97 or 30000/1001"},
        {"--bitrate", &Description::bitrate, "... with so many bits per second"},
        {"--channels", &Description::channels, "... with so many channels"},
    };
    for (const auto& row : rows)
        app.add_option(row.name, raw.asked.*row.member, row.help)
            ->type_name("N")
            ->needs(canPlay)
            ->group(group);
    app.add_flag("--list-types", options.listTypes, "The MIME types that the backend can play")
        ->group(group);
}

void declare(CLI::App& app, Options& options, Raw& raw) {
    app.add_option("media", options.media, "Files or URLs, played one after the other")
        ->type_name("FILE|URL")
        ->envname("UVA_DEFAULT_MEDIA");
    app.add_flag("--standalone", options.standalone,
                 "Run without a main system: nobody arbitrates the decoders");
    app.add_option("--seek", raw.seeks,
                   "Seek there once playback has started; several one after the other")
        ->type_name("T[,T...]")
        ->delimiter(',')
        ->allow_extra_args(false)
        ->check(badTime);
    app.add_option("--duration", raw.duration, "Stop after playing for so long")
        ->type_name("T")
        ->check(badPeriod);
    app.add_option("--window", raw.window, "Place the picture, in a screen of 1280x720")
        ->type_name("X,Y,WxH")
        ->check(badWindow);
    app.add_flag("--deny-resources", options.denyResources,
                 "Refuse the decoders when the backend asks for them");
    auto* snapshot = app.add_option("--snapshot", options.snapshot,
                                    "Write the picture at the end (of the last file) as PNG")
                         ->type_name("OUT.png");
    app.add_option("--snapshot-at", raw.snapshotAt, "... or when the position passes T")
        ->type_name("T")
        ->check(badTime)
        ->needs(snapshot);
    app.add_option("--graph", options.graph,
                   "Write the pipeline's graph: OUT.dot as it is, OUT.svg drawn by Graphviz")
        ->type_name("OUT.svg|OUT.dot")
        ->check([](const std::string& path) {
            const auto dot = path.rfind('.');
            const auto ending = dot == std::string::npos ? std::string() : path.substr(dot);
            return ending == ".svg" || ending == ".dot" ? std::string()
                                                        : "'" + path + "' must end in .svg or .dot";
        });
    app.add_option("--timeline", options.timeline,
                   "Write operations, events and states as Chrome trace events")
        ->type_name("OUT.json");
    app.add_option("--no-progress-timeout", raw.noProgressTimeout,
                   "Give up when nothing moves for so long; 0: never (default: 5 to 30, by "
                   "what is waited for)")
        ->type_name("T")
        ->check(badTime);
    app.add_option("--backend", options.backend, "The backend library (libuvagstbackend.so)")
        ->type_name("PATH");
    app.add_flag("--quiet", options.quiet,
                 "Print nothing but errors and answers, nor let the library");
    declareMediaSource(app, options, raw);
    declareQuestions(app, options, raw);
    app.set_version_flag("--version", "uva-host " UVA_HOST_VERSION);
}

std::optional<double> timeOrNone(const std::string& text) {
    return text.empty() ? std::nullopt : parseTime(text);
}

void readMediaSource(const Raw& raw, Options& options) {
    for (const auto& text : raw.switches)
        options.switches.push_back(*parseSwitch(text));
    for (const auto& text : raw.detaches)
        options.detaches.push_back(*parseDetach(text));
    for (const auto& text : raw.keys) {
        options.keys.emplace_back();
        host::parseKey(text, options.keys.back());
    }
    if (!raw.keyDelay.empty())
        options.keyDelay = std::chrono::milliseconds(std::stol(raw.keyDelay));
    if (!raw.protect.empty())
        options.protect =
            raw.protect == "cenc" ? host::Protection::Scheme::Cenc : host::Protection::Scheme::Cbcs;
}

void readTexts(Raw& raw, Options& options) {
    for (const auto& text : raw.seeks)
        options.seeks.push_back(*parseTime(text));
    options.duration = timeOrNone(raw.duration);
    options.noProgressTimeout = timeOrNone(raw.noProgressTimeout);
    options.snapshotAt = timeOrNone(raw.snapshotAt);
    if (!raw.window.empty())
        options.window = parseWindow(raw.window);
    readMediaSource(raw, options);
    if (!raw.canPlay.empty()) {
        options.canPlay = host::parseContentType(raw.canPlay);
        for (const auto& parameter : host::contentParameters)
            if (const auto& value = raw.asked.*parameter.member; !value.empty())
                *options.canPlay.*parameter.member = value;
    }
    const bool asks = options.canPlay || options.listTypes;
    if (options.media.empty() && !asks)
        throw CLI::RequiredError("media");
}

} // namespace

std::optional<double> parseTime(const std::string& text) {
    constexpr std::size_t longest = 32;
    if (text.empty() || text.size() > longest)
        return std::nullopt;
    if (text.find_first_not_of("0123456789.:") != std::string::npos)
        return std::nullopt;

    std::vector<std::string> parts;
    std::istringstream stream(text + ":");
    for (std::string part; std::getline(stream, part, ':');)
        parts.push_back(part);
    if (parts.size() > 3)
        return std::nullopt;

    double total = 0;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        const bool last = i + 1 == parts.size();
        const auto point = parts[i].find('.');
        const bool malformed = parts[i].find_first_of("0123456789") == std::string::npos ||
                               parts[i].find('.', point + 1) != std::string::npos;
        if ((point != std::string::npos && (!last || malformed)) || malformed)
            return std::nullopt;
        const double value = std::stod(parts[i]);
        if (i > 0 && value >= 60)
            return std::nullopt;
        total = total * 60 + value;
    }
    constexpr double longestMedia = 1e9; // seconds; what nanoseconds in 64 bits hold
    return total <= longestMedia ? std::optional(total) : std::nullopt;
}

std::optional<UVABackend::Rect> parseWindow(const std::string& text) {
    UVABackend::Rect rect;
    int end = 0;
    constexpr const char* format = "%5d,%5d,%5dx%5d%n";
    if (std::sscanf(text.c_str(), format, &rect.x, &rect.y, &rect.width, &rect.height, &end) != 4)
        return std::nullopt;
    const bool whole = static_cast<std::size_t>(end) == text.size();
    const bool spaced = text.find_first_of(" \t\n") != std::string::npos;
    if (!whole || spaced || rect.width <= 0 || rect.height <= 0)
        return std::nullopt;
    return rect;
}

Parsed parseOptions(int argc, const char* const* argv) {
    Options options;
    Raw raw;
    CLI::App app("Plays media through a UVA backend library.", "uva-host");
    app.footer(footer);
    app.get_formatter()->column_width(34);
    app.set_help_flag("-h,--help", "Print this and exit");
    declare(app, options, raw);
    try {
        app.parse(argc, argv);
        readTexts(raw, options);
    } catch (const CLI::ParseError& error) {
        std::ostringstream out;
        std::ostringstream err;
        if (app.exit(error, out, err) == 0)
            return {std::nullopt, 0, out.str()};
        return {std::nullopt, usageError,
                "uva-host: " + std::string(error.what()) + "\nRun 'uva-host --help' for help.\n"};
    }
    return {std::move(options), 0, {}};
}

} // namespace uvahost

#include "options.h"

#include "host/capability_query.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <regex>

namespace uvahost {

namespace {

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

std::optional<RenditionSwitch> parseSwitch(const std::string& text) {
    const auto equals = text.find('=');
    const auto time = parseTime(text.substr(0, equals));
    if (equals == std::string::npos || !time || equals + 1 == text.size())
        return std::nullopt;
    return RenditionSwitch{*time, text.substr(equals + 1)};
}

std::optional<Detach> parseDetach(const std::string& text) {
    using Kind = host::StreamInfo::Kind;
    const auto parts = parseSwitch(text);
    if (!parts || (parts->name != "audio" && parts->name != "video"))
        return std::nullopt;
    return Detach{parts->time, parts->name == "audio" ? Kind::Audio : Kind::Video};
}

std::optional<double> parsePeriod(const std::string& text) {
    const auto time = parseTime(text);
    return time && *time > 0 ? time : std::nullopt;
}

std::optional<host::KeyPair> parseKey(const std::string& text) {
    host::KeyPair pair;
    return host::parseKey(text, pair) ? std::optional(pair) : std::nullopt;
}

std::optional<std::string> parseGraph(const std::string& path) {
    static const std::regex form("[^]*\\.(svg|dot)");
    return std::regex_match(path, form) ? std::optional(path) : std::nullopt;
}

/// What an option takes: how it is called in the help, how it is read, what is said of what it is
/// not.
template <typename Value>
struct Form {
    const char* name;
    std::optional<Value> (*read)(const std::string&);
    const char* complaint;

    Value operator()(const std::string& option, const std::string& text) const {
        if (auto value = read(text))
            return std::move(*value);
        throw CLI::ValidationError(option, "'" + text + "' " + complaint);
    }
};

constexpr Form<double> time{"T", parseTime, "is no time; write 12.5 or 1:30"};
constexpr Form<double> times{"T[,T...]", parseTime, time.complaint};
constexpr Form<double> period{"T", parsePeriod, "is no time above 0"};
constexpr Form<UVABackend::Rect> window{"X,Y,WxH", parseWindow,
                                        "is no window; write X,Y,WxH, e.g. 0,0,640x360"};
constexpr Form<std::string> graph{"OUT.svg|OUT.dot", parseGraph, "must end in .svg or .dot"};
constexpr Form<RenditionSwitch> rendition{"T=FILE", parseSwitch,
                                          "is no switch; write T=FILE, e.g. 4=hd.mp4"};
constexpr Form<Detach> detach{"T=audio|video", parseDetach, "is neither T=audio nor T=video"};
constexpr Form<host::KeyPair> key{"KID:KEY", parseKey,
                                  "is no key; write KID:KEY, 32 hexadecimal digits each"};
constexpr Form<UVABackend::ContentDescription> contentType{
    "MIME", host::parseContentType,
    "is no content type; write e.g. 'video/mp4; codecs=\"avc1.640028\"'"};

/// An option that may be given once.
template <typename Value, typename Target>
CLI::Option* addOne(CLI::App& app, const std::string& option, const Form<Value>& form,
                    Target& target, const char* help) {
    return app
        .add_option_function<std::string>(
            option, [=, &target](const std::string& text) { target = form(option, text); }, help)
        ->type_name(form.name);
}

/// One that may be given several times.
template <typename Value>
CLI::Option* addMany(CLI::App& app, const std::string& option, const Form<Value>& form,
                     std::vector<Value>& target, const char* help) {
    using Texts = std::vector<std::string>;
    return app
        .add_option_function<Texts>(
            option,
            [=, &target](const Texts& texts) {
                for (const auto& text : texts)
                    target.push_back(form(option, text));
            },
            help)
        ->type_name(form.name)
        ->allow_extra_args(false);
}

void declareMediaSource(CLI::App& app, Options& options) {
    auto* mse = app.add_flag("--mse", options.mse,
                             "Take the media apart and feed its samples; several files are the "
                             "audio and the video of one");
    addOne(app, "--start", time, options.start, "Begin at T")->needs(mse);
    addMany(app, "--switch-at", rendition, options.switches,
            "Go on with another rendition from T on")
        ->needs(mse);
    addMany(app, "--detach-at", detach, options.detaches,
            "Detach a source at T and attach it again")
        ->needs(mse);
    auto* keys = addMany(app, "--key", key, options.keys, "A key for encrypted media")->needs(mse);
    app.add_option_function<int>(
           "--key-delay", [&](int delay) { options.keyDelay = std::chrono::milliseconds(delay); },
           "Have the keys only so many milliseconds after they are needed")
        ->type_name("MS")
        ->check(CLI::Range(0, 3600000))
        ->needs(keys);
    app.add_option_function<std::string>(
           "--protect",
           [&](const std::string& scheme) {
               using Scheme = host::Protection::Scheme;
               options.protect = scheme == "cenc" ? Scheme::Cenc : Scheme::Cbcs;
           },
           "Encrypt clear samples on their way in, with the first key")
        ->type_name("cenc|cbcs")
        ->check(CLI::IsMember({"cenc", "cbcs"}))
        ->needs(keys);
    app.add_flag("--full-sample-decrypter", options.fullSampleDecrypter,
                 "Decrypt samples in one call each, not range by range")
        ->needs(keys);
}

using Description = UVABackend::ContentDescription;

/// The parameters go to `asked`: those of the type itself are read last, and count less.
void declareQuestions(CLI::App& app, Options& options, Description& asked) {
    auto* canPlay = addOne(app, "--can-play", contentType, options.canPlay,
                           "Whether the backend can play a content type, and why not; parameters "
                           "as in '...; width=1920' are read");
    static constexpr struct {
        const char* name;
        std::string Description::*member;
        const char* help;
    } rows[] = {
        {"--width", &Description::width, "... of this width, pixels"},
        {"--height", &Description::height, "... of this height, pixels"},
        {"--framerate", &Description::framerate, "... at this rate, e.g. 25, 29.97 or 30000/1001"},
        {"--bitrate", &Description::bitrate, "... with so many bits per second"},
        {"--channels", &Description::channels, "... with so many channels"},
    };
    for (const auto& row : rows)
        app.add_option(row.name, asked.*row.member, row.help)->type_name("N")->needs(canPlay);
    app.add_flag("--list-types", options.listTypes, "The MIME types that the backend can play");
}

void declare(CLI::App& app, Options& options) {
    app.add_option("media", options.media, "Files or URLs, played one after the other")
        ->type_name("FILE|URL")
        ->envname("UVA_DEFAULT_MEDIA");
    app.add_flag("--standalone", options.standalone,
                 "Run without a main system: nobody arbitrates the decoders");
    addMany(app, "--seek", times, options.seeks,
            "Seek there, a URL once playback has started; several one after the other")
        ->delimiter(',');
    addOne(app, "--duration", period, options.duration, "Stop after playing for so long");
    addOne(app, "--window", window, options.window, "Place the picture, in a screen of 1280x720");
    app.add_flag("--deny-resources", options.denyResources,
                 "Refuse the decoders when the backend asks for them");
    auto* snapshot = app.add_option("--snapshot", options.snapshot,
                                    "Write the picture at the end (of the last file) as PNG")
                         ->type_name("OUT.png");
    addOne(app, "--snapshot-at", time, options.snapshotAt, "... or when the position passes T")
        ->needs(snapshot);
    addOne(app, "--graph", graph, options.graph,
           "Write the pipeline's graph: OUT.dot as it is, OUT.svg drawn by Graphviz");
    app.add_option("--timeline", options.timeline,
                   "Write operations, events and states as Chrome trace events")
        ->type_name("OUT.json");
    addOne(app, "--no-progress-timeout", time, options.noProgressTimeout,
           "Give up when nothing moves for so long; 0: never (default: 5 to 30, by what is waited "
           "for)");
    app.add_option("--backend", options.backend, "The backend library (libuvagstbackend.so)")
        ->type_name("PATH");
    app.add_flag("--quiet", options.quiet,
                 "Print nothing but errors and answers, nor let the library");
}

} // namespace

std::optional<double> parseTime(const std::string& text) {
    static const std::regex form("(?:(?:(\\d+):)?(\\d+):)?(\\d+\\.?\\d*|\\.\\d+)");
    constexpr std::size_t longest = 32;
    constexpr double longestMedia = 1e9; // seconds; what nanoseconds in 64 bits hold
    std::smatch parts;                   // hours, minutes, seconds
    if (text.size() > longest || !std::regex_match(text, parts, form))
        return std::nullopt;
    double total = 0;
    for (std::size_t i = 1; i < parts.size(); ++i) {
        const double value = parts[i].matched ? std::stod(parts[i]) : 0;
        if (value >= 60 && i > 1 && parts[i - 1].matched)
            return std::nullopt;
        total = total * 60 + value;
    }
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

tools::Parsed<Options> parseOptions(int argc, const char* const* argv) {
    Options options;
    Description asked;
    CLI::App app("Plays media through a UVA backend library.", "uva-host");
    app.footer(footer);
    app.get_formatter()->column_width(34);
    app.set_help_flag("-h,--help", "Print this and exit");
    declare(app, options);
    app.option_defaults()->group("Media sources");
    declareMediaSource(app, options);
    app.option_defaults()->group("Questions, in place of playing");
    declareQuestions(app, options, asked);
    app.option_defaults()->group("Options");
    app.set_version_flag("--version", "uva-host " UVA_HOST_VERSION);
    app.callback([&] {
        for (const auto& parameter : host::contentParameters)
            if (const auto& value = asked.*parameter.member; !value.empty())
                *options.canPlay.*parameter.member = value;
        if (options.media.empty() && !options.canPlay && !options.listTypes)
            throw CLI::RequiredError("media");
    });
    return tools::parse(app, argc, argv, options);
}

} // namespace uvahost

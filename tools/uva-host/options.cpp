#include "options.h"

#include "common/script.h"
#include "host/capability_query.h"
#include "orders.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace uvahost {

namespace {

constexpr const char* examples = R"(
Examples:
  uva-host --standalone movie.mp4
      play a file; without --standalone a main system must grant the decoders
  uva-host --standalone --seek 1:30 --duration 5 --snapshot frame.png movie.mp4
      seek to 1:30, play five seconds, keep the last picture
  uva-host --standalone --quiet --graph pipeline.svg --timeline trace.json movie.mp4
      keep the pipeline as a drawing, and a time line for ui.perfetto.dev
  uva-host --standalone --record play.uvarec movie.mp4
      record what passes between host and library; uva-replay play.uvarec plays it again
  uva-host --deny-resources movie.mp4
      see what happens when the decoders are refused
  uva-host --standalone --mse video.mp4 audio.mp4 --switch-at 4=video-hd.mp4
      take the files apart and feed their samples, as a browser does for media sources; at 4 s go
      over to another rendition
  uva-host --standalone --mse --key 0123..ef:4567..ab encrypted.mp4
      play common encryption with a key that is known
  uva-host --standalone --script there-and-back.lua movie.mp4
      have playback do as a script says, such as

          expect_state("playing", 10)
          pause() sleep(0.5) play()
          expect_signal("SeekResult", 10, {number = seek(20), outcome = "succeeded"})
          expect_state("ended", 60)
          assert(status().pictures.dropped == 0, "pictures were dropped")

  uva-host --can-play 'video/mp4; codecs="avc1.640028,mp4a.40.2"' --width 1920 --height 1080
      ask what the backend can play

On a terminal, while playing:
  space  pause and go on        left, right  seek by 10 seconds        q  quit

In a script the signals are the backend's events, with their arguments as parameters, and SeekResult
with number, target, outcome and position; the states are those of "playback": opening, buffering,
playing, paused, seeking, ended, failed; '...' is what is played.

Times are seconds (12.5) or m:ss (1:30). In a pipe the output is a log, a line an event.

Environment:
  UVA_DEFAULT_MEDIA     what to play when nothing is named
  UVA_BACKEND_LIBRARY   the backend library, unless --backend names one
  UVA_RECORD            as --record; %p in the name is the process's number
  UVA_RECORD_PAYLOADS   digest: of samples keep the size and a hash only
  UVA_RECORDER          the recorder (libuvarecord.so)
  NOX_PLAY_SPEED        how many times as fast as real time the simulated set plays, up to 1000
  GST_DEBUG             what GStreamer tells the system log, e.g. 2 for its warnings

Exit codes:
  0    played to the end, for as long as asked, until q was pressed or the script has ended well;
       --can-play: yes
  1    playback or the script failed, or an output file, or standard output, could not be written;
       the reason is on standard error; --can-play: no
  2    the command line is wrong, or the script no script
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
    const std::string ending = path.substr(std::max<std::size_t>(path.size(), 4) - 4);
    return ending == ".svg" || ending == ".dot" ? std::optional(path) : std::nullopt;
}

std::optional<host::Protection::Scheme> parseScheme(const std::string& text) {
    using Scheme = host::Protection::Scheme;
    return text == "cenc"   ? std::optional(Scheme::Cenc)
           : text == "cbcs" ? std::optional(Scheme::Cbcs)
                            : std::nullopt;
}

std::optional<std::chrono::milliseconds> parseDelay(const std::string& text) {
    const auto delay = tools::readNumber(text, 0, 3600000);
    return delay ? std::optional(std::chrono::milliseconds(*delay)) : std::nullopt;
}

using tools::Form;
using tools::into;

namespace form {

constexpr Form<double> time{parseTime, "is no time; write 12.5 or 1:30"};
constexpr Form<double> period{parsePeriod, "is no time above 0"};
constexpr Form<UVABackend::Rect> window{parseWindow,
                                        "is no window; write X,Y,WxH, e.g. 0,0,640x360"};
constexpr Form<std::string> graph{parseGraph, "must end in .svg or .dot"};
constexpr Form<RenditionSwitch> rendition{parseSwitch, "is no switch; write T=FILE, e.g. 4=hd.mp4"};
constexpr Form<Detach> detach{parseDetach, "is neither T=audio nor T=video"};
constexpr Form<host::KeyPair> key{parseKey, "is no key; write KID:KEY, 32 hexadecimal digits each"};
constexpr Form<std::chrono::milliseconds> delay{parseDelay,
                                                "is no delay; write milliseconds, up to 3600000"};
constexpr Form<host::Protection::Scheme> scheme{parseScheme, "is neither cenc nor cbcs"};
constexpr Form<UVABackend::ContentDescription> contentType{
    host::parseContentType, "is no content type; write e.g. 'video/mp4; codecs=\"avc1.640028\"'"};

} // namespace form

/// Several values with commas between.
tools::Read list(const tools::Read& one) {
    return [one](const std::string& text) {
        for (std::size_t begin = 0, end = 0; end != std::string::npos; begin = end + 1) {
            end = text.find(',', begin);
            if (auto error = one(text.substr(begin, end - begin)); !error.empty())
                return error;
        }
        return std::string();
    };
}

using tools::Use;

tools::OptionGroup playing(Options& options) {
    return {
        "Options",
        {{"media", "FILE|URL", "Files or URLs, played one after the other", &options.media},
         {"--standalone", nullptr, "Run without a main system: nobody arbitrates the decoders",
          &options.standalone},
         {"--seek", "T[,T...]", "Seek there once playback has started; several one after the other",
          list(into(options.seeks, form::time)), Use::Repeated},
         {"--duration", "T", "Stop after playing for so long",
          into(options.duration, form::period)},
         {"--loop", nullptr, "Play it all again and again, until interrupted or until it fails",
          &options.loop},
         {"--window", "X,Y,WxH", "Place the picture, in a screen of 1280x720",
          into(options.window, form::window)},
         {"--deny-resources", nullptr, "Refuse the decoders when the backend asks for them",
          &options.denyResources},
         {"--snapshot", "OUT.png", "Write the picture at the end (of the last file) as PNG",
          &options.snapshot},
         {"--snapshot-at", "T", "... or when the position passes T",
          into(options.snapshotAt, form::time), Use::Once, "--snapshot"},
         {"--graph", "OUT.svg|OUT.dot",
          "Write the pipeline's graph: OUT.dot as it is, OUT.svg drawn by Graphviz",
          into(options.graph, form::graph)},
         {"--timeline", "OUT.json",
          "Begin a time line there: what host, library and sinks do, for Perfetto",
          &options.timeline},
         {"--record", "OUT.uvarec", "Record every call, event, sample and answer, for uva-replay",
          &options.record},
         {"--script", "FILE",
          "Run a script while it plays, for each of the media anew; playback ends with it",
          &options.script},
         {"--no-progress-timeout", "T",
          "Give up when nothing moves for so long; 0: never (default: 5 to 30, by what is waited "
          "for)",
          into(options.noProgressTimeout, form::time)},
         {"--backend", "PATH", "The backend library (libuvagstbackend.so)", &options.backend},
         {"--quiet", nullptr, "Print nothing but errors and answers, nor let the library",
          &options.quiet}}};
}

tools::OptionGroup mediaSources(Options& options) {
    return {"Media sources",
            {{"--mse", nullptr,
              "Take the media apart and feed its samples; several files are the audio and the "
              "video of one",
              &options.mse},
             {"--start", "T", "Begin at T", into(options.start, form::time), Use::Once, "--mse"},
             {"--switch-at", "T=FILE", "Go on with another rendition from T on",
              into(options.switches, form::rendition), Use::Repeated, "--mse"},
             {"--detach-at", "T=audio|video", "Detach a source at T and attach it again",
              into(options.detaches, form::detach), Use::Repeated, "--mse"},
             {"--key", "KID:KEY", "A key for encrypted media", into(options.keys, form::key),
              Use::Repeated, "--mse"},
             {"--key-delay", "MS", "Have the keys only so many milliseconds after they are needed",
              into(options.keyDelay, form::delay), Use::Once, "--key"},
             {"--protect", "cenc|cbcs", "Encrypt clear samples on their way in, with the first key",
              into(options.protect, form::scheme), Use::Once, "--key"},
             {"--full-sample-decrypter", nullptr,
              "Decrypt samples in one call each, not range by range", &options.fullSampleDecrypter,
              Use::Once, "--key"}}};
}

using Description = UVABackend::ContentDescription;

/// The parameters go to `asked`: those of the type itself are read last, and count less.
tools::OptionGroup questions(Options& options, Description& asked) {
    const auto parameter = [&](const char* name, std::string& value, const char* help) {
        return tools::Option{name, "N", help, &value, Use::Once, "--can-play"};
    };
    return {"Questions, in place of playing",
            {{"--can-play", "MIME",
              "Whether the backend can play a content type, and why not; parameters as in '...; "
              "width=1920' are read",
              into(options.canPlay, form::contentType)},
             parameter("--width", asked.width, "... of this width, pixels"),
             parameter("--height", asked.height, "... of this height, pixels"),
             parameter("--framerate", asked.framerate,
                       "... at this rate, e.g. 25, 29.97 or 30000/1001"),
             parameter("--bitrate", asked.bitrate, "... with so many bits per second"),
             parameter("--channels", asked.channels, "... with so many channels"),
             {"--list-types", nullptr, "The MIME types that the backend can play",
              &options.listTypes}}};
}

/// What the options say together; empty, or what is wrong with it.
std::string complete(Options& options, const Description& asked) {
    for (const auto& parameter : host::contentParameters)
        if (const auto& value = asked.*parameter.member; !value.empty())
            *options.canPlay.*parameter.member = value;
    const char* const media = std::getenv("UVA_DEFAULT_MEDIA");
    if (options.media.empty() && media && *media)
        options.media = {media};
    const bool nothing = options.media.empty() && !options.canPlay && !options.listTypes;
    return nothing ? "nothing to play; name a file or a URL" : "";
}

} // namespace

std::optional<double> parseTime(const std::string& text) {
    constexpr double longestMedia = 1e9; // seconds; what nanoseconds in 64 bits hold
    if (text.find_first_not_of("0123456789:.") != std::string::npos)
        return std::nullopt;
    double total = 0;
    std::size_t begin = 0;
    for (const int part : {0, 1, 2}) { // hours, minutes, seconds, or the last of them
        const auto end = text.find(':', begin);
        const bool last = end == std::string::npos;
        const auto digits = text.substr(begin, end - begin);
        const auto value = tools::readNumber(digits, 0.0, longestMedia);
        if (!value || (part > 0 && *value >= 60) || (!last && digits.find('.') < digits.size()))
            return std::nullopt;
        total = total * 60 + *value;
        if (last)
            return total <= longestMedia ? std::optional(total) : std::nullopt;
        begin = end + 1;
    }
    return std::nullopt;
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
    tools::CommandLine line{"uva-host",
                            "Plays media through a UVA backend library.",
                            "\nCommands of scripts:\n" + ordersHelp() + tools::scriptHelp +
                                examples,
                            {playing(options), mediaSources(options), questions(options, asked)}};
    line.check = [&] { return complete(options, asked); };
    return tools::parse(line, argc, argv, options);
}

} // namespace uvahost

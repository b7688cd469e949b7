#include "options.h"

#include "groups/groups.h"

namespace qualify {

namespace {

constexpr const char* details = R"(
It plays clips whose pictures carry numbers and whose sound has a pulse each second, and judges what is
shown and heard. Each group of checks runs in a process of its own: one that crashes or hangs has failed,
and the others run. All tolerances are in the report, each with its source.

Examples:
  uva-qualify --html report.html
      all groups, on the set as it is: its main system grants the decoders
  uva-qualify --standalone --group playback --group seek
      two groups, with nobody who arbitrates the decoders
  tvbox -- uva-qualify --short --main-system zant-mainsys --json now.json --baseline before.json
      a quick look at the simulated set; the main system is started for its group and commanded.
      What got better or worse since before is told

On the simulated set every picture and every sound is seen in the sinks. On others pictures are
captured, now and then, and sound is not heard: what cannot be judged so is told as "not judged" with
the reason, and counts neither way. So is what this machine was too busy for.

Environment:
  UVA_BACKEND_LIBRARY  the backend library, unless --backend names one
  UVA_QUALIFY_MEDIA    the folder with the test clips, unless --media names one

Exit codes:
  0  all that was judged holds
  1  something does not hold, or an output file could not be written
  2  the command line is wrong, or nothing could be tried
  3  a signal (SIGINT, SIGTERM, SIGHUP) stopped it; the reports have what was found until then
)";

std::optional<std::string> parseGroup(const std::string& text) {
    return findGroup(text.c_str()) != nullptr ? std::optional(text) : std::nullopt;
}

std::optional<Observe> parseObserve(const std::string& text) {
    return text == "sinks"     ? std::optional(Observe::Sinks)
           : text == "capture" ? std::optional(Observe::Capture)
                               : std::nullopt;
}

std::optional<unsigned int> parseElements(const std::string& text) {
    return tools::readNumber(text, 1U, 64U);
}

std::optional<int> parseDescriptor(const std::string& text) {
    return tools::readNumber(text, 0, 1 << 20);
}

using tools::Form;
using tools::into;
using tools::Use;

namespace form {

constexpr Form<std::string> group{parseGroup, "is no group; --list names them"};
constexpr Form<Observe> observe{parseObserve, "is neither sinks nor capture"};
constexpr Form<unsigned int> elements{parseElements, "is no number from 1 to 64"};
constexpr Form<int> descriptor{parseDescriptor, "is no descriptor"};

} // namespace form

} // namespace

tools::Parsed<Options> parseOptions(int argc, const char* const* argv) {
    Options options;
    bool isShort = false;
    tools::CommandLine line{
        "uva-qualify",
        "Measures whether a television plays as it should through its UVA backend library.",
        details,
        {{"Options",
          {{"--backend", "LIB", "The backend library (libuvagstbackend.so)", &options.backend},
           {"--group", "NAME", "Run this group of checks; may be repeated (all)",
            into(options.groups, form::group), Use::Repeated},
           {"--list", nullptr, "List the groups and their checks, and run none", &options.list},
           {"--short", nullptr, "Try less of everything: a minute instead of many", &isShort},
           {"--standalone", nullptr, "Run without a main system: nobody arbitrates the decoders",
            &options.standalone},
           {"--main-system", "PROGRAM",
            "Start this zant-mainsys for the group that needs one, and command it; the other "
            "groups "
            "run without",
            &options.mainSystem},
           {"--elements", "N", "How many elements the set can play at a time (8)",
            into(options.elements, form::elements)},
           {"--observe", "sinks|capture",
            "How pictures are seen (in the simulated sinks where there are any, else captured)",
            into(options.observe, form::observe)},
           {"--media", "FOLDER", "The test clips (those that came with the program)",
            &options.media}}},
         {"Report",
          {{"--html", "FILE", "Write the report as a page, with pictures and plots", &options.html},
           {"--junit", "FILE", "... as JUnit XML", &options.junit},
           {"--json", "FILE", "... as JSON", &options.json},
           {"--baseline", "OLD.json", "Tell what got better or worse since that report",
            &options.baseline}}},
         {"Of its own processes",
          {{"--run-group", "NAME", "Be the process of this group",
            into(options.worker, form::group), Use::Once, "--result-fd"},
           {"--result-fd", "N", "Tell what was found there",
            into(options.result, form::descriptor)}}}}};
    line.check = [&] {
        options.profile = isShort ? Profile::Short : Profile::Full;
        if (options.media.empty())
            options.media = defaultMediaFolder();
        return std::string();
    };
    return tools::parse(line, argc, argv, options);
}

} // namespace qualify

#include "options.h"

#include "command.h"

#include <sys/stat.h>

namespace mainsys {

namespace {

constexpr const char* purpose =
    R"(Plays the television's main system: owns the decoders, and talks to the plug-in over the queues
/BplayerAppIfUlDestFunc (its own) and /BplayerAppIfLlDestFunc with payloads in shared memory. Prints
every signal that passes, and obeys commands from standard input or from a scenario file.)";

constexpr const char* examples = R"(
A line for each signal: seconds since the start, <- from the plug-in or -> to it, number, name, what
is set of the parameters, sequence number, what the payload says.

Signals are named in full, without SIG_ID_ or SIG_ID_MPLAYER_, or by number. In a scenario each line
is a command, '#' begins a comment, and commands are obeyed one after the other; 'expect' and 'wait'
hold those behind them. At the end the program ends. A scenario is for one player: once that has
ended nothing is waited for, and what is still expected has failed.

Examples:
  tvbox --main-system zant-mainsys uva-host clip.mp4
      play a clip with a main system that grants what is asked for
  UVA_TIMELINE=line.json tvbox --main-system zant-mainsys uva-host clip.mp4
      the same, and both record what happens into one file, for ui.perfetto.dev
  zant-mainsys --scenario refuse-video.txt
      play a scenario
  printf '%s\n' 'delay 3000' | zant-mainsys
      be slow

  A scenario:
      ignore
      expect DECODER_NEEDED_IND 2 within 10000
      grant
      release video
      expect DECODER_RELEASE_RESP 2 within 5000

Environment:
  TRID_CPUCOMM_ARENA, TRID_CPUCOMM_SIZE   name and size of the shared memory
  UVA_TIMELINE    a time line to which this program's part is added
  NOTIFY_SOCKET   gets "READY=1" once the queue is served (at once with --down)

Exit codes:
  0    the scenario held; without one: ended by 'quit', SIGTERM or Ctrl-C
  1    an expectation failed, or the link or an output file could not be opened
  2    the command line or a line of the scenario is wrong
  3    another main system serves the queue; the line on standard error says which
  137  'crash' (128 and SIGKILL)
)";

std::optional<int> parseDecoders(const std::string& text) {
    return tools::readNumber(text, 0, 16);
}

/// Pipes are fine.
std::optional<std::string> parseScenario(const std::string& path) {
    struct stat info {};
    const bool readable = stat(path.c_str(), &info) == 0 && !S_ISDIR(info.st_mode);
    return readable ? std::optional(path) : std::nullopt;
}

constexpr tools::Form<int> decoders{parseDecoders, "is no number from 0 to 16"};
constexpr tools::Form<std::string> scenario{parseScenario, "is no file that is there"};

} // namespace

tools::Parsed<Options> parseOptions(int argc, const char* const* argv) {
    Options options;
    using tools::into;
    const tools::CommandLine line{
        "zant-mainsys",
        purpose,
        "\nCommands:\n" + commandHelp() + examples,
        {{"Options",
          {{"--scenario", "FILE", "Commands to obey, a line each; then end",
            into(options.scenario, scenario)},
           {"--timeline", "OUT.json", "Begin a time line there, for Perfetto", &options.timeline},
           {"--audio", "N", "Number of audio decoders, up to 16 (1)",
            into(options.audioDecoders, decoders)},
           {"--video", "N", "Number of video decoders, up to 16 (1)",
            into(options.videoDecoders, decoders)},
           {"--down", nullptr, "Begin without a main system, until 'restart'", &options.down},
           {"--quiet", nullptr, "Print nothing but failed expectations and errors",
            &options.quiet}}}}};
    return tools::parse(line, argc, argv, options);
}

} // namespace mainsys

#include "options.h"

#include "common/script.h"
#include "orders.h"

namespace mainsys {

namespace {

constexpr const char* purpose =
    R"(Plays the television's main system: owns the decoders, and talks to the plug-in over the queues
/BplayerAppIfUlDestFunc (its own) and /BplayerAppIfLlDestFunc with payloads in shared memory. Prints
every signal that passes, and obeys commands from standard input or a script.)";

constexpr const char* examples = R"(
A line for each signal: seconds since the start, <- from the plug-in or -> to it, number, name, what
is set of the parameters, sequence number, what the payload says.

On standard input a command is a line, its arguments words: 'grant video', 'delay 1.5',
'raw 530 size=-1 address=8', and 'help'. In a script it is a function: grant("video"). '#' begins a
comment on standard input, '--' in a script.

Examples:
  tvbox --main-system zant-mainsys uva-host clip.mp4
      play a clip with a main system that grants what is asked for
  UVA_TIMELINE=line.json tvbox --main-system zant-mainsys uva-host clip.mp4
      the same, and both record what happens into one file, for ui.perfetto.dev
  printf '%s\n' 'delay 3' | zant-mainsys
      be slow
  tvbox --with 'zant-mainsys --script late.lua' uva-host clip.mp4
      play a script, such as

          ignore()
          local asked = expect_signal("DECODER_NEEDED_IND", 10)
          sleep(3)
          grant(asked.kinds)      -- "audio", "video" or "both"
          grant()                 -- and whatever else is asked for
          expect_signal("VIDEO_FORMAT_IND", 60)
          release("video")
          expect_signal("DECODER_RELEASE_RESP", 60, {kinds = "video"})

While a script computes nothing else goes on; while it waits, signals are taken one at a time and
answered. Those that scripts wait for are those of the plug-in, by any part of their names; each has
number, param1 to param4, sequence, kinds and payload. States are those of "video decoder" and "audio
decoder": free, asked for, granted, lent; and of "main system": up, down. When the player ends, waits
are over, and what is still expected fails; behind wait_signal("PLAYER_ENDED", timeout) they are for
the next player. At the end of the script the program ends.

Environment:
  TRID_CPUCOMM_ARENA, TRID_CPUCOMM_SIZE   name and size of the shared memory
  UVA_TIMELINE    a time line to which this program's part is added
  NOTIFY_SOCKET   gets "READY=1" once the queue is served (at once with --down)

Exit codes:
  0    the script has ended well; without one: ended by 'quit', SIGTERM or Ctrl-C
  1    the script has failed, the link or an output file could not be opened, or standard output
       not be written
  2    the command line is wrong, or the script no script
  3    another main system serves the queue; the line on standard error says which
  137  'crash' (128 and SIGKILL)
)";

std::optional<int> parseDecoders(const std::string& text) {
    return tools::readNumber(text, 0, 16);
}

constexpr tools::Form<int> decoders{parseDecoders, "is no number from 0 to 16"};

} // namespace

tools::Parsed<Options> parseOptions(int argc, const char* const* argv) {
    Options options;
    using tools::into;
    const tools::CommandLine line{
        "zant-mainsys",
        purpose,
        "\nCommands:\n" + ordersHelp() + tools::scriptHelp + examples,
        {{"Options",
          {{"--script", "FILE", "Run a script in place of commands; then end", &options.script},
           {"--timeline", "OUT.json", "Begin a time line there, for Perfetto", &options.timeline},
           {"--audio", "N", "Number of audio decoders, up to 16 (1)",
            into(options.audioDecoders, decoders)},
           {"--video", "N", "Number of video decoders, up to 16 (1)",
            into(options.videoDecoders, decoders)},
           {"--down", nullptr, "Begin without a main system, until 'restart'", &options.down},
           {"--quiet", nullptr, "Print nothing but errors and what a script logs",
            &options.quiet}}}}};
    return tools::parse(line, argc, argv, options);
}

} // namespace mainsys

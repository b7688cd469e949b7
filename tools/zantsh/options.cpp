#include "options.h"

#include "exit_code.h"

#include <CLI/CLI.hpp>
#include <cstdlib>

namespace zantsh {

namespace {

constexpr char purpose[] =
    R"(Talks to the debug shell of a running process: of this user's, or of anybody's as root.

  zantsh [OPTIONS] COMMAND [PARAMETER]...    runs one command
  zantsh [OPTIONS]                           asks for commands; history, Tab completes names

'zantsh m_help' lists the commands; 'exit' or Ctrl-D leaves.)";

constexpr char details[] = R"(
Output
  The shell itself answers OK or ERR and nothing else. What a command prints goes where the
  process's own output goes; zantsh looks there while the command runs:
    - standard output into a file, or a trace log (zanttrc*.log) that the process has open: zantsh
      follows the file and shows what is added. Output that others cause meanwhile shows too.
    - a terminal: the output appears there, not here. A pipe can be read once, by its reader.
      zantsh says which.
    - syslog: listings never go there, traces do. --follow FILE shows any file beside, such as
      /var/log/syslog; where there is only a journal, use journalctl -f.
  A process that prints nothing may have its output switched off: zantsh m_starttracingtoscreen.
  To know the process, zantsh sends it an m_echo without text before each command.

Boxes
  Without --box, the shell of this system is used; if there is none, that of the only running box
  of tvbox. 'tvbox --list' lists them.

Exit code
  0 for OK, 1 for ERR, 2 when no shell answers. Without COMMAND, that of the last command.
  After a time-out the command may still be running.

Examples
  zantsh m_threadlist
  zantsh --timeout 120 m_sleep 60
  zantsh --box tv1 m_traceon 9 TRACELEVEL_DEBUG
)";

} // namespace

Options parseOptions(int argc, char** argv) {
    Options options;
    double seconds = 10;
    CLI::App app(purpose, "zantsh");
    app.footer(details);
    app.prefix_command();
    app.add_option("--socket", options.socket, "Name of the shell's socket in /tmp")
        ->type_name("NAME")
        ->capture_default_str();
    app.add_option("--timeout", seconds, "Wait that long for an answer")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.001, 1e6))
        ->capture_default_str();
    app.add_option("--box", options.box, "The shell inside a box of tvbox")->type_name("NAME");
    app.add_option("--follow", options.follow, "Show what is added to this file, too")
        ->type_name("FILE")
        ->allow_extra_args(false);
    try {
        app.parse(argc, argv);
        for (const std::string& word : app.remaining()) {
            if (options.command.empty() && word == "--")
                continue;
            if (options.command.empty() && word[0] == '-')
                throw CLI::ExtrasError({word});
            options.command += (options.command.empty() ? "" : " ") + word;
        }
        if (options.socket.empty() || options.socket.find('/') != std::string::npos)
            throw CLI::ValidationError("--socket", "give the name alone, without /tmp/");
    } catch (const CLI::ParseError& error) {
        std::exit(app.exit(error) == 0 ? ExitOk : ExitNoShell);
    }
    options.timeout = std::chrono::milliseconds(static_cast<long long>(seconds * 1000));
    return options;
}

} // namespace zantsh
